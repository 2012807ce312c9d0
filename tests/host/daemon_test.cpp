// lumstoraged and lumstoragectl as processes: ready line, commands, watch, exit codes and a clean stop on
// SIGTERM (the socket's rights: server_test). The fake daemon is lumstoraged's main on the fake service; the
// real daemon runs, when it is built, in its own IPC namespace.
#include <gtest/gtest.h>

#include "service_sandbox.h"

#include <csignal>
#include <sys/socket.h>
#include <unistd.h>

#include "daemon_proc.h"
#include "test_support.h"

namespace {
using hosttest::Daemon;
using hosttest::Proc;
using hosttest::RunResult;
using hosttest::drain;
using hosttest::run;
using hosttest::spawn;
using hosttest::wait_exit;

std::vector<std::string> ctl(const std::string& socket, std::initializer_list<std::string> rest)
{
    std::vector<std::string> args = {LUMHOST_CTL_BIN, "--socket", socket};
    args.insert(args.end(), rest);
    return args;
}

TEST(FakeDaemon, ServesCtlAndWatchThenStopsOnSigterm)
{
    hosttest::TempDir dir;
    const std::string sock = dir.path + "/d/lumstoraged.sock";
    Daemon daemon;
    ASSERT_TRUE(daemon.start(LUMHOST_FAKE_DAEMON_BIN, sock)) << daemon.ready;
    RunResult r = run(ctl(sock, {"--json", "raw", "1", "x:0a0b0c"}));
    EXPECT_EQ(0, r.code);
    EXPECT_NE(std::string::npos, r.out.find("\"result\":0,")) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("\"rest\":\"0a0b0c00\"")) << r.out;
    // A watcher gets the events a request makes the service send.
    Proc watch = spawn(ctl(sock, {"watch", "--json", "--count", "1", "--timeout", "20"}), false);
    std::string seen;
    for (int k = 0; k < 100 && seen.empty(); ++k) {
        EXPECT_EQ(0, run(ctl(sock, {"raw", "2", "i:1507359", "i:1"})).code);
        if (lumproto::wait_readable(watch.out, 100) > 0)
            seen = drain(watch.out, 5000);
    }
    close(watch.out);
    close(watch.err);
    EXPECT_EQ(0, wait_exit(watch.pid, 10000));
    EXPECT_EQ(0u, seen.find("{\"event\":\"LUM_TV_EVT_STORAGE_FORMAT\",\"id\":1507359,\"len\":4,")) << seen;
    EXPECT_EQ(0, daemon.stop());
    EXPECT_NE(0, access(sock.c_str(), F_OK)) << "socket file left behind";
}

TEST(FakeDaemon, ExitCodesOfBadStarts)
{
    hosttest::TempDir dir;
    const std::string sock = dir.path + "/s.sock";
    Daemon first;
    ASSERT_TRUE(first.start(LUMHOST_FAKE_DAEMON_BIN, sock));
    struct Case {
        std::vector<std::string> args;
        int code;
    };
    for (const Case& c : std::vector<Case>{{{"--bogus"}, 2},
                                           {{"--socket"}, 2},
                                           {{"--help"}, 0},
                                           {{"--socket", dir.path + "/t.sock", "--group", "no-such-group-lumhost"}, 1},
                                           {{"--socket", sock}, 1}}) {  // two daemons on one socket
        std::vector<std::string> args{LUMHOST_FAKE_DAEMON_BIN};
        args.insert(args.end(), c.args.begin(), c.args.end());
        EXPECT_EQ(c.code, run(args).code) << c.args[0];
    }
    EXPECT_EQ(0, first.stop());
}

TEST(RealDaemon, AnswersADirectCommand)
{
#ifndef LUMHOST_REAL_DAEMON_BIN
    GTEST_SKIP() << "SKIPPED LOUDLY: lumstoraged is not built (no lumstorageservice target)";
#else
    hosttest::TempDir dir;
    const std::string sock = dir.path + "/real.sock";
    setenv("LMDROID_PROPERTY_DIR", (dir.path).c_str(), 1);
    // Its debug shell beside it, not in the machine's /tmp.
    setenv("NORVFW_NSHELL_DIR", (dir.path).c_str(), 1);
    Daemon daemon;
    bool started = daemon.start(LUMHOST_REAL_DAEMON_BIN, sock, hosttest::enter_daemon_sandbox);
    unsetenv("LMDROID_PROPERTY_DIR");
    unsetenv("NORVFW_NSHELL_DIR");
    if (!started) {
        int code = wait_exit(daemon.proc.pid, 5000);
        if (code >= 90 && code <= 92)
            GTEST_SKIP() << "SKIPPED LOUDLY: no IPC namespace for the real daemon (code " << code << ")";
        FAIL() << "real daemon did not start: '" << daemon.ready << "' exit " << code;
    }
    RunResult r = run(ctl(sock, {"--json", "pvr-dev-state"}));
    EXPECT_EQ(0, r.code);
    EXPECT_EQ("{\"command\":\"STORAGE_PVR_DEV_STATE\",\"code\":4125,\"result\":0,\"reply\":{\"value\":false},"
              "\"complete\":true,\"rest\":\"\"}\n",
              r.out);
    EXPECT_EQ(0, daemon.stop());
#endif
}

}  // namespace
