// SPDX-License-Identifier: MIT
// A small streaming JSON writer for the trace lines and the summary: keys in
// the order written, commas handled, strings escaped.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace boardsim {

class JsonWriter {
public:
    JsonWriter();

    // key is ignored (must be nullptr) inside arrays and at the top.
    JsonWriter& beginObject(const char* key = nullptr);
    JsonWriter& endObject();
    JsonWriter& beginArray(const char* key = nullptr);
    JsonWriter& endArray();

    JsonWriter& number(const char* key, std::int64_t value);
    JsonWriter& unsignedNumber(const char* key, std::uint64_t value);
    JsonWriter& boolean(const char* key, bool value);
    JsonWriter& null(const char* key);
    JsonWriter& string(const char* key, const char* text);
    JsonWriter& string(const char* key, const char* text, std::size_t length);
    JsonWriter& string(const char* key, const std::string& text);
    // Lower-case hex digits of the bytes, as a string; null when bytes is null.
    JsonWriter& hex(const char* key, const std::uint8_t* bytes, std::size_t length);

    const std::string& text() const { return m_text; }
    std::string& text() { return m_text; }

private:
    void separate(const char* key);
    // A nested object or array: its opening or closing bracket.
    JsonWriter& open(const char* key, char bracket, bool array);
    JsonWriter& close(char bracket);

    static constexpr int kMaxDepth = 16;
    std::string m_text;
    bool m_first[kMaxDepth];
    bool m_inArray[kMaxDepth];
    int m_depth;
};

void appendJsonString(std::string& out, const char* text, std::size_t length);

}  // namespace boardsim
