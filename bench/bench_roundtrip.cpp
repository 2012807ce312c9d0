// Round trip of one direct command (STORAGE_PVR_DEV_STATE) through the
// lumstoraged socket server, next to a bare Unix-socket echo of the same
// sizes in the same run. Prints p50/p99 in microseconds and their ratios;
// asserts nothing.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sched.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <StorageModuleCmd.h>
#include <android/log.h>

#include <lmdroid/log_hook.h>

#include "lumctl/ctl_client.h"
#include "lumhost/server.h"
#include "lumproto/frame_io.h"

#ifdef LUM_BENCH_REAL
#include <StorageModuleHub.h>
#include <StorageSystem.h>

#include "service_sandbox.h"
#endif

namespace {

constexpr size_t kRequestBytes = 12;  // header + command word
constexpr size_t kReplyBytes = 16;    // header + result + bool

double now_us()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) * 1e6 + static_cast<double>(ts.tv_nsec) / 1e3;
}

struct Figures {
    double p50;
    double p99;
};

Figures percentiles(std::vector<double>* samples)
{
    std::sort(samples->begin(), samples->end());
    size_t n = samples->size();
    return Figures{(*samples)[n / 2], (*samples)[std::min(n - 1, n * 99 / 100)]};
}

bool io_exact(int fd, void* buf, size_t len, bool reading)
{
    uint8_t* p = static_cast<uint8_t*>(buf);
    while (len > 0) {
        ssize_t n = reading ? read(fd, p, len) : send(fd, p, len, MSG_NOSIGNAL);
        if (n <= 0)
            return false;
        p += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

// The baseline: reads a request's bytes, writes a reply's bytes, nothing else.
void echo_server(int listen_fd)
{
    int fd = accept(listen_fd, nullptr, nullptr);
    uint8_t in[kRequestBytes];
    uint8_t out[kReplyBytes] = {1, 0, 2, 0, 8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    while (fd >= 0 && io_exact(fd, in, sizeof(in), true) && io_exact(fd, out, sizeof(out), false)) {
    }
    close(fd);
}

// Round trips on one connection with the same client calls for every
// server: write_frame, then read_frame. last gets the last reply's payload.
bool measure(const std::string& path, int count, std::vector<double>* samples,
             std::vector<uint8_t>* last)
{
    int fd = lumctl::ctl_connect(path);
    if (fd < 0)
        return false;
    const uint8_t word[] = {0x1d, 0x10, 0x00, 0x00};
    lumproto::ReadLimits limits{lumproto::kMaxPayload, 5000};
    lumproto::FrameHeader header{};
    std::vector<uint8_t> payload;
    samples->clear();
    for (int i = -count / 10; i < count; ++i) {
        double start = now_us();
        if (lumproto::write_frame(fd, lumproto::kRequest, word, sizeof(word)) != 0 ||
            lumproto::read_frame(fd, limits, &header, &payload) != lumproto::ReadStatus::kOk) {
            close(fd);
            return false;
        }
        if (i >= 0)  // the first tenth warms up
            samples->push_back(now_us() - start);
    }
    close(fd);
    *last = payload;
    return true;
}

int fake_invoke(const android::Parcel& request, android::Parcel* reply)
{
    if (request.readInt32() != STORAGE_PVR_DEV_STATE)
        return -1;
    reply->writeBool(false);
    return 0;
}

void print_row(const char* what, const Figures& f)
{
    printf("  %-34s p50 %8.2f us   p99 %8.2f us\n", what, f.p50, f.p99);
}

void print_ratio(const char* what, const Figures& a, const Figures& base)
{
    printf("  %-34s p50 %8.2f      p99 %8.2f\n", what, a.p50 / base.p50, a.p99 / base.p99);
}

bool bench_server(const std::string& path, lumhost::InvokeFn invoke, int count, Figures* out)
{
    lumhost::HostConfig config;
    config.socket_path = path;
    lumhost::ListenSocket listen_socket;
    lumhost::HostServer* server = nullptr;
    if (lumhost::host_listen(config, &listen_socket) != 0 ||
        lumhost::host_server_start(config, listen_socket, std::move(invoke), &server) != 0)
        return false;
    std::vector<double> samples;
    std::vector<uint8_t> reply;
    bool ok = measure(path, count, &samples, &reply);
    lumhost::host_server_stop(server);
    if (ok) {
        *out = percentiles(&samples);
        int32_t result = reply.size() >= 4 ? static_cast<int32_t>(lumproto::get_u32le(reply.data())) : 0;
        printf("  (%s: invoke result %d, %zu reply Parcel bytes)\n", path.c_str() + path.rfind('/') + 1,
               result, reply.size() >= 4 ? reply.size() - 4 : 0);
    }
    return ok;
}

bool bench_echo(const std::string& path, int count, Figures* out)
{
    lumhost::HostConfig config;
    config.socket_path = path;
    lumhost::ListenSocket listen_socket;
    if (lumhost::host_listen(config, &listen_socket) != 0)
        return false;
    std::thread echo(echo_server, listen_socket.fd);
    std::vector<double> samples;
    std::vector<uint8_t> reply;
    bool ok = measure(path, count, &samples, &reply);
    echo.join();
    close(listen_socket.fd);
    unlink(path.c_str());
    if (ok)
        *out = percentiles(&samples);
    return ok;
}

#ifdef LUM_BENCH_REAL
// The real service creates the system-wide queue "/MQ_STORAGE_SRV" and
// watches the machine's disks, so it only starts inside the service sandbox
// (entered while this process is still single-threaded).
bool start_real_service(const std::string&)
{
    if (!enter_service_sandbox()) {
        printf("  real service: skipped (no private namespaces: %s)\n", strerror(errno));
        return false;
    }
    StorageSystemInit();
    return true;
}

int real_invoke(const android::Parcel& request, android::Parcel* reply)
{
    return StorageModuleHub::self()->invoke(request, reply);
}
#endif

}  // namespace

int main(int argc, char** argv)
{
    int count = argc > 1 ? atoi(argv[1]) : 20000;
    // A command the service answers with a warning would log on every
    // round trip; keep the log to errors unless asked otherwise.
    if (getenv("LUM_LOG_LEVEL") == nullptr)
        lmdroid_set_log_threshold(ANDROID_LOG_ERROR);
    if (count < 100)
        count = 100;
#ifdef LUM_BENCH_REAL
    // First: the sandbox brings its own /tmp.
    bool real = start_real_service(std::string());
#endif
    char tmpl[] = "/tmp/bench-roundtrip-XXXXXX";
    if (mkdtemp(tmpl) == nullptr)
        return 1;
    std::string dir = tmpl;
    printf("bench_roundtrip: %d round trips each of STORAGE_PVR_DEV_STATE (12-byte request)\n", count);
    Figures echo{}, fake{};
    if (!bench_echo(dir + "/echo.sock", count, &echo) || !bench_server(dir + "/fake.sock", fake_invoke, count, &fake)) {
        printf("bench_roundtrip: setup failed\n");
        return 1;
    }
    print_row("bare unix-socket echo", echo);
    print_row("lumstoraged server, fake invoke", fake);
    print_ratio("ratio server(fake)/echo", fake, echo);
#ifdef LUM_BENCH_REAL
    Figures hub{};
    if (real && bench_server(dir + "/real.sock", real_invoke, count, &hub)) {
        print_row("lumstoraged server, real hub", hub);
        print_ratio("ratio server(real)/echo", hub, echo);
    }
#else
    printf("  (the fake invoke answers bool false; the service library is not built, so no real-hub figure)\n");
#endif
    rmdir(tmpl);
    return 0;
}
