#include "ShellQuote.h"

#include <cstring>

int shell_escape_dq(const char* text, char* out, size_t outSize)
{
    if (out == nullptr || outSize == 0)
        return -1;
    out[0] = '\0';
    if (text == nullptr)
        return -1;
    size_t n = 0;
    for (const char* p = text; *p != '\0'; ++p) {
        bool special = strchr("\"\\$`", *p) != nullptr;
        size_t need = special ? 2 : 1;
        if (n + need >= outSize) {
            out[0] = '\0';
            return -1;
        }
        if (special)
            out[n++] = '\\';
        out[n++] = *p;
    }
    out[n] = '\0';
    return static_cast<int>(n);
}
