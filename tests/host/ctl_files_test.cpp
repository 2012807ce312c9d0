// lumstoragectl's file subcommands end to end: ctl_main against an
// in-process daemon on the fake service (fake_files.cpp), whose requests
// are compared byte for byte with vectors written out here from the wire
// forms, and whose result events must come out as the right words and
// exit codes; exec, chmod and fd with their replies' results, errno behind
// negative ones, and raw bytes out.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <map>

#include "ctl_run.h"
#include "fake_files.h"
#include <nlohmann/json.hpp>
#include "lumctl/copy_progress.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;
using hosttest::ctl;
using hosttest::CtlRun;
using hosttest::Expect;
using hosttest::has;

// Parcel layout by hand: int32 little-endian; text, its NUL and zeros up to
// a multiple of 4; raw bytes padded the same way.
Bytes i32(uint32_t v)
{
    return {static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v >> 16),
            static_cast<uint8_t>(v >> 24)};
}

Bytes padded(Bytes b)
{
    b.resize((b.size() + 3) / 4 * 4, 0);
    return b;
}

Bytes cstr(const std::string& text)
{
    Bytes b(text.begin(), text.end());
    b.push_back(0);
    return padded(b);
}

Bytes raw(const std::string& text)
{
    return padded(Bytes(text.begin(), text.end()));
}

Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

class CtlFiles : public ::testing::Test {
protected:
    void SetUp() override
    {
        fakesvc::reset_files();
        ASSERT_EQ(0, srv.start());
    }
    void TearDown() override { fakesvc::reset_files(); }
    CtlRun run(std::vector<std::string> words) { return ctl(srv.config.socket_path, std::move(words)); }
    void expect_all(std::initializer_list<Expect> cases) { hosttest::expect_runs(srv.config.socket_path, cases); }
    // The file with text in the test's directory.
    std::string file_with(const std::string& name, const std::string& text)
    {
        std::string path = srv.dir.path + "/" + name;
        std::ofstream(path, std::ios::binary) << text;
        return path;
    }
    hosttest::TestServer srv;
};

struct WireCase {
    std::vector<std::string> words;
    Bytes want;
};

