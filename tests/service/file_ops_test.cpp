// Deletion, directories and protection with the real rm, rmdir, mkdir, touch
// and chmod: result bytes, events, and what is left on the disk.
#include "file_ops_fixture.h"

#include <ctime>

#include <norvfw/RTC.h>

using namespace file_ops_test;

namespace {
const Bytes kOk = {0};

}  // namespace

TEST_F(FileOps, DeleteFileWithTheFlagRemovesTheCompanionsInOrderAndKeepsTheSignature)
{
    recording("rec.ts");
    EXPECT_TRUE(delete_file("rec.ts", 1));
    EXPECT_EQ(results(LUM_TV_EVT_STORAGE_DELETE_FILE), kOk);
    std::string p = at("rec.ts");
    EXPECT_EQ(runs(), (std::vector<std::string>{"rm \"" + p + "\"", "rm \"" + p + ".desc\"", "rm \"" + p + ".idx\"",
                                                "rm \"" + p + ".idx.desc\"", "rm \"" + p + ".xml\""}));
    EXPECT_EQ(entries("."), (std::set<std::string>{"cwd", "rec.ts.xml.sig"}));
    // Any non-zero byte is the flag, as char is unsigned on the television.
    recording("high.ts");
    EXPECT_TRUE(delete_file("high.ts", 0x80));
    EXPECT_FALSE(exists("high.ts.desc"));
}

TEST_F(FileOps, DeleteFileFailuresAndShortInput)
{
    recording("gone.ts");
    ASSERT_EQ(unlink(at("gone.ts").c_str()), 0);
    EXPECT_FALSE(delete_file("gone.ts", 1));  // rm fails: the companions stay
    EXPECT_EQ(entries(".").size(), 6u);
    EXPECT_TRUE(log.has("***E: rc=1: "));
    put("kept.ts", "x");
    std::string p = at("kept.ts");
    EXPECT_FALSE(theStorageManagerService.DeleteFile(p.c_str(), 0));
    EXPECT_FALSE(theStorageManagerService.DeleteFile(nullptr, 5));
    EXPECT_EQ(log.count("***E: not enought input data"), 2);
    EXPECT_TRUE(exists("kept.ts"));
    EXPECT_EQ(results(LUM_TV_EVT_STORAGE_DELETE_FILE), (Bytes{3, 1, 1}));
}

TEST_F(FileOps, DeleteDirModes)
{
    ASSERT_EQ(mkdir(at("empty").c_str(), 0755), 0);
    ASSERT_EQ(mkdir(at("full").c_str(), 0755), 0);
    put("full/f", "x");
    ASSERT_EQ(mkdir(at("tree").c_str(), 0755), 0);
    ASSERT_EQ(mkdir(at("tree/sub").c_str(), 0755), 0);
    put("tree/sub/f", "x", 0444);
    auto del = [&](const std::string& p, int mode) {
        std::string path = at(p);
        return theStorageManagerService.DeleteDir(path.c_str(), mode, static_cast<int>(path.size() + 1));
    };
    EXPECT_FALSE(del("full", 1));  // rmdir: not empty
    EXPECT_TRUE(exists("full/f"));
    EXPECT_TRUE(del("empty", 1));
    EXPECT_FALSE(exists("empty"));
    EXPECT_EQ(runs(), (std::vector<std::string>{" rmdir \"" + at("full") + "\"", " rmdir \"" + at("empty") + "\""}));
    log.clear();
    for (int mode : {0, 3, -1, 258})
        EXPECT_FALSE(del("full", mode)) << mode;
    EXPECT_EQ(log.count("-- invalid erase mode"), 4);
    EXPECT_TRUE(runs().empty());
    EXPECT_TRUE(exists("full/f"));
    EXPECT_TRUE(del("tree", 2));
    EXPECT_FALSE(exists("tree"));
    EXPECT_TRUE(del("missing", 2));  // rm -f of nothing succeeds
    EXPECT_FALSE(del("missing", 1));
    std::string p = at("full");
    EXPECT_FALSE(theStorageManagerService.DeleteDir(p.c_str(), 2, 1));
    EXPECT_TRUE(log.has("-- not enough input data"));
    EXPECT_TRUE(exists("full/f"));
    EXPECT_EQ(results(LUM_TV_EVT_STORAGE_DELETE_DIR), (Bytes{2, 0, 1, 1, 1, 1, 0, 0, 2, 1}));
}

