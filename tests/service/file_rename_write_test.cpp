// RenameFile and WriteFile with the real rm, mv and chmod: result bytes, events, and what is left on the disk.
#include "file_ops_fixture.h"

#include <cerrno>

using namespace file_ops_test;

TEST_F(FileOps, RenameOfARecordingMovesEveryCompanionInOrder)
{
    recording("old.ts");
    EXPECT_TRUE(rename_file("old.ts", "new.ts", true));
    EXPECT_EQ(entries("."), (std::set<std::string>{"cwd", "new.ts", "new.ts.desc", "new.ts.idx", "new.ts.idx.desc",
                                                    "new.ts.xml", "new.ts.xml.sig"}));
    EXPECT_EQ(content("new.ts.idx"), "companion old.ts.idx");
    std::vector<std::string> r = runs();
    ASSERT_EQ(r.size(), 7u);
    const char* order[] = {".desc", ".idx", ".idx.desc", ".xml", ".xml.sig"};
    for (int i = 0; i < 5; ++i) {
        std::string s = order[i];
        EXPECT_EQ(r[2 + i], "mv -f \"" + at("old.ts") + s + "\" \"" + at("new.ts") + s + "\"");
    }
    // Without a signature (or any companion) the rest still moves: result 0.
    put("b.ts", "m");
    put("b.ts.idx", "i");
    put("b.ts.xml", "x");
    EXPECT_TRUE(rename_file("b.ts", "c.ts", true));
    EXPECT_TRUE(exists("c.ts.idx") && exists("c.ts.xml") && exists("c.ts"));
    // Without the flag, companions stay where they are.
    put("d.ts", "m");
    put("d.ts.idx", "i");
    EXPECT_TRUE(rename_file("d.ts", "e.ts", false));
    EXPECT_TRUE(exists("d.ts.idx"));
    EXPECT_EQ(results(LUM_TV_EVT_STORAGE_RENAME_FILE), (Bytes{0, 0, 0}));
}

TEST_F(FileOps, RenameToItselfOrAnotherNameOfItselfKeepsTheFile)
{
    put("same", "data");
    EXPECT_FALSE(rename_file("same", "same", false));  // mv refuses: result 3
    EXPECT_EQ(runs(), std::vector<std::string>{"mv -f \"" + at("same") + "\" \"" + at("same") + "\""});
    // "/x//same" is the same file: removing it as the destination would lose it.
    EXPECT_FALSE(rename_file("same", base + "//same", false));
    EXPECT_EQ(content("same"), "data");
    EXPECT_EQ(results(LUM_TV_EVT_STORAGE_RENAME_FILE), (Bytes{3, 3}));
}

TEST_F(FileOps, RenameOfAMissingSourceHasRemovedTheDestination)
{
    put("dst", "old");
    EXPECT_FALSE(rename_file("missing", "dst", false));
    EXPECT_EQ(results(LUM_TV_EVT_STORAGE_RENAME_FILE), (Bytes{3}));
    EXPECT_FALSE(exists("dst"));
    EXPECT_TRUE(log.has("***E: rc=1: "));
}

TEST_F(FileOps, RenameWhoseCommandLinesDoNotFitKeepsTheDestination)
{
    // Both paths fit the packed request, but not one mv line together: the
    // destination must not be removed for a move that cannot run.
    const std::string src(238, 's'), dst(238, 'd');
    ASSERT_EQ(at(src).size(), 253u);
    put(src, "new");
    put(dst, "old");
    EXPECT_FALSE(rename_file(src, dst, false));
    EXPECT_EQ(content(dst), "old");
    EXPECT_EQ(content(src), "new");
    EXPECT_TRUE(runs().empty());
    EXPECT_TRUE(log.has("***E: the names do not fit a command line, nothing renamed"));
    // The main line fits, a companion's does not: a recording is not split.
    const std::string rec(233, 'r'), to(233, 't');
    put(rec, "main");
    put(rec + ".desc", "desc");
    put(to, "old");
    EXPECT_FALSE(rename_file(rec, to, true));
    EXPECT_EQ(content(rec + ".desc"), "desc");
    EXPECT_EQ(content(to), "old");
    EXPECT_TRUE(runs().empty());
    // The same names without the recording flag fit and move.
    EXPECT_TRUE(rename_file(rec, to, false));
    EXPECT_EQ(content(to), "main");
    EXPECT_EQ(results(LUM_TV_EVT_STORAGE_RENAME_FILE), (Bytes{3, 3, 0}));
}

