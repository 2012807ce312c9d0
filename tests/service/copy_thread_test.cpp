// Copy requests: how the request text is taken apart, and whole runs of the
// copy thread, held in the middle of a file where needed: results, the busy
// answer, cancel, the out-of-space event.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include <lumemclient/EMALSink.h>

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
        {"/a/x.ts", {}, 0},      {"/a/x.ts", {0}, 0},   {"/a/x.ts", {1}, 1},  {"/a/x.ts", {2}, 2},
        {"/a/x.ts", {7}, 7},     {"/a/x.ts", {0xff}, 255},
        {"/a/d/", {}, COPY_TYPE_TREE}, {"/a/d/", {0}, COPY_TYPE_TREE}, {"/a/d/", {1}, COPY_TYPE_TREE},
        {"/a/d/", {3, 1}, COPY_TYPE_TREE},
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
    LogCapture log;
    EXPECT_EQ(parse(request("/a/x", "/b/x", cut_tail(0, 3)), &ctx), 1);  // cut_arg_len 5
    EXPECT_TRUE(log.has("cut_arg_len=5 (cut_arg_len MOD 4)=1"));
    EXPECT_TRUE(log.has("***E: invalid cut arguments"));
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
    LogCapture log;
    EXPECT_EQ(parse(request(p256 + "q", "/b"), &ctx), 1);
    EXPECT_EQ(parse(request("/a", p256 + "q"), &ctx), 1);
    EXPECT_EQ(log.count("is too long"), 2);
}

class CopyThread : public CopyWork {
protected:
    std::vector<Bytes> CopyResults(EventCapture& events)
    {
        return payloads(events.events(), LUM_TV_EVT_STORAGE_COPY);
    }
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

// Notes each copy result together with whether the copy thread still held
// the busy flag when it was sent.
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

TEST_F(CopyThread, CancelReachesOnlyTheCopyThreadNotADirectCopy)
{
    OpenFeed(kWork + "/fifo");
    EventCapture events;
    std::atomic<int> direct{-2};
    std::thread client([&] { direct = CopyFile((kWork + "/fifo").c_str(), (kWork + "/direct").c_str()); });
    Feed("x");
    ASSERT_TRUE(eventually([] { return read_file(kWork + "/direct") == "x"; }));
    Copy(request("", ""));
    Feed("y");
    CloseFeed();
    client.join();
    EXPECT_EQ(direct.load(), 0);
    EXPECT_EQ(read_file(kWork + "/direct"), "xy");
    EXPECT_TRUE(events.events().empty());
}

std::vector<int> g_child_results;

void note_copy_result(int event, const void* data, int len, void*)
{
    if (event == LUM_TV_EVT_STORAGE_COPY && len == 1)
        g_child_results.push_back(*static_cast<const unsigned char*>(data));
}

TEST(CopyThreadStart, ThreadThatCannotStartIsAnsweredFiveAndLeavesNoBusyFlag)
{
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "SKIPPED under ThreadSanitizer: its runtime cannot map a 1 TiB thread stack limit";
#endif
    if (!stack_limit_applies())
        GTEST_SKIP() << "SKIPPED: a stack limit does not reach this process (qemu-user keeps it to itself)";
    std::string out;
    EXPECT_EQ(run_child("copy_without_threads", &out, true), 0) << out;
    size_t first = out.find("***E: creating copy thread: ");
    ASSERT_NE(first, std::string::npos) << out;
    EXPECT_NE(out.find("***E: creating copy thread: ", first + 1), std::string::npos) << out;
    EXPECT_EQ(out.find("copy in progress"), std::string::npos) << out;
}

}  // namespace
}  // namespace copy_test

// Runs in a child whose threads cannot start (run_child with noThreads):
// each request is answered 5 at once, and the busy flag stays free, so the
// second request is refused the same way and not as a copy in progress.
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
