// Hostile names through every file operation: each acts on the named file
// and on nothing else, and no name runs a command. Canary files must
// survive, the working directory (where a stray "touch MARK" would land)
// must stay empty, and the tree must hold exactly what the operations made.
#include "file_ops_fixture.h"

#include <fcntl.h>
#include <ftw.h>

#include <norvfw/RTC.h>

using namespace file_ops_test;

namespace {

const std::vector<std::string> kHostile = {
    "a\"b", "a\\b", "a\\", "\\\"", "\"", "$(touch MARK)", "`touch MARK`", "$HOME", "${IFS}x",
    "x\"; touch MARK; \"y", "x\" && touch MARK && \"", "new\nline", "%s%n%x%p", "-rf", "--help", "-",
    " lead", "trail ", "two  spaces", "* ?[a]", "'quoted'", "a&&touch MARK", ";|<>&", "!x", "~",
    "\xff\xfe\x80\xc3", "a$(", "\\$(touch MARK)", "\"$(touch MARK)\"", "$'\\x41'", "tab\there",
    std::string(200, 'L'),  // long, yet a rename line of two such paths with suffixes fits
};

// The name shown in a failure: bytes outside printable ASCII as \xNN.
std::string shown(const std::string& name)
{
    std::string out;
    for (unsigned char c : name) {
        char hex[8];
        snprintf(hex, sizeof(hex), "\\x%02x", c);
        out += (c >= 0x20 && c < 0x7f) ? std::string(1, static_cast<char>(c)) : std::string(hex);
    }
    return out;
}

std::set<std::string>* g_tree = nullptr;
size_t g_baseLen = 0;

int note_entry(const char* path, const struct stat*, int, struct FTW*)
{
    g_tree->insert(std::string(path).substr(g_baseLen));
    return 0;
}

class Hostile : public FileOps {
protected:
    void SetUp() override
    {
        FileOps::SetUp();
        ASSERT_EQ(mkdir(at("h").c_str(), 0755), 0);
        for (const char* c : {"canary", "h/canary", "h/a", "h/b", "h/ab", "h/x", "h/y", "h/lead", "h/new"})
            put(c, "alive");
        clean = tree();
    }
    // Every path under the scratch folder.
    std::set<std::string> tree()
    {
        std::set<std::string> out;
        g_tree = &out;
        g_baseLen = base.size();
        nftw(base.c_str(), note_entry, 16, FTW_PHYS);
        return out;
    }
    std::set<std::string> clean_plus(const std::vector<std::string>& names)
    {
        std::set<std::string> out = clean;
        for (const std::string& n : names)
            out.insert("/h/" + n);
        return out;
    }
    void expect_untouched(const std::string& why)
    {
        EXPECT_EQ(tree(), clean) << why;
        for (const char* c : {"canary", "h/canary", "h/a", "h/b", "h/lead"})
            EXPECT_EQ(content(c), "alive") << why;
    }
    std::set<std::string> clean;
};

}  // namespace

