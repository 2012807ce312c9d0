#include "FileProtect.h"

#include <sys/stat.h>

#include "ServiceLog.h"

int is_protected(const char* filename)
{
    struct stat64 st;
    if (filename == nullptr || lstat64(filename, &st) != 0 || (st.st_mode & S_IWUSR) != 0)
        return 0;
    SLOGD("[%s, %d] file name(%s)\n", filename);
    return 1;
}

// ".xml.sig" is the signature of a recording's metadata: it is renamed and
// moved with the recording, never deleted or copied on its own.
const char* const kDeleteCompanions[] = {".desc", ".idx", ".idx.desc", ".xml", nullptr};
const char* const kCopyCompanions[] = {".desc", ".idx", ".idx.desc", ".xml", nullptr};
const char* const kRenameCompanions[] = {".desc", ".idx", ".idx.desc", ".xml", ".xml.sig", nullptr};
const char* const kMoveCompanions[] = {".xml", ".idx", ".desc", ".idx.desc", ".xml.sig", nullptr};
