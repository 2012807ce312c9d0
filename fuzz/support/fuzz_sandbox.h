// What the fuzz targets share: a quiet log, and a sandbox for the targets
// whose decoders reach the shell or the file system.
#pragma once

// Formats every log line, so that a format that reads past its text shows under AddressSanitizer, and drops
// it: the fuzzer's own lines stay readable. With LUM_FUZZ_LOG set in the environment the log goes to standard
// error as usual (LUM_LOG_LEVEL applies), to follow one input's run.
void fuzz_quiet_log();

// Enters the sandbox of README.md from LLVMFuzzerInitialize, before libFuzzer
// reads its arguments; exits with a message when it cannot.
void fuzz_enter_sandbox(int argc, char** argv);

// Puts /tmp and /mnt back as fuzz_enter_sandbox left them, so that every run
// starts from the same files. Sandboxed targets call it first in every run.
void fuzz_reset_scratch();
