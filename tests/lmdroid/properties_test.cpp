// Properties: parsing, refusals, and persistence across processes and kills.
// Each test keeps its persistent properties in a fresh directory.
#include <cutils/properties.h>

#include "child.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <ftw.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

namespace {
class Props : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/lmdroid-prop-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(tmpl));
        root_ = tmpl;
        dir_ = root_ + "/nested/props";  // made by the first write
        setenv("LMDROID_PROPERTY_DIR", dir_.c_str(), 1);
        setenv("LMDROID_TEST_KEY", "persist.lm.k", 1);
    }
    void TearDown() override {
        unsetenv("LMDROID_PROPERTY_DIR");
        unsetenv("LMDROID_TEST_KEY");
        unsetenv("LMDROID_TEST_VALUE");
        nftw(root_.c_str(), [](const char* p, const struct stat*, int, FTW*) { return remove(p); }, 16,
             FTW_DEPTH | FTW_PHYS);
    }
    std::set<std::string> files() const {
        std::set<std::string> names;
        if (DIR* d = opendir(dir_.c_str())) {
            while (struct dirent* e = readdir(d))
                if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) names.insert(e->d_name);
            closedir(d);
        }
        return names;
    }
    static std::string get(const char* key) {
        char v[PROPERTY_VALUE_MAX];
        property_get(key, v, "<none>");
        return v;
    }
    std::string root_, dir_;
};

}  // namespace

TEST_F(Props, PersistentValueIsAFileSeenByOtherProcesses) {
    ASSERT_EQ(0, property_set("persist.lm.k", "living room"));
    struct stat st;
    ASSERT_EQ(0, stat(dir_.c_str(), &st));
    EXPECT_EQ(0700u, st.st_mode & 0777);
    EXPECT_EQ(std::set<std::string>{"persist.lm.k"}, files());  // no temporary file left
    std::stringstream content;
    content << std::ifstream(dir_ + "/persist.lm.k").rdbuf();
    EXPECT_EQ("living room", content.str());
    int status = 0;
    EXPECT_EQ("living room", lmdroid_test::run_child("get", &status));  // a restart keeps it
    setenv("LMDROID_TEST_VALUE", "kitchen", 1);
    lmdroid_test::run_child("set", &status);
    EXPECT_EQ(0, status);
    errno = EINTR;  // an earlier call's: the read loop must not take it for an interrupted read of its own
    EXPECT_EQ("kitchen", get("persist.lm.k"));  // read anew, not cached
    ASSERT_EQ(0, property_set("lm.volatile", "here"));
    setenv("LMDROID_TEST_KEY", "lm.volatile", 1);
    EXPECT_EQ("<none>", lmdroid_test::run_child("get", &status));  // a plain property dies with the process
}

TEST_F(Props, KilledWriterLeavesOldOrNewValue) {
    const std::set<std::string> allowed = {"first", "second value"};
    for (int round = 0; round < 6; ++round) {
        int fd = -1;
        pid_t pid = lmdroid_test::spawn_child("setloop", &fd);
        ASSERT_GT(pid, 0);
        char ready = 0;
        ASSERT_EQ(1, read(fd, &ready, 1));
        usleep(2000 + round * 3000);
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        close(fd);
        EXPECT_EQ(1u, allowed.count(get("persist.lm.k"))) << get("persist.lm.k");
    }
    ASSERT_EQ(0, property_set("persist.lm.k", "third"));  // also removes the writers' leftovers
    EXPECT_EQ((std::set<std::string>{"persist.lm.k"}), files());
    EXPECT_EQ("third", get("persist.lm.k"));
}

TEST_F(Props, LeftoversGoWhenNoWriteIsUnderWayEvenWhileTheirPidLives) {
    ASSERT_EQ(0, property_set("persist.lm.k", "first"));
    // A writer killed but not reaped yet, and a leftover whose pid another process (here init) has taken since.
    int fd = -1;
    pid_t pid = lmdroid_test::spawn_child("setloop", &fd);
    ASSERT_GT(pid, 0);
    char ready = 0;
    ASSERT_EQ(1, read(fd, &ready, 1));
    kill(pid, SIGKILL);
    siginfo_t info;
    ASSERT_EQ(0, waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT));  // dead, not reaped
    std::ofstream(dir_ + "/.tmp-1-1234-0") << "half";
    // A write under way elsewhere (its lock held here) keeps every temporary file: any of them may be its own.
    int busy = open(dir_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(0, flock(busy, LOCK_SH));
    ASSERT_EQ(0, property_set("persist.lm.k", "second value"));
    EXPECT_EQ(1u, files().count(".tmp-1-1234-0"));
    close(busy);
    // Nobody writes now: the next write takes the leftovers away, zombie or not.
    ASSERT_EQ(0, property_set("persist.lm.k", "third"));
    EXPECT_EQ((std::set<std::string>{"persist.lm.k"}), files());
    waitpid(pid, nullptr, 0);
    close(fd);
    EXPECT_EQ("third", get("persist.lm.k"));
}

