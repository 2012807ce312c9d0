#include "ClientPath.h"

#include "ServiceLog.h"
#include "ShellQuote.h"

bool client_path_ok(const char* path)
{
    if (path != nullptr && path[0] == '/')
        return true;
    SLOGW("[%s, %d] ***W: path '%s' is not absolute, nothing run\n", path != nullptr ? path : "(null)");
    return false;
}

bool quote_client_path(const char* path, char* out, size_t outSize)
{
    if (out != nullptr && outSize > 0)
        out[0] = '\0';
    if (!client_path_ok(path))
        return false;
    if (shell_escape_dq(path, out, outSize) < 0) {
        SLOGW("[%s, %d] ***W: path '%s' does not fit a command line, nothing run\n", path);
        return false;
    }
    return true;
}
