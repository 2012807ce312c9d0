// Log lines as they reach standard error (redirected to a file here) and as the hook sees them.
#include <android/log.h>
#include <lmdroid/log_hook.h>

#include "child.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {
struct Line {
    int prio;
    std::string tag, msg;
};

void capture(int prio, const char* tag, const char* msg, void* ctx) {
    static_cast<std::vector<Line>*>(ctx)->push_back({prio, tag, msg});
}

// Checks "MM-DD HH:MM:SS.mmm  PID  TID L TAG     : message" and returns
// "PID TID L TAG|message", or "" when the line is malformed.
std::string parse(const std::string& line) {
    int mo, d, h, mi, s, ms, pid, tid, used = 0;
    char level;
    if (line.size() < 19 ||
        sscanf(line.c_str(), "%2d-%2d %2d:%2d:%2d.%3d %d %d %c %n", &mo, &d, &h, &mi, &s, &ms, &pid,
               &tid, &level, &used) != 9 || line[14] != '.' || line[18] != ' ' ||
        !strchr("VDIWEF", level))
        return "";
    size_t colon = line.find(": ", static_cast<size_t>(used));
    if (colon == std::string::npos) return "";
    size_t tag_end = line.find_last_not_of(' ', colon - 1) + 1;
    return std::to_string(pid) + " " + std::to_string(tid) + " " + level + " " +
           line.substr(static_cast<size_t>(used), tag_end - static_cast<size_t>(used)) + "|" +
           line.substr(colon + 2);
}

class Log : public ::testing::Test {
protected:
    void SetUp() override {
        char path[] = "/tmp/lmdroid-log-XXXXXX";
        int fd = mkstemp(path);
        ASSERT_GE(fd, 0);
        unlink(path);
        saved_ = dup(STDERR_FILENO);
        dup2(fd, STDERR_FILENO);
        close(fd);
        lmdroid_set_log_threshold(ANDROID_LOG_VERBOSE);
    }
    void TearDown() override {
        lmdroid_set_log_hook(nullptr, nullptr, 0);
        dup2(saved_, STDERR_FILENO);
        close(saved_);
    }
    static std::string written() {
        std::string s;
        char buf[4096];
        ssize_t n;
        for (off_t at = 0; (n = pread(STDERR_FILENO, buf, sizeof buf, at)) > 0; at += n)
            s.append(buf, static_cast<size_t>(n));
        return s;
    }
    int saved_ = -1;
};

}  // namespace

TEST_F(Log, ThreadtimeLines) {
    __android_log_print(ANDROID_LOG_INFO, "lmtest", "hello %d", 42);
    __android_log_print(ANDROID_LOG_ERROR, "a-long-tag-name", "bye\n");  // not doubled
    const std::string ids = std::to_string(getpid()) + " " + std::to_string(gettid());
    std::istringstream in(written());
    std::string line;
    std::vector<std::string> got;
    while (std::getline(in, line)) got.push_back(parse(line));
    EXPECT_EQ((std::vector<std::string>{ids + " I lmtest|hello 42", ids + " E a-long-tag-name|bye"}), got);
    EXPECT_NE(std::string::npos, written().find(" I lmtest  : hello 42\n"));  // tag padded to 8
}

TEST_F(Log, ThresholdHookAndQuiet) {
    std::vector<Line> lines;
    lmdroid_set_log_hook(capture, &lines, 1);
    lmdroid_set_log_threshold(ANDROID_LOG_WARN);
    for (int prio = ANDROID_LOG_VERBOSE; prio <= ANDROID_LOG_FATAL; ++prio)
        __android_log_print(prio, "t", "p%d\n", prio);
    ASSERT_EQ(3u, lines.size());
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(ANDROID_LOG_WARN + i, lines[i].prio);
        EXPECT_EQ("t", lines[i].tag);
        EXPECT_EQ("p" + std::to_string(ANDROID_LOG_WARN + i) + "\n", lines[i].msg);
    }
    EXPECT_EQ("", written());
    lmdroid_set_log_hook(capture, &lines, 0);  // not quiet: the line goes out as well
    __android_log_print(ANDROID_LOG_ERROR, "t", "both");
    lmdroid_set_log_hook(nullptr, nullptr, 1);
    __android_log_print(ANDROID_LOG_ERROR, "t", "after");
    lmdroid_set_log_threshold(ANDROID_LOG_SILENT);
    __android_log_print(ANDROID_LOG_FATAL, "t", "silent");
    EXPECT_EQ(4u, lines.size());
    const std::string out = written();
    EXPECT_NE(std::string::npos, out.find(" E t       : both\n"));
    EXPECT_NE(std::string::npos, out.find(": after\n"));
    EXPECT_EQ(std::string::npos, out.find("silent"));
}

