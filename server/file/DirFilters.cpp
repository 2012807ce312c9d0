#include "DirFilters.h"

#include <cstring>
#include <sys/stat.h>

namespace {

// Exact, case-sensitive comparison of the name's last bytes.
bool ends_with(const char* name, const char* suffix)
{
    size_t n = strlen(name);
    size_t s = strlen(suffix);
    return n >= s && memcmp(name + n - s, suffix, s) == 0;
}

// The building blocks answer "hide this entry?".
bool hide_idx(const struct dirent64* e)
{
    return ends_with(e->d_name, INDEX_FILE_SUFFIX);
}

bool hide_desc(const struct dirent64* e)
{
    return ends_with(e->d_name, DESC_FILE_SUFFIX);
}

bool hide_meta(const struct dirent64* e)
{
    return ends_with(e->d_name, META_FILE_SUFFIX);
}

bool hide_dot(const struct dirent64* e)
{
    return e->d_name[0] == '.';
}

bool hide_files(const struct dirent64* e)
{
    struct stat64 st;
    return lstat64(e->d_name, &st) == 0 && S_ISREG(st.st_mode);
}

}  // namespace

int hide_none(const struct dirent64*)
{
    return 1;
}

int hide_system(const struct dirent64* entry)
{
    return !hide_dot(entry);
}

int hide_idx_and_desc(const struct dirent64* entry)
{
    return !hide_idx(entry) && !hide_desc(entry);
}

int hide_idx_and_desc_and_system(const struct dirent64* entry)
{
    return !hide_idx(entry) && !hide_desc(entry) && !hide_meta(entry) && !hide_dot(entry);
}

int hide_idx_and_desc_and_system_and_files(const struct dirent64* entry)
{
    return hide_idx_and_desc_and_system(entry) && !hide_files(entry);
}

const filter_fn_t filter_fn_table[FILTER_FN_TABLE_SIZE] = {
    hide_none,
    hide_system,
    hide_idx_and_desc,
    hide_idx_and_desc_and_system,
    hide_idx_and_desc_and_system_and_files,
    hide_idx_and_desc_and_system_and_files,
    hide_idx_and_desc_and_system_and_files,
    hide_idx_and_desc_and_system_and_files,
};

int filter_old(const struct dirent64* entry)
{
    const char* name = entry->d_name;
    if (name[0] != '.')
        return 1;
    return strcmp(name, ".archive") == 0 || strcmp(name, "..archive") == 0 ||
           strncmp(name, TSB_FILE_NAME, strlen(TSB_FILE_NAME)) == 0;
}
