// The listing on fuzzed requests, as the hub posts them: the record's intValue1 (how much of buf1 the listing
// may read), its command id and the bytes of buf1 (path, NUL, flags byte), into handle_read_dirs and
// ReadDirAdvanced. Every run lists against the same small volume under the mount tree: files, a folder, a
// link, a FIFO and a playlist, whose expansion's shell lines go to the sandbox's stub shell.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "Playlist.h"
#include "ServiceHandlers.h"
#include "StorageManagerService.h"
#include "fuzz_sandbox.h"

namespace {
const std::string kVolume = "/mnt/pvr/shared/sdb1/";

void put(const std::string& name, const std::string& content)
{
    std::ofstream(kVolume + name, std::ios::binary) << content;
}

// The volume: an ID3 header that TagLib reads, a name in UTF-8, a folder with a file, a link, a FIFO (listed
// without a record) and a playlist of both kinds of entry.
void make_volume()
{
    mkdir(kVolume.c_str(), 0755);
    mkdir((kVolume + "sub").c_str(), 0755);
    put("a.mp3", std::string("ID3\x03\x00\x00\x00\x00\x00\x0a", 10) + std::string(32, '\0'));
    put("\xc3\x9c" "ber.txt", "text");
    put("sub/b.mp3", "");
    (void)!symlink("a.mp3", (kVolume + "link.mp3").c_str());
    mkfifo((kVolume + "fifo").c_str(), 0644);
    put("list.m3u", "#EXTM3U\n#EXTINF:12,A - B\na.mp3\nsub\\b.mp3\n../sdb1/link.mp3\nhttp://radio.example/x\n");
    mkdir(M3U_TEMP_DIR, 0755);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const size_t head = sizeof(int32_t) + sizeof(uint16_t);
    if (size < head)
        return 0;
    fuzz_reset_scratch();
    make_volume();
    StorageManagerAction_t action;
    memset(&action, 0, sizeof(action));
    memcpy(&action.intValue1, data, sizeof(int32_t));
    memcpy(&action.ushortValue1, data + sizeof(int32_t), sizeof(uint16_t));
    memcpy(action.buf1, data + head, std::min(size - head, sizeof(action.buf1)));
    handle_read_dirs(theStorageManagerService, nullptr, &action);
    return 0;
}
