// Moving a file, a recording or a tree, also across file systems.
#pragma once

#include <cstddef>

// The packed request of a move or a rename: byte 0 the recording flag, then
// the source and the destination, each with its NUL, in a zeroed buffer.
#define MOVE_REQUEST_LEN 512

// Packs flag, src and dst into buf of MOVE_REQUEST_LEN bytes.
// false, with buf zeroed, when a path is missing or strlen(src) +
// strlen(dst) + 3 exceeds MOVE_REQUEST_LEN.
bool pack_path_pair(unsigned char* buf, bool flag, const char* src, const char* dst);

// After a tree was copied from pSrcPath to pDstPath: removes each regular
// file of the source whose twin at the destination is a regular file of the
// same size, then the folders that are left empty. Anything else (links,
// devices, entries the walk had to leave out, files that came meanwhile)
// stays where it is.
// 0: the source is gone.
// ENOTEMPTY: the source keeps what was not copied.
int remove_copied_tree(const char* pSrcPath, const char* pDstPath);
