// Playlists are not expanded yet: a listing of "name.m3u/" fails in scandir.
#include "Playlist.h"

bool ExtractPlaylistToTempDir(const char*, std::map<std::string, std::string>&, std::map<std::string, std::string>&)
{
    return false;
}
