// SPDX-License-Identifier: MIT
#include "json_writer.h"

#include <cstring>

namespace boardsim {

JsonWriter::JsonWriter() : m_first{}, m_inArray{}, m_depth(0)
{
    m_text.reserve(256);
}

void JsonWriter::separate(const char* key)
{
    if (m_depth > 0) {
        if (!m_first[m_depth - 1]) {
            m_text += ',';
        }
        m_first[m_depth - 1] = false;
        if (!m_inArray[m_depth - 1] && key != nullptr) {
            appendJsonString(m_text, key, std::strlen(key));
            m_text += ':';
        }
    }
}

JsonWriter& JsonWriter::open(const char* key, char bracket, bool array)
{
    separate(key);
    m_text += bracket;
    if (m_depth < kMaxDepth) {
        m_first[m_depth] = true;
        m_inArray[m_depth] = array;
        ++m_depth;
    }
    return *this;
}

JsonWriter& JsonWriter::close(char bracket)
{
    m_text += bracket;
    if (m_depth > 0) {
        --m_depth;
    }
    return *this;
}

JsonWriter& JsonWriter::beginObject(const char* key)
{
    return open(key, '{', false);
}

JsonWriter& JsonWriter::endObject()
{
    return close('}');
}

JsonWriter& JsonWriter::beginArray(const char* key)
{
    return open(key, '[', true);
}

JsonWriter& JsonWriter::endArray()
{
    return close(']');
}

JsonWriter& JsonWriter::number(const char* key, std::int64_t value)
{
    separate(key);
    m_text += std::to_string(value);
    return *this;
}

JsonWriter& JsonWriter::unsignedNumber(const char* key, std::uint64_t value)
{
    separate(key);
    m_text += std::to_string(value);
    return *this;
}

JsonWriter& JsonWriter::boolean(const char* key, bool value)
{
    separate(key);
    m_text += value ? "true" : "false";
    return *this;
}

JsonWriter& JsonWriter::null(const char* key)
{
    separate(key);
    m_text += "null";
    return *this;
}

JsonWriter& JsonWriter::string(const char* key, const char* text)
{
    return string(key, text, std::strlen(text));
}

JsonWriter& JsonWriter::string(const char* key, const char* text, std::size_t length)
{
    separate(key);
    appendJsonString(m_text, text, length);
    return *this;
}

JsonWriter& JsonWriter::string(const char* key, const std::string& text)
{
    return string(key, text.data(), text.size());
}

JsonWriter& JsonWriter::hex(const char* key, const std::uint8_t* bytes, std::size_t length)
{
    if (bytes == nullptr) {
        return null(key);
    }
    static const char kDigits[] = "0123456789abcdef";
    separate(key);
    m_text += '"';
    const std::size_t start = m_text.size();
    m_text.resize(start + 2 * length);
    char* out = &m_text[start];
    for (std::size_t i = 0; i < length; ++i) {
        out[2 * i] = kDigits[bytes[i] >> 4];
        out[2 * i + 1] = kDigits[bytes[i] & 0x0F];
    }
    m_text += '"';
    return *this;
}

void appendJsonString(std::string& out, const char* text, std::size_t length)
{
    static const char kDigits[] = "0123456789abcdef";
    out += '"';
    for (std::size_t i = 0; i < length; ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        switch (c) {
        case '"':
            out += "\\\"";
            break;
        case '\\':
            out += "\\\\";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\t':
            out += "\\t";
            break;
        default:
            if (c < 0x20 || c >= 0x7F) {
                // Bytes outside printable ASCII as \u00XX, so that any data a
                // program writes keeps the line valid JSON.
                out += "\\u00";
                out += kDigits[c >> 4];
                out += kDigits[c & 0x0F];
            } else {
                out += static_cast<char>(c);
            }
        }
    }
    out += '"';
}

}  // namespace boardsim
