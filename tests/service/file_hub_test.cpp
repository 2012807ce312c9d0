// The file operations' hub rows, request to reply byte for byte, with the events and the disk behind them: deletion,
// renaming and writing, shell commands with their bounds, and chmod, open, read, write, sync and close.
#include "file_ops_fixture.h"

#include <cerrno>
#include <fcntl.h>

using namespace file_ops_test;

namespace {
const int32_t kIoMax = 8 << 20;  // the largest read or write a client may ask for

// A cstring as a Parcel holds it: terminated, padded with zeros to 4.
Bytes cstring(const std::string& text)
{
    Bytes out(text.begin(), text.end());
    out.resize((text.size() + 4) & ~size_t(3), 0);
    return out;
}

Bytes operator+(Bytes a, const Bytes& b) { a.insert(a.end(), b.begin(), b.end()); return a; }

Bytes sys_cmd(const std::string& cmd, int32_t len) { return Request(STORAGE_LUM_EXE_SYS_CMD).i(len).s(cmd).invoke(); }

int32_t open_file(const std::string& path, int flags)
{
    Bytes r = Request(STROAGE_LUM_OPEN).s(path).i(flags).i(0600).invoke();
    EXPECT_EQ(r.size(), 4u);
    int32_t fd = -1;
    memcpy(&fd, r.data(), 4);
    return fd;
}

}  // namespace

TEST_F(FileOps, SysCmdRunsTheTextAsItIsUpToLen)
{
    EXPECT_EQ(sys_cmd("touch " + at("neg"), -1), le32({-1}));
    EXPECT_EQ(sys_cmd("touch " + at("big"), 512), le32({-1}));
    EXPECT_FALSE(exists("neg") || exists("big"));
    EXPECT_EQ(Request(STORAGE_LUM_EXE_SYS_CMD).i(5).invoke(), le32({-1}));
    std::string cmd = "touch " + at("abcdef");
    EXPECT_EQ(sys_cmd(cmd, static_cast<int32_t>(cmd.size() - 3)), le32({0}));
    EXPECT_EQ(entries("."), (std::set<std::string>{"cwd", "abc"}));
    EXPECT_EQ(sys_cmd(cmd, 400), le32({0}));  // a longer len ends at the terminator
    EXPECT_TRUE(exists("abcdef"));
    EXPECT_EQ(sys_cmd("exit 3", 6), le32({3}));
    EXPECT_EQ(sys_cmd("kill -9 $$", 10), le32({9}));
    std::string pct = "echo '%s%n%x%%' > " + at("pct");  // a format would crash or eat these
    EXPECT_EQ(sys_cmd(pct, static_cast<int32_t>(pct.size())), le32({0}));
    EXPECT_EQ(content("pct"), "%s%n%x%%\n");
}

TEST_F(FileOps, SysCmdRetCapturesAtMost1024Bytes)
{
    EXPECT_EQ(Request(STORAGE_LUM_EXE_SYS_CMD_RET).s("printf hello").invoke(), le32({5}) + cstring("hello"));
    EXPECT_EQ(Request(STORAGE_LUM_EXE_SYS_CMD_RET).s("true").invoke(), le32({0}));
    EXPECT_EQ(Request(STORAGE_LUM_EXE_SYS_CMD_RET).s("exit 7").invoke(), le32({0}));  // status lost
    EXPECT_EQ(Request(STORAGE_LUM_EXE_SYS_CMD_RET).s("printf 'ab\\000cd'").invoke(), le32({5}) + cstring("ab"));
    EXPECT_EQ(Request(STORAGE_LUM_EXE_SYS_CMD_RET).s("echo '%s%n'").invoke(), le32({5}) + cstring("%s%n\n"));
    EXPECT_EQ(Request(STORAGE_LUM_EXE_SYS_CMD_RET).invoke(), le32({-1}));
    EXPECT_TRUE(log.has("cmd: printf hello, length: 12"));
}

TEST_F(FileOps, LumChmodAnswersTheErrorNumberAfterAFailure)
{
    put("f", "x", 0600);
    EXPECT_EQ(Request(STORAGE_LUM_CHMOD).s(at("f")).i(0640).invoke(), le32({0}));
    EXPECT_EQ(mode_of("f"), 0640u);
    EXPECT_TRUE(log.has("chmod path: " + at("f") + " 0x1a0, return: 0 (Success)"));
    EXPECT_EQ(Request(STORAGE_LUM_CHMOD).s(at("missing")).i(0640).invoke(), le32({-1, ENOENT}));
    EXPECT_EQ(Request(STORAGE_LUM_CHMOD).invoke(), le32({-1, EINVAL}));
}