TEST_F(Props, RefusesBadKeysAndValuesWithoutChanges) {
    const std::string v91(91, 'v'), v92(92, 'v'), k255 = "persist." + std::string(247, 'k');
    for (const char* key : {"lm.k", "persist.lm.k"}) {
        ASSERT_EQ(0, property_set(key, "old"));
        EXPECT_EQ(-1, property_set(key, v92.c_str()));
        EXPECT_EQ(-1, property_set(key, nullptr));
        EXPECT_EQ("old", get(key));
        EXPECT_EQ(0, property_set(key, v91.c_str()));
        EXPECT_EQ(v91, get(key));
    }
    EXPECT_EQ(0, property_set(k255.c_str(), "ok"));
    EXPECT_EQ("ok", get(k255.c_str()));
    for (const std::string& key : {std::string(), k255 + "k", std::string("persist./etc/x"),
                                   std::string("persist.lm:k"), std::string("a b")}) {
        EXPECT_EQ(-1, property_set(key.c_str(), "x")) << key;
        EXPECT_EQ("<none>", get(key.c_str())) << key;
    }
    EXPECT_EQ(-1, property_set(nullptr, "x"));
    EXPECT_EQ("<none>", get(nullptr));
    EXPECT_EQ(2u, files().size());
    std::ofstream(root_ + "/plain");  // a directory that cannot be made
    setenv("LMDROID_PROPERTY_DIR", (root_ + "/plain/props").c_str(), 1);
    EXPECT_EQ(-1, property_set("persist.lm.k", "new"));
    EXPECT_EQ("<none>", get("persist.lm.k"));
}

TEST_F(Props, DefaultsAndTypedParsing) {
    char v[PROPERTY_VALUE_MAX];
    EXPECT_EQ(0, property_get("lm.unset", v, nullptr));
    EXPECT_STREQ("", v);
    EXPECT_EQ(91, property_get("lm.unset", v, std::string(200, 'd').c_str()));
    property_set("lm.empty", "");
    EXPECT_EQ(3, property_get("lm.empty", v, "def"));
    struct IntCase { const char* value; int32_t i32; int64_t i64; };
    const IntCase ints[] = {
        {"42", 42, 42}, {"-42", -42, -42}, {"+7", 7, 7}, {"010", 10, 10},
        {"2147483647", INT32_MAX, INT32_MAX}, {"-2147483648", INT32_MIN, INT32_MIN},
        {"2147483648", -1, 2147483648LL}, {"-2147483649", -1, -2147483649LL},
        {"9223372036854775807", -1, INT64_MAX}, {"9223372036854775808", -1, -1},
        {"", -1, -1}, {"12abc", -1, -1}, {" 12", -1, -1}, {"0x10", -1, -1}, {"-", -1, -1},
    };
    for (const IntCase& c : ints) {
        property_set("persist.lm.int", c.value);
        EXPECT_EQ(c.i32, property_get_int32("persist.lm.int", -1)) << '"' << c.value << '"';
        EXPECT_EQ(c.i64, property_get_int64("persist.lm.int", -1)) << '"' << c.value << '"';
    }
    const std::pair<const char*, int8_t> bools[] = {
        {"1", 1}, {"y", 1}, {"yes", 1}, {"on", 1}, {"true", 1}, {"0", 0}, {"n", 0},
        {"no", 0}, {"off", 0}, {"false", 0}, {"", 7}, {"TRUE", 7}, {"2", 7}, {"yes ", 7},
    };
    for (const auto& c : bools) {
        property_set("lm.bool", c.first);
        EXPECT_EQ(c.second, property_get_bool("lm.bool", 7)) << '"' << c.first << '"';
    }
}

TEST_F(Props, ConcurrentSetAndGetSeeWholeValues) {
    const std::string longv(90, 'L');
    const std::set<std::string> allowed = {"<none>", "short", longv};
    std::vector<int> bad(4, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 20; ++i) {
                const char* key = (t + i) % 2 ? "lm.shared" : "persist.lm.shared";
                if (t % 2 == 0)
                    bad[t] += property_set(key, i % 2 ? "short" : longv.c_str()) != 0;
                else
                    bad[t] += allowed.count(get(key)) == 0;
            }
        });
    for (std::thread& th : threads) th.join();
    EXPECT_EQ(std::vector<int>(4, 0), bad);
    EXPECT_EQ((std::set<std::string>{"persist.lm.shared"}), files());
}
