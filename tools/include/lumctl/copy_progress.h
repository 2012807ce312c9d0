// The progress of a copy as the client sees it: it runs on the same machine
// as the service, so it sizes the source and watches the destination grow
// while it waits for the result event. Nothing of it goes over the wire.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

namespace lumctl {

struct ProgressFigures {
    uint64_t bytes_done = 0;
    uint64_t bytes_total = 0;
    uint64_t files_done = 0;
    uint64_t files_total = 0;
    double seconds = 0;  // since the copy began
};

// "12.3M of 48.0M  25%  3 of 10 files  4.1M/s  0:09 left": the rate and the
// time left once bytes moved for half a second.
std::string progress_line(const ProgressFigures& figures);

// A bar goes to a terminal only, and never with --json.
bool shows_progress(bool json, bool terminal);

enum class CopyShape { kFile, kRecording, kTree };

// The files a copy makes: (source, destination) and each source's size.
struct CopyPlan {
    std::vector<std::pair<std::string, std::string>> files;
    std::vector<uint64_t> sizes;
};

// A file, a recording with the companions it has, or every regular file of
// a tree (at most 100000; a source folder is always one) with its place
// under dst.
CopyPlan plan_copy(CopyShape shape, const std::string& src, const std::string& dst);

// Whether dst's folder lies on another file system than src (a move that
// copies).
bool across_volumes(const std::string& src, const std::string& dst);

// The line redrawn in place on a terminal; clear() wipes it before the
// result is printed.
class ProgressBar {
public:
    ProgressBar(FILE* out, CopyPlan plan);
    void tick();
    void clear();

private:
    FILE* out_;
    CopyPlan plan_;
    double start_;
    bool drawn_ = false;
};

}  // namespace lumctl
