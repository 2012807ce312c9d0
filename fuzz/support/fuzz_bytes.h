// Copies of fuzzed bytes in blocks of exactly their size, so that
// AddressSanitizer shows any read past them. Release with free().
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

// The bytes alone (a block of one byte for none).
inline unsigned char* fuzz_bytes(const uint8_t* data, size_t size)
{
    auto* copy = static_cast<unsigned char*>(malloc(size > 0 ? size : 1));
    if (size > 0)
        memcpy(copy, data, size);
    return copy;
}

// The bytes and a NUL behind them: a C text that ends at its first NUL.
inline char* fuzz_text(const uint8_t* data, size_t size)
{
    auto* copy = static_cast<char*>(malloc(size + 1));
    if (size > 0)
        memcpy(copy, data, size);
    copy[size] = '\0';
    return copy;
}
