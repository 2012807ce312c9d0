// UTF-16 to UTF-8 against hand-built vectors, legacy code pages to UTF-16.
#include <gtest/gtest.h>
#include <vector>

#include "norvfw/TextConv.h"

namespace {
struct Utf8Case {
    std::vector<UTF16> in;
    size_t room;
    ConversionFlags flags;
    ConversionResult code;
    std::vector<UTF8> out;
    size_t consumed;  // source units the pointer moved past
};

struct AnsiCase {
    const char* text;
    int encoding, sizeBytes, ok;
    std::vector<UTF16> out;
};

}  // namespace

TEST(TextConv, Utf16ToUtf8Vectors)
{
    const ConversionFlags S = strictConversion;
    const Utf8Case cases[] = {
        {{0x41, 0x7F, 0x80, 0x7FF, 0x800, 0xFFFF}, 16, S, conversionOK,
         {0x41, 0x7F, 0xC2, 0x80, 0xDF, 0xBF, 0xE0, 0xA0, 0x80, 0xEF, 0xBF, 0xBF}, 6},
        {{0x00E9, 0x20AC, 0xD83D, 0xDE00}, 9, S, conversionOK, {0xC3, 0xA9, 0xE2, 0x82, 0xAC, 0xF0, 0x9F, 0x98, 0x80}, 4},
        {{0xD800, 0xDC00, 0xDBFF, 0xDFFF}, 8, S, conversionOK, {0xF0, 0x90, 0x80, 0x80, 0xF4, 0x8F, 0xBF, 0xBF}, 4},
        // Surrogate errors stop at the bad character.
        {{0x41, 0xDC00, 0x42}, 16, S, sourceIllegal, {0x41}, 1},
        {{0x41, 0xD800, 0x42}, 16, S, sourceIllegal, {0x41}, 1},
        {{0x41, 0xD800}, 16, S, sourceExhausted, {0x41}, 1},
        {{0xDC00, 0x42}, 16, lenientConversion, conversionOK, {0xED, 0xB0, 0x80, 0x42}, 2},
        // Without room the pointers stay at the start of the character.
        {{0x41, 0x20AC}, 3, S, targetExhausted, {0x41}, 1},
        {{0x41, 0xD83D, 0xDE00}, 4, S, targetExhausted, {0x41}, 1},
        {{0x00E9}, 1, S, targetExhausted, {}, 0},
    };
    for (const Utf8Case& c : cases) {
        std::vector<UTF8> buf(c.room + 1, 0xAA);
        const UTF16* src = c.in.data();
        UTF8* dst = buf.data();
        EXPECT_EQ(c.code, ConvertUTF16toUTF8(&src, src + c.in.size(), &dst, buf.data() + c.room, c.flags));
        EXPECT_EQ(c.out, std::vector<UTF8>(buf.data(), dst));
        EXPECT_EQ(c.consumed, static_cast<size_t>(src - c.in.data()));
        EXPECT_EQ(0xAA, buf[c.room]) << "wrote past the end";
    }
    UTF16 in[1] = {0x41};
    UTF8 out[4];
    const UTF16* src = in;
    const UTF16* none = nullptr;
    UTF8* dst = out;
    EXPECT_EQ(conversionOK, ConvertUTF16toUTF8(&src, in, &dst, out + 4, strictConversion));  // empty
    EXPECT_EQ(invalidParameters, ConvertUTF16toUTF8(nullptr, in + 1, &dst, out + 4, strictConversion));
    EXPECT_EQ(invalidParameters, ConvertUTF16toUTF8(&none, in + 1, &dst, out + 4, strictConversion));
    EXPECT_EQ(invalidParameters, ConvertUTF16toUTF8(&src, in + 1, nullptr, out + 4, strictConversion));
    EXPECT_EQ(invalidParameters, ConvertUTF16toUTF8(&src, in + 1, &dst, nullptr, strictConversion));
}

TEST(TextConv, CodePagesToUtf16)
{
    const AnsiCase cases[] = {
        {"\xD6\xD0\xCE\xC4", ENCODING_GBK, 64, 1, {0x4E2D, 0x6587}},  // "中文"
        {"a\xD6\xD0" "b", ENCODING_GBK, 64, 1, {0x61, 0x4E2D, 0x62}},
        {"\xA4\xA4", ENCODING_BIG5, 64, 1, {0x4E2D}},
        {"\xE9", ENCODING_ISO_8859_1, 64, 1, {0xE9}},
        {"\x80", ENCODING_WINDOWS_1252, 64, 1, {0x20AC}},
        {"\x8A", ENCODING_WINDOWS_1250, 64, 1, {0x160}},
        {"\xC0", ENCODING_WINDOWS_1251, 64, 1, {0x410}},
        {"", ENCODING_GBK, 2, 1, {}},
        {"\xD6\xD0\xCE\xC4", ENCODING_GBK, 6, 1, {0x4E2D, 0x6587}},  // exactly fits
        {"\xD6\xD0\xCE\xC4", ENCODING_GBK, 4, 0, {}},  // no room for the terminator
        {"\xD6", ENCODING_GBK, 64, 0, {}},  // cut in the middle of a character
        {"abc", 42, 64, 0, {}},
    };
    for (const AnsiCase& c : cases) {
        std::vector<UTF16> buf(static_cast<size_t>(c.sizeBytes) / 2 + 1, 0xBEEF);
        int rc = AnsiStringToUniCodeExtRe(c.text, c.sizeBytes, buf.data(), c.encoding);
        EXPECT_EQ(c.ok, rc != 0) << c.text;
        EXPECT_EQ(c.out, std::vector<UTF16>(buf.data(), buf.data() + WideStrLen(buf.data())));
        EXPECT_EQ(0xBEEF, buf.back()) << "wrote past the end";
    }
    UTF16 target[4];
    EXPECT_EQ(0, AnsiStringToUniCodeExtRe(nullptr, sizeof(target), target, ENCODING_GBK));
    EXPECT_EQ(0, AnsiStringToUniCodeExtRe("a", sizeof(target), nullptr, ENCODING_GBK));
    EXPECT_EQ(0, WideStrLen(nullptr));
}
