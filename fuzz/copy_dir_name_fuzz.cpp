// copy_dir_name, the listing's first look at a client's path, with every destination size from 0 to 299 bytes
// (the listing's own is 260): the first two bytes give the size, the rest up to its first NUL is the name.
// Destination and name sit in blocks of their own size, so a write or read past either shows.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "DirListing.h"
#include "fuzz_bytes.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2)
        return 0;
    int dlen = ((data[0] << 8) | data[1]) % 300;
    char* src = fuzz_text(data + 2, size - 2);
    char* dst = static_cast<char*>(malloc(dlen > 0 ? static_cast<size_t>(dlen) : 1));
    if (copy_dir_name(dst, dlen, src) && (dst[0] != '/' || strnlen(dst, dlen) + 1 > static_cast<size_t>(dlen)))
        abort();  // an accepted name begins with "/" and is terminated inside dst
    free(dst);
    free(src);
    return 0;
}
