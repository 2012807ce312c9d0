// An M3U playlist shown as a directory: its entries become empty placeholder
// files in one temporary directory, ordered by their modification times, and
// two maps tell the listing which media file and title each one stands for.
#pragma once

#include <map>
#include <string>

// Holds the placeholders of the playlist expanded last; every expansion
// replaces it as a whole.
#define M3U_TEMP_DIR "/tmp/m3u/"

// Reads the playlist aFilePath (with or without a trailing "/") and makes one
// placeholder in M3U_TEMP_DIR for each entry, the first dated 1 January 1902
// 00:00 and each further one a minute later. aHttpLinkMap gets, under the
// placeholder's name, the entry's path (joined to the playlist's directory) or
// URL; aTitleMap its last component, or the whole URL.
// true if the playlist was read to its end (also with no entries); false if it
// could not be opened, its path has no "/", or a placeholder could not be made.
// What an earlier expansion left in M3U_TEMP_DIR is removed first, also when
// this playlist cannot be read.
bool ExtractPlaylistToTempDir(const char* aFilePath, std::map<std::string, std::string>& aHttpLinkMap,
                              std::map<std::string, std::string>& aTitleMap);
