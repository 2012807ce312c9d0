// CNshell, socket side: one thread accepts connections on a Unix stream
// socket and serves one client at a time. The client sends command lines;
// each answer is the command's output, lines that start with '.' get a
// second '.', and a line holding a single '.' ends it. "exit" ends the
// connection. The protocol is described in the framework README.
//
// Only root and the shell's own user get an answer (SO_PEERCRED); anyone
// else is closed before a byte is read.
//
// StopThread shuts the listening and the client socket down, which ends a
// blocking accept or recv at once; the wake signal covers the rest.
#include "norvfw/Nshell.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "norvfw/Trace.h"

CNshell nshell;

namespace {

const size_t kLineMax = 512;

// False when the peer is gone or the thread is stopping.
bool SendAll(int fd, const char* data, size_t len, const CThreadObject* owner)
{
    while (len > 0) {
        ssize_t n = send(fd, data, len, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR && !owner->IsStopRequested()) {
                continue;
            }
            return false;
        }
        data += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

// The answer in the wire form: dot-stuffed lines, then ".".
void Frame(const std::string& answer, std::string* wire)
{
    size_t start = 0;
    while (start < answer.size()) {
        size_t end = answer.find('\n', start);
        size_t stop = end == std::string::npos ? answer.size() : end;
        if (answer[start] == '.') {
            wire->push_back('.');
        }
        wire->append(answer, start, stop - start);
        wire->push_back('\n');
        start = stop + 1;
    }
    wire->append(".\n");
}

// Only root and the shell's own user are served: the socket file's mode is
// set after bind (an instant under the process umask), and a mode a later
// chmod opens must not open the shell with it.
bool PeerAllowed(int fd)
{
    struct ucred cred;
    socklen_t len = sizeof(cred);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) {
        return false;
    }
    if (cred.uid == 0 || cred.uid == geteuid()) {
        return true;
    }
    TraceFormattedString(TRACE_NSHELL, TRACELEVEL_WARNING, "nshell: pid %d uid %u refused", static_cast<int>(cred.pid),
                         static_cast<unsigned>(cred.uid));
    return false;
}

}  // namespace

CNshell::CNshell() : m_ListenFd(-1), m_ClientFd(-1)
{
    m_Name[0] = '\0';
    m_SocketPath[0] = '\0';
}

CNshell::~CNshell()
{
    CNshell::StopThread();  // shuts the sockets down
    if (StopForDestruction()) {
        std::lock_guard<std::mutex> guard(m_Lock);
        CloseListenerLocked();
    }
}

int CNshell::Init(const char* name)
{
    if (name == nullptr || name[0] == '\0' || strchr(name, '/') != nullptr || strlen(name) >= sizeof(m_Name)) {
        return -EINVAL;
    }
    if (IsRunning()) {
        return -EBUSY;
    }
    const char* dir = getenv("NORVFW_NSHELL_DIR");
    if (dir == nullptr || dir[0] == '\0') {
        dir = "/tmp";
    }
    std::lock_guard<std::mutex> guard(m_Lock);
    CloseListenerLocked();
    snprintf(m_Name, sizeof(m_Name), "%s", name);
    int len = snprintf(m_SocketPath, sizeof(m_SocketPath), "%s/%s.sock", dir, name);
    if (len < 0 || static_cast<size_t>(len) >= sizeof(m_SocketPath)) {
        m_SocketPath[0] = '\0';
        return -ENAMETOOLONG;
    }
    return OpenListenerLocked();
}

const char* CNshell::GetSocketPath() const
{
    return m_SocketPath;
}

