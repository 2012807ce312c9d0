#include "test_support.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <lmdroid/log_hook.h>
#include <lumemclient/EMALSink.h>
#include <norvfw/TimeOut.h>

bool g_isolated = false;

LogCapture::LogCapture() { lmdroid_set_log_hook(&LogCapture::hook, this, 1); }
LogCapture::~LogCapture() { lmdroid_set_log_hook(nullptr, nullptr, 0); }

void LogCapture::hook(int prio, const char* tag, const char* msg, void* ctx)
{
    auto* self = static_cast<LogCapture*>(ctx);
    std::lock_guard<std::mutex> hold(self->m_lock);
    self->m_lines.push_back({prio, tag ? tag : "", msg ? msg : ""});
}

std::vector<LogLine> LogCapture::lines() { std::lock_guard<std::mutex> hold(m_lock); return m_lines; }

int LogCapture::count(const std::string& needle)
{
    std::lock_guard<std::mutex> hold(m_lock);
    int n = 0;
    for (const LogLine& line : m_lines)
        n += line.msg.find(needle) != std::string::npos;
    return n;
}

void LogCapture::clear() { std::lock_guard<std::mutex> hold(m_lock); m_lines.clear(); }

EventCapture::EventCapture() { EMAL_SetSink(&EventCapture::sink, this); }
EventCapture::~EventCapture() { EMAL_SetSink(nullptr, nullptr); }

void EventCapture::sink(int event, const void* data, int len, void* ctx)
{
    auto* self = static_cast<EventCapture*>(ctx);
    const auto* bytes = static_cast<const unsigned char*>(data);
    std::lock_guard<std::mutex> hold(self->m_lock);
    self->m_events.push_back({event, std::vector<unsigned char>(bytes, bytes + (bytes ? len : 0))});
}

std::vector<Event> EventCapture::events() { std::lock_guard<std::mutex> hold(m_lock); return m_events; }

bool stack_limit_applies()
{
    struct rlimit old;
    if (getrlimit(RLIMIT_STACK, &old) != 0)
        return false;
    struct rlimit probe = old;
    probe.rlim_cur = old.rlim_cur == 1 << 20 ? 2 << 20 : 1 << 20;
    struct rlimit seen = {0, 0};
    bool applies = setrlimit(RLIMIT_STACK, &probe) == 0 && getrlimit(RLIMIT_STACK, &seen) == 0 &&
                   seen.rlim_cur == probe.rlim_cur;
    setrlimit(RLIMIT_STACK, &old);
    return applies;
}

int run_child(const char* name, std::string* out, bool noThreads)
{
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
        return -1;
    pid_t pid = fork();
    if (pid == 0) {
        if (noThreads) {
            const rlim_t tib = static_cast<rlim_t>(1ull << 40);
            const rlim_t limit = tib != 0 ? tib : RLIM_INFINITY - 1;
            struct rlimit huge = {limit, limit};
            setrlimit(RLIMIT_STACK, &huge);
        }
        dup2(fds[1], 1);
        dup2(fds[1], 2);
        char self[] = "/proc/self/exe";
        char flag[] = "--child";
        char* argv[] = {self, flag, const_cast<char*>(name), nullptr};
        execv(self, argv);
        _exit(127);
    }
    close(fds[1]);
    char buf[4096];
    ssize_t n;
    while ((n = read(fds[0], buf, sizeof(buf))) > 0 || (n < 0 && errno == EINTR)) {
        if (n > 0)
            out->append(buf, static_cast<size_t>(n));
    }
    close(fds[0]);
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) < 0)
        return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void write_file(const std::string& path, const std::string& text, mode_t mode)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    chmod(path.c_str(), mode);
}

std::string read_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

bool exists(const std::string& path) { struct stat st; return lstat(path.c_str(), &st) == 0; }

mode_t mode_of(const std::string& path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

void make_dirs(const std::string& path) { ASSERT_EQ(system(("mkdir -p '" + path + "'").c_str()), 0) << path; }

std::set<std::string> list_dir(const std::string& dir)
{
    std::set<std::string> out;
    DIR* d = opendir(dir.c_str());
    for (struct dirent* e; d != nullptr && (e = readdir(d)) != nullptr;) {
        if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0)
            out.insert(e->d_name);
    }
    if (d != nullptr)
        closedir(d);
    return out;
}

Mounts::~Mounts()
{
    for (auto it = m_points.rbegin(); it != m_points.rend(); ++it)
        umount2(it->c_str(), MNT_DETACH);
}

bool Mounts::tmpfs(const std::string& dir, const std::string& options)
{
    mkdir(dir.c_str(), 0755);
    if (!g_isolated || mount("lumtest", dir.c_str(), "tmpfs", 0, options.c_str()) != 0)
        return false;
    m_points.push_back(dir);
    return true;
}

bool Mounts::bind(const std::string& from, const std::string& onto)
{
    if (!g_isolated || mount(from.c_str(), onto.c_str(), nullptr, MS_BIND, nullptr) != 0)
        return false;
    m_points.push_back(onto);
    return true;
}

void PostProbe::ProcessNorvMsg(CNorvMsg* msg)
{
    Posted p{msg->GetSignalName(), {}, {}};
    const auto* bytes = static_cast<const unsigned char*>(msg->GetSignalPtr());
    if (bytes != nullptr) {
        memcpy(&p.record, bytes, sizeof(p.record));
        p.tail.assign(bytes + sizeof(p.record), bytes + msg->GetSignalSize());
    }
    posted.push_back(p);
    msg->FreeSignal();
}

bool post_row(const SCmdRow& row, const android::Parcel& request, PostProbe& probe, bool* recordLeft)
{
    auto* record = static_cast<StorageManagerAction_t*>(calloc(1, sizeof(StorageManagerAction_t)));
    bool bFree = true;
    bool posted = post_cmd_row(row, request, record, &bFree, probe);
    if (bFree)
        free(record);
    if (recordLeft != nullptr)
        *recordLeft = bFree;
    return posted;
}

std::vector<Bytes> payloads(const std::vector<Event>& all, int id)
{
    std::vector<Bytes> out;
    for (const Event& e : all) {
        if (e.id == id)
            out.push_back(e.data);
    }
    return out;
}

void dispatch(unsigned long signal, const char* text, int32_t value)
{
    CNorvMsg msg(signal);
    if (text != nullptr) {
        auto* record = static_cast<StorageManagerAction_t*>(calloc(1, sizeof(StorageManagerAction_t)));
        memcpy(record->buf1, text, strlen(text));
        record->intValue1 = value;
        msg.SetSignalPtr(record, sizeof(*record));
    }
    theStorageManagerService.ProcessNorvMsg(&msg);
}

void ensure_service_queue()
{
    StorageManagerService& s = theStorageManagerService;
    if (s.GetQueueHandle() < 0) {
        ASSERT_EQ(s.CThreadObjectWithQueue::Init(STORAGE_SERVICE_QUEUE_NAME, MAX_STORAGE_QUEUE_SIZE, 0, false), 0);
    }
    s.ClearQueue();
}

void ensure_timer_thread()
{
    if (!TimeOutServer::instance().IsRunning())
        TimeOutServer::instance().StartThread("timeout_server", 0, 0);
}
