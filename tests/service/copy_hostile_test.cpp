// Hostile names through CopyFile, CopyDir, Copy and Move: each acts on the
// named file only. A canary beside them must survive, and the marker that
// their command substitutions would make must never appear.
#include <gtest/gtest.h>

#include "FileMove.h"
#include "copy_fixture.h"

namespace copy_test {
namespace {

// Names hold no "/", so the marker is made in the working folder, which
// the tests set to kWork/cwd.
const std::string kMarker = "cpw_marker";
const std::string kCwd = kWork + "/cwd";

// Names that break a shell line that is not quoted well. "canary x" would
// take the canary with it if a space split the word.
std::vector<std::string> hostile_names()
{
    return {
        "a\"b",
        "back\\slash\\",
        "$(touch " + kMarker + ")",
        "`touch " + kMarker + "`",
        "x; touch " + kMarker,
        "new\nline",
        "%s%n%s%n",
        "canary x",
        "$HOME",
        "'single'",
        "*",
        "\xff\xfe\x80 not utf-8",
        "--help",
    };
}

class CopyHostile : public CopyWork {
protected:
    void SetUp() override
    {
        CopyWork::SetUp();
        if (IsSkipped())
            return;
        make_dirs(kCwd);
        char cwd[4096];
        ASSERT_NE(getcwd(cwd, sizeof(cwd)), nullptr);
        oldCwd = cwd;
        ASSERT_EQ(chdir(kCwd.c_str()), 0);
        make_dirs(kWork + "/src");
        make_dirs(kWork + "/dst");
        write_file(kWork + "/src/canary", "alive");
        write_file(kWork + "/dst/canary", "alive");
    }
    void TearDown() override
    {
        if (!oldCwd.empty()) {
            EXPECT_EQ(chdir(oldCwd.c_str()), 0);
        }
        if (!IsSkipped()) {
            EXPECT_FALSE(exists(kCwd + "/" + kMarker)) << "a name ran a command";
            EXPECT_EQ(read_file(kWork + "/src/canary"), "alive");
            EXPECT_EQ(read_file(kWork + "/dst/canary"), "alive");
        }
        CopyWork::TearDown();
    }
    static void Sources()
    {
        for (const std::string& n : hostile_names())
            write_file(kWork + "/src/" + n, "content of " + n);
    }
    static void ExpectCopies(const std::string& dir)
    {
        for (const std::string& n : hostile_names())
            EXPECT_EQ(read_file(dir + "/" + n), "content of " + n) << n;
    }
    std::string oldCwd;
};

TEST_F(CopyHostile, CopyFileCopiesEachNameAsItIs)
{
    Sources();
    for (const std::string& n : hostile_names())
        EXPECT_EQ(CopyFile((kWork + "/src/" + n).c_str(), (kWork + "/dst/" + n).c_str()), 0) << n;
    ExpectCopies(kWork + "/dst");
}

TEST_F(CopyHostile, LongestNamesOnBothSidesAreCopied)
{
    // No command line stands between them: names of 255 bytes, the most a
    // file system takes, are copied whatever the other side's length.
    std::string n255(255, 'n');
    write_file(kWork + "/src/" + n255, "long");
    EXPECT_EQ(CopyFile((kWork + "/src/" + n255).c_str(), (kWork + "/dst/" + n255).c_str()), 0);
    EXPECT_EQ(read_file(kWork + "/dst/" + n255), "long");
}

TEST_F(CopyHostile, CopyDirCopiesATreeOfThem)
{
    Sources();
    make_dirs(kWork + "/src/$(touch " + kMarker + ") dir");
    write_file(kWork + "/src/$(touch " + kMarker + ") dir/`id`", "inner");
    EXPECT_EQ(CopyDir((kWork + "/src/").c_str(), (kWork + "/tree").c_str()), 0);
    ExpectCopies(kWork + "/tree");
    EXPECT_EQ(read_file(kWork + "/tree/$(touch " + kMarker + ") dir/`id`"), "inner");
}

TEST_F(CopyHostile, CopyRequestsCopyEachName)
{
    Sources();
    for (const std::string& n : hostile_names()) {
        EventCapture events;
        Copy(request(kWork + "/src/" + n, kWork + "/dst/" + n, {1}));
        ASSERT_TRUE(WaitCopyEnd(events)) << n;
        EXPECT_EQ(payloads(events.events(), LUM_TV_EVT_STORAGE_COPY), std::vector<Bytes>{{0}}) << n;
    }
    ExpectCopies(kWork + "/dst");
}

TEST_F(CopyHostile, MovesAcrossFileSystemsMoveEachNameAndNothingElse)
{
    REQUIRE_MOUNT(kWork + "/other");
    Sources();
    for (const std::string& n : hostile_names())
        write_file(kWork + "/src/" + n + ".xml", "xml of " + n);
    for (const std::string& n : hostile_names()) {
        unsigned char buf[PATH_PAIR_BUF_LEN];
        ASSERT_TRUE(pack_path_pair(STROAGE_LUM_MOVE, (kWork + "/src/" + n).c_str(), (kWork + "/other/" + n).c_str(),
                                   true, buf));
        EXPECT_TRUE(theStorageManagerService.Move(buf, PATH_PAIR_BUF_LEN)) << n;
        EXPECT_FALSE(exists(kWork + "/src/" + n)) << n;
        EXPECT_EQ(read_file(kWork + "/other/" + n + ".xml"), "xml of " + n);
    }
    ExpectCopies(kWork + "/other");
    // A tree whose name would split at its space: it leaves the source, and
    // "canary" beside it stays.
    make_dirs(kWork + "/src/canary x$(touch " + kMarker + ")");
    write_file(kWork + "/src/canary x$(touch " + kMarker + ")/f", "f");
    unsigned char buf[PATH_PAIR_BUF_LEN];
    ASSERT_TRUE(pack_path_pair(STROAGE_LUM_MOVE, (kWork + "/src/canary x$(touch " + kMarker + ")/").c_str(),
                               (kWork + "/other/tree").c_str(), false, buf));
    EXPECT_TRUE(theStorageManagerService.Move(buf, PATH_PAIR_BUF_LEN));
    EXPECT_EQ(read_file(kWork + "/other/tree/f"), "f");
    EXPECT_FALSE(exists(kWork + "/src/canary x$(touch " + kMarker + ")"));
}

TEST_F(CopyHostile, FailedTreeMoveRemovesItsOwnCopyByNameOnly)
{
    REQUIRE_MOUNT(kWork + "/full", "64k");
    // The half-made copy is removed with "rm -rf"; a name that split at its
    // space would take "canary" of the destination's folder with it.
    std::string tree = kWork + "/src/t";
    make_dirs(tree);
    write_file(tree + "/big", std::string(200000, 'b'));
    make_dirs(kWork + "/full/canary");
    write_file(kWork + "/full/canary/f", "alive");
    unsigned char buf[PATH_PAIR_BUF_LEN];
    std::string dst = kWork + "/full/canary x`touch " + kMarker + "`";
    ASSERT_TRUE(pack_path_pair(STROAGE_LUM_MOVE, (tree + "/").c_str(), dst.c_str(), false, buf));
    EXPECT_FALSE(theStorageManagerService.Move(buf, PATH_PAIR_BUF_LEN));
    EXPECT_EQ(read_file(kWork + "/full/canary/f"), "alive");
    EXPECT_FALSE(exists(dst));
    EXPECT_EQ(read_file(tree + "/big").size(), 200000u);
}

}  // namespace
}  // namespace copy_test
