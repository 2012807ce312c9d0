// Helpers for tests that need the simulated television (rig/rig).
//
// A test that needs the rig derives from lumrig::RigTest (or calls
// LUMRIG_REQUIRE_ROOT() first): without root it is skipped with the reason
// "needs root for the rig", printed loudly on stderr as well.
//
//   TEST_F(MyRigTest, Something) {
//     ASSERT_TRUE(tv.Up("disk stick size=64M\n  part fs=ext4 label=DATA\n").ok());
//     auto r = tv.Exec("blkid -o value -s LABEL /dev/sdb1");
//     EXPECT_EQ(r.out, "DATA\n");
//   }
//
// The television is owned by the test process: it is taken down by Down(),
// by the destructor, and by the rig's watchdog when the process dies
// (crash, timeout kill).
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#ifndef LUMRIG_ENTRY
#error "LUMRIG_ENTRY (path of rig/rig) must be defined by the build"
#endif

namespace lumrig {

struct Result {
  int status = -1;  // exit status; 128+N when killed by signal N
  std::string out;
  std::string err;
  bool ok() const { return status == 0; }
  // For assertion messages.
  std::string Describe() const {
    return "status " + std::to_string(status) + "\n--- stdout\n" + out + "--- stderr\n" + err;
  }
};

inline bool IsRoot() { return geteuid() == 0; }

// Path of the rig's entry point; $LUMRIG_ENTRY overrides the built-in one.
inline std::string Entry() {
  const char* e = std::getenv("LUMRIG_ENTRY");
  return (e && *e) ? e : LUMRIG_ENTRY;
}

// Runs argv (no shell) with `input` on stdin; kills its process group after
// timeout_s seconds. `env` adds NAME=VALUE entries to the environment.
inline Result Run(const std::vector<std::string>& argv, const std::string& input = {},
                  int timeout_s = 600, const std::vector<std::string>& env = {}) {
  static const bool sigpipe_ignored = [] {
    signal(SIGPIPE, SIG_IGN);
    return true;
  }();
  (void)sigpipe_ignored;
  Result r;
  int in[2], out[2], err[2];
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
    r.err = "pipe2 failed";
    return r;
  }
  pid_t pid = fork();
  if (pid < 0) {
    r.err = "fork failed";
    return r;
  }
  if (pid == 0) {
    setpgid(0, 0);
    dup2(in[0], 0);
    dup2(out[1], 1);
    dup2(err[1], 2);
    for (const auto& e : env) putenv(const_cast<char*>(e.c_str()));
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execvp(args[0], args.data());
    _exit(127);
  }
  close(in[0]);
  close(out[1]);
  close(err[1]);
  size_t written = 0;
  int in_fd = in[1];
  if (input.empty()) {
    close(in_fd);
    in_fd = -1;
  } else {
    fcntl(in_fd, F_SETFL, O_NONBLOCK);
  }
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeout_s);
  bool out_open = true, err_open = true, timed_out = false;
  char buf[65536];
  while (out_open || err_open) {
    struct pollfd fds[3];
    int n = 0;
    int io = -1, ie = -1, ii = -1;
    if (out_open) { fds[n] = {out[0], POLLIN, 0}; io = n++; }
    if (err_open) { fds[n] = {err[0], POLLIN, 0}; ie = n++; }
    if (in_fd >= 0) { fds[n] = {in_fd, POLLOUT, 0}; ii = n++; }
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
    if (left <= 0) {
      timed_out = true;
      break;
    }
    int pr = poll(fds, n, static_cast<int>(left > 1000 ? 1000 : left));
    if (pr < 0) continue;
    if (io >= 0 && (fds[io].revents & (POLLIN | POLLHUP | POLLERR))) {
      ssize_t k = read(out[0], buf, sizeof(buf));
      if (k > 0) r.out.append(buf, static_cast<size_t>(k)); else out_open = false;
    }
    if (ie >= 0 && (fds[ie].revents & (POLLIN | POLLHUP | POLLERR))) {
      ssize_t k = read(err[0], buf, sizeof(buf));
      if (k > 0) r.err.append(buf, static_cast<size_t>(k)); else err_open = false;
    }
    if (ii >= 0 && (fds[ii].revents & (POLLOUT | POLLERR | POLLHUP))) {
      ssize_t k = write(in_fd, input.data() + written, input.size() - written);
      if (k > 0) written += static_cast<size_t>(k);
      if (k < 0 || written >= input.size()) {
        close(in_fd);
        in_fd = -1;
      }
    }
  }
  if (in_fd >= 0) close(in_fd);
  close(out[0]);
  close(err[0]);
  if (timed_out) {
    kill(-pid, SIGKILL);
    kill(pid, SIGKILL);
    r.err += "\n[lumrig::Run: killed after " + std::to_string(timeout_s) + " s]";
  }
  int st = 0;
  while (waitpid(pid, &st, 0) < 0 && errno == EINTR) {
  }
  r.status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
  return r;
}

inline Result Shell(const std::string& cmd, int timeout_s = 600) { return Run({"/bin/sh", "-c", cmd}, {}, timeout_s); }

