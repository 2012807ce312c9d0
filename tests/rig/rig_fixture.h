// Tests on the simulated television (rig/rig): lumrig::Tv builds one from a description (rig/README.md) and
// takes it down in its destructor; the rig's watchdog takes it down when the test process dies.
// lumrig::RigTest skips, loudly, without root.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#ifndef LUMRIG_ENTRY
#error "LUMRIG_ENTRY (path of rig/rig) must be defined by the build"
#endif

namespace lumrig {
struct Result {
  int status = -1;  // exit status; 128+N when killed by signal N
  std::string out, err;
  bool ok() const { return status == 0; }
  std::string Line() const { return out.substr(0, out.find('\n')); }  // the output's first line
  // For assertion messages.
  std::string Describe() const {
    return "status " + std::to_string(status) + "\n--- stdout\n" + out + "--- stderr\n" + err;
  }
};

// Runs argv (no shell) with `input` on stdin; kills its process group after timeout_s seconds. `env` adds
// NAME=VALUE entries to the environment. The output goes to memory files, read once the process has ended: a
// daemon it leaves behind holds no pipe that the caller would wait on.
inline Result Run(const std::vector<std::string>& argv, const std::string& input = {},
                  int timeout_s = 600, const std::vector<std::string>& env = {}) {
  signal(SIGPIPE, SIG_IGN);
  Result r;
  int in = memfd_create("in", MFD_CLOEXEC), out = memfd_create("out", MFD_CLOEXEC),
      err = memfd_create("err", MFD_CLOEXEC);
  if (in < 0 || out < 0 || err < 0 || write(in, input.data(), input.size()) != static_cast<ssize_t>(input.size())) {
    r.err = "memfd_create failed";
    return r;
  }
  lseek(in, 0, SEEK_SET);
  pid_t pid = fork();
  if (pid == 0) {
    setpgid(0, 0);
    dup2(in, 0);
    dup2(out, 1);
    dup2(err, 2);
    for (const auto& e : env) putenv(const_cast<char*>(e.c_str()));
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execvp(args[0], args.data());
    _exit(127);
  }
  int ended = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  struct pollfd p = {ended, POLLIN, 0};
  int pr;
  while ((pr = poll(&p, ended >= 0 ? 1 : 0, ended >= 0 ? timeout_s * 1000 : 0)) < 0 && errno == EINTR) {}
  bool timed_out = ended >= 0 && pr == 0;
  if (timed_out) {
    kill(-pid, SIGKILL);
    kill(pid, SIGKILL);
  }
  int st = 0;
  while (waitpid(pid, &st, 0) < 0 && errno == EINTR) {}
  auto drain = [](int fd) {
    std::string text(static_cast<size_t>(lseek(fd, 0, SEEK_END)), '\0');
    if (pread(fd, &text[0], text.size(), 0) != static_cast<ssize_t>(text.size())) text.clear();
    close(fd);
    return text;
  };
  close(in);
  if (ended >= 0) close(ended);
  r.out = drain(out);
  r.err = drain(err);
  if (timed_out) r.err += "\n[lumrig::Run: killed after " + std::to_string(timeout_s) + " s]";
  r.status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
  return r;
}

// Asks `done` every step_ms until it holds, at most timeout_s seconds.
template <typename Done>
bool Until(Done done, int timeout_s = 60, int step_ms = 20) {
  for (auto end = std::chrono::steady_clock::now() + std::chrono::seconds(timeout_s);
       std::chrono::steady_clock::now() < end; std::this_thread::sleep_for(std::chrono::milliseconds(step_ms)))
    if (done()) return true;
  return done();
}

inline std::string ReadFile(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(f), {});
}

inline bool Exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

