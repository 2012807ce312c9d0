// Copy requests: how the request text is taken apart, whole runs of the copy thread (held in the middle of a
// file where needed), and the hub's copy and move rows byte for byte.
#include <lumemclient/EMALSink.h>

#include "FileMove.h"
#include "SignalNo.h"
#include "copy_fixture.h"

namespace copy_test {
namespace {
int parse(const Bytes& req, COPY_THREAD_CONTEXT* ctx)
{
    return parse_copy_request(req.data(), static_cast<int>(req.size()), ctx);
}

// Type byte 3, the two flag bytes, then n values 1, 2, ... and extra bytes.
Bytes cut_tail(int values, int extra = 0)
{
    Bytes t = {3, 0xA1, 0xB2};
    for (int i = 1; i <= values; ++i)
        t.insert(t.end(), {0, 0, static_cast<unsigned char>(i >> 8), static_cast<unsigned char>(i)});
    t.insert(t.end(), static_cast<size_t>(extra), 0xEE);
    return t;
}

TEST(CopyRequest, TypeByteDecidesIsOptionalAndASlashMakesATree)
{
    COPY_THREAD_CONTEXT ctx;
    const struct {
        const char* src;
        Bytes tail;
        int type;
    } rows[] = {
        {"/a/x.ts", {}, 0}, {"/a/x.ts", {2}, 2}, {"/a/x.ts", {0xff}, 255},
        {"/a/d/", {}, COPY_TYPE_TREE}, {"/a/d/", {3, 1}, COPY_TYPE_TREE},
    };
    for (const auto& row : rows) {
        ASSERT_EQ(parse(request(row.src, "/b/x", row.tail), &ctx), 0) << row.src;
        EXPECT_EQ(ctx.type, row.type) << row.src << " " << row.tail.size();
        EXPECT_STREQ(ctx.src, row.src);
        EXPECT_STREQ(ctx.dst, "/b/x");
        EXPECT_EQ(ctx.num_cuts, 0);
    }
}

TEST(CopyRequest, CutArgumentsAreCheckedAndReadBigEndian)
{
    COPY_THREAD_CONTEXT ctx;
    EXPECT_EQ(parse(request("/a/x", "/b/x", cut_tail(0, 3)), &ctx), 1);  // cut_arg_len 5
    ASSERT_EQ(parse(request("/a/x", "/b/x", cut_tail(1)), &ctx), 0);  // 6
    EXPECT_EQ(ctx.type, 3);
    EXPECT_EQ(ctx.src_flags, 0xA1);
    EXPECT_EQ(ctx.dst_flags, 0xB2);
    EXPECT_EQ(ctx.num_cuts, 1);
    EXPECT_EQ(ctx.cuts[0], 1);
    ASSERT_EQ(parse(request("/a/x", "/b/x", cut_tail(64)), &ctx), 0);  // 258
    EXPECT_EQ(ctx.num_cuts, 64);
    EXPECT_EQ(ctx.cuts[63], 64);
    Bytes big = request("/a/x", "/b/x", {3, 0, 0, 0x80, 0, 0x01, 0x02});
    ASSERT_EQ(parse(big, &ctx), 0);
    EXPECT_EQ(static_cast<uint32_t>(ctx.cuts[0]), 0x80000102u);
    EXPECT_EQ(parse(request("/a/x", "/b/x", cut_tail(65)), &ctx), 1);    // 262
    EXPECT_EQ(parse(request("/a/x", "/b/x", cut_tail(0)), &ctx), 0);     // 2: flags alone
    EXPECT_EQ(parse(request("/a/x", "/b/x", {3}), &ctx), 1);             // 0
}

TEST(CopyRequest, LenDecidesWhatIsRead)
{
    COPY_THREAD_CONTEXT ctx;
    Bytes req = request("/a/x", "/b/x", {2, 9, 9});
    // len ending right behind dst: a plain file copy.
    ASSERT_EQ(parse_copy_request(req.data(), 10, &ctx), 0);
    EXPECT_EQ(ctx.type, 0);
    // An old client's request: the source alone, an empty destination.
    ASSERT_EQ(parse_copy_request(req.data(), 5, &ctx), 0);
    EXPECT_STREQ(ctx.dst, "");
    EXPECT_EQ(ctx.type, 0);
    // A destination without its NUL inside len, a source without one.
    EXPECT_EQ(parse_copy_request(req.data(), 8, &ctx), 1);
    EXPECT_EQ(parse_copy_request(req.data(), 3, &ctx), 1);
    EXPECT_EQ(parse_copy_request(req.data(), 0, &ctx), 1);
}

TEST(CopyRequest, PathsOfMoreThan256BytesAreRefusedNotCut)
{
    COPY_THREAD_CONTEXT ctx;
    std::string p256 = "/" + std::string(255, 'p');
    ASSERT_EQ(parse(request(p256, p256), &ctx), 0);
    EXPECT_EQ(std::string(ctx.src), p256);
    EXPECT_EQ(std::string(ctx.dst), p256);
    EXPECT_EQ(parse(request(p256 + "q", "/b"), &ctx), 1);
    EXPECT_EQ(parse(request("/a", p256 + "q"), &ctx), 1);
}

class CopyThread : public CopyWork {
protected:
    std::vector<Bytes> CopyResults(EventCapture& events) { return payloads(events.events(), LUM_TV_EVT_STORAGE_COPY); }
};

TEST_F(CopyThread, ResultBytesOfRefusedAndFailedCopies)
{
    const std::string a = kWork + "/a";
    write_file(a, "A");
    write_file(kWork + "/rec.ts.xml", "x");  // a recording's companion without its main file
    make_dirs(kWork + "/src");
    make_dirs(kWork + "/dst");
    Bytes sourceAlone(a.begin(), a.end());  // an old client's: no absolute destination, nothing runs
    sourceAlone.push_back(0);
    const struct {
        Bytes req;
        bool thread;
        unsigned char result;
    } rows[] = {
        {request(a, kWork + "/b", cut_tail(0, 3)), false, 1},
        {request(a, kWork + "/b", cut_tail(1)), true, 1},  // type 3: valid, refused by the thread
        {request(a, kWork + "/b", {9}), true, 1},
        {request(kWork + "/rec.ts", kWork + "/copy.ts", {1}), true, 1},  // no companion is tried
        {sourceAlone, true, 255},
        {request(kWork + "/src/", kWork + "/dst/"), true, 255},  // a tree's is CopyDir's low byte
        {request(kWork + "/src/", kWork + "/new/"), true, 0},
    };
    LogCapture log;
    for (const auto& row : rows) {
        EventCapture events;
        Copy(row.req);
        EXPECT_TRUE(row.thread || copy_threads_alive() == 0);
        ASSERT_TRUE(WaitCopyEnd(events));
        EXPECT_EQ(CopyResults(events), std::vector<Bytes>{{row.result}}) << &row - rows;
    }
    EXPECT_TRUE(log.has("***E: type: 3"));
    EXPECT_TRUE(log.has("***E: type: 9"));
    EXPECT_FALSE(exists(kWork + "/b"));
    EXPECT_FALSE(exists(kWork + "/copy.ts.xml"));
}

// Notes each copy result together with whether the copy thread still held the busy flag when it was sent.
struct BusyAtEvent {
    std::mutex lock;
    std::vector<std::pair<int, bool>> seen;
    static void sink(int event, const void* data, int len, void* ctx)
    {
        auto* self = static_cast<BusyAtEvent*>(ctx);
        if (event != LUM_TV_EVT_STORAGE_COPY || len != 1)
            return;
        bool busy = copy_running();
        std::lock_guard<std::mutex> hold(self->lock);
        self->seen.push_back({*static_cast<const unsigned char*>(data), busy});
    }
};

TEST_F(CopyThread, TheEventGoesOutBeforeTheBusyFlagIsGivenBack)
{
    write_file(kWork + "/a", "A");
    BusyAtEvent probe;
    EMAL_SetSink(&BusyAtEvent::sink, &probe);
    Copy(request(kWork + "/a", kWork + "/b"));
    bool ended = eventually([] { return !copy_running() && copy_threads_alive() == 0; });
    EMAL_SetSink(nullptr, nullptr);
    ASSERT_TRUE(ended);
    EXPECT_EQ(probe.seen, (std::vector<std::pair<int, bool>>{{0, true}}));
}

TEST_F(CopyThread, CancelStopsAFileBetweenBlocksAndRemovesItsCopy)
{
    for (unsigned char type : {0, 1}) {
        write_file(kWork + "/fifo.xml", "companion");
        OpenFeed(kWork + "/fifo");
        EventCapture events;
        Copy(request(kWork + "/fifo", kWork + "/dst", {type}));
        Feed(std::string(4096, 'x'));
        ASSERT_TRUE(eventually([] { return read_file(kWork + "/dst").size() == 4096; }));
        Copy(request("", ""));  // the cancel: no event of its own
        Feed("y");              // the next block finds the cancel
        ASSERT_TRUE(WaitCopyEnd(events));
        EXPECT_EQ(CopyResults(events), std::vector<Bytes>{{1}}) << int(type);
        EXPECT_FALSE(exists(kWork + "/dst")) << int(type);
        EXPECT_FALSE(exists(kWork + "/dst.xml")) << int(type);
        CloseFeed();
        unlink((kWork + "/fifo").c_str());
    }
}

std::vector<int> g_child_results;

void note_copy_result(int event, const void* data, int len, void*)
{
    if (event == LUM_TV_EVT_STORAGE_COPY && len == 1)
        g_child_results.push_back(*static_cast<const unsigned char*>(data));
}

TEST(CopyThreadStart, ThreadThatCannotStartIsAnsweredFiveAndLeavesNoBusyFlag)
{
    REQUIRE_THREADLESS_CHILD();
    std::string out;
    EXPECT_EQ(run_child("copy_without_threads", &out, true), 0) << out;
    size_t first = out.find("***E: creating copy thread: ");
    ASSERT_NE(first, std::string::npos) << out;
    EXPECT_NE(out.find("***E: creating copy thread: ", first + 1), std::string::npos) << out;
    EXPECT_EQ(out.find("copy in progress"), std::string::npos) << out;
}

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
    EXPECT_FALSE(Post(CopyRequest("/" + std::string(99, 'x'), 101, nullptr)));
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
        bool bFree = false;
        EXPECT_FALSE(Post(CopyRequest(c.path, c.len, c.raw), &bFree)) << c.len;
        EXPECT_TRUE(bFree);
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

TEST_F(CopyHub, MoveRowPacksThePathsIntoFiveHundredTwelveBytes)
{
    write_file(kWork + "/a", "A");
    EventCapture events;
    EXPECT_EQ(Request(STROAGE_LUM_MOVE).s(kWork + "/a").s(kWork + "/b").b(false).invoke(), kTrue);
    EXPECT_EQ(read_file(kWork + "/b"), "A");
    EXPECT_FALSE(exists(kWork + "/a"));
    EXPECT_EQ(Request(STROAGE_LUM_MOVE).s(kWork + "/a").s(kWork + "/c").b(false).invoke(), kFalse);  // no source any more
    EXPECT_EQ(Request(STROAGE_LUM_MOVE).s(kWork + "/b").invoke(), kFalse);
    EXPECT_EQ(payloads(events.events(), LUM_TV_EVT_STORAGE_MOVE_FILE), (std::vector<Bytes>{{0}, {3}, {3}}));
    EXPECT_TRUE(exists(kWork + "/b"));
    // 254 + 255 + 3 = 512: the flag, the source and the destination, each terminated.
    std::string src = kWork + "/" + std::string(245, 's');
    std::string dst = kWork + "/" + std::string(246, 'd');
    unsigned char buf[512];
    ASSERT_EQ(src.size() + dst.size() + 3, 512u);
    ASSERT_TRUE(pack_path_pair(STROAGE_LUM_MOVE, src.c_str(), dst.c_str(), true, buf));
    EXPECT_EQ(buf[0], 1);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(buf) + 1), src);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(buf) + 2 + src.size()), dst);
    EXPECT_EQ(buf[511], 0);
}

}  // namespace
}  // namespace copy_test

// Runs in a child whose threads cannot start (run_child with noThreads): each request is answered 5 at once,
// and the busy flag stays free, so the second request is refused the same way and not as a copy in progress.
int child_copy_without_threads()
{
    using namespace copy_test;
    EMAL_SetSink(note_copy_result, nullptr);
    Bytes req = request("/nonexistent/a", "/nonexistent/b");
    for (int i = 0; i < 2; ++i) {
        theStorageManagerService.Copy(req.data(), static_cast<int>(req.size()));
        if (copy_running() || copy_threads_alive() != 0)
            return 30 + i;
    }
    EMAL_SetSink(nullptr, nullptr);
    return g_child_results == std::vector<int>{5, 5} ? 0 : 32;
}
