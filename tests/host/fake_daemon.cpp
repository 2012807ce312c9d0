// lumstoraged with the fake service, for tests that run the daemon as a process.
#include "fake_service.h"
#include "lumhost/daemon.h"

namespace {
int fake_init() { return 0; }

}  // namespace

int main(int argc, char** argv)
{
    lumhost::DaemonHooks hooks{fakesvc::invoke, fake_init};
    return lumhost::lumstoraged_main(argc, argv, hooks);
}
