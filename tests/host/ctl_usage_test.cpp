// lumstoragectl as people and scripts use it: the help (overview, one page
// per subcommand, one per command of the service), the exit codes of each
// kind of outcome, errors that say what to do, and JSON from every query.
#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "ctl_run.h"
#include "fake_files.h"
#include "fake_listing.h"
#include "fake_pvr.h"
#include "lumctl/cmd_table.h"
#include "lumctl/ctl.h"
#include "lumctl/ctl_client.h"
#include "test_support.h"

namespace {

using hosttest::ctl;
using hosttest::CtlRun;
using hosttest::has;

// A socket nobody listens on: a run that tried to connect exits 1.
class CtlHelp : public ::testing::Test {
protected:
    CtlRun run(std::vector<std::string> words) { return ctl(dir.path + "/none.sock", std::move(words)); }
    hosttest::TempDir dir;
};

TEST_F(CtlHelp, OverviewNamesEverySubcommandTheOptionsAndTheExitCodes)
{
    CtlRun help = run({"--help"});
    EXPECT_EQ(0, help.code);
    EXPECT_EQ("", help.err);
    EXPECT_EQ(0u, help.out.find("usage: lumstoragectl ")) << help.out;
    for (const std::string& name : lumctl::subcommand_names())
        EXPECT_TRUE(has(help.out, "\n  " + name)) << name;
    for (const char* part : {"--socket PATH", "--json", "--timeout S", "$LUMSTORAGED_SOCKET", "Exit status:",
                             "  0 done", "  1 failed", "  2 usage error", "  3 the service answered no"})
        EXPECT_TRUE(has(help.out, part)) << part;
    // The same text by every name.
    EXPECT_EQ(help.out, run({"-h"}).out);
    EXPECT_EQ(help.out, run({"help"}).out);
    EXPECT_EQ(help.out, run({"--json", "--help"}).out);
}

// The completion's option list of a subcommand ("[ls]=\"-h --filter...\""),
// or its default for the subcommands without a row.
std::string completion_options(const std::string& text, const std::string& name)
{
    size_t at = text.find("\n    [" + name + "]=\"");
    if (at == std::string::npos || at > text.find("_lumstoragectl_operands"))
        return "--json --timeout";
    at = text.find('"', at) + 1;
    return text.substr(at, text.find('"', at) - at);
}

// Every subcommand has a page, also behind its own word (nothing is sent:
// a connection tried would exit 1); the page names each option the parser
// takes (--json and --timeout are the overview's) and the bash completion
// offers it; a mistyped option exits 2 naming the subcommand.
TEST_F(CtlHelp, EverySubcommandsPageAndCompletionNameTheOptionsTheParserTakes)
{
    std::ifstream file(LUM_PACKAGING_DIR "/lumstoragectl.bash-completion");
    const std::string completion((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    ASSERT_FALSE(completion.empty());
    for (const std::string& name : lumctl::subcommand_names()) {
        const CtlRun page = run({"help", name});
        EXPECT_EQ(0, page.code) << name << page.err;
        EXPECT_EQ(0u, page.out.find("usage:\n  lumstoragectl " + name)) << page.out;
        const std::string offered = " " + completion_options(completion, name) + " ";
        for (const std::string& option : lumctl::subcommand_options(name)) {
            EXPECT_TRUE(option == "--json" || option == "--timeout" || has(page.out, option)) << name << option;
            // The options of pvr's and fd's words follow the word.
            EXPECT_TRUE(name == "pvr" || name == "fd" || has(offered, " " + option + " ")) << name << option;
        }
        EXPECT_EQ(page.out, run({name, "--help"}).out) << name;
        CtlRun bad = run({name, "--no-such-option"});
        EXPECT_EQ(2, bad.code) << name;
        EXPECT_TRUE(has(bad.err, "lumstoragectl: " + name + ": ")) << bad.err;
    }
    EXPECT_EQ(run({"help", "pvr"}).out, run({"pvr", "state", "--help"}).out);
    EXPECT_EQ(run({"help", "fd"}).out, run({"fd", "open", "/a", "--help"}).out);
}

TEST_F(CtlHelp, CommandsOfTheServiceHaveAPageByNameOrNumber)
{
    const char kMount[] = "STORAGE_DEV_MOUNT: command 4109 (0x100d)\n"
                          "usage: lumstoragectl [--socket PATH] [--json] STORAGE_DEV_MOUNT s\n"
                          "request fields: s string\n"
                          "reply: bool (a posted command: true when it was queued)\n";
    for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
             {"help", "dev-mount"}, {"help", "4109"}, {"help", "STORAGE_DEV_MOUNT"}, {"dev-mount", "--help"}}) {
        CtlRun r = run(words);
        EXPECT_EQ(0, r.code) << words[1];
        EXPECT_EQ(0u, r.out.find(kMount)) << r.out;
    }
    EXPECT_TRUE(has(run({"help", "lum-read"}).out,
                    "request fields: i int32, i int32\nreply: int32 count; 0 or more: the count again"));
    EXPECT_TRUE(has(run({"help", "4097"}).out, "request fields: none\nreply: none"));
    size_t count = 0;
    const lumctl::CmdRow* rows = lumctl::cmd_rows(&count);
    for (size_t i = 0; i < count; ++i) {
        CtlRun r = run({"help", rows[i].name});
        EXPECT_EQ(0, r.code) << rows[i].name;
        EXPECT_FALSE(has(r.out, "reply: " + std::string(rows[i].reply) + "\n") && rows[i].reply[0] != '\0')
            << "the reply token in words: " << r.out;
    }
}

TEST_F(CtlHelp, HelpWordsOfOtherProgramsPassThrough)
{
    // exec's command and what follows "--" are the service's to run: exec
    // tries to connect (exit 1) instead of printing its page.
    for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
             {"exec", "ls", "--help"}, {"exec", "--capture", "--", "--help"}}) {
        CtlRun r = run(words);
        EXPECT_EQ(1, r.code) << words[1];
        EXPECT_FALSE(has(r.out, "usage:")) << r.out;
    }
}