TEST_F(FileOps, RenameRefusesBuffersWithoutTwoAbsolutePaths)
{
    put("a", "x");
    unsigned char unterminated[8] = {0, '/', 'a', 0, '/', 'b', 'c', 'd'};
    EXPECT_FALSE(theStorageManagerService.RenameFile(unterminated, sizeof(unterminated)));
    EXPECT_FALSE(theStorageManagerService.RenameFile(nullptr, 512));
    unsigned char oneOnly[4] = {0, '/', 0, 0};
    EXPECT_FALSE(theStorageManagerService.RenameFile(oneOnly, 3));
    EXPECT_EQ(log.count("***E: the request holds no source and destination"), 3);
    unsigned char relative[16] = {0, 'a', 0, '/', 'b', 0};
    EXPECT_FALSE(theStorageManagerService.RenameFile(relative, sizeof(relative)));
    EXPECT_TRUE(runs().empty());
    EXPECT_EQ(results(LUM_TV_EVT_STORAGE_RENAME_FILE), (Bytes{3, 3, 3, 3}));
}

TEST_F(FileOps, WriteFileWithoutDataOrIntoAMissingFolder)
{
    std::string p = at("none");
    std::string buf = p + '\0' + "data";
    auto* bytes = reinterpret_cast<const unsigned char*>(buf.data());
    EXPECT_TRUE(theStorageManagerService.WriteFile(bytes, static_cast<int>(p.size() + 1)));
    EXPECT_TRUE(theStorageManagerService.WriteFile(bytes, 0));
    EXPECT_TRUE(theStorageManagerService.WriteFile(bytes, -4));
    EXPECT_TRUE(theStorageManagerService.WriteFile(nullptr, 9));
    EXPECT_EQ(log.count("***E: not enough input data"), 4);
    EXPECT_FALSE(exists("none"));
    // One byte of data is enough.
    EXPECT_TRUE(theStorageManagerService.WriteFile(bytes, static_cast<int>(p.size() + 2)));
    EXPECT_EQ(content("none"), "d");
    EXPECT_TRUE(write_file("no/such/dir/f", "x"));
    EXPECT_FALSE(exists("no"));
    std::string rel = std::string("rel") + '\0' + "x";
    theStorageManagerService.WriteFile(reinterpret_cast<const unsigned char*>(rel.data()), 5);
    EXPECT_FALSE(exists("cwd/rel"));
    EXPECT_EQ(results(LUM_TV_EVT_STORAGE_WRITE_FILE), (Bytes{1, 1, 1, 1, 0, 3, 3}));
}

TEST_F(FileOps, NamesWhoseEscapedFormDoesNotFitAreFailedCommands)
{
    ASSERT_EQ(mkdir(at("h").c_str(), 0755), 0);
    for (char c : {'"', '$', '\\', '`'}) {
        std::string n(255, c);  // 510 characters escaped: no command line holds them
        SCOPED_TRACE(std::string(1, c));
        forget_events();
        EXPECT_TRUE(write_file("h/" + n, "data"));  // not protected: no command needed
        set_protected("h/" + n, 2);
        EXPECT_EQ(mode_of("h/" + n), 0644u);
        EXPECT_FALSE(delete_file("h/" + n, 1));
        EXPECT_FALSE(rename_file("h/" + n, "h/plain", false));
        std::string p = at("h/" + n);
        ASSERT_EQ(chmod(p.c_str(), 0444), 0);
        EXPECT_TRUE(write_file("h/" + n, "new"));  // the chmod cannot be made
        EXPECT_EQ(content("h/" + n), "data");
        ASSERT_EQ(unlink(p.c_str()), 0);
        EXPECT_FALSE(theStorageManagerService.CreateDir(p.c_str(), 1));
        EXPECT_FALSE(exists("h/" + n));
        ASSERT_EQ(mkdir(p.c_str(), 0755), 0);
        EXPECT_FALSE(theStorageManagerService.DeleteDir(p.c_str(), 2, 2));
        EXPECT_TRUE(is_dir("h/" + n));
        ASSERT_EQ(rmdir(p.c_str()), 0);
        EXPECT_EQ(results(LUM_TV_EVT_STORAGE_WRITE_FILE), (Bytes{0, 2}));
        EXPECT_EQ(results(LUM_TV_EVT_STORAGE_SET_PROTECTED), (Bytes{2}));
        EXPECT_EQ(results(LUM_TV_EVT_STORAGE_DELETE_FILE), (Bytes{3}));
        EXPECT_EQ(results(LUM_TV_EVT_STORAGE_RENAME_FILE), (Bytes{3}));
        EXPECT_EQ(results(LUM_TV_EVT_STORAGE_CREATE_DIR), (Bytes{2}));
        EXPECT_EQ(results(LUM_TV_EVT_STORAGE_DELETE_DIR), (Bytes{2}));
        EXPECT_TRUE(runs().empty());
        log.clear();
    }
}
