// Start-up runs in a child process: the service's threads run until the
// process ends. The children of the other tests are named here too.
#include <cstdio>
#include <cstring>
#include <sys/resource.h>

#include "StorageModuleCmd.h"
#include "StorageSystem.h"
#include "test_support.h"

namespace {
bool post_start_hdd() { return Request(STORAGE_START_HDD).invoke() == kTrue; }

// Every step of start-up fails: no queue may be made and no thread can start (the parent gave this process a
// thread stack size no memory holds). Start-up still returns 0.
int child_failing()
{
    struct rlimit none = {0, 0};
    setrlimit(RLIMIT_MSGQUEUE, &none);
    if (StorageSystemInit() != 0)
        return 20;
    if (post_start_hdd())
        return 21;  // no queue: the hub must answer false
    fflush(stdout);
    return 0;
}

}  // namespace

// copy_thread_test.cpp
int child_copy_without_threads();
// stress_test.cpp
int child_stress();

namespace {
struct ChildRow {
    const char* name;
    int (*run)();
};

const ChildRow kChildren[] = {
    {"failing", child_failing},
    {"copy_without_threads", child_copy_without_threads},
    {"stress", child_stress},
};

}  // namespace

int child_main(const char* name)
{
    int rc = 99;
    for (const ChildRow& row : kChildren) {
        if (strcmp(name, row.name) == 0)
            rc = row.run();
    }
    fflush(stdout);
    fflush(stderr);
    // The service has no stop: leave without running destructors under its running threads.
    _exit(rc);
}

namespace {
size_t find_in(const std::string& out, const char* needle)
{
    size_t at = out.find(needle);
    EXPECT_NE(at, std::string::npos) << "missing: " << needle << "\n--- output:\n" << out;
    return at;
}

}  // namespace

TEST(StorageSystemInit, ReturnsZeroWhenEveryStepFails)
{
    REQUIRE_ISOLATION();
    REQUIRE_THREADLESS_CHILD();
    std::string out;
    ASSERT_EQ(run_child("failing", &out, true), 0) << out;
    find_in(out, "TvSystemApp:: Error during init: TimeOutServer::instance().StartThread(\"timeout_server\")");
    find_in(out, "TvSystemApp:: Error during init: theStorageManagerService.Init()");
    find_in(out, "ERROR: UsbDevDriver.Init() of the queue failed!");
    find_in(out, "StartThread STORAGE_SRV failed!");
    EXPECT_EQ(out.find("> StorageManagerService start!"), std::string::npos);
}
