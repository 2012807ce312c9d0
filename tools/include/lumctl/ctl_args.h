// Small helpers shared by the subcommands: the monotonic clock, deadlines
// and the options of the device subcommands.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace lumctl {

struct CtlContext;

// Seconds on the monotonic clock.
double now_seconds();
// Milliseconds left before deadline (seconds on the monotonic clock), 0 once
// it passed; -1 when deadline is below 0 (no deadline).
int time_left_ms(double deadline);
// A number 0..1e9 (seconds, a count), fractions allowed; false when text is
// not one.
bool parse_non_negative(const char* text, double* out);

// The words of a device subcommand: its operands and the options every one
// of them takes, --json and --timeout S (above 0).
struct DeviceArgs {
    std::vector<std::string> operands;
    bool json = false;
    double timeout = 0;  // seconds
};

// Parses argv into args, which holds the defaults on entry. want is the
// number of operands and what names them for the usage message
// ("DEVICE"). Returns kExitOk or a usage error.
int parse_device_args(const CtlContext& ctx, const char* sub, const char* what, size_t want,
                      int argc, char** argv, DeviceArgs* args);
// The same with least to most operands ("pvr limit [MB]").
int parse_device_args_between(const CtlContext& ctx, const char* sub, const char* what, size_t least,
                              size_t most, int argc, char** argv, DeviceArgs* args);

// argv without every word equal to flag; *seen tells whether there was one.
std::vector<char*> without_flag(int argc, char** argv, const char* flag, bool* seen);

// Takes every "name VALUE" pair out of words; *value is the last VALUE, null
// when there was none. False when name is the last word, without a value.
bool take_option(std::vector<char*>* words, const char* name, const char** value);

}  // namespace lumctl
