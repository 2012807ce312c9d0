// A thousand mixed operations, after warm-up rounds that let caches and the
// allocator settle, leave nothing behind in the process: no descriptor,
// no thread, no file in /tmp and no heap. The service's documented
// leftovers in /tmp are bounded, not absent: "/tmp/m3u/" holds the
// placeholders of the playlist expanded last (the same number after every
// expansion, under new names), and "/tmp/share/" one link per cover name
// ever asked for (made once, the same names every round).
#include <gtest/gtest.h>

#include <algorithm>
#include <android/log.h>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <functional>
#include <lmdroid/log_hook.h>
#include <malloc.h>
#include <set>
#include <string>

#include "copy_fixture.h"
#include "file_ops_fixture.h"
#include "listing_fixture.h"
#include "Playlist.h"

using file_ops_test::Request;
using file_ops_test::kTrue;
using file_ops_test::le32;

// Under a sanitizer its own allocator serves malloc, and mallinfo2 does not
// see it: the heap is not measured there, for the reason given.
// GCC names the sanitizer by a macro, clang by __has_feature.
#if defined(__SANITIZE_ADDRESS__)
#define LEAK_UNDER_ASAN 1
#elif defined(__SANITIZE_THREAD__)
#define LEAK_UNDER_TSAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define LEAK_UNDER_ASAN 1
#elif __has_feature(thread_sanitizer)
#define LEAK_UNDER_TSAN 1
#endif
#endif
#if defined(LEAK_UNDER_ASAN)
#define LEAK_HEAP_UNMEASURED "AddressSanitizer serves malloc; its leak check at exit covers the heap"
#elif defined(LEAK_UNDER_TSAN)
#define LEAK_HEAP_UNMEASURED "ThreadSanitizer serves malloc; the plain build measures the heap"
#endif

namespace {

using listing_test::Bytes;

const std::string kScratch = "/tmp/lst";  // the Listing fixture's; nothing of it is compared
const std::string kWork = kScratch + "/work";
const std::string kTree = kScratch + "/tree/";
const std::string kCopy = kScratch + "/copy";
const std::string kPlaylist = listing_test::kDir + "songs.m3u";
const int kOperations = 1000;
// Rounds before anything is counted: glibc's per-thread cache keeps freed
// blocks counted as in use, up to a few of each size, and takes two rounds
// to fill.
const int kWarmUpRounds = 2;
// Bytes the heap may grow by over the thousand operations. A leak of one
// small block per pass of an operation (50 passes, 32 bytes each at least)
// is above it.
const size_t kHeapTolerance = 1024;

size_t entries_in(const char* dir)
{
    size_t n = 0;
    DIR* d = opendir(dir);
    for (struct dirent* e; d != nullptr && (e = readdir(d)) != nullptr;)
        n += e->d_name[0] != '.';
    if (d != nullptr)
        closedir(d);
    return n;
}

// Every path under /tmp but the scratch folder, on /tmp's own file system;
// the playlist folder by its count of entries only.
std::set<std::string> g_seen;
int note_path(const char* path, const struct stat*, int, struct FTW*)
{
    std::string p = path;
    if (p.compare(0, kScratch.size(), kScratch) == 0 ||
        (p.compare(0, strlen(M3U_TEMP_DIR), M3U_TEMP_DIR) == 0 && p.size() > strlen(M3U_TEMP_DIR)))
        return 0;
    g_seen.insert(p);
    return 0;
}

std::set<std::string> tmp_listing()
{
    g_seen.clear();
    nftw("/tmp", note_path, 16, FTW_PHYS | FTW_MOUNT);
    g_seen.insert(M3U_TEMP_DIR " holds " + std::to_string(entries_in(M3U_TEMP_DIR)));
    return g_seen;
}

size_t heap_in_use()
{
    return mallinfo2().uordblks;
}

int32_t le32_at(const Bytes& b, size_t at)
{
    int32_t v = 0;
    if (b.size() >= at + 4)
        memcpy(&v, b.data() + at, 4);
    return v;
}

class Leak : public listing_test::Listing {
protected:
    void SetUp() override
    {
        Listing::SetUp();
        if (IsSkipped())
            return;
        threshold = lmdroid_get_log_threshold();
        lmdroid_set_log_threshold(ANDROID_LOG_WARN);  // a thousand operations' worth of lines
        ASSERT_EQ(system(("mkdir -p " + kWork + " " + kTree + "sub /tmp/share").c_str()), 0);
        // A tagged MP3 where the encoders are there, else a file TagLib
        // looks at and finds nothing in.
        std::string mp3 = listing_test::kDir + "a.mp3";
        if (system(("(sox -n -r 8000 -c 1 " + kScratch + "/tone.wav synth 0.2 sine 440 && lame --quiet --tt Tone "
                    "--ta Lum " + kScratch + "/tone.wav " + mp3 + ") >/dev/null 2>&1").c_str()) != 0)
            copy_test::write_file(mp3, "no audio");
        ASSERT_EQ(system(("cp " + mp3 + " " + listing_test::kDir + "b.mp3 && mkdir " + listing_test::kDir + "sub")
                             .c_str()),
                  0);
        copy_test::write_file(kPlaylist, "a.mp3\nb.mp3\n");
        copy_test::write_file(kWork + "/r", "read me");
        for (const char* f : {"one", "two", "sub/three"})
            copy_test::write_file(kTree + f, f);
    }
    void TearDown() override
    {
        if (threshold != 0)
            lmdroid_set_log_threshold(threshold);
        Listing::TearDown();
    }

