// Move: by rename inside one file system (the order of the companions seen by inotify), by copy across two (a tmpfs
// mounted beside /tmp, the order seen by inotify's removals), and the ways a move by copy could lose data.
#include <sys/inotify.h>

#include "FileMove.h"
#include "copy_fixture.h"

namespace copy_test {
namespace {
const char* const kCompanions[] = {".xml", ".idx", ".desc", ".idx.desc", ".xml.sig"};

class FileMove : public CopyWork {
protected:
    // Moves src to dst and returns Move's result; *event gets the result byte.
    bool Move(const std::string& src, const std::string& dst, bool rec, Bytes* event = nullptr)
    {
        unsigned char buf[PATH_PAIR_BUF_LEN];
        EXPECT_TRUE(pack_path_pair(STROAGE_LUM_MOVE, src.c_str(), dst.c_str(), rec, buf));
        EventCapture events;
        bool ok = theStorageManagerService.Move(buf, PATH_PAIR_BUF_LEN);
        std::vector<Bytes> sent = payloads(events.events(), LUM_TV_EVT_STORAGE_MOVE_FILE);
        EXPECT_EQ(sent.size(), 1u);
        if (event != nullptr && !sent.empty())
            *event = sent[0];
        EXPECT_EQ(ok, !sent.empty() && sent[0] == Bytes{0});
        return ok;
    }
    // A recording: the main file and its five companions, each with its own content.
    static void Recording(const std::string& main)
    {
        write_file(main, "main");
        for (const char* s : kCompanions)
            write_file(main + s, s);
    }
    static void ExpectRecording(const std::string& main)
    {
        EXPECT_EQ(read_file(main), "main") << main;
        for (const char* s : kCompanions)
            EXPECT_EQ(read_file(main + s), s) << main << s;
    }
    // Files under root, each path with its content; folders made as needed.
    static void Tree(const std::string& root, const std::vector<std::pair<std::string, std::string>>& files)
    {
        for (const auto& [path, text] : files) {
            std::string full = root + "/" + path;
            make_dirs(full.substr(0, full.rfind('/')));
            write_file(full, text);
        }
    }
    static void ExpectGone(const std::string& main)
    {
        EXPECT_FALSE(exists(main));
        for (const char* s : kCompanions)
            EXPECT_FALSE(exists(main + s)) << s;
    }
    // The names in dir that met mask (IN_MOVED_FROM, IN_DELETE) while run ran, in order.
    template <typename Run>
    static std::vector<std::string> Order(const std::string& dir, uint32_t mask, Run run)
    {
        std::vector<std::string> order;
        int fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        if (fd < 0 || inotify_add_watch(fd, dir.c_str(), mask) < 0)
            return {"inotify failed"};
        run();
        alignas(struct inotify_event) char buf[4096];
        ssize_t n = read(fd, buf, sizeof(buf));
        for (char* p = buf; n > 0 && p < buf + n;) {
            auto* e = reinterpret_cast<struct inotify_event*>(p);
            order.push_back(e->name);
            p += sizeof(*e) + e->len;
        }
        close(fd);
        return order;
    }
    // rec.ts and its companions in the order in which a move takes them.
    static std::vector<std::string> MoveOrder()
    {
        std::vector<std::string> order = {"rec.ts"};
        for (const char* s : kCompanions)
            order.push_back(std::string("rec.ts") + s);
        return order;
    }
};

TEST_F(FileMove, RenameWayTakesTheCompanionsInTheirOrder)
{
    make_dirs(kWork + "/a");
    make_dirs(kWork + "/b");
    Recording(kWork + "/a/rec.ts");
    EXPECT_EQ(Order(kWork + "/a", IN_MOVED_FROM,
                    [&] { EXPECT_TRUE(Move(kWork + "/a/rec.ts", kWork + "/b/new.ts", true)); }),
              MoveOrder());
    ExpectRecording(kWork + "/b/new.ts");
    ExpectGone(kWork + "/a/rec.ts");
}

TEST_F(FileMove, CopyWayAcrossFileSystemsTakesTheCompanionsInTheirOrder)
{
    REQUIRE_MOUNT(kWork + "/other");
    std::string src = kWork + "/rec.ts";
    Recording(src);
    // Each source goes once its copy is whole: the removals keep the order.
    EXPECT_EQ(Order(kWork, IN_DELETE, [&] { EXPECT_TRUE(Move(src, kWork + "/other/rec.ts", true)); }), MoveOrder());
    ExpectRecording(kWork + "/other/rec.ts");
    ExpectGone(src);
}

TEST_F(FileMove, ExistingDestinationIsReplacedOnlyByAWholeCopy)
{
    // A copy truncates what it writes onto; the old file must come back whole
    // when the copy fails, and go only when the copy is complete.
    REQUIRE_MOUNT(kWork + "/full", "64k");
    write_file(kWork + "/big", std::string(200000, 'b'));
    write_file(kWork + "/full/big", std::string(30000, 'o'));
    write_file(kWork + "/small", "new");
    Bytes event;
    EXPECT_FALSE(Move(kWork + "/big", kWork + "/full/big", false, &event));
    EXPECT_EQ(event, Bytes{3});
    EXPECT_EQ(read_file(kWork + "/full/big"), std::string(30000, 'o'));
    EXPECT_EQ(read_file(kWork + "/big").size(), 200000u);
    EXPECT_TRUE(Move(kWork + "/small", kWork + "/full/big", false));
    EXPECT_EQ(read_file(kWork + "/full/big"), "new");
    EXPECT_FALSE(exists(kWork + "/small"));
    EXPECT_EQ(system(("test -z \"$(ls -A " + kWork + "/full | grep -v '^big$')\"").c_str()), 0);
}

TEST_F(FileMove, RelativePathsMoveNothing)
{
    write_file(kWork + "/a", "a");
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof(cwd)), nullptr);
    ASSERT_EQ(chdir(kWork.c_str()), 0);
    Bytes first, second;
    bool relSrc = Move("a", kWork + "/b", false, &first);
    bool relDst = Move(kWork + "/a", "b", false, &second);
    ASSERT_EQ(chdir(cwd), 0);
    EXPECT_FALSE(relSrc);
    EXPECT_FALSE(relDst);
    EXPECT_EQ(first, Bytes{3});
    EXPECT_EQ(second, Bytes{3});
    EXPECT_EQ(read_file(kWork + "/a"), "a");
    EXPECT_FALSE(exists(kWork + "/b"));
}