TEST_F(CtlFiles, EachSubcommandSendsItsWireForm)
{
    const std::string hello = file_with("hello", "hello");
    const WireCase cases[] = {
        {{"mkdir", "/a/b"}, cat({i32(4141), cstr("/a/b"), i32(5)})},
        {{"rm", "/a/b.ts"}, cat({i32(4135), cstr("/a/b.ts"), i32(8)})},
        {{"rm", "--recording", "/a/b.ts"}, cat({i32(4135), cstr("/a/b.ts"), i32(8), i32(1)})},
        {{"rm", "-r", "/a/dir"}, cat({i32(4134), cstr("/a/dir"), i32(2), i32(7)})},
        {{"rmdir", "/a/dir"}, cat({i32(4134), cstr("/a/dir"), i32(1), i32(7)})},
        {{"protect", "/mnt/pvr/shared/sdb1/a.ts"}, cat({i32(4143), cstr("\x02/mnt/pvr/shared/sdb1/a.ts")})},
        {{"unprotect", "/a.ts"}, cat({i32(4143), cstr("\x01/a.ts")})},
        // Source cstring, block size, block src NUL dst NUL [type].
        {{"cp", "/a/x", "/b/y"}, cat({i32(4137), cstr("/a/x"), i32(10), raw(std::string("/a/x\0/b/y\0", 10))})},
        {{"cp", "--recording", "/a/r.ts", "/b/r.ts"},
         cat({i32(4137), cstr("/a/r.ts"), i32(17), raw(std::string("/a/r.ts\0/b/r.ts\0\x01", 17))})},
        {{"cp", "-r", "/a/d", "/b/e/"},
         cat({i32(4137), cstr("/a/d/"), i32(12), raw(std::string("/a/d/\0/b/e/\0", 12))})},
        {{"cp", "--cancel"}, cat({i32(4137), cstr(""), i32(0)})},
        {{"cp", "--direct", "/a/x", "/b/y"}, cat({i32(4138), cstr("/a/x"), cstr("/b/y")})},
        {{"cp", "--direct", "-r", "/a/d", "/b/e"}, cat({i32(4139), cstr("/a/d/"), cstr("/b/e/")})},
        {{"mv", "/a/x", "/b/y"}, cat({i32(4154), cstr("/a/x"), cstr("/b/y"), i32(0)})},
        {{"mv", "/a/r.ts", "/b/r.ts", "--recording"}, cat({i32(4154), cstr("/a/r.ts"), cstr("/b/r.ts"), i32(1)})},
        {{"rename", "--recording", "/a/r.ts", "/a/s.ts"}, cat({i32(4140), cstr("/a/r.ts"), cstr("/a/s.ts"), i32(1)})},
        // size counts the data alone.
        {{"write", "/a/f", hello}, cat({i32(4142), cstr("/a/f"), i32(5), raw("hello")})},
        {{"exec", "ls", "-l", "/"}, cat({i32(4147), i32(7), cstr("ls -l /")})},
        {{"exec", "--capture", "--", "--help"}, cat({i32(4148), cstr("--help")})},
        {{"chmod", "/a/f", "755"}, cat({i32(4149), cstr("/a/f"), i32(0755)})},
        // O_WRONLY 01 | O_CREAT 0100 | O_TRUNC 01000.
        {{"fd", "open", "/a/f", "O_WRONLY|o_creat|TRUNC", "0644"},
         cat({i32(4150), cstr("/a/f"), i32(01101), i32(0644)})},
        {{"fd", "open", "/a/f", "0x42", "0"}, cat({i32(4150), cstr("/a/f"), i32(0x42), i32(0)})},
        {{"fd", "close", "7"}, cat({i32(4151), i32(7)})},
        {{"fd", "read", "7", "3"}, cat({i32(4152), i32(7), i32(3)})},
        {{"fd", "write", "7", hello}, cat({i32(4153), i32(7), i32(5), raw("hello")})},
        {{"fd", "sync", "7"}, cat({i32(4155), i32(7)})},
        // The generic path still sends any command by name, field by field.
        {{"delete-file", "/a/b.ts", "8"}, cat({i32(4135), cstr("/a/b.ts"), i32(8)})},
        {{"raw", "STORAGE_COPY", "s:/a/x", "i:10", "x:2f612f78002f622f7900"},
         cat({i32(4137), cstr("/a/x"), i32(10), Bytes{'/', 'a', '/', 'x', 0, '/', 'b', '/', 'y', 0}})},
    };
    for (const WireCase& c : cases) {
        fakesvc::reset_files();
        EXPECT_EQ(0, run(c.words).code) << c.words[0] << " " << c.words[1];
        std::vector<Bytes> sent = fakesvc::file_requests();
        ASSERT_EQ(1u, sent.size()) << c.words[0] << " " << c.words[1];
        EXPECT_EQ(c.want, sent[0]) << c.words[0] << " " << c.words[1];
    }

    // Data from standard input, for write and fd write alike.
    fakesvc::reset_files();
    EXPECT_EQ(0, hosttest::ctl_input(srv.config.socket_path, {"write", "/a/f"}, std::string("ab\0c", 4)).code);
    EXPECT_EQ(0, hosttest::ctl_input(srv.config.socket_path, {"fd", "write", "7", "-"}, "xyz").code);
    std::vector<Bytes> sent = fakesvc::file_requests();
    ASSERT_EQ(2u, sent.size());
    EXPECT_EQ(cat({i32(4142), cstr("/a/f"), i32(4), Bytes{'a', 'b', 0, 'c'}}), sent[0]);
    EXPECT_EQ(cat({i32(4153), i32(7), i32(3), raw("xyz")}), sent[1]);
}

struct ResultCase {
    std::vector<std::string> words;
    int result;
    const char* line;  // standard output
    const char* hint;  // part of standard error, or null
};

