// lumstoragectl ls and cover end to end: ctl_main against an in-process
// daemon on the fake service, whose listings (fake_listing.cpp) come in
// several blocks with other clients' blocks between them, end at their
// total or at the end marker, fail, or break off.
#include <gtest/gtest.h>

#include "ctl_run.h"
#include "fake_bytes.h"
#include "fake_listing.h"
#include <nlohmann/json.hpp>
#include "lumctl/ctl_args.h"
#include "test_support.h"

namespace {

using fakesvc::Bytes;
using fakesvc::join;
using hosttest::ctl;
using hosttest::CtlRun;
using hosttest::has;
using hosttest::json_lines;

class CtlLs : public ::testing::Test {
protected:
    void SetUp() override
    {
        fakesvc::reset_listing();
        ASSERT_EQ(0, srv.start());
    }
    void TearDown() override { fakesvc::reset_listing(); }
    CtlRun run(std::vector<std::string> words) { return ctl(srv.config.socket_path, std::move(words)); }
    hosttest::TestServer srv;
};

// STORAGE_READ_DIRS (4133 = 0x1025), then the path's bytes, its NUL and
// zeros up to a multiple of 4.
Bytes read_dirs_head(const std::string& path)
{
    Bytes out = {0x25, 0x10, 0x00, 0x00};
    out.reserve(out.size() + path.size() + 4);
    out.insert(out.end(), path.begin(), path.end());
    out.resize(out.size() + 4 - path.size() % 4, 0);
    return out;
}

TEST_F(CtlLs, ListingOfSeveralBlocksSkipsOtherClientsBlocks)
{
    CtlRun r = run({"ls", fakesvc::kMusicDir, "--id", "4660"});
    EXPECT_EQ(0, r.code) << r.err;
    EXPECT_EQ("/mnt/usb/sdb1/music: 5 entries\n"
              "w         0 2024-05-17 09:05 album/\n"
              "r      4200 2024-05-17 13:45 a.mp3  title \"T\", artist \"Artist\", album \"Album\", genre \"Pop\", "
              "year 2024, track 3, 3:35, 192 kbit/s\n"
              "w     30000 1901-01-01 00:00 b.flac  62:05, 900 kbit/s\n"
              "w         1 2024-05-17 10:00 list.m3u/\n"
              "w         2 1969-12-31 23:59 old.txt\n",
              r.out);

    // The listing's request, then the end marker: the empty path, same id.
    // No flags word.
    const Bytes id = {0x34, 0x12, 0, 0, 0, 0, 0, 0};
    std::vector<Bytes> sent = fakesvc::listing_requests();
    ASSERT_EQ(2u, sent.size());
    EXPECT_EQ(join({read_dirs_head(fakesvc::kMusicDir), {20, 0, 0, 0}, id}), sent[0]);
    EXPECT_EQ(join({read_dirs_head(""), {1, 0, 0, 0}, id}), sent[1]);

    // Each run waits for its own end marker: left behind, the marker's
    // failure block would reach the next run before its listing began.
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(0, run({"ls", fakesvc::kEmptyDir}).code) << i;
        ASSERT_EQ(0, run({"ls", fakesvc::kMusicDir}).code) << i;
    }

    r = run({"ls", "-h", fakesvc::kMusicDir});
    EXPECT_EQ(0, r.code) << r.err;
    EXPECT_TRUE(has(r.out, "\nr   4.1M 2024-05-17 13:45 a.mp3  ")) << r.out;
    EXPECT_TRUE(has(r.out, "\nw  29.3M 1901-01-01 00:00 b.flac  ")) << r.out;

