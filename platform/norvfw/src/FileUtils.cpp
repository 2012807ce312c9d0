// File helpers: thin wrappers of the system calls that report -errno.
#include "norvfw/FileUtils.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/swap.h>
#include <unistd.h>
#include <vector>

namespace utils {
namespace file {

bool isFileExisting(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

int swapoff(const std::string& path)
{
    return ::swapoff(path.c_str()) == 0 ? 0 : -errno;
}

int remove(const std::string& path)
{
    return ::remove(path.c_str()) == 0 ? 0 : -errno;
}

bool createFile(const char* path)
{
    if (path == nullptr || path[0] == '\0') {
        return false;
    }
    // No O_TRUNC: an existing file keeps its contents.
    int fd = open(path, O_RDONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        return false;
    }
    close(fd);
    return true;
}

}  // namespace file
}  // namespace utils

FILE* OpenTempFile(const char* directory, std::string* fullName, const char* mode)
{
    if (directory == nullptr || directory[0] == '\0') {
        return nullptr;
    }
    std::string name(directory);
    if (name.back() != '/') {
        name.push_back('/');
    }
    name.append("tmp.XXXXXX");
    std::vector<char> buf(name.begin(), name.end());
    buf.push_back('\0');
    int fd = mkostemp(buf.data(), O_CLOEXEC);
    if (fd < 0) {
        return nullptr;
    }
    FILE* f = fdopen(fd, mode != nullptr ? mode : "w+");
    if (f == nullptr) {
        close(fd);
        unlink(buf.data());
        return nullptr;
    }
    if (fullName != nullptr) {
        fullName->assign(buf.data());
    }
    return f;
}

void GetFilenameFromFullname(const std::string* fullName, std::string* name)
{
    if (fullName == nullptr || name == nullptr) {
        return;
    }
    size_t slash = fullName->rfind('/');
    *name = slash == std::string::npos ? *fullName : fullName->substr(slash + 1);
}
