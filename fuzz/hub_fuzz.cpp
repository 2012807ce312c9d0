// The hub on fuzzed requests: the first byte picks a command of the command list (codes without a row
// included), the rest is the request Parcel behind the command word, and StorageModuleHub::invoke reads it as
// a client's. Every row runs, inside the sandbox (README.md); each run starts from empty /tmp and /mnt with
// one client file open, /tmp/client, and ends with the queue emptied and every client descriptor closed.
#include <binder/Parcel.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

#include "ClientFds.h"
#include "StorageManagerService.h"
#include "StorageModuleCmd.h"
#include "StorageModuleHub.h"
#include "fuzz_sandbox.h"

namespace {
#define LUM_FUZZ_CMD_CODE(name, value, request, reply) name,
const int32_t kCodes[] = {LUM_STORAGE_CMD_LIST(LUM_FUZZ_CMD_CODE)};
#undef LUM_FUZZ_CMD_CODE

// Client descriptors are the lowest free numbers, and each run closes its own: none lies above this.
constexpr int kClientFdScan = 1024;

// The service's queue without its thread, as the unit tests make it.
bool create_queue()
{
    if (theStorageManagerService.CThreadObjectWithQueue::Init("/MQ_STORAGE_SRV", MAX_STORAGE_QUEUE_SIZE, 0, false) == 0)
        return true;
    fprintf(stderr, "fuzz_hub: cannot create the service queue\n");
    exit(1);
}

void close_client_fds()
{
    for (int fd = 0; fd < kClientFdScan; ++fd) {
        if (client_fd_remove(fd))
            close(fd);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const bool queued = create_queue();
    if (size < 1 || !queued)
        return 0;
    fuzz_reset_scratch();
    int err = 0;
    theStorageManagerService.LumOpen("/tmp/client", O_RDWR | O_CREAT, 0644, &err);
    int32_t code = kCodes[data[0] % (sizeof(kCodes) / sizeof(kCodes[0]))];
    std::vector<uint8_t> bytes(sizeof(code) + size - 1);
    memcpy(bytes.data(), &code, sizeof(code));  // the Parcel is little-endian, as the machine
    memcpy(bytes.data() + sizeof(code), data + 1, size - 1);
    android::Parcel request;
    request.setData(bytes.data(), bytes.size());
    android::Parcel reply;
    StorageModuleHub::self()->invoke(request, &reply);
    theStorageManagerService.ClearQueue();
    close_client_fds();
    return 0;
}
