// Fake blkid, mount, readlink and df, first on PATH, that print what a test
// wrote into /tmp/fake/<tool>.out and note their calls in /tmp/fake/calls.
// The real grep, sed and awk still do their part of each command line.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/stat.h>

#include "test_support.h"

class FakeTools : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!g_isolated)
            GTEST_SKIP() << "SKIPPED: needs a private /tmp for the fake tools";
        mkdir("/tmp/fakebin", 0755);
        mkdir("/tmp/fake", 0755);
        for (const char* tool : {"blkid", "mount", "readlink", "df"}) {
            std::string path = std::string("/tmp/fakebin/") + tool;
            std::ofstream(path) << "#!/bin/sh\necho \"$0 $*\" >> /tmp/fake/calls\ncat /tmp/fake/" << tool << ".out 2>/dev/null\n";
            chmod(path.c_str(), 0755);
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
    static std::string calls()
    {
        std::ifstream in("/tmp/fake/calls");
        return std::string(std::istreambuf_iterator<char>(in), {});
    }
    std::string oldPath;
};

