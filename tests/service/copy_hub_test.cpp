// The hub's copy and move rows, byte for byte: STORAGE_COPY's record with
// the whole request behind it, its refusals, and the replies of the direct
// rows STORAGE_COPY_FILE, STORAGE_COPY_DIRS and STROAGE_LUM_MOVE.
#include <gtest/gtest.h>

#include <binder/Parcel.h>

#include "FileMove.h"
#include "SignalNo.h"
#include "StorageCmdTable.h"
#include "StorageModuleHub.h"
#include "copy_fixture.h"

namespace copy_test {
namespace {

using android::Parcel;

// STORAGE_COPY's request: pPath, len, then the raw bytes if any.
struct CopyRequest {
    CopyRequest(const std::string& path, int32_t len, const Bytes* raw)
    {
        p.writeCString(path.c_str());
        p.writeInt32(len);
        if (raw != nullptr)
            p.write(raw->data(), raw->size());
        p.setDataPosition(0);
    }
    Parcel p;
};

class CopyHub : public CopyWork {
protected:
    void SetUp() override
    {
        CopyWork::SetUp();
        if (IsSkipped())
            return;
        ASSERT_EQ(probe.Init("/lumtest_copyprobe", 10, 0, false), 0);
        row = find_cmd_row(STORAGE_COPY);
        ASSERT_NE(row, nullptr);
    }
    bool Post(const CopyRequest& req, bool* recordLeft = nullptr) { return post_row(*row, req.p, probe, recordLeft); }
    PostProbe probe;
    const SCmdRow* row = nullptr;
};

TEST_F(CopyHub, RawRequestTravelsWholeBehindTheRecord)
{
    std::string src = "/" + std::string(150, 's');  // longer than buf1
    Bytes raw = request(src, "/dst/x.ts", {1});
    bool bFree = false;
    ASSERT_TRUE(Post(CopyRequest(src, static_cast<int32_t>(raw.size()), &raw), &bFree));
    EXPECT_TRUE(bFree);  // the record stays with the hub, a block of its own travels
    ASSERT_EQ(probe.ReadMsgsFromNonBlockingQueue(), 1);
    const Posted& p = probe.posted[0];
    EXPECT_EQ(p.signal, static_cast<unsigned long>(SIG_ID_STORAGE_COPY));
    EXPECT_EQ(p.tail, raw);
    EXPECT_EQ(p.record.intValue1, static_cast<int32_t>(raw.size()));
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(p.record.buf1)), src.substr(0, 99));
    EXPECT_EQ(p.record.buf2[0], 0);
}

TEST_F(CopyHub, OldClientGetsItsTextAndNeverMoreThanArrived)
{
    ASSERT_TRUE(Post(CopyRequest("/a/b.ts", 4000, nullptr)));
    ASSERT_TRUE(Post(CopyRequest("", 0, nullptr)));  // the cancel
    ASSERT_EQ(probe.ReadMsgsFromNonBlockingQueue(), 2);
    EXPECT_TRUE(probe.posted[0].tail.empty());
    EXPECT_EQ(probe.posted[0].record.intValue1, 8);
    EXPECT_STREQ(reinterpret_cast<const char*>(probe.posted[0].record.buf1), "/a/b.ts");
    EXPECT_EQ(probe.posted[1].record.intValue1, 1);
    // Without raw bytes a text of 100 bytes has no carrier.
    LogCapture log;
    EXPECT_FALSE(Post(CopyRequest("/" + std::string(99, 'x'), 101, nullptr)));
    EXPECT_TRUE(log.has("nothing posted"));
}

