// File helpers of the framework.
#pragma once

#include <cstdio>
#include <string>

namespace utils {
namespace file {
bool isFileExisting(const std::string& path);
// Stops swapping to the file. 0 on success, -errno on failure.
int swapoff(const std::string& path);
// Removes a file or an empty directory. 0 on success, -errno on failure.
int remove(const std::string& path);
// Creates the file if it does not exist; true if it exists afterwards.
bool createFile(const char* path);
}  // namespace file
}  // namespace utils

// Creates a new, uniquely named file in directory, stores its full path in
// fullName and returns it opened with mode, or null.
FILE* OpenTempFile(const char* directory, std::string* fullName, const char* mode);
// The last component of a path (all behind the last '/').
void GetFilenameFromFullname(const std::string* fullName, std::string* name);