TEST_F(CtlFiles, ResultBytesPrintTheirWordsAndFailuresExit1)
{
    const ResultCase cases[] = {
        {{"mkdir", "/a/b"}, 0, "mkdir /a/b: created or exists (result 0)\n", nullptr},
        {{"mkdir", "/a/b"}, 1, "mkdir /a/b: not enough input (result 1)\n", nullptr},
        {{"mkdir", "/a/b"}, 2, "mkdir /a/b: mkdir failed (result 2)\n", "writable"},
        {{"mkdir", "/a/b"}, 7, "mkdir /a/b: created, but touch failed (result 7)\n", nullptr},
        {{"rm", "/a/b"}, 0, "rm /a/b: removed (result 0)\n", nullptr},
        {{"rm", "/a/b"}, 2, "rm /a/b: protected (result 2)\n", "lumstoragectl unprotect PATH"},
        {{"rm", "/a/b"}, 3, "rm /a/b: rm failed (result 3)\n", "rmdir or rm -r"},
        {{"rm", "-r", "/a/d"}, 2, "rm /a/d: rmdir or rm -rf failed (result 2)\n", "rm -r a tree"},
        {{"rmdir", "/a/d"}, 1, "rmdir /a/d: not enough input or bad mode (result 1)\n", nullptr},
        {{"protect", "/a/f"}, 0, "protect /a/f: done (result 0)\n", nullptr},
        {{"unprotect", "/a/f"}, 2, "unprotect /a/f: chmod failed (result 2)\n", "exist"},
        {{"rename", "/a/x", "/a/y"}, 2, "rename /a/x /a/y: destination protected (result 2)\n", "unprotect DST"},
        {{"rename", "/a/x", "/a/y"}, 3, "rename /a/x /a/y: failed (result 3)\n", nullptr},
        {{"mv", "/a/x", "/b/y"}, 0, "mv /a/x /b/y: done (result 0)\n", nullptr},
        {{"mv", "/a/x", "/b/y"}, 3, "mv /a/x /b/y: failed (result 3)\n", nullptr},
        {{"cp", "/a/x", "/b/y"}, 0, "cp /a/x /b/y: done (result 0)\n", nullptr},
        {{"cp", "/a/x", "/b/y"}, 5, "cp /a/x /b/y: busy: another copy is running (result 5)\n", "cp --cancel"},
        {{"cp", "/a/x", "/b/y"}, 6, "cp /a/x /b/y: failed with 8 (result 6)\n", nullptr},
        {{"cp", "/a/x", "/b/y"}, 13, "cp /a/x /b/y: destination protected (result 13)\n", "unprotect DST"},
        {{"cp", "-r", "/a/", "/b"},
         255,
         "cp /a/ /b/: source not a directory or destination exists (result 255)\n",
         "does not exist yet"},
        {{"cp", "/a/x", "/b/y"}, 42, "cp /a/x /b/y: cp failed (result 42)\n", nullptr},
    };
    for (const ResultCase& c : cases) {
        fakesvc::g_result = c.result;
        CtlRun r = run(c.words);
        EXPECT_EQ(c.result == 0 ? 0 : 1, r.code) << c.line << r.err;
        EXPECT_EQ(c.line, r.out);
        if (c.hint != nullptr)
            EXPECT_TRUE(has(r.err, c.hint)) << c.line << r.err;
        else
            EXPECT_EQ("", r.err) << c.line;
    }

    // write: an empty file sends nothing the service writes.
    fakesvc::g_result = 1;
    CtlRun r = run({"write", "/a/f", file_with("empty", "")});
    EXPECT_EQ(1, r.code);
    EXPECT_TRUE(has(r.out, ": not enough input data (result 1)\n")) << r.out;
    EXPECT_TRUE(has(r.err, "at least one byte")) << r.err;
}

TEST_F(CtlFiles, JsonCarriesOperandsResultAndName)
{
    const std::pair<std::vector<std::string>, const char*> cases[] = {
        {{"--json", "mkdir", "/a/b"}, "{\"path\":\"/a/b\",\"result\":0,\"name\":\"created or exists\",\"ok\":true}\n"},
        {{"rm", "--recording", "/a/b.ts", "--json"},
         "{\"path\":\"/a/b.ts\",\"recording\":true,\"result\":0,\"name\":\"removed\",\"ok\":true}\n"},
        {{"rename", "/a/\"x", "/a/y", "--json"},
         "{\"source\":\"/a/\\\"x\",\"destination\":\"/a/y\",\"recording\":false,\"result\":0,\"name\":\"done\","
         "\"ok\":true}\n"},
        {{"cp", "--json", "/a/x", "/b/y"},
         "{\"source\":\"/a/x\",\"destination\":\"/b/y\",\"recording\":false,\"result\":0,\"name\":\"done\",\"ok\":true,"
         "\"outOfSpace\":false}\n"},
        {{"cp", "--cancel", "--json"}, "{\"cancel\":true,\"queued\":true}\n"},
        {{"cp", "--direct", "--json", "/a/x", "/b/y"}, "{\"source\":\"/a/x\",\"destination\":\"/b/y\",\"ok\":true}\n"},
    };
    for (const auto& c : cases) {
        CtlRun r = run(c.first);
        EXPECT_EQ(0, r.code) << r.err;
        EXPECT_EQ(c.second, r.out);
        EXPECT_TRUE(hosttest::json_lines(r.out)) << r.out;
    }
    fakesvc::g_result = 2;
    CtlRun r = run({"--json", "protect", "/a/f"});
    EXPECT_EQ(1, r.code);
    EXPECT_EQ("{\"path\":\"/a/f\",\"result\":2,\"name\":\"chmod failed\",\"ok\":false}\n", r.out);
}