inline std::string ReadFile(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  std::stringstream ss;
  ss << f.rdbuf();
  return ss.str();
}

inline bool Exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

// The environment the rig gets: prebuilt uevent tools when CMake built them.
inline std::vector<std::string> RigEnv() {
  std::vector<std::string> env;
#ifdef LUMRIG_TOOLDIR
  if (!std::getenv("LUMRIG_TOOLDIR")) env.push_back(std::string("LUMRIG_TOOLDIR=") + LUMRIG_TOOLDIR);
#endif
  return env;
}

// Runs the rig's entry point with the given arguments.
inline Result Rig(const std::vector<std::string>& args, const std::string& input = {}, int timeout_s = 600) {
  std::vector<std::string> argv{Entry()};
  argv.insert(argv.end(), args.begin(), args.end());
  return Run(argv, input, timeout_s, RigEnv());
}

inline std::string RunDir() {
  const char* e = std::getenv("LUMRIG_RUN");
  return (e && *e) ? e : "/run/lumrig";
}

// One television.
class Tv {
 public:
  Tv() = default;
  Tv(const Tv&) = delete;
  Tv& operator=(const Tv&) = delete;
  ~Tv() { Down(); }

  // Builds the television from a description (text of the description
  // format, see rig/README.md). The calling process is its owner.
  Result Up(const std::string& description, const std::string& id = {}) {
    std::vector<std::string> args{"up", "--owner", std::to_string(getpid())};
    if (!id.empty()) {
      args.push_back("--id");
      args.push_back(id);
    }
    args.push_back("-");
    Result r = Rig(args, description);
    if (r.ok()) {
      id_ = r.out.substr(0, r.out.find('\n'));
    }
    return r;
  }

  Result Down() {
    if (id_.empty()) return Result{0, {}, {}};
    Result r = Rig({"down", id_});
    if (r.ok()) id_.clear();
    return r;
  }

  bool up() const { return !id_.empty(); }
  const std::string& id() const { return id_; }
  std::string StateDir() const { return RunDir() + "/" + id_; }

  // A shell command inside the television.
  Result Exec(const std::string& cmd, int timeout_s = 600) const {
    return Rig({"exec", id_, "--", "/bin/sh", "-c", cmd}, {}, timeout_s);
  }
  Result ExecArgv(const std::vector<std::string>& argv) const {
    std::vector<std::string> args{"exec", id_, "--"};
    args.insert(args.end(), argv.begin(), argv.end());
    return Rig(args);
  }
  // Any other rig command for this television: Cmd("plug", {"stick"}).
  Result Cmd(const std::string& command, const std::vector<std::string>& rest = {}) const {
    std::vector<std::string> args{command, id_};
    args.insert(args.end(), rest.begin(), rest.end());
    return Rig(args);
  }
  Result Plug(const std::string& disk) const { return Cmd("plug", {disk}); }
  Result Unplug(const std::string& disk) const { return Cmd("unplug", {disk}); }

  // Host path of a path inside (e.g. a daemon's socket).
  std::string HostPath(const std::string& inside) const {
    Result r = Cmd("path", {inside});
    return r.ok() ? r.out.substr(0, r.out.find('\n')) : std::string();
  }

  // Starts a daemon inside (rig run); its output is in Log(name).
  Result Start(const std::string& name, const std::vector<std::string>& argv) const {
    std::vector<std::string> rest{"--name", name, "--"};
    rest.insert(rest.end(), argv.begin(), argv.end());
    return Cmd("run", rest);
  }
  Result Stop(const std::string& name) const { return Cmd("stop", {name}); }
  std::string Log(const std::string& name) const { return ReadFile(StateDir() + "/logs/" + name + ".log"); }

  // Starts a daemon that serves a socket at `socket_inside` and waits up to
  // timeout_ms for the socket to appear; returns its host path ("" if it
  // did not appear).
  std::string StartDaemon(const std::string& name, const std::vector<std::string>& argv,
                          const std::string& socket_inside, int timeout_ms = 10000) const {
    if (!Start(name, argv).ok()) return {};
    std::string host = HostPath(socket_inside);
    for (int waited = 0; waited < timeout_ms; waited += 20) {
      if (!host.empty() && Exists(host)) return host;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return {};
  }

 private:
  std::string id_;
};

}  // namespace lumrig

// Skips the current test, visibly, when not running as root.
#define LUMRIG_REQUIRE_ROOT()                                                                     \
  do {                                                                                            \
    if (!::lumrig::IsRoot()) {                                                                    \
      std::fprintf(stderr, "\n*** SKIPPED %s: needs root for the rig (running as uid %d) ***\n\n", \
                   ::testing::UnitTest::GetInstance()->current_test_info()->name(),              \
                   static_cast<int>(geteuid()));                                                  \
      GTEST_SKIP() << "needs root for the rig (running as uid " << geteuid() << ")";             \
    }                                                                                             \
  } while (0)

namespace lumrig {

// Base for tests that need the rig: skipped without root; `tv` is taken down
// after each test.
class RigTest : public ::testing::Test {
 protected:
  void SetUp() override { LUMRIG_REQUIRE_ROOT(); }
  Tv tv;
};

}  // namespace lumrig
