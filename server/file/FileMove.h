// Moving a file, a recording or a tree, also across file systems.
#pragma once

#include <cstddef>

#include "PathPair.h"
#include "StorageModuleCmd.h"

// After a tree was copied from pSrcPath to pDstPath: removes each regular
// file of the source whose twin at the destination is a regular file of the
// same size, then the folders that are left empty. Anything else (links,
// devices, entries the walk had to leave out, files that came meanwhile)
// stays where it is.
// 0: the source is gone.
// ENOTEMPTY: the source keeps what was not copied.
int remove_copied_tree(const char* pSrcPath, const char* pDstPath);
