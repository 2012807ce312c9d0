// Directory listings in blocks of byte-exact records, sent as
// LUM_TV_EVT_STORAGE_READ_DIRS events.
#pragma once

#include <cstdint>
#include <dirent.h>

#include "FileTag.h"

#define LISTING_PATH_LEN 260
#define LISTING_HEADER_LEN 4          // offset, total
#define LISTING_BLOCK_START 6         // command id, then the header
#define LISTING_BLOCK_LIMIT 49900     // idxSend a block may reach
#define LISTING_BLOCK_AGE 10000000.0  // platform clock units a block may stay open
#define LISTING_TOTAL_FAILED 0xFFFF
#define LISTING_RECORD_FIXED 35       // info_file, six terminators, separator, info_tag
#define LISTING_FLAG_FILTER_MASK 0x07
#define LISTING_FLAG_SKIP_META 0x08
#define MJD_OF_1970 40587

// Copies the directory name src into dst (dlen bytes) with a trailing "/".
// False for a name longer than dlen - 2 bytes or one that does not begin
// with "/" (also the empty name).
bool copy_dir_name(char* dst, int dlen, const char* src);

// 1 if the volume that holds path keeps its file times in UTC (ext, NTFS
// through fuseblk), 0 otherwise and for paths outside a mount point of the
// tree.
int fs_uses_utc_for_timestamp(const char* path);

// 1 if the text from the last "." of path equals ".M3U" or ".M3U/",
// ignoring case.
int is_playlist_file(const char* path);

// 1 if the placeholder a under "/tmp/m3u/" is newer than b, else 0 (also
// when stat fails). Never negative.
int PlaylistDirectoriesByTimeStampSort(const struct dirent64** a, const struct dirent64** b);

// Modification time (seconds, local offset already added) into
// info_file[5..9]: Modified Julian Date, hour, minute. Times before 1970 are
// counted down to the day they fall on.
void put_file_time(unsigned char* info_file, int64_t mtime);

// The size of the record of name with the strings of t.
int dir_record_size(const char* name, const file_tag& t);

// Writes the record at out, which must hold dir_record_size() bytes.
// Returns that size.
int put_dir_record(unsigned char* out, const unsigned char* info_file, const char* name, const file_tag& t,
                   const unsigned char* info_tag);
