#include "MountTree.h"

#include <cstdio>
#include <cstring>

#include "ShellProbe.h"

bool is_plain_word(const char* text)
{
    if (text == nullptr || *text == '\0')
        return false;
    for (const char* p = text; *p != '\0'; ++p) {
        bool alnum = (*p >= 'a' && *p <= 'z') || (*p >= 'A' && *p <= 'Z') || (*p >= '0' && *p <= '9');
        if (!alnum && strchr("_-.+/", *p) == nullptr)
            return false;
    }
    return true;
}

void remove_mount_dir(const char* path)
{
    // The tool prefix of the command is empty, which leaves the line's
    // leading blank.
    char rmdirCmd[16];
    snprintf(rmdirCmd, sizeof(rmdirCmd), "%s rmdir", "");
    call_system("%s %s", rmdirCmd, path);
}
