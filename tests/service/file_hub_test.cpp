// The hub rows of the file operations, request to reply byte for byte, with
// the events and the disk behind them.
#include "file_ops_fixture.h"

#include <norvfw/NorvMsg.h>

using namespace file_ops_test;

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

TEST_F(FileOps, HubWriteFileAboveSixtyFourMebibytesIsAFailedAllocation)
{
    const int32_t size = (64 << 20) + 1;
    Request request(STORAGE_WRITE_FILE);
    request.s(at("huge")).i(size);
    ASSERT_NE(request.p.writeInplace(static_cast<size_t>(size)), nullptr);
    EXPECT_EQ(request.invoke(), kFalse);
    EXPECT_TRUE(log.has("malloc failed!"));
    EXPECT_TRUE(events.events().empty());
    EXPECT_FALSE(exists("huge"));
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
