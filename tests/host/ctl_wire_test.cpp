// lumstoragectl as a black box against a scripted daemon: the request bytes it sends and the text it prints
// for replies and events, both against frames written out by hand from the protocol's tables; and what only a
// misbehaving daemon provokes (no daemon, silence, a daemon that vanishes mid-reply, an ERROR frame). The
// real service's answers are in ctl_rig_test.cpp.
#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

#include "daemon_proc.h"
#include "test_support.h"

namespace {
using Bytes = std::vector<uint8_t>;

Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

// version 1, type, length: all little-endian.
Bytes frame(uint8_t type, const Bytes& payload)
{
    uint32_t n = static_cast<uint32_t>(payload.size());
    Bytes out{1, 0, type, 0, static_cast<uint8_t>(n), static_cast<uint8_t>(n >> 8), static_cast<uint8_t>(n >> 16),
              static_cast<uint8_t>(n >> 24)};
    return cat({out, payload});
}
const Bytes kSubscribed = frame(4, {});
Bytes reply(const Bytes& payload) { return frame(2, payload); }
Bytes event(const Bytes& payload) { return frame(5, payload); }
// LUM_TV_EVT_STORAGE_FORMAT, id 0x0017001f: devName[30], 2 spare bytes, int32 result (host order).
Bytes format_event(const std::string& name, int32_t result)
{
    Bytes info(36, 0);
    std::copy(name.begin(), name.end(), info.begin());
    for (int k = 0; k < 4; ++k)
        info[32 + k] = static_cast<uint8_t>(static_cast<uint32_t>(result) >> (8 * k));
    return event(cat({{0x1f, 0x00, 0x17, 0x00}, info}));
}
// LUM_TV_EVT_STORAGE_PVR_MARK, id 0x00170020: int32 marked, int32 verdict, partition_id[32] (host order).
Bytes mark_event(const std::string& disk, uint8_t marked, uint8_t verdict)
{
    Bytes info(40, 0);
    info[0] = marked;
    info[4] = verdict;
    std::copy(disk.begin(), disk.end(), info.begin() + 8);
    return event(cat({{0x20, 0x00, 0x17, 0x00}, info}));
}
// LUM_TV_EVT_STORAGE_HDD_GET_SIZE: big-endian MB, the device, NUL.
const Bytes kSizeSdb = event({0x1a, 0x00, 0x17, 0x00, 0, 0, 0x01, 0x02, '/', 'd', 'e', 'v', '/', 's', 'd', 'b', 0});
const Bytes kTrue{0, 0, 0, 0, 1, 0, 0, 0};   // result 0, bool true
const Bytes kFalse{0, 0, 0, 0, 0, 0, 0, 0};  // result 0, bool false

bool read_full(int fd, uint8_t* at, size_t n)
{
    while (n > 0) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 20000) <= 0)
            return false;
        ssize_t got = read(fd, at, n);
        if (got <= 0)
            return false;
        at += got;
        n -= static_cast<size_t>(got);
    }
    return true;
}

// A daemon for one client that plays a script: each step waits for one frame from the client, keeps it, and
// writes the step's bytes. After the last step it stays silent until the client leaves, or closes at once.
class ScriptedDaemon {
public:
    ScriptedDaemon(std::vector<Bytes> steps, bool close_after) : path(dir.path + "/d.sock")
    {
        listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", path.c_str());
        EXPECT_EQ(0, bind(listener_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)));
        EXPECT_EQ(0, listen(listener_, 4));
        thread_ = std::thread([this, steps, close_after] { play(steps, close_after); });
    }
    ~ScriptedDaemon() { join(); }
    void join()
    {
        if (thread_.joinable())
            thread_.join();
        if (listener_ >= 0)
            close(listener_);
        listener_ = -1;
    }
    hosttest::TempDir dir;
    std::string path;
    std::vector<Bytes> received;  // whole frames, read once join() returned

private:
    void play(const std::vector<Bytes>& steps, bool close_after)
    {
        pollfd p{listener_, POLLIN, 0};
        if (poll(&p, 1, 20000) <= 0)
            return;
        int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        for (const Bytes& step : steps) {
            Bytes f(8);
            if (!read_full(fd, f.data(), 8))
                break;
            f.resize(8 + (f[4] | f[5] << 8 | f[6] << 16 | static_cast<uint32_t>(f[7]) << 24));
            if (!read_full(fd, f.data() + 8, f.size() - 8))
                break;
            received.push_back(f);
            send(fd, step.data(), step.size(), MSG_NOSIGNAL);
        }
        uint8_t rest[256];
        while (!close_after && read_full(fd, rest, 1)) {}
        close(fd);
    }
    int listener_ = -1;
    std::thread thread_;
};