// Runs the rig's entry point ($LUMRIG_ENTRY overrides the built one) with the
// prebuilt uevent tools when CMake built them.
inline Result Rig(const std::vector<std::string>& args, const std::string& input = {}, int timeout_s = 600) {
  const char* entry = std::getenv("LUMRIG_ENTRY");
  std::vector<std::string> argv{(entry && *entry) ? entry : LUMRIG_ENTRY}, env;
  argv.insert(argv.end(), args.begin(), args.end());
#ifdef LUMRIG_TOOLDIR
  if (!std::getenv("LUMRIG_TOOLDIR")) env.push_back(std::string("LUMRIG_TOOLDIR=") + LUMRIG_TOOLDIR);
#endif
  return Run(argv, input, timeout_s, env);
}

inline std::string RunDir() {
  const char* e = std::getenv("LUMRIG_RUN");
  return (e && *e) ? e : "/run/lumrig";
}

class Tv {
 public:
  Tv() = default;
  Tv(const Tv&) = delete;
  Tv& operator=(const Tv&) = delete;
  ~Tv() { Down(); }
  // Builds the television from a description (text of the description
  // format, see rig/README.md). The calling process is its owner.
  Result Up(const std::string& description) {
    Result r = Rig({"up", "--owner", std::to_string(getpid()), "-"}, description);
    if (r.ok()) id_ = r.out.substr(0, r.out.find('\n'));
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
  // A command inside the television: a shell line, or words passed as they are.
  Result Exec(const std::string& cmd) const { return ExecArgv({"/bin/sh", "-c", cmd}); }
  Result ExecArgv(const std::vector<std::string>& argv) const { return Cmd("exec", {"--"}, argv); }
  // Any other rig command for this television: Cmd("plug", {"stick"}).
  Result Cmd(const std::string& command, std::vector<std::string> rest = {},
             const std::vector<std::string>& more = {}) const {
    rest.insert(rest.begin(), id_);
    rest.insert(rest.begin(), command);
    rest.insert(rest.end(), more.begin(), more.end());
    return Rig(rest);
  }
  Result Plug(const std::string& disk) const { return Cmd("plug", {disk}); }
  Result Unplug(const std::string& disk) const { return Cmd("unplug", {disk}); }
  // Starts a daemon inside (rig run); its output is in Log(name).
  Result Start(const std::string& name, const std::vector<std::string>& argv) const {
    return Cmd("run", {"--name", name, "--"}, argv);
  }
  Result Stop(const std::string& name) const { return Cmd("stop", {name}); }
  std::string Log(const std::string& name) const { return ReadFile(StateDir() + "/logs/" + name + ".log"); }
 private:
  std::string id_;
};

// Base for tests that need the rig: skipped loudly without root; `tv` is taken down after each test.
class RigTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() == 0) return;
    std::fprintf(stderr, "\n*** SKIPPED %s: needs root for the rig ***\n\n",
                 ::testing::UnitTest::GetInstance()->current_test_info()->name());
    GTEST_SKIP() << "needs root for the rig (running as uid " << geteuid() << ")";
  }
  Tv tv;
};

}  // namespace lumrig