    // One operation, with a check of its answer.
    struct Op {
        const char* name;
        std::function<void(Leak*)> run;
    };
    static const std::vector<Op>& Ops();

    void Round()
    {
        for (const Op& op : Ops()) {
            SCOPED_TRACE(op.name);
            op.run(this);
        }
    }
    void ListFolder() { EXPECT_EQ(listing_test::names(list(listing_test::kDir)).size(), 4u); }
    void ListPlaylist() { EXPECT_EQ(listing_test::names(list(kPlaylist + "/")).size(), 2u); }
    // The copy of a tree through the copy thread, to its end.
    void CopyTree()
    {
        EventCapture events;
        Bytes req = copy_test::request(kTree, kCopy);
        theStorageManagerService.Copy(req.data(), static_cast<int>(req.size()));
        ASSERT_TRUE(eventually([&] {
            return !copy_test::payloads(events.events(), LUM_TV_EVT_STORAGE_COPY).empty() && !copy_running() &&
                   copy_threads_alive() == 0;
        }));
        EXPECT_EQ(copy_test::payloads(events.events(), LUM_TV_EVT_STORAGE_COPY), std::vector<Bytes>{{0}});
    }
    void Open()
    {
        Bytes r = Request(STROAGE_LUM_OPEN).s(kWork + "/r").i(O_RDONLY).i(0).invoke();
        fd = le32_at(r, 0);
        EXPECT_GE(fd, 0);
    }

