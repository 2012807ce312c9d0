// Peer checks: a client of another user is closed before the daemon reads a
// byte from it; --group lets that group in. Running a client as another user
// needs root; without it these tests skip and say so.
#include <gtest/gtest.h>

#include <StorageModuleCmd.h>
#include <chrono>
#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "fake_service.h"
#include "test_support.h"

namespace {

constexpr uid_t kNobody = 65534;
constexpr gid_t kNogroup = 65534;

// Lets every user reach the socket file, so only the peer check stands in
// the way.
void open_file_rights(const hosttest::TestServer& srv)
{
    chmod(srv.dir.path.c_str(), 0755);
    chmod((srv.dir.path + "/run").c_str(), 0755);
    chmod(srv.config.socket_path.c_str(), 0666);
}

// Child: connects, sends nothing and waits. A server that read before it
// checked would wait too; this one closes at once. Exit 0: closed with no
// byte received; then a request sent anyway must not be answered.
int refused_client(const std::string& path)
{
    int fd = hosttest::connect_to(path);
    if (fd < 0)
        return 10;
    size_t bytes = 0;
    if (!hosttest::closed_within(fd, 5000, &bytes))
        return 11;
    if (bytes != 0)
        return 12;
    hosttest::send_bytes(fd, hosttest::request_frame(STORAGE_PVR_DEV_STATE));
    hosttest::Frame f = hosttest::next_frame(fd, 500);
    return f.status == lumproto::ReadStatus::kOk ? 13 : 0;
}

// Child: exit 0 when STORAGE_PVR_DEV_STATE is answered with bool true.
int served_client(const std::string& path)
{
    int fd = hosttest::connect_to(path);
    if (fd < 0 || !hosttest::send_bytes(fd, hosttest::request_frame(STORAGE_PVR_DEV_STATE)))
        return 20;
    hosttest::Frame f = hosttest::next_frame(fd);
    if (f.status != lumproto::ReadStatus::kOk || f.header.type != lumproto::kReply)
        return 21;
    return f.payload == std::vector<uint8_t>{0, 0, 0, 0, 1, 0, 0, 0} ? 0 : 22;
}

bool wait_refused(lumhost::HostServer* server, uint64_t want)
{
    for (int k = 0; k < 200; ++k) {
        if (lumhost::host_server_stats(server).refused >= want)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

class AuthTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (geteuid() != 0)
            GTEST_SKIP() << "SKIPPED LOUDLY: peer checks need root to run a client as another user";
    }
};

TEST_F(AuthTest, OtherUserIsClosedBeforeAnyByteIsRead)
{
    hosttest::TestServer srv;
    ASSERT_EQ(0, srv.start());
    open_file_rights(srv);
    int before = fakesvc::g_invokes.load();
    EXPECT_EQ(0, hosttest::run_as(kNobody, kNogroup, [&] { return refused_client(srv.config.socket_path); }));
    EXPECT_TRUE(wait_refused(srv.server, 1));
    EXPECT_EQ(before, fakesvc::g_invokes.load()) << "a refused peer reached the service";
    // The owner still gets through.
    EXPECT_EQ(0, served_client(srv.config.socket_path));
}

TEST_F(AuthTest, GroupOptionOpensTheSocketToThatGroupOnly)
{
    hosttest::TestServer srv;
    srv.config.group = "nogroup";
    ASSERT_EQ(0, srv.start());
    struct stat st;
    ASSERT_EQ(0, stat(srv.config.socket_path.c_str(), &st));
    EXPECT_EQ(0660u, st.st_mode & 07777);
    EXPECT_EQ(kNogroup, st.st_gid);
    ASSERT_EQ(0, stat((srv.dir.path + "/run").c_str(), &st));
    EXPECT_EQ(0750u, st.st_mode & 07777);
    EXPECT_EQ(kNogroup, st.st_gid);
    chmod(srv.dir.path.c_str(), 0755);
    // A member gets through the file rights and the peer check.
    EXPECT_EQ(0, hosttest::run_as(kNobody, kNogroup, [&] { return served_client(srv.config.socket_path); }));
    // Another user that is not in the group passes the file rights (made
    // open here) but not the peer check.
    chmod(srv.config.socket_path.c_str(), 0666);
    chmod((srv.dir.path + "/run").c_str(), 0755);
    EXPECT_EQ(0, hosttest::run_as(12345, 12345, [&] { return refused_client(srv.config.socket_path); }));
    EXPECT_TRUE(wait_refused(srv.server, 1));
}

}  // namespace