int CNshell::OpenListenerLocked()
{
    if (m_SocketPath[0] == '\0') {
        return -EINVAL;
    }
    struct stat st;
    if (lstat(m_SocketPath, &st) == 0) {
        if (!S_ISSOCK(st.st_mode)) {
            return -EEXIST;  // never remove something that is not a socket
        }
        unlink(m_SocketPath);  // left behind by an earlier run
    }
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -errno;
    }
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", m_SocketPath);
    // The mode of the socket is that of the file bind creates: owner only
    // from the first moment, not after a chmod.
    fchmod(fd, 0600);
    if (bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) != 0 || chmod(m_SocketPath, 0600) != 0 ||
        listen(fd, 8) != 0) {
        int err = errno;
        close(fd);
        TraceFormattedString(TRACE_NSHELL, TRACELEVEL_ERROR, "nshell: cannot listen on %s: %s", m_SocketPath,
                             strerror(err));
        return -err;
    }
    m_ListenFd = fd;
    return 0;
}

void CNshell::CloseListenerLocked()
{
    if (m_ListenFd >= 0) {
        close(m_ListenFd);
        m_ListenFd = -1;
        unlink(m_SocketPath);
    }
}

int CNshell::StopThread()
{
    m_StopFlag.store(1);
    {
        std::lock_guard<std::mutex> guard(m_Lock);
        if (m_ListenFd >= 0) {
            shutdown(m_ListenFd, SHUT_RDWR);
        }
        if (m_ClientFd >= 0) {
            shutdown(m_ClientFd, SHUT_RDWR);
        }
    }
    return CThreadObject::StopThread();
}

void CNshell::ThreadWorkFunction()
{
    int listenFd;
    {
        std::lock_guard<std::mutex> guard(m_Lock);
        if (m_ListenFd < 0 && OpenListenerLocked() != 0) {
            return;
        }
        listenFd = m_ListenFd;
    }
    while (m_StopFlag.load() == 0) {
        int fd = accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED) {
                continue;
            }
            if (m_StopFlag.load() == 0) {
                TraceFormattedString(TRACE_NSHELL, TRACELEVEL_ERROR, "nshell: accept failed: %s", strerror(errno));
            }
            break;
        }
        if (!PeerAllowed(fd)) {
            close(fd);  // before a byte is read
            continue;
        }
        {
            // A stop that came before this point has set the flag; one that
            // comes after finds m_ClientFd and shuts it down.
            std::lock_guard<std::mutex> guard(m_Lock);
            m_ClientFd = fd;
        }
        if (m_StopFlag.load() == 0) {
            ServeClient(fd);
        }
        {
            std::lock_guard<std::mutex> guard(m_Lock);
            m_ClientFd = -1;
        }
        close(fd);
    }
    std::lock_guard<std::mutex> guard(m_Lock);
    CloseListenerLocked();
}

void CNshell::ServeClient(int fd)
{
    char line[kLineMax + 1];
    size_t len = 0;
    bool tooLong = false;
    char chunk[256];
    while (m_StopFlag.load() == 0) {
        ssize_t n = recv(fd, chunk, sizeof(chunk), 0);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return;
        }
        for (ssize_t i = 0; i < n; ++i) {
            char c = chunk[i];
            if (c != '\n') {
                if (len < kLineMax) {
                    line[len++] = c;
                } else {
                    tooLong = true;
                }
                continue;
            }
            line[len] = '\0';
            bool more = tooLong ? AnswerLine(fd, nullptr) : AnswerLine(fd, line);
            len = 0;
            tooLong = false;
            if (!more) {
                return;
            }
        }
    }
}

bool CNshell::AnswerLine(int fd, const char* line)
{
    std::string answer;
    bool more = true;
    if (line == nullptr) {
        answer = "error: line too long\n";
    } else {
        char command[kLineMax + 1];
        snprintf(command, sizeof(command), "%s", line);
        size_t len = strlen(command);
        while (len > 0 && (command[len - 1] == '\r' || command[len - 1] == ' ' || command[len - 1] == '\t')) {
            command[--len] = '\0';
        }
        const char* start = command + strspn(command, " \t");
        more = strcmp(start, "exit") != 0;
        Execute(start, &answer);
    }
    std::string wire;
    Frame(answer, &wire);
    return SendAll(fd, wire.data(), wire.size(), this) && more;
}