    // JSON: one line per block of this listing, then the summary.
    r = run({"--json", "ls", fakesvc::kMusicDir});
    EXPECT_EQ(0, r.code) << r.err;
    EXPECT_TRUE(json_lines(r.out)) << r.out;
    EXPECT_EQ(4u, hosttest::occurrences(r.out, "\n"));
    EXPECT_EQ(0u, r.out.find("{\"offset\":0,\"total\":5,\"records\":[{\"protected\":false,\"sizeKiB\":0,")) << r.out;
    EXPECT_TRUE(has(r.out, "\n{\"offset\":2,\"total\":5,\"records\":[{")) << r.out;
    EXPECT_TRUE(has(r.out, "\n{\"offset\":4,\"total\":5,\"records\":[{")) << r.out;
    EXPECT_TRUE(has(r.out, "\n{\"path\":\"/mnt/usb/sdb1/music\",\"total\":5,\"shown\":5,\"notShown\":0,"
                           "\"failed\":false,\"elapsedUs\":"))
        << r.out;
    EXPECT_FALSE(has(r.out, "foreign")) << "another client's block was taken";
}

TEST_F(CtlLs, EntriesWithoutRecordsEndAtTheEndMarker)
{
    CtlRun r = run({"ls", fakesvc::kFifoDir});
    EXPECT_EQ(0, r.code) << r.err;
    EXPECT_TRUE(has(r.out, "/mnt/usb/sdb1/fifo: 4 entries\n")) << r.out;
    EXPECT_EQ(2u, hosttest::occurrences(r.out, " 2024-05-17 13:45 a.mp3") + hosttest::occurrences(r.out, " old.txt"));
    EXPECT_TRUE(has(r.out, "\n(2 entries not shown: neither file, link nor directory)\n")) << r.out;
    r = run({"ls", "--json", fakesvc::kFifoDir});
    EXPECT_TRUE(has(r.out, "\"total\":4,\"shown\":2,\"notShown\":2,\"failed\":false,\"elapsedUs\":")) << r.out;

    r = run({"ls", fakesvc::kEmptyDir});
    EXPECT_EQ(0, r.code) << r.err;
    EXPECT_EQ("/mnt/usb/sdb1/empty: 0 entries\n", r.out);

    // The service does not queue the end marker: a listing short of its
    // total times out, a complete or failed one does not wait for it.
    fakesvc::g_answer_empty_path = false;
    r = run({"ls", fakesvc::kFifoDir, "--timeout", "0.3"});
    EXPECT_EQ(1, r.code);
    EXPECT_TRUE(has(r.err, "timed out after 0.3 s waiting for the rest of the listing (2 of 4 entries so far)"))
        << r.err;
    const double start = lumctl::now_seconds();
    r = run({"ls", fakesvc::kEmptyDir, "--timeout", "20"});
    EXPECT_EQ(0, r.code) << r.err;
    EXPECT_EQ("/mnt/usb/sdb1/empty: 0 entries\n", r.out);
    r = run({"ls", "/mnt/usb/sdb1/missing", "--timeout", "20"});
    EXPECT_EQ(1, r.code);
    EXPECT_TRUE(has(r.err, "could not list it")) << r.err;
    EXPECT_GT(5, lumctl::now_seconds() - start);
}

TEST_F(CtlLs, FailedRefusedAndDamagedListingsExit1)
{
    CtlRun r = run({"ls", "/mnt/usb/sdb1/missing"});
    EXPECT_EQ(1, r.code);
    EXPECT_EQ("", r.out);
    EXPECT_TRUE(has(r.err, "ls /mnt/usb/sdb1/missing: the service could not list it")) << r.err;
    r = run({"ls", "--json", "/mnt/usb/sdb1/missing"});
    EXPECT_EQ(1, r.code);
    EXPECT_EQ("{\"offset\":0,\"total\":65535,\"records\":[]}\n{\"path\":\"/mnt/usb/sdb1/missing\",\"failed\":true}\n",
              r.out);

    r = run({"ls", fakesvc::kRefused});
    EXPECT_EQ(1, r.code);
    EXPECT_TRUE(has(r.err, "refused the request: no listing will come")) << r.err;

    // The record before the damage is shown, then the fault.
    r = run({"ls", fakesvc::kDamagedDir});
    EXPECT_EQ(1, r.code);
    EXPECT_EQ("/mnt/usb/sdb1/bad: 3 entries\nw         2 1969-12-31 23:59 old.txt\n", r.out);
    EXPECT_TRUE(has(r.err, "damaged block at offset 0: record 2 at byte 46: artist without its NUL")) << r.err;
}

