// Who reaches the service. The socket file keeps other users out (0600, or 0660 for the group of --group),
// and behind it a client of another user is closed before the daemon reads a byte from it; --group lets that
// group in. The real daemon listens on nothing else but the framework's debug shell, which answers only its
// own user and offers none of the service's commands, and its command queue is its user's alone: the direct
// primitives (shell lines, chmod, open/read/write/close/sync) are reached through the socket or not at all.
// Running a client as another user needs root; without it these tests skip and say so.
#include <gtest/gtest.h>

#include <StorageModuleCmd.h>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <fstream>
#include <grp.h>
#include <mqueue.h>
#include <pwd.h>
#include <sched.h>
#include <set>
#include <sstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include <lmdroid/log_hook.h>

#include "daemon_proc.h"
#include "fake_service.h"
#include "test_support.h"

namespace {
constexpr uid_t kNobody = 65534;
constexpr gid_t kNogroup = 65534;
constexpr uid_t kStranger = 12345;

// Lets every user reach the socket file, so only the peer check stands in the way.
void open_file_rights(const hosttest::TestServer& srv)
{
    chmod(srv.dir.path.c_str(), 0755);
    chmod((srv.dir.path + "/run").c_str(), 0755);
    chmod(srv.config.socket_path.c_str(), 0666);
}

// Child: connects, sends `first` and waits. A server that read before it checked would wait too; this one
// closes at once. Exit 0: closed with no byte sent back.
int refused_client(const std::string& path, const std::string& first = "")
{
    hosttest::Fd c(hosttest::connect_to(path));
    if (c.fd < 0)
        return 10;
    send(c.fd, first.data(), first.size(), MSG_NOSIGNAL);  // may find it closed already
    size_t bytes = 0;
    if (!hosttest::closed_within(c.fd, 5000, &bytes))
        return 11;
    return bytes == 0 ? 0 : 12;
}

// Child: exit 0 when a request is answered.
int served_client(const std::string& path)
{
    int fd = hosttest::connect_to(path);
    if (fd < 0 || !hosttest::send_bytes(fd, hosttest::request_frame(STORAGE_PVR_DEV_STATE)))
        return 20;
    hosttest::Frame f = hosttest::next_frame(fd);
    return f.status == lumproto::ReadStatus::kOk && f.header.type == lumproto::kReply ? 0 : 21;
}

// 0 when a connection to the socket at path is taken, else connect's errno.
int connect_errno(const std::string& path)
{
    hosttest::Fd c(hosttest::connect_to(path));
    return c.fd >= 0 ? 0 : errno;
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

TEST_F(AuthTest, OtherUserIsKeptOutByTheFileAndClosedBeforeAnyByteIsRead)
{
    hosttest::TestServer srv;
    ASSERT_EQ(0, srv.start());
    auto connects = [&] { return connect_errno(srv.config.socket_path); };
    // The folder the daemon made (0700), then the socket itself (0600), each keeps another user out on its own.
    chmod(srv.dir.path.c_str(), 0755);
    EXPECT_EQ(EACCES, hosttest::run_as(kNobody, kNogroup, connects));
    chmod((srv.dir.path + "/run").c_str(), 0755);
    EXPECT_EQ(EACCES, hosttest::run_as(kNobody, kNogroup, connects));
    open_file_rights(srv);
    int before = fakesvc::g_invokes.load();
    EXPECT_EQ(0, hosttest::run_as(kNobody, kNogroup, [&] { return refused_client(srv.config.socket_path); }));
    EXPECT_TRUE(wait_refused(srv.server, 1));
    EXPECT_EQ(before, fakesvc::g_invokes.load()) << "a refused peer reached the service";
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
    EXPECT_EQ(EACCES, hosttest::run_as(kStranger, kStranger, [&] { return connect_errno(srv.config.socket_path); }));
}

// A socket folder that was there before keeps its rights; when the group cannot enter it, the log says so.
TEST_F(AuthTest, ExistingFolderClosedToTheGroupIsReported)
{
    const struct {
        mode_t mode;
        gid_t gid;
        bool warned;
    } rows[] = {{0700, kNogroup, true}, {0750, kNogroup, false}, {0750, 0, true}, {0701, 0, false}};
    for (const auto& row : rows) {
        hosttest::TestServer srv;
        srv.config.group = "nogroup";
        const std::string run = srv.dir.path + "/run";
        ASSERT_EQ(0, mkdir(run.c_str(), row.mode));  // no umask bit falls on these modes
        ASSERT_EQ(0, chown(run.c_str(), static_cast<uid_t>(-1), row.gid));
        std::string log;
        lmdroid_set_log_hook([](int, const char*, const char* msg, void* ctx) { *static_cast<std::string*>(ctx) += msg; },
                             &log, 1);
        int rc = srv.start();
        lmdroid_set_log_hook(nullptr, nullptr, 0);
        EXPECT_EQ(0, rc);
        EXPECT_EQ(row.warned, log.find(run + ": members of the group cannot enter this directory") != std::string::npos)
            << std::oct << row.mode << std::dec << " gid " << row.gid << ": " << log;
    }
}

// The gid of the user database's last entry. A lookup that finds no user leaves that entry in its record
// (glibc), so a check that took such a record for a user would let a stranger into that user's groups.
gid_t last_users_gid()
{
    gid_t gid = 0;
    setpwent();
    while (passwd* pw = getpwent())
        gid = pw->pw_gid;
    endpwent();
    return gid;
}

// With the file rights opened, the peer check alone decides. kStranger has no entry in the user database, so
// it has no supplementary groups to look up: only its own gid can let it in.
TEST_F(AuthTest, PeerCheckLetsInTheGroupsMembersAlone)
{
    ASSERT_EQ(nullptr, getpwuid(kStranger)) << "pick a uid without a user";
    const gid_t last = last_users_gid();
    group* gr = getgrgid(last);
    ASSERT_NE(nullptr, gr);
    const std::string lasts = gr->gr_name;
    struct Case {
        std::string group;
        uid_t uid;
        gid_t gid;
        bool served;
    };
    const Case cases[] = {
        {"nogroup", kNobody, kNogroup, true},  {"nogroup", kStranger, kNogroup, true},
        {"nogroup", kStranger, kStranger, false}, {lasts, kStranger, kStranger, false},
        {lasts, kStranger, last, true},         {"root", kNobody, kNogroup, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.group + " uid " + std::to_string(c.uid) + " gid " + std::to_string(c.gid));
        hosttest::TestServer srv;
        srv.config.group = c.group;
        ASSERT_EQ(0, srv.start());
        open_file_rights(srv);
        const std::string& path = srv.config.socket_path;
        EXPECT_EQ(0, hosttest::run_as(c.uid, c.gid, [&] { return c.served ? served_client(path) : refused_client(path); }));
        EXPECT_TRUE(c.served ? lumhost::host_server_stats(srv.server).refused == 0 : wait_refused(srv.server, 1));
    }
}

// The real daemon in the service sandbox, the debug shell's socket in a
// folder of the test (by default it would be the machine's /tmp).
class RealDaemonAccess : public AuthTest {
protected:
    void SetUp() override
    {
        AuthTest::SetUp();
        if (IsSkipped())
            return;
#ifndef LUMHOST_REAL_DAEMON_BIN
        GTEST_SKIP() << "SKIPPED LOUDLY: lumstoraged is not built (no lumstorageservice target)";
#else
        sock = dir.path + "/run/lumstoraged.sock";
        shell = dir.path + "/shell/storage_svr.sock";
        chmod(dir.path.c_str(), 0755);
        ASSERT_EQ(0, mkdir((dir.path + "/shell").c_str(), 0755));
        setenv("NORVFW_NSHELL_DIR", (dir.path + "/shell").c_str(), 1);
        setenv("LMDROID_PROPERTY_DIR", (dir.path + "/properties").c_str(), 1);
        started = daemon.start(LUMHOST_REAL_DAEMON_BIN, sock, hosttest::enter_daemon_sandbox);
        unsetenv("NORVFW_NSHELL_DIR");
        unsetenv("LMDROID_PROPERTY_DIR");
        if (!started) {
            int code = hosttest::wait_exit(daemon.proc.pid, 5000);
            if (code == 90)
                GTEST_SKIP() << "SKIPPED LOUDLY: no sandbox for the real daemon";
            FAIL() << "real daemon did not start: '" << daemon.ready << "' exit " << code;
        }
#endif
    }
    void TearDown() override
    {
        if (started) {
            EXPECT_EQ(0, daemon.stop());
        }
    }
    std::string proc(const std::string& what) const { return "/proc/" + std::to_string(daemon.proc.pid) + "/" + what; }
    hosttest::TempDir dir;
    hosttest::Daemon daemon;
    std::string sock, shell;
    bool started = false;
};

// The inodes of the sockets a process holds.
std::set<std::string> socket_inodes(const std::string& fd_dir)
{
    std::set<std::string> inodes;
    for (int fd = 0; fd < 1024; ++fd) {
        char target[64] = {0};
        ssize_t n = readlink((fd_dir + "/" + std::to_string(fd)).c_str(), target, sizeof(target) - 1);
        std::string link(target, n > 0 ? static_cast<size_t>(n) : 0);
        if (link.compare(0, 8, "socket:[") == 0)
            inodes.insert(link.substr(8, link.size() - 9));
    }
    return inodes;
}

// The rows of a table under /proc/PID/net, split at blanks, header left out.
std::vector<std::vector<std::string>> net_rows(const std::string& path)
{
    std::vector<std::vector<std::string>> rows;
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    while (std::getline(in, line)) {
        std::istringstream words(line);
        std::vector<std::string> row;
        for (std::string w; words >> w;)
            row.push_back(w);
        rows.push_back(row);
    }
    return rows;
}

std::string shell_talk(const std::string& path, const std::string& lines)
{
    int fd = hosttest::connect_to(path);
    if (fd < 0)
        return "(no connection)";
    send(fd, lines.data(), lines.size(), MSG_NOSIGNAL);
    std::string out = hosttest::drain(fd, 5000);
    close(fd);
    return out;
}

TEST_F(RealDaemonAccess, ListensOnItsSocketAndTheDebugShellAlone)
{
    struct stat st;
    ASSERT_EQ(0, stat(sock.c_str(), &st));
    EXPECT_EQ(0600u, st.st_mode & 07777);
    EXPECT_EQ(0u, st.st_uid);
    // A client's connection is there too while the tables are read.
    int client = hosttest::connect_to(sock);
    ASSERT_GE(client, 0);
    ASSERT_EQ(0, served_client(sock));
    std::set<std::string> inodes = socket_inodes(proc("fd"));
    std::set<std::string> listening, known;
    // Unix sockets: Num RefCount Protocol Flags Type St Inode [Path]; a listening one has the flag __SO_ACCEPTCON
    // (00010000). A connection the daemon accepted belongs to the client's network namespace, the test's own.
    for (const std::string& table : {proc("net/unix"), std::string("/proc/self/net/unix")}) {
        for (const auto& row : net_rows(table)) {
            if (row.size() < 7 || inodes.count(row[6]) == 0)
                continue;
            known.insert(row[6]);
            if (row[3] == "00010000")
                listening.insert(row.size() > 7 ? row[7] : "(unnamed)");
        }
    }
    // Netlink (the uevent watcher): the inode is the last column.
    for (const auto& row : net_rows(proc("net/netlink"))) {
        if (!row.empty() && inodes.count(row.back()) != 0)
            known.insert(row.back());
    }
    close(client);
    EXPECT_EQ(listening, (std::set<std::string>{sock, shell}));
    EXPECT_EQ(known, inodes) << "sockets that are neither Unix nor netlink (inet, packet, ...)";
}

TEST_F(RealDaemonAccess, DebugShellIsItsUsersAloneAndOffersNoneOfTheServiceCommands)
{
    struct stat st;
    ASSERT_EQ(0, stat(shell.c_str(), &st));
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(0600u, st.st_mode & 07777);
    EXPECT_EQ(0u, st.st_uid);
    EXPECT_EQ(EACCES, hosttest::run_as(kNobody, kNogroup, [&] { return connect_errno(shell); }));
    // Its commands: the framework's own, nothing that runs, opens or changes anything of the system.
    std::string help = shell_talk(shell, "help\nexit\n");
    std::set<std::string> commands;
    std::istringstream lines(help);
    for (std::string line; std::getline(lines, line) && line != ".";)
        commands.insert(line.substr(0, line.find(' ')));
    EXPECT_EQ(commands, (std::set<std::string>{"help", "exit", "trace", "version", "threads", "queues"})) << help;
    for (const char* word : {"STORAGE_LUM_EXE_SYS_CMD", "exec", "sh", "system", "chmod", "open", "write"}) {
        std::string answer = shell_talk(shell, std::string(word) + " /tmp/x\nexit\n");
        EXPECT_EQ(0u, answer.find(std::string("error: unknown command '") + word + "'")) << answer;
    }
    // Opened to everybody, the socket still answers nobody else.
    ASSERT_EQ(0, chmod(shell.c_str(), 0666));
    EXPECT_EQ(0, hosttest::run_as(kNobody, kNogroup, [&] { return refused_client(shell, "help\n"); }));
    EXPECT_EQ(0u, shell_talk(shell, "version\nexit\n").find("norvfw ")) << "its owner is still served";
}

TEST_F(RealDaemonAccess, CommandQueueIsTheDaemonUsersAlone)
{
    // In the daemon's IPC namespace, where its queue lives.
    std::string ns = proc("ns/ipc");
    auto enter = [ns] {
        int fd = open(ns.c_str(), O_RDONLY | O_CLOEXEC);
        return fd >= 0 && setns(fd, CLONE_NEWIPC) == 0 ? 0 : 30;
    };
    auto post = [] {
        mqd_t q = mq_open("/MQ_STORAGE_SRV", O_WRONLY);
        if (q == static_cast<mqd_t>(-1))
            return errno;
        mq_close(q);
        return 0;
    };
    EXPECT_EQ(0, hosttest::run_as(0, 0, post, enter)) << "the queue is not where it should be";
    EXPECT_EQ(EACCES, hosttest::run_as(kNobody, kNogroup, post, enter));
}

}  // namespace
