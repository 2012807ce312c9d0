// The socket server on the fake service: exact reply bytes, bad input that must end one connection and
// nothing else, socket rights, peer checks and the client limit.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include "fake_service.h"
#include "test_support.h"

namespace {
using hosttest::Fd;
using hosttest::Frame;
using lumproto::ReadStatus;

std::vector<uint8_t> frame_bytes(const Frame& f) { return hosttest::frame(f.header.type, f.payload, f.header.version); }

// A client still gets its request answered.
void expect_serving(int fd)
{
    ASSERT_TRUE(hosttest::send_bytes(fd, {1, 0, 1, 0, 8, 0, 0, 0, 1, 0, 0, 0, 0x11, 0x22, 0x33, 0x44}));
    Frame f = hosttest::next_frame(fd);
    ASSERT_EQ(ReadStatus::kOk, f.status);
    EXPECT_EQ((std::vector<uint8_t>{0, 0, 0, 0, 0x11, 0x22, 0x33, 0x44}), f.payload);
}
void expect_serving(const std::string& path) { Fd c(hosttest::connect_to(path)); expect_serving(c.fd); }

class ServerTest : public ::testing::Test {
protected:
    hosttest::TestServer srv;
    void SetUp() override { ASSERT_EQ(0, srv.start()); }
    const std::string& path() const { return srv.config.socket_path; }
};

TEST_F(ServerTest, RepliesCarryResultAndParcelBytesInOrder)
{
    Fd c(hosttest::connect_to(path()));
    ASSERT_GE(c.fd, 0);
    ASSERT_TRUE(hosttest::send_bytes(c.fd, {1, 0, 1, 0, 8, 0, 0, 0, 1, 0, 0, 0, 9, 8, 7, 6}));
    Frame f = hosttest::next_frame(c.fd);
    ASSERT_EQ(ReadStatus::kOk, f.status);
    EXPECT_EQ((std::vector<uint8_t>{1, 0, 2, 0, 8, 0, 0, 0, 0, 0, 0, 0, 9, 8, 7, 6}), frame_bytes(f));
    ASSERT_TRUE(hosttest::send_bytes(c.fd, hosttest::request_frame(0x7000)));
    f = hosttest::next_frame(c.fd);
    EXPECT_EQ((std::vector<uint8_t>{1, 0, 2, 0, 4, 0, 0, 0, 0xff, 0xff, 0xff, 0xff}), frame_bytes(f));
    // Pipelined requests in one write: replies come back in the same order.
    std::vector<uint8_t> burst;
    for (uint8_t k = 0; k < 5; ++k) {
        auto one = hosttest::request_frame(fakesvc::kEcho, {k, k, k, k, k});
        burst.insert(burst.end(), one.begin(), one.end());
    }
    ASSERT_TRUE(hosttest::send_bytes(c.fd, burst));
    for (uint8_t k = 0; k < 5; ++k) {
        f = hosttest::next_frame(c.fd);
        ASSERT_EQ(ReadStatus::kOk, f.status);
        EXPECT_EQ((std::vector<uint8_t>{0, 0, 0, 0, k, k, k, k, k, 0, 0, 0}), f.payload);
    }
    ASSERT_TRUE(hosttest::send_bytes(c.fd, hosttest::frame(lumproto::kPing, {9, 8, 7})));
    f = hosttest::next_frame(c.fd);
    EXPECT_EQ(lumproto::kPong, f.header.type);
    EXPECT_EQ((std::vector<uint8_t>{9, 8, 7}), f.payload);
}

TEST_F(ServerTest, ProtocolErrorsCloseOnlyThatConnection)
{
    struct Case {
        const char* what;
        std::vector<uint8_t> bytes;
    };
    std::vector<uint8_t> big_ping(lumproto::kMaxPingPayload + 1, 0x55);
    const Case cases[] = {
        {"version 2", hosttest::frame(lumproto::kRequest, {0x1d, 0x10, 0, 0}, 2)},
        {"unknown type", hosttest::frame(77, {})},
        {"server-only type", hosttest::frame(lumproto::kReply, {0, 0, 0, 0})},
        {"error from client", hosttest::frame(lumproto::kError, {'x'})},
        {"payload above limit", {1, 0, 1, 0, 0x01, 0x00, 0x00, 0x01}},
        {"subscribe with payload", hosttest::frame(lumproto::kSubscribe, {1})},
        {"ping above 256 bytes", hosttest::frame(lumproto::kPing, big_ping)},
    };
    int invokes_before = fakesvc::g_invokes.load();
    // A peer that sits on a second connection must not be disturbed.
    Fd bystander(hosttest::connect_to(path()));
    ASSERT_GE(bystander.fd, 0);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Fd bad(hosttest::connect_to(path()));
        ASSERT_GE(bad.fd, 0);
        ASSERT_TRUE(hosttest::send_bytes(bad.fd, c.bytes));
        Frame f = hosttest::next_frame(bad.fd);
        ASSERT_EQ(ReadStatus::kOk, f.status);
        EXPECT_EQ(lumproto::kError, f.header.type);
        EXPECT_FALSE(f.payload.empty());
        size_t extra = 0;
        EXPECT_TRUE(hosttest::closed_within(bad.fd, 3000, &extra));
        EXPECT_EQ(0u, extra);
    }
    EXPECT_EQ(invokes_before, fakesvc::g_invokes.load()) << "a refused frame reached the service";
    expect_serving(bystander.fd);
}