TEST_F(CtlHelp, UsageErrorsExitTwoAndPointAtThePage)
{
    struct Case {
        std::vector<std::string> words;
        const char* says;
    };
    for (const Case& c : std::vector<Case>{
             {{"volumes", "--bad"}, "(lumstoragectl help volumes shows its usage)"},
             {{"ls"}, "(lumstoragectl help ls shows its usage)"},
             {{"cp", "relative", "/b"}, "(lumstoragectl help cp shows its usage)"},
             {{"pvr", "nothing"}, "(lumstoragectl help pvr shows its usage)"},
             {{"nothing"}, "lumstoragectl help lists the subcommands, lumstoragectl list the commands"},
             {{"help", "nothing"}, "no subcommand or command 'nothing'"},
             {{"help", "ls", "cp"}, "help: not its option or operand: 'cp'"},
             {{"--bad"}, "unknown option"},
             {{}, "no subcommand or command given"},
         }) {
        CtlRun r = run(c.words);
        EXPECT_EQ(2, r.code) << c.says;
        EXPECT_EQ("", r.out) << c.says;
        EXPECT_TRUE(has(r.err, c.says)) << r.err;
    }
}

TEST_F(CtlHelp, NoDaemonExitsOneAndSaysHowToStartOne)
{
    const std::string sock = dir.path + "/none.sock";
    for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
             {"4106"}, {"raw", "4106"}, {"watch"}, {"volumes"}, {"pvr", "state"}, {"format", "sdb1"}, {"bench", "/m"},
             {"bench", "--cancel"}, {"ls", "/a"}, {"cover", "/a/", "b"}, {"mkdir", "/a"}, {"cp", "--cancel"},
             {"exec", "true"}, {"fd", "close", "7"}}) {
        CtlRun r = run(words);
        EXPECT_EQ(1, r.code) << words[0];
        EXPECT_EQ("", r.out) << words[0];
        EXPECT_TRUE(has(r.err, "cannot connect to " + sock + " (No such file or directory): is lumstoraged running? "
                                                             "Start it with lumstoraged --socket " + sock))
            << r.err;
        EXPECT_EQ(1u, hosttest::occurrences(r.err, "\n")) << "one line: " << r.err;
    }
}

// Against the fake service: one outcome of each kind, with its code.
class CtlOutcomes : public ::testing::Test {
protected:
    void SetUp() override
    {
        fakesvc::reset_pvr();
        fakesvc::reset_files();
        ASSERT_EQ(0, srv.start());
    }
    void TearDown() override
    {
        fakesvc::reset_pvr();
        fakesvc::reset_files();
    }
    CtlRun run(std::vector<std::string> words, const std::string& input = "")
    {
        return hosttest::ctl_input(srv.config.socket_path, std::move(words), input);
    }
    hosttest::TestServer srv;
};

