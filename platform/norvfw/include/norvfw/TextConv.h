// Text conversions between legacy code pages, UTF-16 and UTF-8.
#pragma once

#include <cstdint>

typedef uint16_t UTF16;
typedef uint8_t UTF8;

typedef enum {
    conversionOK = 0,
    sourceExhausted,
    targetExhausted,
    sourceIllegal,
    invalidParameters,
} ConversionResult;

typedef enum {
    strictConversion = 0,
    lenientConversion,
} ConversionFlags;

// Encodings of AnsiStringToUniCodeExtRe.
enum {
    ENCODING_ISO_8859_1 = 0,
    ENCODING_WINDOWS_1252 = 1,
    ENCODING_WINDOWS_1250 = 2,
    ENCODING_WINDOWS_1251 = 3,
    ENCODING_BIG5 = 4,
    ENCODING_GBK = 5,
};

// Converts [*sourceStart, sourceEnd) to UTF-8 in [*targetStart, targetEnd),
// advancing both pointers past what was converted.
ConversionResult ConvertUTF16toUTF8(const UTF16** sourceStart, const UTF16* sourceEnd,
                                    UTF8** targetStart, UTF8* targetEnd, ConversionFlags flags);
// Converts a NUL-terminated text in a legacy code page to NUL-terminated
// UTF-16 in target, which holds size bytes. Non-zero on success.
int AnsiStringToUniCodeExtRe(const char* text, int size, UTF16* target, int encoding);
// Length of a NUL-terminated UTF-16 text in 16-bit units.
int WideStrLen(const UTF16* text);