TEST_F(CtlFiles, CopyReportsOutOfSpaceBeforeItsResult)
{
    fakesvc::g_out_of_space = true;
    CtlRun r = run({"cp", "/a/x", "/b/y"});
    EXPECT_EQ(1, r.code);
    EXPECT_EQ(
        "cp /a/x /b/y: out of space on the destination's volume\n"
        "cp /a/x /b/y: refused, cancelled, failed walk or disk full (result 1)\n",
        r.out);
    r = run({"cp", "--json", "/a/x", "/b/y"});
    EXPECT_EQ(1, r.code);
    EXPECT_TRUE(has(r.out, "\"result\":1,")) << r.out;
    EXPECT_TRUE(has(r.out, "\"outOfSpace\":true}\n")) << r.out;

    // The cancel and the direct copy answer by their reply alone.
    fakesvc::reset_files();
    r = run({"cp", "--cancel"});
    EXPECT_EQ(0, r.code) << r.err;
    EXPECT_TRUE(has(r.out, "cancel sent")) << r.out;
    fakesvc::g_result = 1;
    r = run({"cp", "--direct", "/a/x", "/b/y"});
    EXPECT_EQ(1, r.code);
    EXPECT_EQ("cp --direct /a/x /b/y: failed (the reply gives no reason)\n", r.out);
}

// The copy's progress line from given figures, the rule that keeps it off
// pipes and JSON, and the files it watches: a tree's under the destination,
// a recording's companions beside it.
TEST(CopyProgress, LineFiguresAndWatchedFiles)
{
    const std::pair<lumctl::ProgressFigures, const char*> lines[] = {
        {{0, 50331648, 0, 1, 0}, "0B of 48.0M  0%  0 of 1 file"},
        {{12582912, 50331648, 3, 10, 0.4}, "12.0M of 48.0M  25%  3 of 10 files"},
        {{12582912, 50331648, 3, 10, 3}, "12.0M of 48.0M  25%  3 of 10 files  4.0M/s  0:09 left"},
        {{4096, 4096, 1, 1, 1}, "4.0K of 4.0K  100%  1 of 1 file  4.0K/s  0:00 left"},
        {{1 << 20, 4000ull << 20, 0, 2, 1}, "1.0M of 3.9G  0%  0 of 2 files  1.0M/s  1:06:39 left"},
    };
    for (const auto& c : lines)
        EXPECT_EQ(c.second, lumctl::progress_line(c.first));
    EXPECT_TRUE(lumctl::shows_progress(false, true));
    EXPECT_FALSE(lumctl::shows_progress(true, true));
    EXPECT_FALSE(lumctl::shows_progress(false, false));

    hosttest::TempDir dir;
    const std::string src = dir.path + "/src";
    ASSERT_EQ(0, mkdir(src.c_str(), 0755));
    ASSERT_EQ(0, mkdir((src + "/sub").c_str(), 0755));
    std::ofstream(src + "/sub/a.ts") << "12345";
    std::ofstream(src + "/sub/a.ts.idx") << "12";
    ASSERT_EQ(0, symlink("sub/a.ts", (src + "/link").c_str()));
    lumctl::CopyPlan tree = lumctl::plan_copy(lumctl::CopyShape::kTree, src + "/", "/dst/");
    std::map<std::string, std::string> places(tree.files.begin(), tree.files.end());
    EXPECT_EQ((std::map<std::string, std::string>{{src + "/sub/a.ts", "/dst/sub/a.ts"},
                                                   {src + "/sub/a.ts.idx", "/dst/sub/a.ts.idx"}}),
              places);
    lumctl::CopyPlan rec = lumctl::plan_copy(lumctl::CopyShape::kRecording, src + "/sub/a.ts", "/d/b.ts");
    ASSERT_EQ(2u, rec.files.size());
    EXPECT_EQ("/d/b.ts.idx", rec.files[1].second);
    EXPECT_EQ((std::vector<uint64_t>{5, 2}), rec.sizes);
}

