// The run of a file subcommand answered by one result byte: the request
// goes out on a subscribed connection, the result event comes back, and
// its word is printed with an exit code (0 for result 0, 1 otherwise).
#pragma once

#include <string>
#include <vector>

#include "ctl_device.h"
#include "lumctl/copy_progress.h"

namespace lumctl {

// Default waits. Most operations take a moment; a tree removal runs rm -rf,
// a move across volumes copies, and a copy of a tree or a recording can take
// an hour.
constexpr double kFileTimeoutSeconds = 60;
constexpr double kTreeTimeoutSeconds = 600;
constexpr double kCopyTimeoutSeconds = 3600;

struct FileOp {
    DeviceCall call;
    int32_t event = 0;             // the result event
    bool direct = false;           // run on the caller's thread: the event comes before the reply, also
                                   // after a reply of false
    std::vector<uint8_t> request;  // the request Parcel
    Json names;                    // the operands as JSON fields ("path", or "source" and "destination")
    bool space_notices = false;    // LUM_TV_EVT_STORAGE_OUT_OF_SPACE may come before the result
    bool progress = false;         // a terminal is shown how far the copy of the operands SRC DST is
    CopyShape shape = CopyShape::kFile;
};

// Sends op's request and follows it to its result: prints the result line
// (and a hint for a failure on standard error) and returns kExitOk for
// result 0, kExitFailed for another result, a refusal, a time-out or an
// error.
int run_file_op(const CtlContext& ctx, const FileOp& op);

}  // namespace lumctl
