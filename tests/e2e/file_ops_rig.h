// File operations on the simulated television: lumstoragectl's file
// subcommands against the service, and the files they touched looked at
// inside the television with the real tools (ls, stat, cat, find, cmp).
#pragma once

#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include "service_rig.h"

namespace e2e {

// What Op gives when lumstoragectl refused the request before sending it.
constexpr int kNotSent = -1000;

class FileOps : public ServiceRig {
protected:
    // Runs a subcommand and gives the result it printed, kNotSent when the
    // client refused the request before sending. The exit status must go
    // with it: 0 for result 0, 1 for any other, 2 for a refusal.
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
        std::string mode = In({"stat", "-c", "%a", "--", path}).out;
        return mode.substr(0, mode.find('\n'));
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
    // The pieces of text that each end in `end`, in order.
    static std::vector<std::string> Split(const std::string& text, char end)
    {
        std::vector<std::string> pieces;
        for (size_t at = 0, stop; (stop = text.find(end, at)) != std::string::npos; at = stop + 1)
            pieces.push_back(text.substr(at, stop - at));
        return pieces;
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
    // What copy holds that original does not hold the same (diff's lines),
    // leaving out what is missing from copy.
    std::string Differing(const std::string& copy, const std::string& original) const
    {
        const char* script = "diff -rq \"$1\" \"$2\" 2>&1 | grep -v \"^Only in $2[:/]\" || true";
        return In({"sh", "-c", script, "sh", copy, original}).out;
    }
    // Waits inside the television, at most 30 s, until more than n entries
    // lie under dir: a copy into it is under way.
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