TEST_F(CtlFiles, RefusedOrUnansweredRequestsExit1)
{
    CtlRun r = run({"protect", fakesvc::kRefusedPath});
    EXPECT_EQ(1, r.code);
    EXPECT_TRUE(has(r.err, "refused the request: no result will come")) << r.err;
    r = run({"cp", fakesvc::kRefusedPath, "/b"});
    EXPECT_EQ(1, r.code);
    EXPECT_TRUE(has(r.err, "no copy will run")) << r.err;
    // A direct command the service does not handle: -1, no reply, no event.
    r = run({"mkdir", fakesvc::kRefusedPath});
    EXPECT_EQ(1, r.code);
    EXPECT_TRUE(has(r.err, "did not take the request (result -1)")) << r.err;
    // A reply without its event.
    r = run({"rm", fakesvc::kSilentPath, "--timeout", "0.3"});
    EXPECT_EQ(1, r.code);
    EXPECT_TRUE(has(r.err, "replied false but sent no LUM_TV_EVT_STORAGE_DELETE_FILE")) << r.err;
    r = run({"cp", fakesvc::kSilentPath, "/b", "--timeout", "0.3"});
    EXPECT_EQ(1, r.code);
    EXPECT_TRUE(has(r.err, "timed out after 0.3 s waiting for LUM_TV_EVT_STORAGE_COPY")) << r.err;
    EXPECT_EQ("", r.out);
}

TEST_F(CtlFiles, LimitsAndMistakesAreRefusedBeforeSending)
{
    const std::string p98 = "/" + std::string(97, 'p');
    const std::string p256 = "/" + std::string(255, 'd');
    const std::string half = "/" + std::string(253, 'h');  // two of them: 508 bytes, the most with a third
    struct Case {
        std::vector<std::string> words;
        const char* message;
    };
    const Case refused[] = {
        {{"protect", p98 + "x"}, "path of 99 bytes is too long: the service takes at most 98"},
        {{"cp", p256 + "x", "/b"}, "path of 257 bytes is too long: the service takes at most 256"},
        {{"cp", "/a", p256 + "x"}, "path of 257 bytes is too long: the service takes at most 256"},
        {{"rename", half + "x", half + "y"}, "510 bytes together: the service takes at most 509"},
        {{"mv", half + "xy", half}, "510 bytes together"},
        {{"exec", std::string(512, 'e')}, "refuses commands of 512 bytes or more"},
        {{"mkdir", "a/b"}, "not an absolute path"},
        {{"rm", ""}, "not an absolute path"},
        {{"rm", "--recording", "/a/b.idx"}, "NAME.ts"},
        {{"cp", "--recording", "/a/b", "/c/b"}, "NAME.ts"},
        {{"rm", "-r", "--recording", "/a/b.ts"}, "excludes"},
        {{"cp", "-r", "--recording", "/a/", "/b/"}, "excludes"},
        {{"cp", "/a/", "/b/"}, "a directory takes cp -r"},
        {{"cp", "--cancel", "-r"}, "excludes --cancel"},
        {{"cp", "/a"}, "requires DST"},
        {{"exec", "--capture"}, "exec takes a COMMAND"},
        {{"exec", "--bogus", "x"}, "put -- before"},
        {{"write", "/a/f", "/nonexistent/file"}, "/nonexistent/file: No such file"},
        {{"chmod", "/a", "9"}, "MODE is octal"},
        {{"fd", "open", "/a", "O_BOGUS", "0"}, "FLAGS are names"},
        {{"fd", "read", "x", "1"}, "FD is a number"},
        {{"fd", "read", "7", "-1"}, "BYTES is a number"},
        {{"fd", "seek", "7"}, "word is missing or unknown: open, close"},
    };
    for (const Case& c : refused) {
        CtlRun r = run(c.words);
        EXPECT_EQ(2, r.code) << c.words[0] << " " << c.words[1];
        EXPECT_TRUE(has(r.err, c.message)) << r.err;
    }
    EXPECT_TRUE(fakesvc::file_requests().empty()) << "a refused request went out";

    // The largest that fit go out.
    const std::vector<std::string> fitting[] = {
        {"protect", p98}, {"cp", p256, p256}, {"rename", half + "x", half}, {"exec", std::string(511, 'e')}};
    for (const std::vector<std::string>& words : fitting)
        EXPECT_EQ(0, run(words).code) << words[0];
    EXPECT_EQ(4u, fakesvc::file_requests().size());
}

