// Fake tools first on PATH that print what a test wrote into /tmp/fake/<tool>.out and note their calls in
// /tmp/fake/calls; the real grep, sed and awk still do their part of each command line.
#pragma once

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sys/stat.h>

#include "test_support.h"

// Writes /tmp/fakebin/<tool>: it notes its call in /tmp/fake/calls, then runs body.
inline void write_fake_tool(const char* tool, const char* body)
{
    std::string path = std::string("/tmp/fakebin/") + tool;
    std::ofstream(path) << "#!/bin/sh\necho \"$0 $*\" >> /tmp/fake/calls\n" << body;
    chmod(path.c_str(), 0755);
}

// A mount whose list of mounted volumes is /tmp/fake/mount.out, and an umount that takes a mount point off
// it; format tools that wait while /tmp/fake/hold exists and exit with the code in /tmp/fake/mkfs.rc; a sync
// that does nothing. Needs /tmp/fakebin and /tmp/fake.
inline void write_fake_volume_tools()
{
    write_fake_tool("mount",
                    "if [ $# -eq 0 ]; then cat /tmp/fake/mount.out 2>/dev/null; exit 0; fi\n"
                    "for dir; do :; done\n"
                    "eval \"dev=\\${$(($# - 1))}\"\n"
                    "echo \"$dev on $dir type ext4 (rw)\" >> /tmp/fake/mount.out\n");
    write_fake_tool("umount",
                    "for dir; do :; done\n"
                    "grep -v \" on $dir \" /tmp/fake/mount.out > /tmp/fake/mount.new\n"
                    "mv /tmp/fake/mount.new /tmp/fake/mount.out\n");
    const char* format = "while [ -f /tmp/fake/hold ]; do sleep 0.02; done\n"
                         "exit $(cat /tmp/fake/mkfs.rc 2>/dev/null || echo 0)\n";
    write_fake_tool("mkfs", format);
    write_fake_tool("mkfs.ext4", format);
    write_fake_tool("sync", "");
}

// A fake iozone: notes its command line in /tmp/fake/iozone.calls, prints /tmp/fake/iozone.out, marks that it
// runs (/tmp/fake/iozone.started), waits while /tmp/fake/iozone.hold exists, and exits with the code in
// /tmp/fake/iozone.rc. A fake killall beside it signals the fakes only; those of test processes running
// beside this one are reached too, so a fake gives in to SIGTERM only once its own test has allowed it
// (/tmp/fake/iozone.killable) in its private /tmp. Needs /tmp/fakebin.
inline void write_fake_benchmark_tools()
{
    std::ofstream("/tmp/fakebin/iozone") << "#!/bin/sh\n"
                                            "trap '[ -e /tmp/fake/iozone.killable ] && exit 143' TERM\n"
                                            "echo \"iozone $*\" >> /tmp/fake/iozone.calls\n"
                                            "cat /tmp/fake/iozone.out 2>/dev/null\n"
                                            "touch /tmp/fake/iozone.started\n"
                                            "while [ -e /tmp/fake/iozone.hold ]; do sleep 0.02; done\n"
                                            "exit $(cat /tmp/fake/iozone.rc 2>/dev/null || echo 0)\n";
    chmod("/tmp/fakebin/iozone", 0755);
    // "killall iozone" of the service reaches only the fakes, never an iozone of the machine.
    std::ofstream("/tmp/fakebin/killall") << "#!/bin/sh\n"
                                             "[ \"$1\" = iozone ] || exec /usr/bin/killall \"$@\"\n"
                                             "exec pkill -TERM -f '^/bin/sh /tmp/fakebin/iozone'\n";
    chmod("/tmp/fakebin/killall", 0755);
}

class FakeTools : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!g_isolated)
            GTEST_SKIP() << "SKIPPED: needs a private /tmp for the fake tools";
        mkdir("/tmp/fakebin", 0755);
        mkdir("/tmp/fake", 0755);
        for (const char* tool : {"blkid", "mount", "readlink", "df"}) {
            write_fake_tool(tool, ("cat /tmp/fake/" + std::string(tool) + ".out 2>/dev/null\n").c_str());
            output(tool, "");
        }
        remove("/tmp/fake/calls");
        oldPath = getenv("PATH");
        setenv("PATH", ("/tmp/fakebin:" + oldPath).c_str(), 1);
    }
    void TearDown() override
    {
        if (!oldPath.empty())
            setenv("PATH", oldPath.c_str(), 1);
    }
    static void output(const char* tool, const std::string& text)
    {
        std::ofstream(std::string("/tmp/fake/") + tool + ".out", std::ios::binary) << text;
    }
    static std::string calls() { return read_file("/tmp/fake/calls"); }
    // The calls so far, one command line each, without the fakes' folder.
    static std::vector<std::string> call_lines()
    {
        std::vector<std::string> out;
        std::string all = calls();
        for (size_t at = 0, end; (end = all.find('\n', at)) != std::string::npos; at = end + 1) {
            std::string line = all.substr(at, end - at);
            if (line.rfind("/tmp/fakebin/", 0) == 0)
                line.erase(0, strlen("/tmp/fakebin/"));
            out.push_back(line.substr(0, line.find_last_not_of(' ') + 1));
        }
        return out;
    }
    std::string oldPath;
    Mounts mounts;  // a private /mnt for the volumes the fakes mount, when a test needs one
};