TEST_F(FileOps, LumOpenWriteSyncCloseReadRoundTrip)
{
    int32_t fd = open_file(at("io"), O_RDWR | O_CREAT);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);  // kept out of the service's shells
    EXPECT_EQ(Request(STROAGE_LUM_WRITE).i(fd).i(5).raw("hello").invoke(), le32({5}));
    EXPECT_EQ(Request(STORAGE_LUM_SYNC).i(fd).invoke(), kTrue);
    EXPECT_EQ(Request(STROAGE_LUM_CLOSE).i(fd).invoke(), le32({0}));
    EXPECT_EQ(Request(STROAGE_LUM_CLOSE).i(fd).invoke(), le32({-1, EBADF}));
    EXPECT_EQ(content("io"), "hello");
    fd = open_file(at("io"), O_RDONLY);
    ASSERT_GE(fd, 0);
    // The count twice, then the bytes, padded to 4.
    EXPECT_EQ(Request(STROAGE_LUM_READ).i(fd).i(100).invoke(), (le32({5, 5}) + cstring("hello")));
    EXPECT_TRUE(log.has("Get report reply from storageManager 5"));
    EXPECT_EQ(Request(STROAGE_LUM_READ).i(fd).i(100).invoke(), le32({0, 0}));  // end of file
    EXPECT_EQ(Request(STROAGE_LUM_READ).i(fd).i(kIoMax).invoke(), le32({0, 0}));
    EXPECT_EQ(Request(STROAGE_LUM_WRITE).i(fd).i(1).raw("x").invoke(), le32({-1, EBADF}));  // read-only
    EXPECT_EQ(Request(STROAGE_LUM_CLOSE).i(fd).invoke(), le32({0}));
    EXPECT_EQ(Request(STROAGE_LUM_READ).i(fd).i(4).invoke(), le32({-1, EBADF}));
    EXPECT_EQ(Request(STORAGE_LUM_SYNC).i(fd).invoke(), kFalse);
    EXPECT_EQ(Request(STROAGE_LUM_OPEN).s(at("missing")).i(O_RDONLY).i(0).invoke(), le32({-1, ENOENT}));
    EXPECT_EQ(Request(STROAGE_LUM_OPEN).invoke(), le32({-1, EINVAL}));
}

TEST_F(FileOps, DescriptorsNotOpenedByAClientAreOutOfReach)
{
    // The service's own descriptors (here a pipe of this process standing
    // for its sockets and queues) cannot be read, written, synced or closed.
    int own[2];
    ASSERT_EQ(pipe(own), 0);
    EXPECT_EQ(Request(STROAGE_LUM_WRITE).i(own[1]).i(1).raw("x").invoke(), le32({-1, EBADF}));
    EXPECT_EQ(Request(STROAGE_LUM_READ).i(own[0]).i(1).invoke(), le32({-1, EBADF}));
    EXPECT_EQ(Request(STORAGE_LUM_SYNC).i(own[0]).invoke(), kFalse);
    EXPECT_EQ(Request(STROAGE_LUM_CLOSE).i(own[0]).invoke(), le32({-1, EBADF}));
    EXPECT_NE(fcntl(own[0], F_GETFD), -1);  // still open
    close(own[0]);
    close(own[1]);
}