TEST_F(Log, PercentMLongMessagesAndReentrantHook) {
    std::vector<Line> lines;
    lmdroid_set_log_hook(capture, &lines, 1);
    errno = ENOENT;
    __android_log_print(ANDROID_LOG_WARN, "t", "open: %m");
    EXPECT_EQ(ENOENT, errno);
    const std::string big(5000, 'x');
    __android_log_print(ANDROID_LOG_WARN, "t", "%s", big.c_str());
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ(std::string("open: ") + strerror(ENOENT), lines[0].msg);
    EXPECT_EQ(big.substr(0, 1023), lines[1].msg);
    // A hook that logs itself: the inner line goes to standard error only.
    lmdroid_set_log_hook([](int, const char*, const char*, void*) {
        __android_log_print(ANDROID_LOG_WARN, "t", "inner");
    }, nullptr, 1);
    __android_log_print(ANDROID_LOG_WARN, "t", "%s", big.c_str());
    EXPECT_EQ(parse(written()), std::to_string(getpid()) + " " + std::to_string(gettid()) + " W t|inner\n");
}

TEST_F(Log, ConcurrentThreadsWriteWholeLines) {
    constexpr int kThreads = 8, kLines = 300;
    std::vector<Line> lines;  // hook calls come one at a time
    lmdroid_set_log_hook(capture, &lines, 0);
    const std::string pad(300, '.');
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t, &pad] {
            for (int i = 0; i < kLines; ++i)
                __android_log_print(ANDROID_LOG_INFO, "conc", "t%d n%d %s", t, i, pad.c_str());
        });
    for (std::thread& th : threads) th.join();
    EXPECT_EQ(size_t(kThreads * kLines), lines.size());
    std::istringstream in(written());
    std::string line;
    std::vector<int> next(kThreads, 0);
    while (std::getline(in, line)) {
        const std::string p = parse(line);
        const size_t bar = p.find('|');
        int t = -1, n = -1, used = 0;
        ASSERT_NE(std::string::npos, bar) << line;
        ASSERT_EQ(2, sscanf(p.c_str() + bar + 1, "t%d n%d %n", &t, &n, &used)) << line;
        ASSERT_TRUE(t >= 0 && t < kThreads) << line;
        EXPECT_EQ(pad, p.substr(bar + 1 + static_cast<size_t>(used))) << line;
        EXPECT_EQ(next[t]++, n);
    }
    EXPECT_EQ(std::vector<int>(kThreads, kLines), next);
}

TEST(LogEnv, ThresholdFromEnvironmentAtStart) {
    const char* cases[][2] = {{nullptr, "3"}, {"2", "2"}, {"8", "8"}, {"w", "5"}, {"E", "6"},
                              {"s", "8"},     {"9", "3"}, {"", "3"},  {"info", "3"}};
    for (auto& c : cases) {
        c[0] != nullptr ? setenv("LUM_LOG_LEVEL", c[0], 1) : unsetenv("LUM_LOG_LEVEL");
        int status = 0;
        EXPECT_EQ(c[1], lmdroid_test::run_child("threshold", &status)) << (c[0] ? c[0] : "(unset)");
        EXPECT_EQ(0, status);
    }
    unsetenv("LUM_LOG_LEVEL");
}
