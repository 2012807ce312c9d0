// classify_uevent on fuzzed datagrams, as the watcher hands them over: at most HOTPLUG_RECV_BUF_SIZE - 1
// bytes with a NUL behind them, in a block of exactly that size, so a read past the datagram shows.
#include <cstddef>
#include <cstdint>

#include "HotPlug.h"
#include "fuzz_bytes.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    size_t rc = size < HOTPLUG_RECV_BUF_SIZE - 1 ? size : HOTPLUG_RECV_BUF_SIZE - 1;
    char* buf = fuzz_text(data, rc);
    classify_uevent(buf, static_cast<int>(rc));
    free(buf);
    return 0;
}
