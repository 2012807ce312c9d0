// The service on the simulated television: lumstoraged runs inside the rig,
// lumstoragectl talks to it from outside, and a `watch --json` client records
// every event into a file the test reads.
#pragma once

#include <csignal>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "rig_fixture.h"

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

    // Builds the television, runs the shell line prepare inside it (what the
    // service is to find at its start), starts the service with env added to
    // its environment and the event recorder, and plugs the disks one after
    // the other, each mounted before the next comes.
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
        // A socket file left by an earlier daemon would let the clients in
        // before the new one listens.
        ASSERT_TRUE(tv.Exec("rm -f /run/lumstorage.sock").ok());
        // The debug shell's socket in the television's own /run: /tmp is
        // the host's, where every other television's daemon puts its own.
        std::vector<std::string> argv{"env", "LMDROID_PROPERTY_DIR=/run/properties", "NORVFW_NSHELL_DIR=/run"};
        argv.insert(argv.end(), env.begin(), env.end());
        argv.insert(argv.end(), {LUMSTORAGED_BIN, "--socket", "/run/lumstorage.sock"});
        socket_ = tv.StartDaemon("lumstoraged", argv, "/run/lumstorage.sock");
        ASSERT_FALSE(socket_.empty()) << tv.Log("lumstoraged");
        // Each start of the service begins a new record of its events.
        events_ = tv.StateDir() + "/service-events.jsonl";
        close(open(events_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        // The recorder is subscribed once it sees an event: ask for the
        // volume list until its answer shows up, starting the recorder again
        // should it have found the daemon not ready.
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

    // Every recorded event line.
    std::vector<std::string> Events() const
    {
        std::vector<std::string> lines;
        std::string all = lumrig::ReadFile(events_);
        size_t at = 0;
        while (at < all.size()) {
            size_t end = all.find('\n', at);
            if (end == std::string::npos)
                break;  // a line still being written
            lines.push_back(all.substr(at, end - at));
            at = end + 1;
        }
        return lines;
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
        for (int waited = 0; waited < timeout_s * 50; ++waited) {
            if (Events(name).size() >= count)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return false;
    }

    static bool Has(const std::string& line, const std::string& text) { return line.find(text) != std::string::npos; }

    // The pids of this television's processes named `name` (pgrep -x). The
    // rig shares the host's PID namespace: processes of the host and of
    // other televisions are told apart by their mount namespace.
    std::vector<pid_t> TvPids(const std::string& name) const
    {
        const char* script = "self=$(readlink /proc/self/ns/mnt); for p in $(pgrep -x \"$1\"); do "
                             "[ \"$(readlink /proc/$p/ns/mnt 2>/dev/null)\" = \"$self\" ] && echo $p; done; true";
        std::vector<pid_t> pids;
        std::string out = tv.ExecArgv({"sh", "-c", script, "sh", name}).out;
        for (size_t at = 0, end; (end = out.find('\n', at)) != std::string::npos; at = end + 1)
            pids.push_back(static_cast<pid_t>(std::stol(out.substr(at, end - at))));
        return pids;
    }

    // Wrappers in /run/holdbin for the service's PATH (HoldableEnv): each
    // runs the real tool of its name, but first waits while /run/hold.NAME
    // exists, with /run/held.NAME showing that a call waits there.
    void MakeHoldable(const std::vector<std::string>& tools) const
    {
        std::string wrapper = std::string("#!/bin/sh\nn=$(basename \"$0\")\n") +
                              "while [ -e /run/hold.$n ]; do : > /run/held.$n; sleep 0.05; done\n"
                              "PATH=" + kRigPath + " exec \"$n\" \"$@\"\n";
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

    std::string socket_;
    std::string events_;
    pid_t watcher_ = -1;
};

}  // namespace e2e
