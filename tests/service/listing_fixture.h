// What the listing tests share: a reader of the block format, a directory
// that looks like a mount point of the tree, and a listing run.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <sys/time.h>
#include <vector>

#include "StorageEvents.h"
#include "StorageManagerService.h"
#include "fake_tools.h"
#include "test_support.h"

namespace listing_test {


// A listed directory lies five slashes deep, like a mount point of the tree,
// so that the volume-type check finds its prefix in the fake mount output.
const std::string kVolume = "/tmp/lst/shared/sdb1";
const std::string kDir = kVolume + "/dir/";
const time_t kWhen = 1715953500;  // 2024-05-17 13:45:00 UTC, MJD 60447 = 0x00EC1F

struct Record {
    Bytes info_file;
    std::string name, title, artist, album, genre, link;
    Bytes info_tag;
};

struct Block {
    unsigned offset, total;
    std::vector<Record> records;
    size_t len;
};

inline unsigned be16(const unsigned char* p)
{
    return (p[0] << 8) | p[1];
}

// The test's own reader of the wire format: header, then records until the
// payload ends.
inline Block parse_block(const Bytes& d)
{
    Block b{be16(d.data()), be16(d.data() + 2), {}, d.size()};
    size_t i = 4;
    while (i < d.size()) {
        Record r;
        r.info_file.assign(d.begin() + i, d.begin() + i + 10);
        i += 10;
        for (std::string* s : {&r.name, &r.title, &r.artist, &r.album, &r.genre, &r.link}) {
            *s = std::string(reinterpret_cast<const char*>(d.data() + i));
            i += s->size() + 1;
        }
        EXPECT_EQ(d[i], 0) << "separator";
        i += 1;
        r.info_tag.assign(d.begin() + i, d.begin() + i + 18);
        i += 18;
        b.records.push_back(r);
    }
    EXPECT_EQ(i, d.size());
    return b;
}

inline void touch_file(const std::string& path, size_t size, time_t mtime = kWhen, mode_t mode = 0644)
{
    std::ofstream(path, std::ios::binary) << std::string(size, 'x');
    chmod(path.c_str(), mode);
    struct timeval tv[2] = {{mtime, 0}, {mtime, 0}};
    lutimes(path.c_str(), tv);
}

class Listing : public FakeTools {
protected:
    void SetUp() override
    {
        FakeTools::SetUp();
        if (IsSkipped())
            return;
        system("rm -rf /tmp/lst");
        system(("mkdir -p " + kDir).c_str());
        volume("vfat");
    }
    void volume(const char* type)
    {
        output("mount", "/dev/sdb1 on " + kVolume + " type " + type + " (rw)\n");
    }
    // Runs a listing of request (len bytes of it, the path's terminator
    // included, by default) and returns its blocks.
    std::vector<Block> list(const std::string& request, int len = -1, unsigned short id = 0x1234,
                            bool* ok = nullptr)
    {
        EventCapture events;
        int n = len < 0 ? static_cast<int>(strlen(request.c_str()) + 1) : len;
        bool result = theStorageManagerService.ReadDirAdvanced(request.c_str(), n, id);
        if (ok != nullptr)
            *ok = result;
        EXPECT_EQ(be16(theStorageManagerService.m_SendBuf), id);
        std::vector<Block> blocks;
        for (const Event& e : events.events()) {
            if (e.id == LUM_TV_EVT_STORAGE_READ_DIRS)
                blocks.push_back(parse_block(e.data));
        }
        return blocks;
    }
    // The same with a flags byte behind the path.
    std::vector<Block> list_flags(const std::string& path, unsigned char flags)
    {
        std::string request = path + '\0' + static_cast<char>(flags);
        return list(request, static_cast<int>(path.size() + 2));
    }
};

inline std::vector<std::string> names(const std::vector<Block>& blocks)
{
    std::vector<std::string> out;
    for (const Block& b : blocks)
        for (const Record& r : b.records)
            out.push_back(r.name);
    return out;
}

}  // namespace listing_test