TEST_F(FileOps, LumReadAndWriteSizesOutsideTheirBounds)
{
    int32_t fd = open_file(at("io"), O_RDWR | O_CREAT);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(Request(STROAGE_LUM_READ).i(fd).i(-1).invoke(), le32({-1, EINVAL}));
    EXPECT_EQ(Request(STROAGE_LUM_READ).i(fd).i(kIoMax + 1).invoke(), le32({-1, ENOMEM}));
    EXPECT_EQ(Request(STROAGE_LUM_WRITE).i(fd).i(-1).raw("abcd").invoke(), le32({-1, EINVAL}));
    EXPECT_EQ(Request(STROAGE_LUM_WRITE).i(fd).i(10).raw("abcd").invoke(), le32({-1, EINVAL}));
    EXPECT_EQ(Request(STROAGE_LUM_WRITE).i(fd).invoke(), le32({0}));  // no count reads 0: nothing to write
    Request huge(STROAGE_LUM_WRITE);
    huge.i(fd).i(kIoMax + 1);
    ASSERT_NE(huge.p.writeInplace(static_cast<size_t>(kIoMax) + 1), nullptr);
    EXPECT_EQ(huge.invoke(), le32({-1, ENOMEM}));
    EXPECT_EQ(content("io"), "");  // nothing was written
    EXPECT_EQ(Request(STROAGE_LUM_WRITE).i(fd).i(0).invoke(), le32({0}));
    EXPECT_EQ(Request(STROAGE_LUM_CLOSE).i(fd).invoke(), le32({0}));
}

TEST_F(FileOps, HubDeleteFileTakesTheFlagFromAnOptionalWord)
{
    std::string p = at("r.ts");
    int32_t len = static_cast<int32_t>(p.size() + 1);
    recording("r.ts");
    EXPECT_EQ(Request(STORAGE_DELETE_FILE).s(p).i(len).invoke(), kTrue);
    EXPECT_EQ(entries(".").size(), 6u);  // no flag: companions stay
    recording("r.ts");
    EXPECT_EQ(Request(STORAGE_DELETE_FILE).s(p).i(4000).invoke(), kTrue);  // a generous len reads no flag
    EXPECT_EQ(entries(".").size(), 6u);
    recording("r.ts");
    EXPECT_EQ(Request(STORAGE_DELETE_FILE).s(p).i(len).i(0x100).invoke(), kTrue);  // low byte 0
    EXPECT_EQ(entries(".").size(), 6u);
    recording("r.ts");
    EXPECT_EQ(Request(STORAGE_DELETE_FILE).s(p).i(3).i(0x101).invoke(), kTrue);  // len reaches the byte
    EXPECT_EQ(entries("."), (std::set<std::string>{"cwd", "r.ts.xml.sig"}));
    EXPECT_EQ(results(LUM_TV_EVT_STORAGE_DELETE_FILE), (Bytes{0, 0, 0, 0}));
}

TEST_F(FileOps, HubDeleteFileWithoutLenOrPath)
{
    put("f", "x");
    std::string p = at("f");
    EXPECT_EQ(Request(STORAGE_DELETE_FILE).s(p).i(0).i(1).invoke(), kFalse);
    EXPECT_EQ(Request(STORAGE_DELETE_FILE).s(p).i(-5).i(1).invoke(), kFalse);
    EXPECT_EQ(Request(STORAGE_DELETE_FILE).s(p).invoke(), kFalse);  // len missing reads 0
    EXPECT_EQ(Request(STORAGE_DELETE_FILE).invoke(), kFalse);
    EXPECT_EQ(Request(STORAGE_DELETE_FILE).raw("/fff").invoke(), kFalse);  // no terminator
    EXPECT_TRUE(exists("f"));
    EXPECT_EQ(log.count("a text is missing"), 2);
    EXPECT_EQ(results(LUM_TV_EVT_STORAGE_DELETE_FILE), (Bytes{1, 1, 1, 1, 1}));
}

TEST_F(FileOps, HubRenamePacksBothPathsIntoFiveHundredTwelveBytes)
{
    recording("a.ts");
    EXPECT_EQ(Request(STORAGE_RENAME_FILE).s(at("a.ts")).s(at("b.ts")).b(true).invoke(), kTrue);
    EXPECT_TRUE(exists("b.ts.xml.sig") && exists("b.ts.desc") && exists("b.ts"));
    EXPECT_EQ(Request(STORAGE_RENAME_FILE).s(at("b.ts")).s(at("c.ts")).b(false).invoke(), kTrue);
    EXPECT_TRUE(exists("c.ts") && exists("b.ts.desc"));
    std::string dst = at("c.ts");
    // strlen + strlen + 3 = 512 fits the packed buffer: both paths arrive whole.
    std::string longSrc = at(std::string(254 - base.size() - 1, 'S'));
    std::string longDst = at(std::string(255 - base.size() - 1, 'D'));
    put(longSrc, "long");
    EXPECT_EQ(Request(STORAGE_RENAME_FILE).s(longSrc).s(longDst).b(false).invoke(), kFalse);
    EXPECT_TRUE(log.has("---: '" + longSrc + "' -> '" + longDst + "'"));
    // One byte more does not: refused with result 3, nothing renamed.
    EXPECT_EQ(Request(STORAGE_RENAME_FILE).s(longSrc).s(longDst + "2").b(false).invoke(), kFalse);
    EXPECT_TRUE(log.has("paths of 254 and 256 bytes do not fit 512 bytes"));
    EXPECT_FALSE(log.has(longDst + "2'"));
    EXPECT_TRUE(exists(longSrc));
    EXPECT_EQ(Request(STORAGE_RENAME_FILE).s(dst).invoke(), kFalse);
    EXPECT_EQ(Request(STORAGE_RENAME_FILE).invoke(), kFalse);
    EXPECT_EQ(log.count("a text is missing"), 2);
    EXPECT_TRUE(exists(dst));
    EXPECT_EQ(results(LUM_TV_EVT_STORAGE_RENAME_FILE), (Bytes{0, 0, 3, 3, 3, 3}));
}