hosttest::RunResult ctl(const std::string& socket, const std::vector<std::string>& words)
{
    std::vector<std::string> args{LUMHOST_CTL_BIN, "--socket", socket};
    args.insert(args.end(), words.begin(), words.end());
    return hosttest::run(args);
}

// Requests as the service's Parcels (little-endian, 4-byte items, C strings NUL-terminated and zero-padded),
// replies decoded by the command's reply token, in text and JSON.
TEST(CtlWire, RequestBytesAndDecodedReplies)
{
    struct Case {
        std::vector<std::string> words;
        Bytes request;  // the REQUEST payload
        Bytes reply;    // the REPLY payload
        std::string out;
    };
    const Case cases[] = {
        {{"pvr-dev-state"}, {0x1d, 0x10, 0, 0}, kTrue, "STORAGE_PVR_DEV_STATE (4125): result 0\n  value: true\n"},
        {{"--json", "4125"},
         {0x1d, 0x10, 0, 0},
         kTrue,
         "{\"command\":\"STORAGE_PVR_DEV_STATE\",\"code\":4125,\"result\":0,\"reply\":{\"value\":true},"
         "\"complete\":true,\"rest\":\"\"}\n"},
        {{"DEV_MOUNT", "sda1"},
         {0x0d, 0x10, 0, 0, 's', 'd', 'a', '1', 0, 0, 0, 0},
         {0xfe, 0xff, 0xff, 0xff, 0, 0, 0, 0},
         "STORAGE_DEV_MOUNT (4109): result -2\n  value: false\n"},
        // A reply shorter than its token, and one longer.
        {{"--json", "pvr-dev-state"},
         {0x1d, 0x10, 0, 0},
         {0, 0, 0, 0, 1, 0},
         "{\"command\":\"STORAGE_PVR_DEV_STATE\",\"code\":4125,\"result\":0,\"reply\":{},\"complete\":false,"
         "\"rest\":\"0100\"}\n"},
        {{"--json", "0x101d"},
         {0x1d, 0x10, 0, 0},
         {0, 0, 0, 0, 1, 0, 0, 0, 0xaa, 0xbb},
         "{\"command\":\"STORAGE_PVR_DEV_STATE\",\"code\":4125,\"result\":0,\"reply\":{\"value\":true},"
         "\"complete\":true,\"rest\":\"aabb\"}\n"},
        // A string that is not UTF-8 keeps its bytes beside it.
        {{"--json", "partition-fs-type", "/m"},
         {0x15, 0x10, 0, 0, '/', 'm', 0, 0},
         {0, 0, 0, 0, 0xd2, 0xf4, 0, 0},
         "{\"command\":\"STORAGE_PARTITION_FS_TYPE\",\"code\":4117,\"result\":0,\"reply\":{\"value\":\"\xef\xbf\xbd"
         "\xef\xbf\xbd\",\"valueHex\":\"d2f4\"},\"complete\":true,\"rest\":\"\"}\n"},
        {{"--json", "lum-exe-sys-cmd-ret", "id"},
         {0x34, 0x10, 0, 0, 'i', 'd', 0, 0},
         {0, 0, 0, 0, 3, 0, 0, 0, 'u', 'i', 'd', 0},
         "{\"command\":\"STORAGE_LUM_EXE_SYS_CMD_RET\",\"code\":4148,\"result\":0,\"reply\":{\"value\":3,"
         "\"text\":\"uid\"},\"complete\":true,\"rest\":\"\"}\n"},
        // The byte count before raw bytes filled in, the bytes padded to 4.
        {{"--json", "STROAGE_LUM_WRITE", "7", "-", "abcde"},
         {0x39, 0x10, 0, 0, 7, 0, 0, 0, 5, 0, 0, 0, 'a', 'b', 'c', 'd', 'e', 0, 0, 0},
         {0, 0, 0, 0, 0xff, 0xff, 0xff, 0xff, 28, 0, 0, 0},
         "{\"command\":\"STROAGE_LUM_WRITE\",\"code\":4153,\"result\":0,\"reply\":{\"value\":-1,\"errno\":28},"
         "\"complete\":true,\"rest\":\"\"}\n"},
        {{"--json", "lum-read", "7", "4"},
         {0x38, 0x10, 0, 0, 7, 0, 0, 0, 4, 0, 0, 0},
         {0, 0, 0, 0, 3, 0, 0, 0, 3, 0, 0, 0, 'x', 'y', 'z', 0},
         "{\"command\":\"STROAGE_LUM_READ\",\"code\":4152,\"result\":0,\"reply\":{\"count\":3,\"length\":3,"
         "\"data\":\"78797a\"},\"complete\":true,\"rest\":\"\"}\n"},
        // raw: every item type; x bytes go out exactly, without padding.
        {{"raw", "0x7000", "i:-2", "u:4294967295", "l:0x0102030405060708", "b:true", "c:A", "c:255", "s:ab",
          "s:", "x:0a:0b"},
         {0x00, 0x70, 0, 0, 0xfe, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 8, 7, 6, 5, 4, 3, 2, 1,
          1, 0, 0, 0, 'A', 0, 0, 0, 0xff, 0, 0, 0, 'a', 'b', 0, 0, 0, 0, 0, 0, 0x0a, 0x0b},
         {0xff, 0xff, 0xff, 0xff},
         "(unknown command) (28672): result -1\n  (no reply)\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.words.back());
        ScriptedDaemon d({reply(c.reply)}, false);
        hosttest::RunResult r = ctl(d.path, c.words);
        d.join();
        EXPECT_EQ(0, r.code) << r.err;
        EXPECT_EQ(c.out, r.out);
        ASSERT_EQ(1u, d.received.size());
        EXPECT_EQ(frame(1, c.request), d.received[0]);
    }
}

// watch: a SUBSCRIBE, then one line per event through its decoder.
TEST(CtlWire, WatchDecodesEventsAndDropNotices)
{
    const Bytes watchdog = format_event("sda1", -3);
    const Bytes dropped = frame(6, {5, 0, 0, 0});
    const Bytes unknown = event({0x11, 0x22, 0x00, 0x00, 0xca, 0xfe});
    struct Case {
        std::vector<std::string> words;
        Bytes events;
        std::string out;
    };
    const Case cases[] = {
        {{"watch", "--count", "1", "--hex"},
         watchdog,
         "LUM_TV_EVT_STORAGE_FORMAT (1507359): devName=\"sda1\" result=-3 (timeout)\n"
         "00000000  73 64 61 31 00 00 00 00 00 00 00 00 00 00 00 00\n"
         "00000010  00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00\n"
         "00000020  fd ff ff ff\n(36 bytes)\n"},
        {{"watch", "--json", "--count", "3"},
         cat({dropped, watchdog, kSizeSdb, event({0x0e, 0x00, 0x17, 0x00, 2})}),
         "{\"dropped\":5}\n"
         "{\"event\":\"LUM_TV_EVT_STORAGE_FORMAT\",\"id\":1507359,\"len\":36,\"data\":{\"devName\":\"sda1\","
         "\"result\":-3},\"complete\":true,\"rest\":\"\"}\n"
         "{\"event\":\"LUM_TV_EVT_STORAGE_HDD_GET_SIZE\",\"id\":1507354,\"len\":13,\"data\":{\"sizeMB\":258,"
         "\"device\":\"/dev/sdb\"},\"complete\":true,\"rest\":\"\"}\n"
         "{\"event\":\"LUM_TV_EVT_STORAGE_DELETE_FILE\",\"id\":1507342,\"len\":1,\"data\":{\"result\":2},"
         "\"complete\":true,\"rest\":\"\"}\n"},
        {{"watch", "--json", "--hex", "--count", "1"},
         unknown,
         "{\"event\":null,\"id\":8721,\"len\":2,\"hex\":\"cafe\",\"data\":{\"hex\":\"cafe\"},\"complete\":true,"
         "\"rest\":\"\"}\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.words[1]);
        ScriptedDaemon d({cat({kSubscribed, c.events})}, false);
        hosttest::RunResult r = ctl(d.path, c.words);
        d.join();
        EXPECT_EQ(0, r.code) << r.err;
        EXPECT_EQ(c.out, r.out);
        ASSERT_EQ(1u, d.received.size());
        EXPECT_EQ((Bytes{1, 0, 3, 0, 0, 0, 0, 0}), d.received[0]);
    }
}

// Subcommands answered by events: the answer may come before the reply (events and replies leave the daemon
// from different threads), answers for other devices are skipped, a refusal ends the wait at once, and
// silence ends in a time-out that says what was awaited.
TEST(CtlWire, EventAnswersAndWhatOnlyAFaultyDaemonDoes)
{
    const Bytes size_sdc = event({0x1a, 0x00, 0x17, 0x00, 0, 0, 0, 9, '/', 'd', 'e', 'v', '/', 's', 'd', 'c', 0});
    struct Case {
        const char* what;
        std::vector<std::string> words;
        std::vector<Bytes> steps;
        bool close_after;
        int code;
        std::string out;
        std::string err;  // a part of standard error
        Bytes request{};  // when given, the REQUEST payload that went out after the SUBSCRIBE
    };
    const Case cases[] = {
        {"answer before the reply", {"size", "sdb"}, {kSubscribed, cat({size_sdc, kSizeSdb, reply(kTrue)})}, false, 0,
         "/dev/sdb: 258M (258 MB)\n", ""},
        {"damaged listing", {"--json", "ls", "/a"},
         {kSubscribed, cat({reply(kTrue), event({0x0b, 0, 0x17, 0, 0, 0, 0, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0})}), reply(kTrue)},
         false, 1,
         "{\"offset\":0,\"total\":1,\"records\":[],\"damage\":\"record 1 at byte 4: name without its NUL\"}\n"
         "{\"path\":\"/a\",\"damage\":\"damaged block at offset 0: record 1 at byte 4: name without its NUL\","
         "\"failed\":true}\n",
         "ls /a: damaged block"},
        {"busy volume, another volume's result skipped", {"format", "sdb1"},
         {kSubscribed, cat({reply(kTrue), format_event("sdb10", 0), format_event("sdb1", -2)})}, false, 1,
         "result: failed (another format is running)\n", ""},
        {"verdict for another disk skipped", {"pvr", "mark", "/dev/sdb1"},
         {kSubscribed, cat({reply(kTrue), mark_event("/dev/sdc1", 1, 0), mark_event("/dev/sdb1", 0, 2)})}, false, 3,
         "/dev/sdb1: not marked: format unusable (2)\n", ""},
        {"refused", {"size", "sdb"}, {kSubscribed, reply(kFalse)}, false, 1, "", "refused"},
        {"mv", {"mv", "/a", "/b"}, {kSubscribed, cat({event({0x15, 0x00, 0x17, 0x00, 3}), reply(kFalse)})}, false, 1,
         "mv /a /b: failed (result 3)\n", "", {0x3a, 0x10, 0, 0, '/', 'a', 0, 0, '/', 'b', 0, 0, 0, 0, 0, 0}},
        {"rm", {"rm", "/a"}, {kSubscribed, cat({event({0x0e, 0x00, 0x17, 0x00, 3}), reply(kFalse)})}, false, 1,
         "rm /a: rm failed (result 3)\n", "", {0x27, 0x10, 0, 0, '/', 'a', 0, 0, 3, 0, 0, 0}},
        {"rename", {"rename", "/a.ts", "/b.ts", "--recording"},
         {kSubscribed, cat({event({0x14, 0x00, 0x17, 0x00, 3}), reply(kFalse)})}, false, 1,
         "rename /a.ts /b.ts: failed (result 3)\n", "",
         {0x2c, 0x10, 0, 0, '/', 'a', '.', 't', 's', 0, 0, 0, '/', 'b', '.', 't', 's', 0, 0, 0, 1, 0, 0, 0}},
        {"silent after the reply", {"size", "sdb", "--timeout", "0.3"}, {kSubscribed, reply(kTrue)}, false, 1, "",
         "size sdb: timed out after 0.3 s waiting for the answer (is it a device the service knows?)"},
        {"no reply at all", {"pvr", "state", "--timeout", "0.3"}, {{}}, false, 1, "", "timed out after 0.3 s"},
        {"vanishes mid-reply", {"pvr-dev-state"}, {{1, 0, 2, 0, 8, 0, 0, 0, 0, 0}}, true, 1, "", "truncated frame"},
        {"vanishes before any answer", {"size", "sdb"}, {kSubscribed, {}}, true, 1, "", "closed"},
        {"ERROR frame", {"pvr-dev-state"}, {frame(9, {'t', 'o', 'o', ' ', 'm', 'a', 'n', 'y'})}, true, 1, "",
         "daemon error: too many"},
        {"cover of another file skipped", {"cover", "/m", "a"},
         {kSubscribed, cat({reply(kTrue), event({0x1e, 0, 0x17, 0, 0, '/', 'b', '.', 0}),
                            event({0x1e, 0, 0x17, 0, 2, '/', 'a', '.', 'j', 'p', 'g', 0, 0, 0, 0})})},
         false, 3, "cover of a: /a.jpg (status 2, failed)\n", "", {0x30, 0x10, 0, 0, '/', 'm', 0, 0, 'a', 0, 0, 0}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ScriptedDaemon d(c.steps, c.close_after);
        hosttest::RunResult r = ctl(d.path, c.words);
        d.join();
        EXPECT_EQ(c.code, r.code);
        EXPECT_EQ(c.out, r.out);
        EXPECT_NE(std::string::npos, r.err.find(c.err)) << r.err;
        if (!c.request.empty()) {
            ASSERT_EQ(2u, d.received.size());
            EXPECT_EQ(frame(1, c.request), d.received[1]);
        }
    }
}

TEST(CtlWire, NoDaemonSaysHowToStartOne)
{
    hosttest::TempDir dir;
    const std::string none = dir.path + "/none.sock";
    for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
             {"4106"}, {"watch"}, {"volumes"}, {"ls", "/a"}, {"exec", "true"}, {"fd", "close", "7"}}) {
        hosttest::RunResult r = ctl(none, words);
        EXPECT_EQ(1, r.code) << words[0];
        EXPECT_EQ("", r.out) << words[0];
        const std::string says = ": cannot connect to " + none + " (No such file or directory): is lumstoraged "
                                 "running? Start it with lumstoraged --socket " + none +
                                 ", or name its socket with --socket PATH or $LUMSTORAGED_SOCKET\n";
        EXPECT_EQ(0u, r.err.find("lumstoragectl: ")) << r.err;
        EXPECT_EQ(r.err.size() - says.size(), r.err.find(says)) << r.err;
        EXPECT_EQ(r.err.size() - 1, r.err.find('\n')) << "one line: " << r.err;
    }
    const std::string too_long = "/" + std::string(107, 's');  // sun_path holds 107 bytes and a NUL
    EXPECT_NE(std::string::npos, ctl(too_long, {"volumes"}).err.find(too_long + ": a socket path has 1 to 107 bytes"));
}

// Every subcommand has its page; a wrong command line exits 2, names the
// page and sends nothing (there is no daemon to send to).
TEST(CtlHelp, EverySubcommandHasAPageAndUsageErrorsExitTwo)
{
    hosttest::TempDir dir;
    const std::string none = dir.path + "/none.sock";
    const std::string subcommands = hosttest::run({LUMHOST_CTL_BIN, "help"}).out;
    for (const char* name : {"watch", "list", "volumes", "devinfo", "mount", "umount", "size", "used", "free", "uuid",
                             "format", "pvr", "ls", "cover", "mkdir", "rmdir", "protect", "unprotect", "rm", "cp",
                             "mv", "rename", "write", "exec", "chmod", "fd", "bench", "raw"}) {
        SCOPED_TRACE(name);
        EXPECT_NE(std::string::npos, subcommands.find(std::string("\n  ") + name + " ")) << subcommands;
        hosttest::RunResult page = ctl(none, {name, "--help"});
        EXPECT_EQ(0, page.code);
        EXPECT_EQ(page.out, ctl(none, {"help", name}).out);
        EXPECT_NE(std::string::npos, page.out.find(std::string("lumstoragectl ") + name)) << page.out;
        hosttest::RunResult bad = ctl(none, {name, "--no-such-option"});
        EXPECT_EQ(2, bad.code);
        EXPECT_EQ("", bad.out);
        EXPECT_NE(std::string::npos, bad.err.find(std::string("(lumstoragectl help ") + name + " shows its usage)"))
            << bad.err;
    }
    struct Case {
        std::vector<std::string> words;
        const char* says;
    };
    for (const Case& c : std::vector<Case>{
             {{"cp", "relative", "/b"}, "(lumstoragectl help cp shows its usage)"},
             {{"pvr", "nothing"}, "(lumstoragectl help pvr shows its usage)"},
             {{"pvr", "limit", "12x"}, "pvr limit: MB is a whole number of megabytes, not '12x'"},
             {{"pvr", "limit", "4294967296"}, "not '4294967296'"},
             {{"get-device-size", "sda", "x"}, "lumstoragectl: "},
             {{"watch", "--count", "0"}, "lumstoragectl: "},
             {{"format", std::string(30, 'a')}, "lumstoragectl: "},
             {{"nothing"}, "lumstoragectl help lists the subcommands, lumstoragectl list the commands"},
             {{}, "no subcommand or command given"},
         }) {
        hosttest::RunResult r = ctl(none, c.words);
        EXPECT_EQ(2, r.code) << c.says;
        EXPECT_EQ("", r.out) << c.says;
        EXPECT_NE(std::string::npos, r.err.find(c.says)) << r.err;
    }
}

}  // namespace