TEST_F(CtlOutcomes, ExitCodesSayDoneFailedUsageOrNo)
{
    struct Case {
        std::vector<std::string> words;
        int code;
    };
    for (const Case& c : std::vector<Case>{
             {{"pvr", "state"}, 0},
             {{"bench", fakesvc::kBenchPath}, 0},
             {{"format", "sdb1"}, 0},
             {{"4125"}, 0},
             {{"mount", fakesvc::kRefused}, 1},  // refused: no event will come
             {{"bench", "/mnt/elsewhere"}, 1},    // the benchmark failed
             {{"format", "sdc1"}, 1},            // the tool failed
             {{"ls", fakesvc::kDamagedDir}, 1},
             {{"mkdir", "relative"}, 2},
             {{"size", "sdb1", "--timeout", "0"}, 2},
             {{"devinfo", "sdx"}, 3},
             {{"pvr", "total", "sdx"}, 3},
             {{"pvr", "available", "small"}, 3},
             {{"cover", "/m/", fakesvc::kCoverFails}, 3},
         }) {
        CtlRun r = run(c.words);
        EXPECT_EQ(c.code, r.code) << c.words[0] << " " << c.words.back() << ": " << r.err;
    }
}

TEST_F(CtlOutcomes, BenchShowsProgressThenTheFigureInWords)
{
    CtlRun r = run({"bench", fakesvc::kBenchPath});
    EXPECT_EQ("[                    ] 1%\n[##########          ] 50%\n[###############     ] 75%\n"
              "[####################] 100%\nresult: 4694719 kB/s per process (4.5GB/s), 2 processes\n",
              r.out);
    r = run({"bench", "/mnt/elsewhere"});
    EXPECT_TRUE(has(r.out, "result: failed (status 19)\n")) << r.out;
    EXPECT_EQ("cancel requested\n", run({"bench", "--cancel"}).out);
    EXPECT_EQ("{\"cancel\":true}\n", run({"bench", "--cancel", "--json"}).out);
}

TEST_F(CtlOutcomes, EveryQueryAnswersInJson)
{
    const std::string music = fakesvc::kMusicDir;
    for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
             {"list"},
             {"4125"},
             {"raw", "4130"},
             {"volumes"},
             {"devinfo", "sdb"},
             {"mount", "sdb"},
             {"umount", "sdb"},
             {"size", "sdb1"},
             {"used", "sdb1"},
             {"free", "1234-ABCD"},
             {"uuid", "/mnt/usb/sdb1"},
             {"pvr", "state"},
             {"pvr", "path"},
             {"pvr", "available", "sdb"},
             {"pvr", "total", "sdb"},
             {"pvr", "guide"},
             {"pvr", "limit"},
             {"pvr", "limit", "8000"},
             {"pvr", "mark", "sdb"},
             {"format", "sdb1"},
             {"bench", fakesvc::kBenchPath},
             {"bench", "--cancel"},
             {"ls", music},
             {"cover", music + "/", "a.mp3"},
             {"mkdir", "/a/b"},
             {"rm", "/a/b"},
             {"rm", "-r", "/a/b"},
             {"rmdir", "/a/b"},
             {"protect", "/a/b"},
             {"unprotect", "/a/b"},
             {"cp", "/a/x", "/b/y"},
             {"cp", "--cancel"},
             {"cp", "--direct", "/a/x", "/b/y"},
             {"mv", "/a/x", "/b/y"},
             {"rename", "/a/x", "/a/y"},
             {"exec", "true"},
             {"exec", "--capture", "echo"},
             {"chmod", "/a/f", "644"},
             {"fd", "open", "/a/f", "O_RDONLY", "0"},
             {"fd", "read", "7", "3"},
             {"fd", "sync", "7"},
             {"fd", "close", "7"},
         }) {
        std::string said;
        for (const std::string& w : words)
            said += w + " ";
        std::vector<std::string> global = words;
        global.insert(global.begin(), "--json");
        CtlRun r = run(global);
        EXPECT_EQ(0, r.code) << said << r.err;
        EXPECT_TRUE(hosttest::json_lines(r.out)) << said << "\n" << r.out;
    }
    for (const char* sub : {"write", "fd"}) {
        std::vector<std::string> words = std::string(sub) == "write" ? std::vector<std::string>{"write", "/a/f"}
                                                                       : std::vector<std::string>{"fd", "write", "7"};
        words.push_back("--json");
        CtlRun r = run(words, "data");
        EXPECT_EQ(0, r.code) << sub << r.err;
        EXPECT_TRUE(hosttest::json_lines(r.out)) << sub << "\n" << r.out;
    }
}

}  // namespace
