// The copy and move tests' work folder in the private /tmp, a FIFO that holds
// a copy in the middle of a file, small tmpfs mounts as other file systems.
#pragma once

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

#include "CopyEngine.h"
#include "StorageEvents.h"
#include "test_support.h"

namespace copy_test {
const std::string kWork = "/tmp/cpw";

// A Copy request: src NUL dst NUL, then the type byte and further bytes.
inline Bytes request(const std::string& src, const std::string& dst, const Bytes& tail = {})
{
    Bytes r(src.begin(), src.end());
    r.push_back(0);
    r.insert(r.end(), dst.begin(), dst.end());
    r.push_back(0);
    r.insert(r.end(), tail.begin(), tail.end());
    return r;
}

class CopyWork : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!g_isolated)
            GTEST_SKIP() << "SKIPPED: needs a private /tmp (and root or a user namespace for the mounts)";
        ASSERT_TRUE(eventually([] { return !copy_running() && copy_threads_alive() == 0; }));
        ASSERT_EQ(system(("rm -rf " + kWork + " && mkdir -p " + kWork).c_str()), 0);
    }
    void TearDown() override { CloseFeed(); eventually([] { return !copy_running() && copy_threads_alive() == 0; }); }
    // A tmpfs of size bytes on dir, another file system than /tmp.
    bool Mount(const std::string& dir, const std::string& size = "1m") { return mounts.tmpfs(dir, "size=" + size); }
    // A FIFO at path with its write end held by the test: a copy of it
    // waits for each Feed and sees the end of the file at CloseFeed.
    void OpenFeed(const std::string& path)
    {
        ASSERT_EQ(mkfifo(path.c_str(), 0644), 0);
        feed = open(path.c_str(), O_RDWR | O_CLOEXEC);
        ASSERT_GE(feed, 0);
    }
    void Feed(const std::string& bytes) { ASSERT_EQ(write(feed, bytes.data(), bytes.size()), ssize_t(bytes.size())); }
    void CloseFeed()
    {
        if (feed >= 0)
            close(feed);
        feed = -1;
    }
    static bool WaitCopyEnd(EventCapture& events, size_t count = 1)
    {
        return eventually([&] {
            return payloads(events.events(), LUM_TV_EVT_STORAGE_COPY).size() >= count && !copy_running() &&
                   copy_threads_alive() == 0;
        });
    }
    static void Copy(const Bytes& req) { theStorageManagerService.Copy(req.data(), static_cast<int>(req.size())); }
    int feed = -1;
    Mounts mounts;
};

#define REQUIRE_MOUNT(dir, ...)                                                                \
    do {                                                                                       \
        if (!Mount(dir, ##__VA_ARGS__))                                                        \
            GTEST_SKIP() << "SKIPPED: a tmpfs could not be mounted on " << (dir) << " (needs root " \
                            "in the test's namespace): " << strerror(errno);                   \
    } while (0)
}  // namespace copy_test