TEST_F(Hostile, EveryOperationActsOnTheNamedFileOnly)
{
    theRTC.SetDateTimeFound(true);
    for (const std::string& n : kHostile) {
        SCOPED_TRACE(shown(n));
        std::string p = at("h/" + n);
        forget_events();
        EXPECT_EQ(Request(STORAGE_WRITE_FILE).s(p).i(static_cast<int32_t>(n.size())).raw(n).invoke(), kTrue);
        EXPECT_EQ(content("h/" + n), n);
        EXPECT_EQ(tree(), clean_plus({n}));
        set_protected("h/" + n, 2);
        EXPECT_EQ(mode_of("h/" + n) & 0222, 0u);
        EXPECT_FALSE(delete_file("h/" + n, 1));
        set_protected("h/" + n, 1);
        EXPECT_EQ(mode_of("h/" + n) & 0200, 0200u);

        for (const std::string& s : kAllCompanions)
            put("h/" + n + s, s);
        EXPECT_TRUE(rename_file("h/" + n, "h/" + n + "2", true));
        std::vector<std::string> moved = {n + "2"};
        for (const std::string& s : kAllCompanions)
            moved.push_back(n + "2" + s);
        EXPECT_EQ(tree(), clean_plus(moved));
        EXPECT_EQ(Request(STORAGE_DELETE_FILE).s(p + "2").i(1).i(1).invoke(), kTrue);
        EXPECT_EQ(tree(), clean_plus({n + "2.xml.sig"}));
        ASSERT_EQ(unlink((p + "2.xml.sig").c_str()), 0);

        EXPECT_TRUE(theStorageManagerService.CreateDir(p.c_str(), 1));
        EXPECT_TRUE(is_dir("h/" + n));
        put("h/" + n + "/inner", "x");
        EXPECT_FALSE(theStorageManagerService.DeleteDir(p.c_str(), 1, 2));
        EXPECT_TRUE(exists("h/" + n + "/inner"));
        EXPECT_TRUE(theStorageManagerService.DeleteDir(p.c_str(), 2, 2));

        int err = 0;
        int fd = theStorageManagerService.LumOpen(p.c_str(), O_WRONLY | O_CREAT, 0644, &err);
        EXPECT_GE(fd, 0);
        EXPECT_EQ(theStorageManagerService.LumClose(fd, &err), 0);
        EXPECT_EQ(Request(STORAGE_LUM_CHMOD).s(p).i(0600).invoke(), le32({0}));
        EXPECT_EQ(mode_of("h/" + n), 0600u);
        EXPECT_TRUE(delete_file("h/" + n));

        EXPECT_EQ(results(LUM_TV_EVT_STORAGE_WRITE_FILE), (Bytes{0}));
        EXPECT_EQ(results(LUM_TV_EVT_STORAGE_SET_PROTECTED), (Bytes{0, 0}));
        EXPECT_EQ(results(LUM_TV_EVT_STORAGE_DELETE_FILE), (Bytes{2, 0, 0}));
        EXPECT_EQ(results(LUM_TV_EVT_STORAGE_RENAME_FILE), (Bytes{0}));
        EXPECT_EQ(results(LUM_TV_EVT_STORAGE_CREATE_DIR), (Bytes{0}));
        EXPECT_EQ(results(LUM_TV_EVT_STORAGE_DELETE_DIR), (Bytes{2, 0}));
        expect_untouched("after " + shown(n));
    }
    EXPECT_TRUE(entries("cwd").empty());
}

TEST_F(Hostile, FoldersWithCommandsInTheirNamesRunNothing)
{
    // The path's components are "h$(touch ", the scratch folder's own, and
    // "MARK2)y": unquoted, the line would create MARK2 in the scratch folder.
    std::string dir = at("h$(touch " + base + "/MARK2)y");
    ASSERT_EQ(system(("mkdir -p '" + dir + "'").c_str()), 0);
    clean = tree();
    std::string file = dir + "/`touch MARK3`";
    EXPECT_TRUE(write_file(file, "x"));
    set_protected(file, 2);
    set_protected(file, 1);
    EXPECT_TRUE(rename_file(file, dir + "/$(touch MARK4)", true));
    EXPECT_TRUE(delete_file(dir + "/$(touch MARK4)", 1));
    EXPECT_TRUE(theStorageManagerService.CreateDir((dir + "/d").c_str(), 1));
    EXPECT_TRUE(theStorageManagerService.DeleteDir((dir + "/d").c_str(), 2, 2));
    EXPECT_EQ(tree(), clean);
    EXPECT_FALSE(exists("MARK2"));
    EXPECT_TRUE(entries("cwd").empty());
}

TEST_F(Hostile, NamesWhoseEscapedFormDoesNotFitAreFailedCommands)
{
    for (char c : {'"', '$', '\\', '`'}) {
        std::string n(255, c);  // 510 characters escaped: no command line holds them
        SCOPED_TRACE(std::string(1, c));
        forget_events();
        EXPECT_TRUE(write_file("h/" + n, "data"));  // not protected: no command needed
        clean = tree();
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
    EXPECT_EQ(content("h/canary"), "alive");
}