// The service on the television, for the test folders that define LUMSTORAGED_BIN and LUMSTORAGECTL_BIN:
// lumstoraged runs inside, lumstoragectl talks to it from outside, and a `watch --json` client records every
// event into a file the test reads. FileOps adds lumstoragectl's file subcommands and looks at what they
// touched with the real tools inside (ls, stat, find).
#ifdef LUMSTORAGED_BIN
namespace e2e {
using lumrig::Result;

class ServiceRig : public lumrig::RigTest {
protected:
    void TearDown() override
    {
        StopRecorder();
        if (HasFailure() && tv.up())
            fprintf(stderr, "--- lumstoraged log:\n%s\n", tv.Log("lumstoraged").c_str());
    }
    // Builds the television, runs the shell line prepare inside it (what the service is to find at its
    // start), starts the service with env added to its environment and the event recorder, and plugs the
    // disks one after the other, each mounted before the next comes.
    void StartService(const std::string& description, const std::vector<std::string>& disks = {},
                      const std::vector<std::string>& env = {}, const std::string& prepare = "")
    {
        Result up = tv.Up(description);
        ASSERT_TRUE(up.ok()) << up.Describe();
        if (!prepare.empty()) {
            ASSERT_TRUE(tv.Exec(prepare).ok()) << prepare;
        }
        StartServiceOnly(env);
        if (HasFatalFailure())
            return;
        for (size_t i = 0; i < disks.size(); ++i) {
            ASSERT_TRUE(tv.Plug(disks[i]).ok());
            ASSERT_TRUE(WaitFor("LUM_TV_EVT_STORAGE_DEV_MOUNT_END", i + 1));
        }
    }
    // Starts the service and the recorder on a television that is up; env
    // adds NAME=VALUE entries to the daemon's environment.
    void StartServiceOnly(const std::vector<std::string>& env = {})
    {
        StopRecorder();
        // A socket file left by an earlier daemon would let the clients in before the new one listens.
        ASSERT_TRUE(tv.Exec("rm -f /run/lumstorage.sock").ok());
        // The debug shell's socket in the television's own /run: /tmp is
        // the host's, where every other television's daemon puts its own.
        std::vector<std::string> argv{"env", "LMDROID_PROPERTY_DIR=/run/properties", "NORVFW_NSHELL_DIR=/run"};
        argv.insert(argv.end(), env.begin(), env.end());
        argv.insert(argv.end(), {LUMSTORAGED_BIN, "--socket", "/run/lumstorage.sock"});
        ASSERT_TRUE(tv.Start("lumstoraged", argv).ok());
        socket_ = tv.Cmd("path", {"/run/lumstorage.sock"}).out;
        socket_ = socket_.substr(0, socket_.find('\n'));
        ASSERT_TRUE(lumrig::Until([&] { return !socket_.empty() && lumrig::Exists(socket_); }, 10))
            << tv.Log("lumstoraged");
        // Each start of the service begins a new record of its events.
        events_ = tv.StateDir() + "/service-events.jsonl";
        close(open(events_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        // The recorder is subscribed once it sees an event: ask for the volume list until its answer shows
        // up, starting the recorder again should it have found the daemon not ready.
        for (int i = 0; i < 50 && Events("LUM_TV_EVT_STORAGE_GET_STORAGE_VOLUMES").empty(); ++i) {
            if (watcher_ <= 0 || waitpid(watcher_, nullptr, WNOHANG) == watcher_)
                StartRecorder();
            Ctl({"get-storage-volumes"});
            WaitFor("LUM_TV_EVT_STORAGE_GET_STORAGE_VOLUMES", 1, 1);
        }
        ASSERT_FALSE(Events("LUM_TV_EVT_STORAGE_GET_STORAGE_VOLUMES").empty()) << "the event recorder never subscribed";
    }
    // `lumstoragectl watch --json` into the events file, kept from before.
    void StartRecorder()
    {
        watcher_ = fork();
        if (watcher_ == 0) {
            int fd = open(events_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
            dup2(fd, 1);
            execl(LUMSTORAGECTL_BIN, "lumstoragectl", "--socket", socket_.c_str(), "watch", "--json",
                  static_cast<char*>(nullptr));
            _exit(127);
        }
    }
    void StopRecorder()
    {
        if (watcher_ > 0) {
            kill(watcher_, SIGTERM);
            waitpid(watcher_, nullptr, 0);
            watcher_ = -1;
        }
    }
    // lumstoragectl --json ARGS, with `input` on its standard input.
    Result Ctl(const std::vector<std::string>& args, const std::string& input = {}) const
    {
        std::vector<std::string> argv{LUMSTORAGECTL_BIN, "--socket", socket_, "--json"};
        argv.insert(argv.end(), args.begin(), args.end());
        return lumrig::Run(argv, input, 120);
    }
    // Every recorded event line (a line still being written left out).
    std::vector<std::string> Events() const { return Split(lumrig::ReadFile(events_), '\n'); }
    // The pieces of text that each end in `end`, in order.
    static std::vector<std::string> Split(const std::string& text, char end)
    {
        std::vector<std::string> pieces;
        for (size_t at = 0, stop; (stop = text.find(end, at)) != std::string::npos; at = stop + 1)
            pieces.push_back(text.substr(at, stop - at));
        return pieces;
    }
    // Lines of one event, e.g. "LUM_TV_EVT_STORAGE_DEV_MOUNT".
    std::vector<std::string> Events(const std::string& name) const
    {
        std::vector<std::string> out;
        for (const std::string& line : Events()) {
            if (line.find("\"event\":\"" + name + "\"") != std::string::npos)
                out.push_back(line);
        }
        return out;
    }
    // Waits until `count` events of that name have been recorded in all.
    bool WaitFor(const std::string& name, size_t count = 1, int timeout_s = 60) const
    {
        return lumrig::Until([&] { return Events(name).size() >= count; }, timeout_s);
    }
    static bool Has(const std::string& line, const std::string& text) { return line.find(text) != std::string::npos; }
    // The number of a JSON line's first field named key; -1 without one.
    static long long Number(const std::string& line, const std::string& key)
    {
        size_t at = line.find("\"" + key + "\":");
        return at == std::string::npos ? -1 : std::atoll(line.c_str() + at + key.size() + 3);
    }
    // mount's lines of the service's volumes.
    std::string Mounts() const { return tv.Exec("mount | grep /mnt/pvr/shared || true").out; }
    // The pids of this television's processes named `name` (pgrep -x). The rig shares the host's PID
    // namespace: processes of the host and of other televisions are told apart by their mount namespace.
    std::vector<pid_t> TvPids(const std::string& name) const
    {
        const char* script = "self=$(readlink /proc/self/ns/mnt); for p in $(pgrep -x \"$1\"); do "
                             "[ \"$(readlink /proc/$p/ns/mnt 2>/dev/null)\" = \"$self\" ] && echo $p; done; true";
        std::vector<pid_t> pids;
        for (const std::string& pid : Split(tv.ExecArgv({"sh", "-c", script, "sh", name}).out, '\n'))
            pids.push_back(static_cast<pid_t>(std::stol(pid)));
        return pids;
    }
    // Shell line that writes persist.pvr.* properties: "rec.enable=1 ...".
    static std::string PvrProperties(const std::string& assignments)
    {
        return "mkdir -p /run/properties && for a in " + assignments +
               "; do printf %s \"${a#*=}\" > /run/properties/persist.pvr.${a%%=*}; done";
    }
    // Wrappers in /run/holdbin for the service's PATH (HoldableEnv): each runs the real tool of its name, but
    // first waits while /run/hold.KEY exists (KEY: the name up to its first dot, so "mkfs" holds mkfs.ext4
    // too), with /run/held.KEY showing that a call waits there, and fails while /run/fail.KEY exists.
    void MakeHoldable(const std::vector<std::string>& tools) const
    {
        std::string wrapper = std::string("#!/bin/sh\nn=$(basename \"$0\"); k=${n%%.*}\n") +
                              "while [ -e /run/hold.$k ]; do : > /run/held.$k; sleep 0.05; done\n"
                              "[ ! -e /run/fail.$k ] || exit 1\nPATH=" + kRigPath + " exec \"$n\" \"$@\"\n";
        std::string make = "mkdir -p /run/holdbin && cat > /run/holdbin/wrapper <<'EOF'\n" + wrapper +
                           "EOF\nchmod 755 /run/holdbin/wrapper";
        for (const std::string& tool : tools)
            make += " && ln -sf wrapper /run/holdbin/" + tool;
        ASSERT_TRUE(tv.Exec(make).ok());
    }
    static std::string HoldableEnv() { return std::string("PATH=/run/holdbin:") + kRigPath; }
    bool Hold(const std::string& tool, bool on) const
    {
        return tv.Exec(on ? "rm -f /run/held." + tool + " && touch /run/hold." + tool : "rm -f /run/hold." + tool).ok();
    }
    // Waits until a call of the held tool waits.
    bool WaitHeld(const std::string& tool) const
    {
        return tv.Exec("i=0; while [ ! -e /run/held." + tool + " ] && [ $i -lt 1500 ]; do i=$((i+1)); sleep 0.02; "
                       "done; [ -e /run/held." + tool + " ]")
            .ok();
    }
    // The rig's PATH inside the television.
    static constexpr const char* kRigPath = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
    std::string socket_, events_;
    pid_t watcher_ = -1;
};

// What Op gives when lumstoragectl refused the request before sending it.
constexpr int kNotSent = -1000;

class FileOps : public ServiceRig {
protected:
    // Runs a subcommand and gives the result it printed, kNotSent when the client refused the request before
    // sending. The exit status must go with it: 0 for result 0, 1 for any other, 2 for a refusal.
    int Op(const std::vector<std::string>& args, const std::string& input = {})
    {
        last_ = Ctl(args, input);
        size_t at = last_.out.rfind("\"result\":");
        if (at == std::string::npos) {
            EXPECT_EQ(last_.status, 2) << last_.Describe();
            return kNotSent;
        }
        int result = atoi(last_.out.c_str() + at + 9);
        EXPECT_EQ(last_.status, result == 0 ? 0 : 1) << last_.Describe();
        return result;
    }
    int Write(const std::string& path, const std::string& data) { return Op({"write", path}, data); }
    // A command inside the television, its words passed as they are.
    Result In(const std::vector<std::string>& argv) const { return tv.ExecArgv(argv); }
    std::string Cat(const std::string& path) const
    {
        Result r = In({"cat", "--", path});
        return r.ok() ? r.out : "(no file " + path + ")";
    }
    bool Here(const std::string& path) const { return In({"ls", "-d", "--", path}).ok(); }
    // The permission bits in octal, "644".
    std::string Mode(const std::string& path) const
    {
        return In({"stat", "-c", "%a", "--", path}).Line();
    }
    bool OwnerWrites(const std::string& path) const
    {
        std::string mode = Mode(path);
        return !mode.empty() && ((mode[0] - '0') & 2) != 0;
    }
    void Put(const std::string& path, const std::string& content) const
    {
        ASSERT_TRUE(In({"sh", "-c", "printf '%s' \"$2\" > \"$1\"", "sh", path, content}).ok()) << path;
    }
    // The names in a directory, exactly as the file system holds them.
    std::set<std::string> Names(const std::string& dir) const
    {
        return AsSet(Split(In({"find", dir, "-mindepth", "1", "-maxdepth", "1", "-printf", "%f\\0"}).out, '\0'));
    }
    static std::set<std::string> AsSet(const std::vector<std::string>& items)
    {
        return std::set<std::string>(items.begin(), items.end());
    }
    // Every entry under dir, "path type" a line, sorted (type as find's %y).
    std::string Tree(const std::string& dir) const
    {
        return In({"sh", "-c", "find \"$1\" -mindepth 1 -printf '%P %y\\n' | LC_ALL=C sort", "sh", dir}).out;
    }
    // What copy holds that original does not hold the same (diff's lines), leaving out what is missing from copy.
    std::string Differing(const std::string& copy, const std::string& original) const
    {
        const char* script = "diff -rq \"$1\" \"$2\" 2>&1 | grep -v \"^Only in $2[:/]\" || true";
        return In({"sh", "-c", script, "sh", copy, original}).out;
    }
    // Waits inside the television, at most 30 s, until more than n entries lie under dir: a copy into it is under way.
    bool Filling(const std::string& dir, int n) const
    {
        return In({"sh", "-c",
                   "i=0; while [ $(find \"$1\" 2>/dev/null | wc -l) -le $2 ]; do i=$((i+1)); [ $i -lt 3000 ] || "
                   "exit 1; sleep 0.01; done",
                   "sh", dir, std::to_string(n)})
            .ok();
    }
    // The results of the recorded copy events, in order.
    std::vector<int> CopyResults() const
    {
        std::vector<int> results;
        for (const std::string& line : Events("LUM_TV_EVT_STORAGE_COPY")) {
            size_t at = line.find("\"result\":");
            results.push_back(at == std::string::npos ? kNotSent : atoi(line.c_str() + at + 9));
        }
        return results;
    }
    Result last_;  // of the last Op
};

}  // namespace e2e
#endif  // LUMSTORAGED_BIN