    int32_t fd = -1;
    int threshold = 0;
};

// A file operation of the hub, answered true.
void answers_true(Request& request)
{
    EXPECT_EQ(request.invoke(), kTrue);
}

std::string text_of(const Bytes& reply, size_t at = 0)
{
    return std::string(reply.begin() + static_cast<long>(std::min(at, reply.size())),
                       std::find(reply.begin() + static_cast<long>(std::min(at, reply.size())), reply.end(), 0));
}

const std::vector<Leak::Op>& Leak::Ops()
{
    static const std::string d = kWork + "/d";
    static const int32_t len = static_cast<int32_t>(d.size() + 1);
    static const int32_t copyLen = static_cast<int32_t>(kCopy.size() + 1);
    static const std::string& volume = listing_test::kVolume;
    static const std::vector<Op> ops = {
        {"listing with tags", [](Leak* t) { t->ListFolder(); }},
        {"listing of a playlist", [](Leak* t) { t->ListPlaylist(); }},
        {"cover",
         [](Leak*) { EXPECT_EQ(theStorageManagerService.ExtractCover(listing_test::kDir.c_str(), "a.mp3"), 0); }},
        {"create dir", [](Leak*) { answers_true(Request(STORAGE_CREATE_DIR).s(d).i(len)); }},
        {"write", [](Leak*) { answers_true(Request(STORAGE_WRITE_FILE).s(d + "/f").i(4).raw("data")); }},
        {"rename", [](Leak*) { answers_true(Request(STORAGE_RENAME_FILE).s(d + "/f").s(d + "/g").b(false)); }},
        {"copy file", [](Leak*) { answers_true(Request(STORAGE_COPY_FILE).s(d + "/g").s(d + "/h")); }},
        {"move", [](Leak*) { answers_true(Request(STROAGE_LUM_MOVE).s(d + "/h").s(d + "/m").b(false)); }},
        {"delete file", [](Leak*) { answers_true(Request(STORAGE_DELETE_FILE).s(d + "/g").i(len + 2)); }},
        {"delete dir", [](Leak*) { answers_true(Request(STORAGE_DELETE_DIR).s(d).i(2).i(len)); }},
        {"copy of a tree", [](Leak* t) { t->CopyTree(); }},
        {"delete the copy", [](Leak*) { answers_true(Request(STORAGE_DELETE_DIR).s(kCopy).i(2).i(copyLen)); }},
        {"shell command",
         [](Leak*) { EXPECT_EQ(Request(STORAGE_LUM_EXE_SYS_CMD).i(4).s("true").invoke(), le32({0})); }},
        {"shell command with its output",
         [](Leak*) {
             Bytes r = Request(STORAGE_LUM_EXE_SYS_CMD_RET).s("echo captured").invoke();
             EXPECT_EQ(le32_at(r, 0), 9);
             EXPECT_EQ(text_of(r, 4), "captured\n");
         }},
        {"open", [](Leak* t) { t->Open(); }},
        {"read",
         [](Leak* t) {
             Bytes r = Request(STROAGE_LUM_READ).i(t->fd).i(4).invoke();
             EXPECT_EQ(le32_at(r, 0), 4);
             EXPECT_EQ(text_of(r, 8).substr(0, 4), "read");
         }},
        {"close", [](Leak* t) { EXPECT_EQ(Request(STROAGE_LUM_CLOSE).i(t->fd).invoke(), le32({0})); }},
        {"file-system type",
         [](Leak*) { EXPECT_EQ(text_of(Request(STORAGE_PARTITION_FS_TYPE).s(volume).invoke()), "vfat"); }},
        {"total size", [](Leak*) { EXPECT_EQ(Request(STORAGE_PARTITION_TOTAL_SIZE).s(volume).invoke().size(), 8u); }},
        {"guide record",
         [](Leak*) {
             EXPECT_EQ(Request(STORAGE_PVR_GET_DEV_GUIDE_INFO).invoke().size(), 4 + 63000u);
         }},
    };
    return ops;
}

size_t thread_count()
{
    return entries_in("/proc/self/task");
}

size_t fd_count()
{
    return entries_in("/proc/self/fd");
}

}  // namespace

TEST_F(Leak, AThousandMixedOperationsLeaveNothingBehind)
{
    ASSERT_EQ(kOperations % Ops().size(), 0u);
    for (int i = 0; i < kWarmUpRounds; ++i)
        Round();
    ASSERT_FALSE(HasFailure()) << "the warm-up failed";
    std::set<std::string> tmpBefore = tmp_listing();
    size_t fdsBefore = fd_count();
    size_t threadsBefore = thread_count();
    // The counting above took blocks out of the allocator's cache; one more
    // round puts them back before the heap is measured.
    Round();
    size_t heapBefore = heap_in_use();

    for (size_t i = 0; i < kOperations / Ops().size() && !HasFailure(); ++i)
        Round();
    ASSERT_FALSE(HasFailure());

    // The last copy thread has sent its event and given its flag back; it
    // may still be on its way out.
    EXPECT_TRUE(eventually([&] { return thread_count() <= threadsBefore; }));
    size_t heapAfter = heap_in_use();
    EXPECT_EQ(fd_count(), fdsBefore);
    EXPECT_EQ(thread_count(), threadsBefore);
    EXPECT_EQ(tmp_listing(), tmpBefore);
#ifdef LEAK_HEAP_UNMEASURED
    (void)heapBefore;
    (void)heapAfter;
    std::cout << "heap not measured: " LEAK_HEAP_UNMEASURED "\n";
#else
    EXPECT_LE(heapAfter, heapBefore + kHeapTolerance) << "grew by " << heapAfter - heapBefore << " bytes";
    std::cout << "heap in use: " << heapBefore << " bytes before, " << heapAfter << " after\n";
#endif
}
