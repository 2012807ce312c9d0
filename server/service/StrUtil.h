// Counted string copies for the fixed buffers of the service.
#pragma once

#include <cstddef>

// Copies src into dst of size bytes, cut to fit and always terminated (when
// size > 0). Returns strlen(src), so a result >= size means it was cut.
size_t lum_strlcpy(char* dst, const char* src, size_t size);

// Copies n bytes of src into dst of size bytes and terminates them; false,
// with dst untouched, when n + 1 does not fit.
bool lum_copy_span(char* dst, size_t size, const char* src, size_t n);
