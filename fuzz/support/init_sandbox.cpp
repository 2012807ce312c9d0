// LLVMFuzzerInitialize of the targets that reach the shell or the file
// system: the sandbox is entered before libFuzzer reads its arguments.
#include "fuzz_sandbox.h"

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    fuzz_quiet_log();
    fuzz_enter_sandbox(*argc, *argv);
    return 0;
}
