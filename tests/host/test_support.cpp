#include "test_support.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ftw.h>
#include <grp.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "fake_service.h"

namespace hosttest {
namespace {
int remove_entry(const char* path, const struct stat*, int, FTW*) { return remove(path); }

}  // namespace

TempDir::TempDir()
{
    char tmpl[] = "/tmp/lumhost-XXXXXX";
    const char* made = mkdtemp(tmpl);
    path = made != nullptr ? made : "";
}

TempDir::~TempDir()
{
    if (!path.empty())
        nftw(path.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
}

TestServer::TestServer() { config.socket_path = dir.path + "/run/s.sock"; config.frame_timeout_ms = 500; }

TestServer::~TestServer()
{
    if (server != nullptr) {
        lumhost::host_emal_detach();
        lumhost::host_server_stop(server);
    }
}

int TestServer::start()
{
    lumhost::ListenSocket listen_socket;
    int rc = lumhost::host_listen(config, &listen_socket);
    if (rc == 0)
        rc = lumhost::host_server_start(config, listen_socket, fakesvc::invoke, &server);
    if (rc == 0)
        lumhost::host_emal_attach(server);
    return rc;
}

int connect_to(const std::string& path)
{
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", path.c_str());
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0)
        return fd;
    if (fd >= 0)
        close(fd);
    return -1;
}

Fd::~Fd()
{
    if (fd >= 0)
        close(fd);
}

bool send_bytes(int fd, const std::vector<uint8_t>& bytes)
{
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n <= 0)
            return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

std::vector<uint8_t> frame(uint16_t type, const std::vector<uint8_t>& payload, uint16_t version)
{
    std::vector<uint8_t> out(lumproto::kHeaderSize);
    lumproto::encode_header(
        lumproto::FrameHeader{version, type, static_cast<uint32_t>(payload.size())}, out.data());
    out.insert(out.end(), payload.begin(), payload.end());
    return out;
}

std::vector<uint8_t> le32(int32_t value)
{
    std::vector<uint8_t> out(4);
    lumproto::put_u32le(static_cast<uint32_t>(value), out.data());
    return out;
}

std::vector<uint8_t> request_frame(int32_t word, const std::vector<uint8_t>& more)
{
    std::vector<uint8_t> payload = le32(word);
    payload.insert(payload.end(), more.begin(), more.end());
    return frame(lumproto::kRequest, payload);
}

Frame next_frame(int fd, int timeout_ms)
{
    Frame f{lumproto::ReadStatus::kTimeout, {}, {}};
    if (lumproto::wait_readable(fd, timeout_ms) <= 0)
        return f;
    lumproto::ReadLimits limits{lumproto::kMaxPayload, timeout_ms};
    f.status = lumproto::read_frame(fd, limits, &f.header, &f.payload);
    return f;
}

Frame next_non_event(int fd, int timeout_ms)
{
    for (;;) {
        Frame f = next_frame(fd, timeout_ms);
        if (f.status != lumproto::ReadStatus::kOk ||
            (f.header.type != lumproto::kEvent && f.header.type != lumproto::kDropped))
            return f;
    }
}

bool closed_within(int fd, int timeout_ms, size_t* bytes)
{
    *bytes = 0;
    for (;;) {
        if (lumproto::wait_readable(fd, timeout_ms) <= 0)
            return false;
        uint8_t buf[4096];
        ssize_t n = recv(fd, buf, sizeof(buf), 0);
        if (n == 0 || (n < 0 && errno == ECONNRESET))
            return true;
        if (n < 0)
            return false;
        *bytes += static_cast<size_t>(n);
    }
}

int run_as(uid_t uid, gid_t gid, const std::function<int()>& fn, const std::function<int()>& prepare)
{
    pid_t pid = fork();
    if (pid == 0) {
        alarm(20);
        int rc = prepare ? prepare() : 0;
        if (rc != 0)
            _exit(rc);
        if (setgroups(0, nullptr) != 0 || setgid(gid) != 0 || setuid(uid) != 0)
            _exit(100);
        _exit(fn());
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status))
        return -1;
    return WEXITSTATUS(status);
}

}  // namespace hosttest
