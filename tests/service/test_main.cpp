// The service tests run in the service sandbox: their own IPC namespace (the queue name is system-wide),
// their own /tmp, so that a test sees every temporary file the shell layer makes, and their own network
// namespace, so that the uevents they inject reach nobody else. Without it the tests that need it skip.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "service_sandbox.h"
#include "test_support.h"

int child_main(const char* name);

int main(int argc, char** argv)
{
    if (argc == 3 && strcmp(argv[1], "--child") == 0)
        return child_main(argv[2]);
    g_isolated = enter_service_sandbox();
    if (!g_isolated)
        fprintf(stderr, "service_tests: no private namespaces (%s); tests that need them skip\n",
                strerror(errno));
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