TEST_F(CtlLs, FlagsWordAndPathLimitOnTheWire)
{
    const Bytes id = {0x05, 0x00, 0, 0, 0, 0, 0, 0};
    struct Case {
        std::vector<std::string> options;
        Bytes tail;  // len, id and the flags word
    };
    const std::string path = fakesvc::kEmptyDir;  // 19 bytes
    const Case cases[] = {
        {{"--filter", "3", "--no-tags"}, join({{21, 0, 0, 0}, id, {11, 0, 0, 0}})},
        {{"--no-tags"}, join({{21, 0, 0, 0}, id, {9, 0, 0, 0}})},
        {{"--filter", "0"}, join({{21, 0, 0, 0}, id, {0, 0, 0, 0}})},
        {{"--filter", "7"}, join({{21, 0, 0, 0}, id, {7, 0, 0, 0}})},
        {{}, join({{20, 0, 0, 0}, id})},
    };
    for (const Case& c : cases) {
        fakesvc::reset_listing();
        std::vector<std::string> words = {"ls", path, "--id", "5"};
        words.insert(words.end(), c.options.begin(), c.options.end());
        CtlRun r = run(words);
        EXPECT_EQ(0, r.code) << r.err;
        std::vector<Bytes> sent = fakesvc::listing_requests();
        ASSERT_EQ(2u, sent.size());
        EXPECT_EQ(join({read_dirs_head(path), c.tail}), sent[0]) << c.options.size();
    }

    // Too long: refused before anything is sent.
    fakesvc::reset_listing();
    const std::string p99 = "/" + std::string(98, 'x');
    CtlRun r = run({"ls", p99, "--filter", "1"});
    EXPECT_EQ(2, r.code);
    EXPECT_TRUE(has(r.err, "path of 99 bytes is too long: the service takes at most 98 bytes with --filter")) << r.err;
    r = run({"ls", p99 + "x"});
    EXPECT_EQ(2, r.code);
    EXPECT_TRUE(has(r.err, "path of 100 bytes is too long")) << r.err;
    EXPECT_TRUE(fakesvc::listing_requests().empty());
    // 99 bytes without flags go out (and fail: no such directory).
    EXPECT_EQ(1, run({"ls", p99}).code);
    ASSERT_EQ(2u, fakesvc::listing_requests().size());
    EXPECT_EQ(4u + 100 + 4 + 8, fakesvc::listing_requests()[0].size());

    for (const auto& bad : {std::vector<std::string>{"ls", path, "--filter", "8"},
                            std::vector<std::string>{"ls", path, "--id", "65536"},
                            std::vector<std::string>{"ls", path, "--filter"}, std::vector<std::string>{"ls"}}) {
        EXPECT_EQ(2, run(bad).code) << bad.back();
    }
}

TEST_F(CtlLs, CoverPrintsTheLinkOfItsOwnAnswer)
{
    CtlRun r = run({"cover", "/mnt/usb/sdb1/music/", "a.mp3"});
    EXPECT_EQ(0, r.code) << r.err;
    EXPECT_EQ("cover of a.mp3: /tmp/share/a.mp3. (status 0)\n", r.out);
    r = run({"cover", "--json", "/mnt/usb/sdb1/music/", "a.mp3"});
    EXPECT_EQ("{\"folder\":\"/mnt/usb/sdb1/music/\",\"file\":\"a.mp3\",\"status\":0,\"path\":\"/tmp/share/a.mp3.\"}\n",
              r.out);
    r = run({"cover", "/m/", fakesvc::kCoverFails});
    EXPECT_EQ(3, r.code);
    EXPECT_TRUE(has(r.out, "(status 1, failed)")) << r.out;
    r = run({"cover", fakesvc::kRefused, "a.mp3"});
    EXPECT_EQ(1, r.code);
    EXPECT_TRUE(has(r.err, "no cover answer will come")) << r.err;
    EXPECT_EQ(2, run({"cover", "/m/", std::string(100, 'a')}).code);
}

}  // namespace
