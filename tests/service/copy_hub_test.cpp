// The hub's copy and move rows, byte for byte: STORAGE_COPY's record with
// the whole request behind it, its refusals, and the replies of the direct
// rows STORAGE_COPY_FILE, STORAGE_COPY_DIRS and STROAGE_LUM_MOVE.
#include <gtest/gtest.h>

#include <functional>

#include <binder/Parcel.h>

#include "FileMove.h"
#include "SignalNo.h"
#include "StorageCmdTable.h"
#include "StorageModuleHub.h"
#include "copy_fixture.h"

namespace copy_test {
namespace {

using android::Parcel;

const Bytes kFalse = {0, 0, 0, 0};
const Bytes kTrue = {1, 0, 0, 0};

struct Posted {
    unsigned long signal;
    StorageManagerAction_t record;
    Bytes tail;
};

// A queue that keeps what was posted, record and bytes behind it.
class TailProbe : public CThreadObjectWithQueue {
public:
    void ProcessNorvMsg(CNorvMsg* msg) override
    {
        Posted p{msg->GetSignalName(), {}, {}};
        const auto* bytes = static_cast<const unsigned char*>(msg->GetSignalPtr());
        memcpy(&p.record, bytes, sizeof(p.record));
        p.tail.assign(bytes + sizeof(p.record), bytes + msg->GetSignalSize());
        posted.push_back(p);
        msg->FreeSignal();
    }
    std::vector<Posted> posted;
};

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
    bool Post(const CopyRequest& req, bool* bFreeOut = nullptr)
    {
        const Parcel& request = req.p;
        auto* record = static_cast<StorageManagerAction_t*>(calloc(1, sizeof(StorageManagerAction_t)));
        bool bFree = true;
        bool ok = post_cmd_row(*row, request, record, &bFree, probe);
        if (bFreeOut != nullptr)
            *bFreeOut = bFree;
        if (bFree)
            free(record);
        return ok;
    }
    static Bytes Invoke(int code, const std::function<void(Parcel*)>& fill)
    {
        Parcel request, reply;
        request.writeInt32(code);
        fill(&request);
        request.setDataPosition(0);
        EXPECT_EQ(StorageModuleHub::self()->invoke(request, &reply), 0);
        return Bytes(reply.data(), reply.data() + reply.dataSize());
    }
    // The texts as cstrings, then the flag as a bool unless it is negative.
    static Bytes Invoke(int code, const std::vector<std::string>& texts, int flag = -1)
    {
        return Invoke(code, [&](Parcel* p) {
            for (const std::string& t : texts)
                p->writeCString(t.c_str());
            if (flag >= 0)
                p->writeBool(flag != 0);
        });
    }
    TailProbe probe;
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

TEST_F(CopyHub, CopyThroughTheServiceQueueEndsWithItsEvent)
{
    ensure_service_queue();
    write_file(kWork + "/a", "A");
    Bytes raw = request(kWork + "/a", kWork + "/b");
    EventCapture events;
    EXPECT_EQ(Invoke(STORAGE_COPY,
                     [&](Parcel* p) {
                         p->writeCString((kWork + "/a").c_str());
                         p->writeInt32(static_cast<int32_t>(raw.size()));
                         p->write(raw.data(), raw.size());
                     }),
              kTrue);
    EXPECT_EQ(theStorageManagerService.ReadMsgsFromNonBlockingQueue(), 1);
    ASSERT_TRUE(WaitCopyEnd(events));
    EXPECT_EQ(payloads(events.events(), LUM_TV_EVT_STORAGE_COPY), std::vector<Bytes>{{0}});
    EXPECT_EQ(read_file(kWork + "/b"), "A");
}

TEST_F(CopyHub, DirectCopyRowsReplyTrueOnlyForZeroAndSendNoEvent)
{
    write_file(kWork + "/a", "A");
    make_dirs(kWork + "/t");
    write_file(kWork + "/t/f", "F");
    EventCapture events;
    EXPECT_EQ(Invoke(STORAGE_COPY_FILE, {kWork + "/a", kWork + "/b"}), kTrue);
    EXPECT_EQ(Invoke(STORAGE_COPY_FILE, {kWork + "/missing", kWork + "/c"}), kFalse);
    EXPECT_EQ(Invoke(STORAGE_COPY_DIRS, {kWork + "/t/", kWork + "/u/"}), kTrue);
    EXPECT_EQ(Invoke(STORAGE_COPY_DIRS, {kWork + "/t/", kWork + "/u/"}), kFalse);  // exists now
    EXPECT_EQ(Invoke(STORAGE_COPY_FILE, {kWork + "/a"}), kFalse);
    EXPECT_EQ(Invoke(STORAGE_COPY_DIRS, std::vector<std::string>{}), kFalse);
    EXPECT_EQ(read_file(kWork + "/b"), "A");
    EXPECT_EQ(read_file(kWork + "/u/f"), "F");
    EXPECT_TRUE(events.events().empty());
}

TEST_F(CopyHub, MoveRowPacksThePathsAndRefusesWhatDoesNotFit)
{
    write_file(kWork + "/a", "A");
    EventCapture events;
    EXPECT_EQ(Invoke(STROAGE_LUM_MOVE, {kWork + "/a", kWork + "/b"}, 0), kTrue);
    EXPECT_EQ(read_file(kWork + "/b"), "A");
    EXPECT_FALSE(exists(kWork + "/a"));
    EXPECT_EQ(Invoke(STROAGE_LUM_MOVE, {kWork + "/a", kWork + "/c"}, 0), kFalse);  // no source any more
    LogCapture log;
    // 254 + 256 + 3 = 513 bytes do not fit.
    std::string src = kWork + "/" + std::string(245, 's');
    std::string dst = kWork + "/" + std::string(247, 'd');
    EXPECT_EQ(Invoke(STROAGE_LUM_MOVE, {src, dst}, 1), kFalse);
    EXPECT_TRUE(log.has("cmd 4154: paths of 254 and 256 bytes do not fit 512 bytes"));
    EXPECT_EQ(Invoke(STROAGE_LUM_MOVE, {kWork + "/b"}), kFalse);
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
