// CopyFile, CopyDir and the tree walk under them, on the private /tmp and on small tmpfs mounts.
#include "copy_fixture.h"

namespace copy_test {
namespace {
class CopyFileTest : public CopyWork {};
class CopyDirTest : public CopyWork {};
class BrowseDirTest : public CopyWork {};

TEST_F(CopyFileTest, IntoAFolderTheCopyKeepsModeAndTheFolderItsOwn)
{
    // As with cp, the copy goes inside the folder; mode and times belong to that copy,
    // never to the folder (a read-only source would protect the folder).
    write_file(kWork + "/a.ts", "recording", 0444);
    make_dirs(kWork + "/dir");
    chmod((kWork + "/dir").c_str(), 0755);
    EXPECT_EQ(CopyFile((kWork + "/a.ts").c_str(), (kWork + "/dir").c_str()), 0);
    EXPECT_EQ(CopyFile((kWork + "/a.ts").c_str(), (kWork + "/dir2/").c_str()), 1);
    EXPECT_EQ(read_file(kWork + "/dir/a.ts"), "recording");
    EXPECT_EQ(mode_of(kWork + "/dir/a.ts"), 0444u);
    EXPECT_EQ(mode_of(kWork + "/dir"), 0755u);
    chmod((kWork + "/dir/a.ts").c_str(), 0644);
}

TEST_F(CopyFileTest, FailedCopiesGiveOneAndLeaveNothing)
{
    write_file(kWork + "/src", "x");
    make_dirs(kWork + "/folder");
    struct Case {
        std::string src, dst;
    };
    for (const Case& c : {Case{"/missing", "/dst"}, Case{"/folder", "/dst"}, Case{"/src", "/nowhere/dst"}}) {
        EXPECT_EQ(CopyFile((kWork + c.src).c_str(), (kWork + c.dst).c_str()), 1) << c.src;
        EXPECT_FALSE(exists(kWork + c.dst)) << c.src;
    }
    // A copy onto the source itself, also by way of its folder, would empty it.
    EXPECT_EQ(CopyFile((kWork + "/src").c_str(), (kWork + "/src").c_str()), 1);
    EXPECT_EQ(CopyFile((kWork + "/src").c_str(), kWork.c_str()), 1);
    EXPECT_EQ(read_file(kWork + "/src"), "x");
}

TEST_F(CopyFileTest, RelativePathsAreRefusedAndNeverOptions)
{
    // A relative client path would name a file in whatever working directory the process has.
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof(cwd)), nullptr);
    ASSERT_EQ(chdir(kWork.c_str()), 0);
    write_file("-n", "dash");
    LogCapture log;
    int rc = CopyFile("-n", "-t");
    ASSERT_EQ(chdir(cwd), 0);
    EXPECT_NE(rc, 0);
    EXPECT_FALSE(exists(kWork + "/-t"));
    EXPECT_TRUE(log.has("path '-n' is not absolute, nothing run"));
    EXPECT_EQ(CopyFile((kWork + "/-n").c_str(), (kWork + "/-t").c_str()), 0);
    EXPECT_EQ(read_file(kWork + "/-t"), "dash");
}

// A tree with nested folders, an empty one, a link and a FIFO.
void make_tree(const std::string& root)
{
    make_dirs(root + "/sub/deeper");
    make_dirs(root + "/empty");
    write_file(root + "/top.txt", "top");
    write_file(root + "/sub/mid.txt", "mid");
    write_file(root + "/sub/deeper/low.txt", "low");
    ASSERT_EQ(symlink("top.txt", (root + "/link").c_str()), 0);
    ASSERT_EQ(mkfifo((root + "/fifo").c_str(), 0644), 0);
}

TEST_F(CopyDirTest, SourceThatIsNoFolderOrANullPathGivesMinusOne)
{
    write_file(kWork + "/file", "f");
    EXPECT_EQ(CopyDir((kWork + "/file/").c_str(), (kWork + "/dst/").c_str()), -1);
    EXPECT_EQ(CopyDir((kWork + "/none/").c_str(), (kWork + "/dst/").c_str()), -1);
    EXPECT_FALSE(exists(kWork + "/dst"));
}

