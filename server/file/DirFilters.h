// Which entries of a directory a listing shows: predicates over one entry as
// scandir passes it, non-zero keeps it.
#pragma once

#include <dirent.h>

#define INDEX_FILE_SUFFIX ".idx"
#define DESC_FILE_SUFFIX ".desc"
#define META_FILE_SUFFIX ".xml"
#define TSB_FILE_NAME ".tsb"

typedef int (*filter_fn_t)(const struct dirent64* entry);

// Indexed by bits 0 to 2 of a listing's flags byte.
#define FILTER_FN_TABLE_SIZE 8
extern const filter_fn_t filter_fn_table[FILTER_FN_TABLE_SIZE];

// The default without a flags byte: hides names that begin with "." except
// ".archive", "..archive" and ".tsb...". Not a row of the table.
int filter_old(const struct dirent64* entry);

int hide_none(const struct dirent64* entry);
int hide_system(const struct dirent64* entry);
int hide_idx_and_desc(const struct dirent64* entry);
int hide_idx_and_desc_and_system(const struct dirent64* entry);
// Also hides regular files, checked with lstat64 on the bare name: the
// working directory must be the listed one.
int hide_idx_and_desc_and_system_and_files(const struct dirent64* entry);
