// What the file operations share: write protection and the companion files
// of a recording.
#pragma once

#define RECORDING_MAIN_EXT ".ts"

// 1 if the file exists (lstat64) and its owner-write bit is clear; a file
// that does not exist is not protected.
int is_protected(const char* filename);

// Companion suffixes of a recording, in the order each operation takes them.
// Each list ends with a null pointer.
extern const char* const kDeleteCompanions[];  // removed with the main file
extern const char* const kCopyCompanions[];    // copied by a recording copy
extern const char* const kRenameCompanions[];  // renamed with the main file
extern const char* const kMoveCompanions[];    // moved with the main file