TEST_F(FileMove, SourceCompanionWhoseCopyFailedStays)
{
    REQUIRE_MOUNT(kWork + "/other");
    std::string src = kWork + "/rec.ts";
    Recording(src);
    write_file(kWork + "/other/rec.ts.idx", "theirs", 0444);
    LogCapture log;
    EXPECT_TRUE(Move(src, kWork + "/other/rec.ts", true));
    EXPECT_EQ(read_file(src + ".idx"), ".idx");
    EXPECT_EQ(read_file(kWork + "/other/rec.ts.idx"), "theirs");
    EXPECT_TRUE(log.has("***W: copy of '" + src + ".idx' failed (13), it stays"));
    for (const char* s : {".xml", ".desc", ".idx.desc", ".xml.sig"}) {
        EXPECT_FALSE(exists(src + s)) << s;
        EXPECT_EQ(read_file(kWork + "/other/rec.ts" + s), s);
    }
    EXPECT_FALSE(exists(src));
}

TEST_F(FileMove, TreeAcrossFileSystemsIsCopiedAndTheSourceRemoved)
{
    REQUIRE_MOUNT(kWork + "/other");
    make_dirs(kWork + "/src/sub/empty");
    Tree(kWork + "/src", {{"a", "a"}, {"sub/b", "b"}});
    Recording(kWork + "/src/rec.ts");
    EXPECT_TRUE(Move(kWork + "/src/", kWork + "/other/dst", true));  // the flag means nothing for a tree
    EXPECT_EQ(read_file(kWork + "/other/dst/a"), "a");
    EXPECT_EQ(read_file(kWork + "/other/dst/sub/b"), "b");
    EXPECT_TRUE(exists(kWork + "/other/dst/sub/empty"));
    ExpectRecording(kWork + "/other/dst/rec.ts");
    EXPECT_FALSE(exists(kWork + "/src"));
}

TEST_F(FileMove, FailedTreeCopyRemovesOnlyItsOwnFolder)
{
    REQUIRE_MOUNT(kWork + "/full", "64k");
    Tree(kWork + "/src", {{"sub/big", std::string(200000, 'b')}, {"small", "s"}});
    EXPECT_FALSE(Move(kWork + "/src/", kWork + "/full/dst", false));
    EXPECT_FALSE(exists(kWork + "/full/dst"));
    EXPECT_EQ(read_file(kWork + "/src/sub/big").size(), 200000u);
    EXPECT_EQ(read_file(kWork + "/src/small"), "s");
}

TEST_F(FileMove, WhatATreeCopyLeavesOutStaysInTheSource)
{
    REQUIRE_MOUNT(kWork + "/other");
    Tree(kWork + "/src", {{"sub/f", "f"}, {"g", "g"}});
    ASSERT_EQ(symlink("g", (kWork + "/src/sub/link").c_str()), 0);
    // A file whose full path does not fit the walk's 260 bytes is left out
    // of the copy; it must not be removed with the source.
    std::string deep = kWork + "/src/" + std::string(200, 'd');
    make_dirs(deep);
    write_file(deep + "/" + std::string(60, 'l'), "long");
    LogCapture log;
    Bytes event;
    EXPECT_FALSE(Move(kWork + "/src/", kWork + "/other/dst", false, &event));
    EXPECT_EQ(event, Bytes{3});
    EXPECT_EQ(read_file(kWork + "/other/dst/sub/f"), "f");
    EXPECT_EQ(read_file(kWork + "/other/dst/g"), "g");
    EXPECT_FALSE(exists(kWork + "/src/g"));
    EXPECT_FALSE(exists(kWork + "/src/sub/f"));
    EXPECT_TRUE(exists(kWork + "/src/sub/link"));
    EXPECT_EQ(read_file(deep + "/" + std::string(60, 'l')), "long");
    EXPECT_TRUE(log.has("keeps what could not be copied"));
}

}  // namespace
}  // namespace copy_test
