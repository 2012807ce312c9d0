#include "ShellProbe.h"
#include "ShellQuote.h"
#include "test_support.h"

namespace {
int count_temp_files()
{
    int n = 0;
    for (const std::string& name : list_dir("/tmp"))
        n += name.rfind("fsdrv_", 0) == 0 ? 1 : 0;
    return n;
}

struct Collected {
    std::vector<std::string> lines;
    int stopAt = -1;     // index of the line whose handler stops
    int stopCode = 0;
};

int collect(void* ctx, char* line)
{
    auto* c = static_cast<Collected*>(ctx);
    c->lines.emplace_back(line);
    if (static_cast<int>(c->lines.size()) - 1 == c->stopAt)
        return c->stopCode;
    return 0;
}

}  // namespace

TEST(CallSystem, CommandsReadNothingFromTheHostsInput)
{
    // Whatever the hosting process has on its input (here a pipe with a line waiting), a command reads end-of-file.
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    ASSERT_EQ(write(fds[1], "yes\n", 4), 4);
    int saved = dup(STDIN_FILENO);
    dup2(fds[0], STDIN_FILENO);
    int rc = call_system("read line; test -z \"$line\"");
    dup2(saved, STDIN_FILENO);
    close(saved);
    close(fds[0]);
    close(fds[1]);
    EXPECT_EQ(rc, 0);
}

TEST(FileReaders, DifferOnMissingEmptyAndShortBuffers)
{
    REQUIRE_ISOLATION();
    char buf[64];
    EXPECT_EQ(buffer_read_from_file(nullptr, 10, "/tmp/x"), -22);
    EXPECT_EQ(buffer_read_from_file(buf, 0, "/tmp/x"), -22);
    strcpy(buf, "junk");
    EXPECT_EQ(buffer_read_from_file(buf, sizeof(buf), "/tmp/missing-%d", 1), 0);
    EXPECT_STREQ(buf, "");
    strcpy(buf, "junk");
    EXPECT_EQ(line_read_from_file(buf, sizeof(buf), "/tmp/missing-%d", 1), -23);
    EXPECT_STREQ(buf, "");
    write_file("/tmp/empty", "");
    EXPECT_EQ(buffer_read_from_file(buf, sizeof(buf), "/tmp/empty"), 0);
    EXPECT_EQ(line_read_from_file(buf, sizeof(buf), "/tmp/empty"), -23);
    write_file("/tmp/lf", "\n");
    EXPECT_EQ(line_read_from_file(buf, sizeof(buf), "/tmp/lf"), 0);
    write_file("/tmp/two", "first\nsecond\n");
    EXPECT_EQ(line_read_from_file(buf, sizeof(buf), "/tmp/%s", "two"), 5);
    EXPECT_STREQ(buf, "first");
    EXPECT_EQ(buffer_read_from_file(buf, sizeof(buf), "/tmp/two"), 13);
    EXPECT_STREQ(buf, "first\nsecond\n");
    EXPECT_EQ(buffer_read_from_file(buf, 4, "/tmp/two"), 3);
    EXPECT_STREQ(buf, "fir");
}

TEST(BufferReadFromCommand, TakesStandardOutputOnly)
{
    REQUIRE_ISOLATION();
    char buf[128];
    EXPECT_EQ(buffer_read_from_command(buf, sizeof(buf), "(echo out; echo err >&2)"), 4);
    EXPECT_STREQ(buf, "out\n");
    // A failing command that prints nothing reads like a silent success.
    EXPECT_EQ(buffer_read_from_command(buf, sizeof(buf), "exit 7"), 0);
    EXPECT_STREQ(buf, "");
    EXPECT_EQ(buffer_read_from_command(nullptr, 1, "true"), -22);
    EXPECT_EQ(count_temp_files(), 0);
}

TEST(ParseOutputLines, LinesInOrderUpToTheFirstNonZeroHandlerResult)
{
    // stopAt: the line whose handler answers stopCode; the command goes in
    // whole through "%s" and is cut at 255 characters.
    const struct {
        std::string cmd;
        int stopAt, stopCode, rc;
        std::vector<std::string> lines;
    } rows[] = {
        {"printf 'a\\n\\nb\\nlast'", -1, 0, 0, {"a", "", "b", "last"}},
        {"seq 1 5", 1, 42, 42, {"1", "2"}},
        {"seq 1 5", 1, -7, -7, {"1", "2"}},
        {"true", -1, 0, 0, {}},
        {"exit 3", -1, 0, 0, {}},
        {"head -c 300 /dev/zero | tr '\\0' a | awk 1", -1, 0, 0, {std::string(255, 'a'), std::string(45, 'a')}},
        {"echo " + std::string(260, '7'), -1, 0, 0, {std::string(250, '7')}},
    };
    for (const auto& row : rows) {
        Collected c;
        c.stopAt = row.stopAt;
        c.stopCode = row.stopCode;
        EXPECT_EQ(parse_output_lines(collect, &c, "%s", row.cmd.c_str()), row.rc) << row.cmd;
        EXPECT_EQ(c.lines, row.lines) << row.cmd;
    }
    Collected c;
    EXPECT_EQ(parse_output_lines(nullptr, &c, "echo x"), -22);
    EXPECT_TRUE(!g_isolated || count_temp_files() == 0);
}

TEST(ShellEscape, RefusesWhatDoesNotFit)
{
    char out[5];
    EXPECT_EQ(shell_escape_dq("abcd", out, sizeof(out)), 4);
    EXPECT_EQ(shell_escape_dq("abc$", out, sizeof(out)), -1);
    EXPECT_STREQ(out, "");
    EXPECT_EQ(shell_escape_dq(nullptr, out, sizeof(out)), -1);
    EXPECT_EQ(shell_escape_dq("a", nullptr, 3), -1);
}