TEST_F(FileOps, HubWriteFileCountsTheDataAlone)
{
    std::string data("thirteen\0byte", 13);  // not a multiple of 4: the Parcel pads it
    std::string p = at("w");
    EXPECT_EQ(Request(STORAGE_WRITE_FILE).s(p).i(13).raw(data).invoke(), kTrue);
    EXPECT_EQ(content("w"), data);
    EXPECT_EQ(Request(STORAGE_WRITE_FILE).s(p).i(4).raw(data).invoke(), kTrue);  // the first 4 only
    EXPECT_EQ(content("w"), "thir");
    EXPECT_EQ(results(LUM_TV_EVT_STORAGE_WRITE_FILE), (Bytes{0, 0}));
}

TEST_F(FileOps, HubWriteFileWithSizesThatDoNotMatchWhatArrived)
{
    std::string p = at("w");
    EXPECT_EQ(Request(STORAGE_WRITE_FILE).s(p).i(0).invoke(), kTrue);
    EXPECT_EQ(Request(STORAGE_WRITE_FILE).s(p).i(-1).raw("abcd").invoke(), kTrue);
    EXPECT_EQ(Request(STORAGE_WRITE_FILE).s(p).i(100).raw("only ten b").invoke(), kTrue);
    EXPECT_EQ(Request(STORAGE_WRITE_FILE).s(p).i(5).raw("abcd").invoke(), kTrue);  // 5 bytes need 8 in the Parcel
    EXPECT_FALSE(exists("w"));
    EXPECT_EQ(log.count("raw bytes announced"), 3);
    EXPECT_EQ(Request(STORAGE_WRITE_FILE).invoke(), kFalse);
    EXPECT_EQ(results(LUM_TV_EVT_STORAGE_WRITE_FILE), (Bytes{1, 1, 1, 1, 1}));
}

TEST_F(FileOps, HubPostsProtectionAndDirectorySize)
{
    REQUIRE_ISOLATION();
    ensure_service_queue();
    put("f", "x");
    EXPECT_EQ(Request(STORAGE_SET_PROTECTED).s("\x02" + at("f")).invoke(), kTrue);
    EXPECT_EQ(Request(STORAGE_GET_DIR_SIZE).s(base).invoke(), kTrue);
    EXPECT_TRUE(events.events().empty());  // nothing runs before the service thread does
    EXPECT_EQ(theStorageManagerService.ReadMsgsFromNonBlockingQueue(), 2);
    EXPECT_EQ(mode_of("f"), 0444u);
    EXPECT_EQ(results(LUM_TV_EVT_STORAGE_SET_PROTECTED), (Bytes{0}));
    EXPECT_EQ(events.events().size(), 1u);
    EXPECT_EQ(Request(STORAGE_SET_PROTECTED).s("\x01" + at("f")).invoke(), kTrue);
    theStorageManagerService.ReadMsgsFromNonBlockingQueue();
    EXPECT_EQ(mode_of("f"), 0666u);
    EXPECT_EQ(Request(STORAGE_SET_PROTECTED).invoke(), kFalse);
    EXPECT_EQ(Request(STORAGE_GET_DIR_SIZE).s(std::string(100, 'd')).invoke(), kFalse);
    EXPECT_EQ(theStorageManagerService.ReadMsgsFromNonBlockingQueue(), 0);
}
