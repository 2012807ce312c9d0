// Text conversions: UTF-16 to UTF-8 by hand, legacy code pages through iconv.
#include "norvfw/TextConv.h"

#include <cerrno>
#include <cstring>
#include <iconv.h>

namespace {

const uint32_t kHighFirst = 0xD800;
const uint32_t kHighLast = 0xDBFF;
const uint32_t kLowFirst = 0xDC00;
const uint32_t kLowLast = 0xDFFF;
const uint32_t kReplacement = 0xFFFD;

bool IsHigh(uint32_t c)
{
    return c >= kHighFirst && c <= kHighLast;
}

bool IsLow(uint32_t c)
{
    return c >= kLowFirst && c <= kLowLast;
}

int Utf8Length(uint32_t c)
{
    if (c < 0x80) {
        return 1;
    }
    if (c < 0x800) {
        return 2;
    }
    if (c < 0x10000) {
        return 3;
    }
    return 4;
}

void PutUtf8(uint32_t c, int length, UTF8* out)
{
    static const UTF8 kLead[5] = {0x00, 0x00, 0xC0, 0xE0, 0xF0};
    for (int i = length - 1; i > 0; --i) {
        out[i] = static_cast<UTF8>(0x80 | (c & 0x3F));
        c >>= 6;
    }
    out[0] = static_cast<UTF8>(c | kLead[length]);
}

// The iconv name of an encoding number, or null.
const char* CodePage(int encoding)
{
    switch (encoding) {
    case ENCODING_ISO_8859_1: return "ISO-8859-1";
    case ENCODING_WINDOWS_1252: return "CP1252";
    case ENCODING_WINDOWS_1250: return "CP1250";
    case ENCODING_WINDOWS_1251: return "CP1251";
    case ENCODING_BIG5: return "BIG5";
    case ENCODING_GBK: return "GBK";
    default: return nullptr;
    }
}

// UTF-16 in the host's byte order.
const char* HostUtf16()
{
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    return "UTF-16BE";
#else
    return "UTF-16LE";
#endif
}

}  // namespace

// A high surrogate takes the low one that follows; when the source ends after
// a high surrogate the result is sourceExhausted, so a caller that converts
// in pieces can pass the pair in the next piece. In strict mode an unpaired
// surrogate is sourceIllegal; in lenient mode it is written as it is. On
// every error the pointers stay at the start of the character that was not
// converted.
ConversionResult ConvertUTF16toUTF8(const UTF16** sourceStart, const UTF16* sourceEnd, UTF8** targetStart,
                                    UTF8* targetEnd, ConversionFlags flags)
{
    if (sourceStart == nullptr || *sourceStart == nullptr || sourceEnd == nullptr || targetStart == nullptr ||
        *targetStart == nullptr || targetEnd == nullptr || sourceEnd < *sourceStart || targetEnd < *targetStart) {
        return invalidParameters;
    }
    const UTF16* source = *sourceStart;
    UTF8* target = *targetStart;
    ConversionResult result = conversionOK;
    while (source < sourceEnd) {
        uint32_t c = *source;
        int units = 1;
        if (IsHigh(c)) {
            if (source + 1 == sourceEnd) {
                result = sourceExhausted;
                break;
            }
            uint32_t low = source[1];
            if (IsLow(low)) {
                c = ((c - kHighFirst) << 10) + (low - kLowFirst) + 0x10000;
                units = 2;
            } else if (flags == strictConversion) {
                result = sourceIllegal;
                break;
            }
        } else if (IsLow(c) && flags == strictConversion) {
            result = sourceIllegal;
            break;
        }
        if (c > 0x10FFFF) {
            c = kReplacement;
        }
        int length = Utf8Length(c);
        if (targetEnd - target < length) {
            result = targetExhausted;
            break;
        }
        PutUtf8(c, length, target);
        target += length;
        source += units;
    }
    *sourceStart = source;
    *targetStart = target;
    return result;
}

// Returns 1 on success. On failure returns 0 and, if there is room, leaves an
// empty text in target.
int AnsiStringToUniCodeExtRe(const char* text, int size, UTF16* target, int encoding)
{
    if (target == nullptr || size < static_cast<int>(sizeof(UTF16))) {
        return 0;
    }
    target[0] = 0;
    const char* from = CodePage(encoding);
    if (text == nullptr || from == nullptr) {
        return 0;
    }
    size_t units = static_cast<size_t>(size) / sizeof(UTF16);
    iconv_t cd = iconv_open(HostUtf16(), from);
    if (cd == reinterpret_cast<iconv_t>(-1)) {
        return 0;
    }
    char* in = const_cast<char*>(text);
    size_t inLeft = strlen(text);
    char* out = reinterpret_cast<char*>(target);
    size_t outLeft = (units - 1) * sizeof(UTF16);  // one unit stays for the terminator
    size_t rc = iconv(cd, &in, &inLeft, &out, &outLeft);
    if (rc != static_cast<size_t>(-1)) {
        rc = iconv(cd, nullptr, nullptr, &out, &outLeft);  // flush a pending shift state
    }
    iconv_close(cd);
    if (rc == static_cast<size_t>(-1) || inLeft != 0) {
        target[0] = 0;
        return 0;
    }
    size_t written = static_cast<size_t>(out - reinterpret_cast<char*>(target)) / sizeof(UTF16);
    target[written] = 0;
    return 1;
}

int WideStrLen(const UTF16* text)
{
    if (text == nullptr) {
        return 0;
    }
    int len = 0;
    while (text[len] != 0) {
        ++len;
    }
    return len;
}