TEST_F(CtlFiles, DescriptorsOpenReadWriteSyncAndClose)
{
    expect_all({
        {{"fd", "open", "/a/f", "O_RDONLY", "0"}, 0, "fd 7 (it stays open in the daemon until fd close 7)\n", nullptr},
        {{"fd", "open", "/missing", "O_RDONLY", "0"},
         1,
         "",
         "fd open /missing O_RDONLY 0: No such file or directory (errno 2)"},
        {{"fd", "open", "/missing", "0", "0", "--json"},
         1,
         "{\"path\":\"/missing\",\"flags\":0,\"mode\":0,\"result\":-1,\"errno\":2}\n",
         "errno 2"},
        {{"--json", "fd", "open", "/a/f", "O_RDWR", "600"},
         0,
         "{\"path\":\"/a/f\",\"flags\":2,\"mode\":384,\"fd\":7}\n",
         nullptr},
        // Raw bytes, a NUL and 0xff among them; --json as hex.
        {{"fd", "read", "7", "5"},
         0,
         std::string("a\0b\xff"
                     "c",
                     5),
         nullptr},
        {{"fd", "read", "7", "2"}, 0, std::string("a\0", 2), nullptr},
        {{"fd", "read", "7", "5", "--json"}, 0, "{\"fd\":7,\"count\":5,\"hex\":\"610062ff63\"}\n", nullptr},
        {{"fd", "read", "8", "5"}, 0, "", nullptr},
        {{"fd", "read", "9", "5"}, 1, "", "Bad file descriptor (errno 9)"},
        {{"fd", "sync", "7"}, 0, "synced the file system of fd 7\n", nullptr},
        {{"fd", "sync", "9"}, 1, "sync failed for fd 9\n", nullptr},
        {{"fd", "close", "7"}, 0, "closed fd 7\n", nullptr},
        {{"fd", "close", "9", "--json"}, 1, "{\"fd\":9,\"result\":-1,\"errno\":9}\n", "Bad file descriptor"},
        {{"chmod", "/a/f", "0644"}, 0, "chmod 0644 /a/f: done\n", nullptr},
        {{"chmod", "/missing", "644", "--json"},
         1,
         "{\"path\":\"/missing\",\"mode\":\"0644\",\"result\":-1,\"errno\":2}\n",
         "No such file"},
    });
    CtlRun r = hosttest::ctl_input(srv.config.socket_path, {"fd", "write", "7"}, "abc");
    EXPECT_EQ(0, r.code) << r.err;
    EXPECT_EQ("wrote 3 of 3 bytes to fd 7\n", r.out);
}

TEST_F(CtlFiles, ExecPrintsTheShellsResultOrItsOutput)
{
    fakesvc::g_result = 0;
    expect_all({{{"exec", "true"}, 0, "ok\n", nullptr},
                {{"exec", "--json", "echo", "a\"b"}, 0, "{\"shell\":\"echo a\\\"b\",\"result\":0}\n", nullptr},
                {{"exec", "--capture", "uname", "-a"}, 0, "ran: uname -a\n", nullptr},
                {{"exec", "--capture", "--json", "nul"},
                 0,
                 "{\"shell\":\"nul\",\"count\":5,\"output\":\"ab\",\"cut\":false}\n",
                 nullptr},
                {{"exec", "--capture", "fail"}, 1, "", "could not be started (result -1)"},
                {{"exec", "--capture", "big"}, 0, std::string(1024, 'x'), "first 1024 bytes"}});
    fakesvc::g_result = 3;
    expect_all({{{"exec", "false"}, 1, "exit status 3\n", nullptr}});
    fakesvc::g_result = -1;
    expect_all({{{"exec", "x"}, 1, "the command did not run (result -1)\n", nullptr}});
}

}  // namespace
