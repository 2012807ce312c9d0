// The file operation tests' scratch folder under /tmp, with the working directory inside it where a stray
// relative command would leave its trace; the events sent and the command lines run.
#pragma once

#include <android/log.h>
#include <cstdlib>
#include <dirent.h>
#include <sys/stat.h>

#include <lmdroid/log_hook.h>

#include "FileProtect.h"
#include "SignalNo.h"
#include "StorageEvents.h"
#include "StorageModuleCmd.h"
#include "test_support.h"

namespace file_ops_test {
// Every companion suffix of a recording, in no particular order.
const std::vector<std::string> kAllCompanions = {".desc", ".idx", ".idx.desc", ".xml", ".xml.sig"};

class FileOps : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/fo_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        base = tmpl;
        ASSERT_EQ(mkdir(at("cwd").c_str(), 0755), 0);
        ASSERT_NE(getcwd(oldCwd, sizeof(oldCwd)), nullptr);
        ASSERT_EQ(chdir(at("cwd").c_str()), 0);
        oldThreshold = lmdroid_get_log_threshold();
        lmdroid_set_log_threshold(ANDROID_LOG_VERBOSE);  // call_system's "run:" lines
    }
    void TearDown() override
    {
        lmdroid_set_log_threshold(oldThreshold);
        EXPECT_TRUE(oldCwd[0] == '\0' || chdir(oldCwd) == 0);
        EXPECT_TRUE(base.empty() || system(("chmod -R u+rwX " + base + " && rm -rf " + base).c_str()) == 0);
    }
    std::string at(const std::string& rel) const { return base + "/" + rel; }
    std::string full(const std::string& p) const { return !p.empty() && p[0] == '/' ? p : at(p); }
    void put(const std::string& p, const std::string& text, mode_t mode = 0644) const
    {
        ::write_file(full(p), text, mode);
    }
    bool exists(const std::string& p) const { return ::exists(full(p)); }
    bool is_dir(const std::string& p) const
    {
        struct stat st;
        return lstat(full(p).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
    }
    std::string content(const std::string& p) const { return read_file(full(p)); }
    mode_t mode_of(const std::string& p) const { return ::mode_of(full(p)); }
    std::set<std::string> entries(const std::string& p) const { return list_dir(full(p)); }
    // A main file and all five companions, each holding its own name.
    void recording(const std::string& p) const
    {
        put(p, "main " + p);
        for (const std::string& s : kAllCompanions)
            put(p + s, "companion " + p + s);
    }
    // Events before this call no longer count for results().
    void forget_events() { m_eventsSeen = events.events().size(); }
    // The one-byte results of event, in the order sent.
    Bytes results(int event)
    {
        Bytes out;
        std::vector<Event> all = events.events();
        for (size_t k = m_eventsSeen; k < all.size(); ++k) {
            const Event& e = all[k];
            if (e.id != event)
                continue;
            EXPECT_EQ(e.data.size(), 1u) << "event " << event;
            out.push_back(e.data.empty() ? 0xEE : e.data[0]);
        }
        return out;
    }
    // The command lines call_system ran, in order.
    std::vector<std::string> runs()
    {
        std::vector<std::string> out;
        for (const LogLine& l : log.lines()) {
            size_t pos = l.msg.find("run: ");
            if (l.prio == ANDROID_LOG_VERBOSE && pos != std::string::npos) {
                std::string line = l.msg.substr(pos + 5);
                if (!line.empty() && line.back() == '\n')
                    line.pop_back();
                out.push_back(line);
            }
        }
        return out;
    }
    // DeleteFile of path, with the recording flag byte behind it when
    // flag >= 0; len reaches that byte (or the terminator).
    bool delete_file(const std::string& p, int flag = -1)
    {
        std::string buf = full(p) + '\0';
        if (flag >= 0)
            buf += static_cast<char>(flag);
        return theStorageManagerService.DeleteFile(buf.data(), static_cast<int>(buf.size()));
    }
    // RenameFile's packed 512 bytes.
    bool rename_file(const std::string& src, const std::string& dst, bool rec)
    {
        unsigned char buf[512] = {0};
        std::string s = full(src), d = full(dst);
        buf[0] = rec ? 1 : 0;
        memcpy(buf + 1, s.data(), s.size());
        memcpy(buf + s.size() + 2, d.data(), d.size());
        return theStorageManagerService.RenameFile(buf, sizeof(buf));
    }
    // WriteFile of "path NUL data".
    bool write_file(const std::string& p, const std::string& data)
    {
        std::string buf = full(p) + '\0' + data;
        return theStorageManagerService.WriteFile(reinterpret_cast<const unsigned char*>(buf.data()),
                                                  static_cast<int>(buf.size()));
    }
    // SetProtected with its mode byte (1 lifts, 2 sets).
    void set_protected(const std::string& p, unsigned char mode)
    {
        std::string buf = std::string(1, static_cast<char>(mode)) + full(p);
        theStorageManagerService.SetProtected(reinterpret_cast<const unsigned char*>(buf.c_str()),
                                              static_cast<int>(buf.size()));
    }
    std::string base;
    LogCapture log;
    EventCapture events;

private:
    size_t m_eventsSeen = 0;
    char oldCwd[4096] = {0};
    int oldThreshold = ANDROID_LOG_DEBUG;
};

}  // namespace file_ops_test
