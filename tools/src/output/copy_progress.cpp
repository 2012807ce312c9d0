// A copy's progress from the sizes of its source and destination files.
#include <dirent.h>
#include <sys/stat.h>

#include "lumctl/output.h"

namespace lumctl {

namespace {

constexpr size_t kMostTreeFiles = 100000;
const char* const kCompanions[] = {".desc", ".idx", ".idx.desc", ".xml"};  // copied beside a recording

// "48M", "1.9G".
std::string amount(uint64_t bytes)
{
    return human_units(bytes, "BKMGTP");
}

// 0:09, 12:30, 1:02:03.
std::string clock_text(double seconds)
{
    long s = static_cast<long>(seconds + 0.5);
    char buf[32];
    if (s >= 3600)
        snprintf(buf, sizeof(buf), "%ld:%02ld:%02ld", s / 3600, s / 60 % 60, s % 60);
    else
        snprintf(buf, sizeof(buf), "%ld:%02ld", s / 60, s % 60);
    return buf;
}

bool file_size(const std::string& path, uint64_t* size)
{
    struct stat st;
    if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
        return false;
    *size = static_cast<uint64_t>(st.st_size);
    return true;
}

std::string without_slash(std::string path)
{
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    return path;
}

// Every regular file under from, with its place under to; links are not
// followed (the copy engine copies none).
void walk(const std::string& from, const std::string& to, CopyPlan* plan)
{
    DIR* dir = opendir(from.c_str());
    if (dir == nullptr)
        return;
    while (dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name == "." || name == ".." || plan->files.size() >= kMostTreeFiles)
            continue;
        struct stat st;
        const std::string path = from + "/" + name;
        if (lstat(path.c_str(), &st) != 0)
            continue;
        if (S_ISDIR(st.st_mode)) {
            walk(path, to + "/" + name, plan);
        } else if (S_ISREG(st.st_mode)) {
            plan->files.emplace_back(path, to + "/" + name);
            plan->sizes.push_back(static_cast<uint64_t>(st.st_size));
        }
    }
    closedir(dir);
}

struct ProgressFigures {
    uint64_t bytes_done = 0;
    uint64_t bytes_total = 0;
    uint64_t files_done = 0;
    uint64_t files_total = 0;
    double seconds = 0;  // since the copy began
};

// The rate and the time left once bytes moved for half a second.
std::string progress_line(const ProgressFigures& f)
{
    std::string line = amount(f.bytes_done) + " of " + amount(f.bytes_total);
    int percent = f.bytes_total > 0 ? static_cast<int>(f.bytes_done * 100 / f.bytes_total) : 0;
    line += "  " + std::to_string(percent) + "%";
    line += "  " + std::to_string(f.files_done) + " of " + std::to_string(f.files_total) + " file" +
            (f.files_total == 1 ? "" : "s");
    if (f.seconds >= 0.5 && f.bytes_done > 0) {
        double rate = static_cast<double>(f.bytes_done) / f.seconds;
        line += "  " + amount(static_cast<uint64_t>(rate)) + "/s";
        if (f.bytes_total >= f.bytes_done)
            line += "  " + clock_text(static_cast<double>(f.bytes_total - f.bytes_done) / rate) + " left";
    }
    return line;
}

}  // namespace

CopyPlan plan_copy(CopyShape shape, const std::string& src, const std::string& dst)
{
    CopyPlan plan;
    struct stat st;
    if (shape == CopyShape::kTree || (stat(src.c_str(), &st) == 0 && S_ISDIR(st.st_mode))) {
        walk(without_slash(src), without_slash(dst), &plan);
        return plan;
    }
    uint64_t size = 0;
    if (file_size(src, &size)) {
        plan.files.emplace_back(src, dst);
        plan.sizes.push_back(size);
    }
    if (shape != CopyShape::kRecording)
        return plan;
    for (const char* suffix : kCompanions) {
        if (file_size(src + suffix, &size)) {
            plan.files.emplace_back(src + suffix, dst + suffix);
            plan.sizes.push_back(size);
        }
    }
    return plan;
}

bool across_volumes(const std::string& src, const std::string& dst)
{
    size_t slash = dst.find_last_of('/');
    std::string folder = slash == std::string::npos || slash == 0 ? "/" : dst.substr(0, slash);
    struct stat a, b;
    return stat(src.c_str(), &a) == 0 && stat(folder.c_str(), &b) == 0 && a.st_dev != b.st_dev;
}

ProgressBar::ProgressBar(FILE* out, CopyPlan plan) : out_(out), plan_(std::move(plan)), start_(now_seconds()) {}

void ProgressBar::tick()
{
    ProgressFigures f;
    f.seconds = now_seconds() - start_;
    f.files_total = plan_.files.size();
    for (size_t i = 0; i < plan_.files.size(); ++i) {
        uint64_t have = 0;
        f.bytes_total += plan_.sizes[i];
        if (!file_size(plan_.files[i].second, &have))
            continue;
        f.bytes_done += have < plan_.sizes[i] ? have : plan_.sizes[i];
        f.files_done += have >= plan_.sizes[i] ? 1 : 0;
    }
    fprintf(out_, "\r\033[K%s", progress_line(f).c_str());
    fflush(out_);
    drawn_ = true;
}

void ProgressBar::clear()
{
    if (drawn_)
        fputs("\r\033[K", out_);
    drawn_ = false;
}

}  // namespace lumctl