TEST_F(CopyDirTest, RelativeRootsAreRefusedBeforeAnythingIsMade)
{
    make_tree(kWork + "/src");
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof(cwd)), nullptr);
    ASSERT_EQ(chdir(kWork.c_str()), 0);
    const int rc[] = {CopyDir("src/", (kWork + "/dst").c_str()), CopyDir((kWork + "/src/").c_str(), "dst"), CopyDir("", "")};
    ASSERT_EQ(chdir(cwd), 0);
    EXPECT_EQ(std::vector<int>(rc, rc + 3), std::vector<int>(3, -1));
    EXPECT_FALSE(exists(kWork + "/dst"));
}

TEST_F(CopyDirTest, DestinationInsideTheSourceIsRefusedAlsoThroughALinkOrASecondMount)
{
    make_tree(kWork + "/src");
    EXPECT_EQ(CopyDir((kWork + "/src/").c_str(), (kWork + "/src/sub/copy").c_str()), -1);
    ASSERT_EQ(symlink((kWork + "/src/sub").c_str(), (kWork + "/alias").c_str()), 0);
    EXPECT_EQ(CopyDir((kWork + "/src/").c_str(), (kWork + "/alias/copy").c_str()), -1);
    EXPECT_FALSE(exists(kWork + "/src/sub/copy"));
    make_dirs(kWork + "/bind");
    if (mounts.bind(kWork + "/src", kWork + "/bind")) {
        EXPECT_EQ(CopyDir((kWork + "/src/").c_str(), (kWork + "/bind/sub/copy").c_str()), -1);
        EXPECT_FALSE(exists(kWork + "/src/sub/copy"));
    }
    // Beside the source is fine.
    EXPECT_EQ(CopyDir((kWork + "/src/sub/").c_str(), (kWork + "/src/sub2").c_str()), 0);
}

TEST_F(CopyDirTest, DestinationPathThatDoesNotFitStopsTheWalkInsteadOfBeingCut)
{
    make_dirs(kWork + "/src");
    write_file(kWork + "/src/" + std::string(60, 'f'), "f");
    // The source's full path fits 259 bytes, its twin at the destination not.
    std::string dst = kWork + "/" + std::string(200, 'd');
    LogCapture log;
    // A root that does not fit is refused whole, not cut.
    EXPECT_EQ(CopyDir((kWork + "/src/").c_str(), (dst + "/" + std::string(60, 'e')).c_str()), -1);
    EXPECT_TRUE(log.has("path too long for a tree copy"));
    EXPECT_EQ(CopyDir((kWork + "/src/").c_str(), dst.c_str()), ENAMETOOLONG);
    EXPECT_TRUE(log.has("destination path for"));
}

TEST_F(CopyDirTest, FileThatDoesNotFitStopsTheWalkWithENOSPCAndIsRemoved)
{
    REQUIRE_MOUNT(kWork + "/full", "64k");
    make_dirs(kWork + "/src/sub");
    write_file(kWork + "/src/sub/big", std::string(200000, 'b'));
    EXPECT_EQ(CopyDir((kWork + "/src/").c_str(), (kWork + "/full/dst/").c_str()), ENOSPC);
    EXPECT_TRUE(exists(kWork + "/full/dst/sub"));
    EXPECT_FALSE(exists(kWork + "/full/dst/sub/big"));
}

struct Visit {
    std::vector<std::string> paths;
    int stopAt = -1;
};

int note(void* context, const char* path, const struct stat64*)
{
    auto* v = static_cast<Visit*>(context);
    v->paths.push_back(path);
    return static_cast<int>(v->paths.size()) == v->stopAt ? 77 : 0;
}

TEST_F(BrowseDirTest, CallbackResultStopsTheWalk)
{
    make_dirs(kWork + "/t");
    for (const char* n : {"a", "b", "c"})
        write_file(kWork + "/t/" + n, n);
    char path[COPY_WALK_PATH_LEN];
    strcpy(path, (kWork + "/t/").c_str());
    Visit v;
    v.stopAt = 2;
    EXPECT_EQ(BrowseDir(path, path + strlen(path), path + sizeof(path), false, note, &v), 77);
    EXPECT_EQ(v.paths.size(), 2u);
    Visit none;
    strcpy(path, (kWork + "/none/").c_str());
    EXPECT_EQ(BrowseDir(path, path + strlen(path), path + sizeof(path), false, note, &none), ENOENT);
}

}  // namespace
}  // namespace copy_test
