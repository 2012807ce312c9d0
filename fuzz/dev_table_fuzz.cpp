// The readers of the device table's tagged bytes on damaged buffers: the table (trace_dev_table, which also replaces
// the service's rows) and the device information (trace_dev_info). The bytes sit in a block of their own size, so an
// element read past the end shows. A row with a label asks blkid for it, which reaches only the sandbox's stub shell.
#include <cstddef>
#include <cstdint>

#include "DevTable.h"
#include "StorageManagerService.h"
#include "fuzz_bytes.h"
#include "fuzz_sandbox.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz_reset_scratch();
    unsigned char* buf = fuzz_bytes(data, size);
    theStorageManagerService.trace_dev_table(buf, static_cast<int>(size));
    trace_dev_info(buf, static_cast<int>(size));
    free(buf);
    return 0;
}