TEST_F(ServerTest, TruncatedAndStalledInputNeverHangTheServer)
{
    {
        // Half a header, then the peer leaves.
        Fd c(hosttest::connect_to(path()));
        ASSERT_TRUE(hosttest::send_bytes(c.fd, {1, 0, 1}));
    }
    {
        // Half a payload, then nothing: ERROR after the frame timeout.
        Fd c(hosttest::connect_to(path()));
        ASSERT_TRUE(hosttest::send_bytes(c.fd, {1, 0, 1, 0, 8, 0, 0, 0, 0x1d}));
        Frame f = hosttest::next_frame(c.fd, 10000);
        ASSERT_EQ(ReadStatus::kOk, f.status);
        EXPECT_EQ(lumproto::kError, f.header.type);
        size_t extra = 0;
        EXPECT_TRUE(hosttest::closed_within(c.fd, 3000, &extra));
    }
    expect_serving(path());
}

TEST_F(ServerTest, SocketIsOwnerOnlyInAPrivateDirectory)
{
    struct stat st;
    ASSERT_EQ(0, stat(path().c_str(), &st));
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(0600u, st.st_mode & 07777);
    ASSERT_EQ(0, stat((srv.dir.path + "/run").c_str(), &st));
    EXPECT_EQ(0700u, st.st_mode & 07777);
}

TEST_F(ServerTest, StaleSocketIsReplacedLiveOneAndOtherFilesAreNot)
{
    lumhost::ListenSocket ls;
    EXPECT_EQ(-EADDRINUSE, lumhost::host_listen(srv.config, &ls));
    lumhost::HostConfig other = srv.config;
    other.socket_path = srv.dir.path + "/plain";
    FILE* f = fopen(other.socket_path.c_str(), "w");
    ASSERT_NE(nullptr, f);
    fclose(f);
    EXPECT_EQ(-EEXIST, lumhost::host_listen(other, &ls));
    other.socket_path = srv.dir.path + "/run/" + std::string(120, 'x');
    EXPECT_EQ(-ENAMETOOLONG, lumhost::host_listen(other, &ls));
    // A socket file nobody listens on any more is replaced.
    other.socket_path = srv.dir.path + "/stale.sock";
    ASSERT_EQ(0, lumhost::host_listen(other, &ls));
    close(ls.fd);
    ASSERT_EQ(0, lumhost::host_listen(other, &ls));
    close(ls.fd);
}

TEST(ServerLimits, ClientsBeyondTheLimitAreTurnedAway)
{
    hosttest::TestServer srv;
    srv.config.max_clients = 2;
    ASSERT_EQ(0, srv.start());
    std::vector<std::unique_ptr<Fd>> held;
    for (int k = 0; k < 2; ++k) {
        held.push_back(std::make_unique<Fd>(hosttest::connect_to(srv.config.socket_path)));
        ASSERT_TRUE(hosttest::send_bytes(held.back()->fd, hosttest::frame(lumproto::kPing, {})));
        ASSERT_EQ(lumproto::kPong, hosttest::next_frame(held.back()->fd).header.type);
    }
    Fd third(hosttest::connect_to(srv.config.socket_path));
    Frame f = hosttest::next_frame(third.fd);
    ASSERT_EQ(ReadStatus::kOk, f.status);
    EXPECT_EQ(lumproto::kError, f.header.type);
    EXPECT_EQ(1u, lumhost::host_server_stats(srv.server).turned_away);
    held.pop_back();
    // The freed slot is reaped on a later accept; give the thread time to end.
    bool served = false;
    for (int attempt = 0; attempt < 100 && !served; ++attempt) {
        Fd again(hosttest::connect_to(srv.config.socket_path));
        hosttest::send_bytes(again.fd, hosttest::frame(lumproto::kPing, {}));
        served = hosttest::next_frame(again.fd).header.type == lumproto::kPong;
        if (!served)
            usleep(20000);
    }
    EXPECT_TRUE(served);
}

}  // namespace
