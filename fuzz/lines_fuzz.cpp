// The line handlers of tool output (blkid, mount, df, ls, the partition list) on fuzzed output. The first
// byte picks the handler; the rest is the tool's output, handed over line by line as parse_output_lines does:
// pieces of at most 255 bytes, line feed removed, one context for the whole output, stop at the first
// non-zero answer. Each line sits in a block of its own size, so a read past its end shows. The shell lines
// the handlers run (mkdir, mount, umount, blkid) reach only the sandbox's stub shell.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "DevIdentify.h"
#include "DevTable.h"
#include "MountLines.h"
#include "PvrIdentity.h"
#include "ShellProbe.h"
#include "StorageManagerService.h"
#include "VolumeQuery.h"
#include "fuzz_bytes.h"
#include "fuzz_sandbox.h"

namespace {
constexpr size_t kPieceMax = SHELL_COMMAND_MAX - 1;  // what fgets gives from parse_output_lines' buffer
constexpr size_t kIdentityContext = 256;             // FindPvrIdentityFromStorage's buffer
constexpr size_t kFsTypeContext = 32;                // what get_fs_type_callback fills

// The cursor of a table build, with the table right behind it.
void init_dev_tab(void* context)
{
    auto* cursor = static_cast<SDevTabCursor*>(context);
    cursor->pos = reinterpret_cast<unsigned char*>(cursor + 1);
    cursor->end = cursor->pos + STORAGE_DEV_TAB_BUF_SIZE;
}

void init_df(void* context) { static_cast<DETERMINE_DEV_SIZE_CALLBACK_DATA*>(context)->devname = "/dev/sda1"; }

struct SHandlerRow {
    line_handler_t handler;
    size_t contextSize;             // zeroed before the first line
    void (*init)(void* context);    // or nullptr
};

const SHandlerRow kHandlers[] = {
    {mount_usb_devices_callback, sizeof(MOUNT_USB_DEVICES_CALLBACK_DATA), nullptr},  // blkid -d
    {unmount_usb_devices_callback, sizeof(UNMOUNT_USB_DEVICES_CALLBACK_DATA), nullptr},  // mount
    {unmount_mtp_devices_callback, sizeof(int), nullptr},                            // mount, MTP lines
    {get_fs_type_callback, kFsTypeContext, nullptr},                                 // mount
    {determine_dev_size_callback, sizeof(DETERMINE_DEV_SIZE_CALLBACK_DATA), init_df},  // df -Pm
    {get_dev_table_callback, sizeof(SDevTabCursor) + STORAGE_DEV_TAB_BUF_SIZE, init_dev_tab},  // partitions
    {find_pvr_identity_callback, kIdentityContext, nullptr},                         // ls -al
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1)
        return 0;
    fuzz_reset_scratch();
    const SHandlerRow& row = kHandlers[data[0] % (sizeof(kHandlers) / sizeof(kHandlers[0]))];
    void* context = calloc(1, row.contextSize);
    if (row.init != nullptr)
        row.init(context);
    size_t at = 1;
    int rc = 0;
    while (at < size && rc == 0) {
        size_t n = 0;
        while (at + n < size && n < kPieceMax && data[at + n++] != '\n') {}
        char* line = fuzz_text(data + at, n);
        trim_eol(line);
        rc = row.handler(context, line);
        free(line);
        at += n;
    }
    free(context);
    return 0;
}
