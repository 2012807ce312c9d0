#include "StrUtil.h"

#include <cstring>

size_t lum_strlcpy(char* dst, const char* src, size_t size)
{
    size_t len = strlen(src);
    if (size > 0) {
        size_t n = len < size - 1 ? len : size - 1;
        memcpy(dst, src, n);
        dst[n] = '\0';
    }
    return len;
}

bool lum_copy_span(char* dst, size_t size, const char* src, size_t n)
{
    if (n >= size)
        return false;
    memcpy(dst, src, n);
    dst[n] = '\0';
    return true;
}
