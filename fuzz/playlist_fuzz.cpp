// The playlist reader on fuzzed playlists: the bytes become a playlist file in the scratch folder, which
// ExtractPlaylistToTempDir expands as a listing of "list.m3u/" does. Each entry costs a shell line (touch), which the
// sandbox's stub shell answers with 0 at once; to keep runs short the playlist is cut after its 32nd line.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <sys/stat.h>

#include "Playlist.h"
#include "fuzz_sandbox.h"

namespace {
constexpr int kLinesMax = 32;
const char kFolder[] = "/tmp/fz";
const char kPlaylist[] = "/tmp/fz/list.m3u";

size_t cut_after_lines(const uint8_t* data, size_t size, int lines)
{
    for (size_t i = 0; i < size; ++i) {
        if (data[i] == '\n' && --lines == 0)
            return i + 1;
    }
    return size;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz_reset_scratch();
    // The expansion's own "mkdir -p" goes to the stub shell.
    mkdir(M3U_TEMP_DIR, 0755);
    mkdir(kFolder, 0755);
    FILE* file = fopen(kPlaylist, "wb");
    if (file == nullptr)
        return 0;
    fwrite(data, 1, cut_after_lines(data, size, kLinesMax), file);
    fclose(file);
    std::map<std::string, std::string> links;
    std::map<std::string, std::string> titles;
    ExtractPlaylistToTempDir((std::string(kPlaylist) + "/").c_str(), links, titles);
    return 0;
}
