// sandbox_run COMMAND [ARGS...]: runs COMMAND in the service sandbox (service_sandbox.h), for test scripts
// whose program starts the real service. When the sandbox cannot be had it says so and exits 77, which such
// tests take as their skip code.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "service_sandbox.h"

int main(int argc, char** argv)
{
    if (argc < 2) {
        fprintf(stderr, "usage: sandbox_run COMMAND [ARGS...]\n");
        return 2;
    }
    if (!enter_service_sandbox()) {
        fprintf(stderr, "SKIPPED LOUDLY: no private namespaces for the service (%s); needs root or "
                        "unprivileged user namespaces\n", strerror(errno));
        return 77;
    }
    execvp(argv[1], argv + 1);
    fprintf(stderr, "sandbox_run: cannot run %s: %s\n", argv[1], strerror(errno));
    return 127;
}
