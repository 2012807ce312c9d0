// Cost of one call_system against the floor: a bare posix_spawn of
// "sh -c true" and waitpid, in the same run. Prints figures, asserts nothing.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <spawn.h>
#include <sys/wait.h>
#include <vector>

#include "ShellProbe.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

void bare_spawn()
{
    char a0[] = "sh", a1[] = "-c", a2[] = "true";
    char* argv[] = {a0, a1, a2, nullptr};
    pid_t pid;
    if (posix_spawn(&pid, "/bin/sh", nullptr, nullptr, argv, environ) == 0) {
        int status;
        waitpid(pid, &status, 0);
    }
}

void via_call_system() { call_system("true"); }

std::vector<double> measure(void (*fn)(), int rounds)
{
    std::vector<double> us;
    us.reserve(rounds);
    for (int i = 0; i < rounds; ++i) {
        auto t0 = Clock::now();
        fn();
        us.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
    }
    std::sort(us.begin(), us.end());
    return us;
}

double pct(const std::vector<double>& v, double p) { return v[static_cast<size_t>(p * (v.size() - 1))]; }

}  // namespace

int main(int argc, char** argv)
{
    int rounds = argc > 1 ? atoi(argv[1]) : 2000;
    // A large heap makes a full fork expensive; a vfork-style spawn does not
    // care. 256 MiB touched, as a big middleware process would have.
    std::vector<char> ballast(256u << 20, 1);
    measure(bare_spawn, 50);  // warm up
    // Interleave the two so that drift of the machine hits both alike.
    std::vector<double> floorUs, shellUs;
    for (int block = 0; block < 10; ++block) {
        auto f = measure(bare_spawn, rounds / 10);
        auto s = measure(via_call_system, rounds / 10);
        floorUs.insert(floorUs.end(), f.begin(), f.end());
        shellUs.insert(shellUs.end(), s.begin(), s.end());
    }
    std::sort(floorUs.begin(), floorUs.end());
    std::sort(shellUs.begin(), shellUs.end());
    printf("call_system vs bare posix_spawn of 'sh -c true' (%d rounds each, %zu MiB heap)\n", rounds,
           ballast.size() >> 20);
    printf("  bare spawn   p50 %8.1f us  p99 %8.1f us\n", pct(floorUs, 0.5), pct(floorUs, 0.99));
    printf("  call_system  p50 %8.1f us  p99 %8.1f us\n", pct(shellUs, 0.5), pct(shellUs, 0.99));
    printf("  ratio        p50 %8.2f     p99 %8.2f   (target: within 1.20)\n", pct(shellUs, 0.5) / pct(floorUs, 0.5),
           pct(shellUs, 0.99) / pct(floorUs, 0.99));
    return ballast[12345] == 1 ? 0 : 1;
}