TEST_F(CopyHub, BadRawBytesAreRefusedAndNothingIsPosted)
{
    Bytes ok = request("/a", "/b");
    Bytes other = request("/c", "/b");
    Bytes big(1025, 'x');
    big[0] = '/';
    big[1] = 0;
    struct Case {
        std::string path;
        int32_t len;
        const Bytes* raw;
    };
    const Case cases[] = {
        {"/a", 1025, &big},                                   // above 1024
        {"/a", static_cast<int32_t>(ok.size()) + 8, &ok},     // more than the Parcel holds
        {"/a", static_cast<int32_t>(other.size()), &other},   // not beginning with pPath
        {"/a", 2, &ok},                                       // shorter than pPath and its NUL
        {"/a", 0, &ok},
        {"/a", -4, &ok},
    };
    for (const Case& c : cases) {
        LogCapture log;
        bool bFree = false;
        EXPECT_FALSE(Post(CopyRequest(c.path, c.len, c.raw), &bFree)) << c.len;
        EXPECT_TRUE(bFree);
        EXPECT_TRUE(log.has("nothing posted")) << c.len;
    }
    EXPECT_EQ(probe.ReadMsgsFromNonBlockingQueue(), 0);
    // The largest request that is taken.
    Bytes max(1024, 'y');
    max[0] = '/';
    max[1] = 0;
    EXPECT_TRUE(Post(CopyRequest("/", 1024, &max)));
    ASSERT_EQ(probe.ReadMsgsFromNonBlockingQueue(), 1);
    EXPECT_EQ(probe.posted[0].tail, max);
}

TEST_F(CopyHub, DirectCopyRowsReplyTrueOnlyForZeroAndSendNoEvent)
{
    write_file(kWork + "/a", "A");
    make_dirs(kWork + "/t");
    write_file(kWork + "/t/f", "F");
    EventCapture events;
    EXPECT_EQ(Request(STORAGE_COPY_FILE).s(kWork + "/a").s(kWork + "/b").invoke(), kTrue);
    EXPECT_EQ(Request(STORAGE_COPY_FILE).s(kWork + "/missing").s(kWork + "/c").invoke(), kFalse);
    EXPECT_EQ(Request(STORAGE_COPY_DIRS).s(kWork + "/t/").s(kWork + "/u/").invoke(), kTrue);
    EXPECT_EQ(Request(STORAGE_COPY_DIRS).s(kWork + "/t/").s(kWork + "/u/").invoke(), kFalse);  // exists now
    EXPECT_EQ(Request(STORAGE_COPY_FILE).s(kWork + "/a").invoke(), kFalse);
    EXPECT_EQ(Request(STORAGE_COPY_DIRS).invoke(), kFalse);
    EXPECT_EQ(read_file(kWork + "/b"), "A");
    EXPECT_EQ(read_file(kWork + "/u/f"), "F");
    EXPECT_TRUE(events.events().empty());
}

TEST_F(CopyHub, MoveRowPacksThePathsAndRefusesWhatDoesNotFit)
{
    write_file(kWork + "/a", "A");
    EventCapture events;
    EXPECT_EQ(Request(STROAGE_LUM_MOVE).s(kWork + "/a").s(kWork + "/b").b(false).invoke(), kTrue);
    EXPECT_EQ(read_file(kWork + "/b"), "A");
    EXPECT_FALSE(exists(kWork + "/a"));
    EXPECT_EQ(Request(STROAGE_LUM_MOVE).s(kWork + "/a").s(kWork + "/c").b(false).invoke(), kFalse);  // no source any more
    LogCapture log;
    // 254 + 256 + 3 = 513 bytes do not fit.
    std::string src = kWork + "/" + std::string(245, 's');
    std::string dst = kWork + "/" + std::string(247, 'd');
    EXPECT_EQ(Request(STROAGE_LUM_MOVE).s(src).s(dst).b(true).invoke(), kFalse);
    EXPECT_TRUE(log.has("cmd 4154: paths of 254 and 256 bytes do not fit 512 bytes"));
    EXPECT_EQ(Request(STROAGE_LUM_MOVE).s(kWork + "/b").invoke(), kFalse);
    EXPECT_EQ(payloads(events.events(), LUM_TV_EVT_STORAGE_MOVE_FILE), (std::vector<Bytes>{{0}, {3}, {3}, {3}}));
    EXPECT_TRUE(log.has("cmd 4154: a text is missing"));
    EXPECT_TRUE(exists(kWork + "/b"));

    unsigned char buf[512];
    dst.pop_back();  // 254 + 255 + 3 = 512
    ASSERT_EQ(src.size() + dst.size() + 3, 512u);
    ASSERT_TRUE(pack_path_pair(STROAGE_LUM_MOVE, src.c_str(), dst.c_str(), true, buf));
    EXPECT_EQ(buf[0], 1);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(buf) + 1), src);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(buf) + 2 + src.size()), dst);
    EXPECT_EQ(buf[511], 0);
}

}  // namespace
}  // namespace copy_test
