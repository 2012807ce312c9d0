// M3U playlists shown as directories.
#pragma once

#include <map>
#include <string>

#define M3U_TEMP_DIR "/tmp/m3u/"

bool ExtractPlaylistToTempDir(const char* aFilePath, std::map<std::string, std::string>& aHttpLinkMap,
                              std::map<std::string, std::string>& aTitleMap);
