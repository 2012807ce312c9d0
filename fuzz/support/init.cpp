// LLVMFuzzerInitialize: a quiet log, and for the targets that reach the shell
// or the file system the sandbox, entered before libFuzzer reads its arguments.
#include "fuzz_sandbox.h"

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    fuzz_quiet_log();
#ifdef LUM_FUZZ_SANDBOX
    fuzz_enter_sandbox(*argc, *argv);
#else
    (void)argc;
    (void)argv;
#endif
    return 0;
}