TEST_F(FileOps, CreateDirMakesEveryLevelAndDatesItByTheClock)
{
    theRTC.SetDateTimeFound(true);
    std::string p = at("a/b/c");
    time_t before = time(nullptr);
    EXPECT_TRUE(theStorageManagerService.CreateDir(p.c_str(), static_cast<int>(p.size() + 1)));
    EXPECT_EQ(results(LUM_TV_EVT_STORAGE_CREATE_DIR), kOk);
    EXPECT_TRUE(is_dir("a/b/c"));
    EXPECT_EQ(mode_of("a/b/c"), 0777u);
    struct stat st;
    ASSERT_EQ(stat(p.c_str(), &st), 0);
    // touch sets the minute: the time stamp lies in the minute of the call.
    EXPECT_LE(st.st_mtime, time(nullptr));
    EXPECT_GE(st.st_mtime, before - before % 60);
    EXPECT_EQ(st.st_mtime % 60, 0);
    ASSERT_EQ(runs().size(), 2u);
    EXPECT_EQ(runs()[0], "mkdir -m 0777 -p \"" + p + "\"");
    EXPECT_EQ(runs()[1].rfind("touch -t ", 0), 0u);
}

TEST_F(FileOps, CreateDirFailuresAndAClockThatIsNotSet)
{
    put("file", "x");
    std::string under = at("file/sub");
    std::string fresh = at("fresh");
    EXPECT_FALSE(theStorageManagerService.CreateDir(fresh.c_str(), 0));
    EXPECT_TRUE(log.has("-- not enought input data"));
    EXPECT_FALSE(exists("fresh"));
    EXPECT_FALSE(theStorageManagerService.CreateDir(under.c_str(), 9));  // mkdir fails under a file
    EXPECT_TRUE(log.has("-- rc=1: "));
    theRTC.SetDateTimeFound(false);
    log.clear();
    EXPECT_TRUE(theStorageManagerService.CreateDir(fresh.c_str(), 1));
    theRTC.SetDateTimeFound(true);
    EXPECT_TRUE(is_dir("fresh"));
    EXPECT_EQ(runs(), std::vector<std::string>{"mkdir -m 0777 -p \"" + fresh + "\""});
    EXPECT_EQ(results(LUM_TV_EVT_STORAGE_CREATE_DIR), (Bytes{1, 2, 0}));
}

TEST_F(FileOps, SetProtectedWithABadModeOrAMissingFile)
{
    put("f", "x");
    for (int mode : {0, 3, 43, 0xff})  // 43 is '+'
        set_protected("f", static_cast<unsigned char>(mode));
    EXPECT_TRUE(runs().empty());
    EXPECT_EQ(mode_of("f"), 0644u);
    theStorageManagerService.SetProtected(nullptr, 0);
    set_protected("missing", 2);
    EXPECT_TRUE(log.has("-- rc=1: "));
    EXPECT_EQ(results(LUM_TV_EVT_STORAGE_SET_PROTECTED), (Bytes{1, 1, 1, 1, 1, 2}));
}

TEST_F(FileOps, RelativePathsAreRefusedAsFailedCommands)
{
    put("cwd/-rf", "x");
    put("cwd/rel", "x");
    ASSERT_EQ(mkdir(at("cwd/dir").c_str(), 0755), 0);
    EXPECT_FALSE(theStorageManagerService.DeleteFile("-rf", 4));
    EXPECT_FALSE(theStorageManagerService.DeleteFile("rel", 4));
    EXPECT_FALSE(theStorageManagerService.DeleteDir("dir", 2, 4));
    EXPECT_FALSE(theStorageManagerService.DeleteDir("", 2, 4));
    EXPECT_FALSE(theStorageManagerService.CreateDir("new", 4));
    EXPECT_FALSE(theStorageManagerService.CreateDir("rel", 4));  // exists here, still refused
    theStorageManagerService.SetProtected(reinterpret_cast<const unsigned char*>("\x02rel"), 4);
    EXPECT_TRUE(runs().empty());
    EXPECT_EQ(entries("cwd"), (std::set<std::string>{"-rf", "rel", "dir"}));
    EXPECT_EQ(mode_of("cwd/rel"), 0644u);
    EXPECT_EQ(results(LUM_TV_EVT_STORAGE_DELETE_FILE), (Bytes{3, 3}));
    EXPECT_EQ(results(LUM_TV_EVT_STORAGE_DELETE_DIR), (Bytes{2, 2}));
    EXPECT_EQ(results(LUM_TV_EVT_STORAGE_CREATE_DIR), (Bytes{2, 2}));
    EXPECT_EQ(results(LUM_TV_EVT_STORAGE_SET_PROTECTED), (Bytes{2}));
    EXPECT_EQ(log.count("is not absolute, nothing run"), 7);
}
