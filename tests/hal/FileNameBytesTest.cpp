// SPDX-License-Identifier: MIT
// File names as bytes: any byte string survives the trip through QString,
// and only bytes that are not valid UTF-8 are escaped.

#include "hal/FileNameBytes.h"

#include <gtest/gtest.h>

#include <string>

namespace {

struct NameCase {
    const char* what;
    std::string bytes;
    std::u16string decoded;  // UTF-16 the name becomes
};

class FileNameBytes : public ::testing::TestWithParam<NameCase> {};

TEST_P(FileNameBytes, DecodesAsUtf8WithEscapesAndEncodesBackExactly)
{
    const NameCase& row = GetParam();
    const QByteArray bytes(row.bytes.data(), static_cast<int>(row.bytes.size()));
    const QString name = hal::fileNameFromBytes(bytes);
    EXPECT_EQ(name, QString::fromUtf16(row.decoded.data(), static_cast<int>(row.decoded.size())));
    EXPECT_EQ(hal::fileNameToBytes(name), bytes);
}

INSTANTIATE_TEST_SUITE_P(
    Names, FileNameBytes,
    ::testing::Values(NameCase{"Ascii", "image.bin", u"image.bin"},
                      NameCase{"Utf8TwoBytes", "caf\xc3\xa9", u"caf\u00e9"},
                      NameCase{"Utf8ThreeBytes", "\xe2\x82\xac", u"\u20ac"},
                      NameCase{"Utf8FourBytes", "\xf0\x9f\x98\x80", u"\U0001F600"},
                      NameCase{"LowestFourByteCodePoint", "\xf0\x90\x80\x80", u"\U00010000"},
                      NameCase{"Latin1", "caf\xe9", u"caf\xdce9"}, NameCase{"LoneContinuation", "\x80x", u"\xdc80x"},
                      NameCase{"Overlong", "\xc0\xaf", u"\xdcc0\xdcaf"},
                      NameCase{"EncodedSurrogate", "\xed\xa0\x80", u"\xdced\xdca0\xdc80"},
                      NameCase{"BeyondUnicode", "\xf4\x90\x80\x80", u"\xdcf4\xdc90\xdc80\xdc80"},
                      NameCase{"CutShort", "\xe2\x82", u"\xdce2\xdc82"},
                      NameCase{"HighestCodePoint", "\xf4\x8f\xbf\xbf", u"\U0010FFFF"},
                      NameCase{"FiveByteLead", "\xf8\x88\x80\x80\x80", u"\xdcf8\xdc88\xdc80\xdc80\xdc80"}),
    [](const ::testing::TestParamInfo<NameCase>& row) { return std::string(row.param.what); });

}  // namespace
