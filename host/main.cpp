// lumstoraged: hosts the storage service on a Unix socket.
#include <cstdlib>

#include <StorageModuleHub.h>
#include <StorageSystem.h>

#include "lumhost/daemon.h"

namespace {

int invoke_hub(const android::Parcel& request, android::Parcel* reply)
{
    return StorageModuleHub::self()->invoke(request, reply);
}

}  // namespace

int main(int argc, char** argv)
{
    // The service's tools run in the C locale, as on the television: GNU
    // grep in a UTF-8 locale would call a line with a GBK label binary.
    setenv("LC_ALL", "C", 1);
    lumhost::DaemonHooks hooks{invoke_hub, StorageSystemInit};
    return lumhost::lumstoraged_main(argc, argv, hooks);
}
