// LLVMFuzzerInitialize of the targets that need no sandbox.
#include "fuzz_sandbox.h"

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz_quiet_log();
    return 0;
}
