// Clock, deadlines and the option parser of the device subcommands.
#include "lumctl/ctl_args.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "lumctl/ctl.h"

namespace lumctl {

double now_seconds()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

int time_left_ms(double deadline)
{
    if (deadline < 0)
        return -1;
    double left = deadline - now_seconds();
    return left <= 0 ? 0 : static_cast<int>(std::ceil(left * 1000));
}

bool parse_non_negative(const char* text, double* out)
{
    char* end = nullptr;
    errno = 0;
    double v = strtod(text, &end);
    if (errno != 0 || end == text || *end != '\0' || !std::isfinite(v) || v < 0 || v > 1e9)
        return false;
    *out = v;
    return true;
}

int parse_device_args(const CtlContext& ctx, const char* sub, const char* what, size_t want,
                      int argc, char** argv, DeviceArgs* args)
{
    return parse_device_args_between(ctx, sub, what, want, want, argc, argv, args);
}

int parse_device_args_between(const CtlContext& ctx, const char* sub, const char* what, size_t least,
                              size_t most, int argc, char** argv, DeviceArgs* args)
{
    for (int i = 0; i < argc; ++i) {
        double v = 0;
        if (strcmp(argv[i], "--json") == 0) {
            args->json = true;
        } else if (strcmp(argv[i], "--timeout") == 0 && i + 1 < argc && parse_non_negative(argv[i + 1], &v) &&
                   v > 0) {
            args->timeout = v;
            ++i;
        } else if (strncmp(argv[i], "--", 2) == 0) {
            return usage_error(ctx, std::string(sub) + ": bad option or value at '" + argv[i] + "'");
        } else {
            args->operands.push_back(argv[i]);
        }
    }
    size_t n = args->operands.size();
    if (n >= least && n <= most)
        return kExitOk;
    std::string wanted = most == 0 ? std::string("no operand") : least == 0 ? std::string("[") + what + "]" : what;
    return usage_error(ctx, std::string(sub) + " takes " + wanted + ", not " + std::to_string(n) + " operand(s)");
}

std::vector<char*> without_flag(int argc, char** argv, const char* flag, bool* seen)
{
    std::vector<char*> rest;
    *seen = false;
    for (int i = 0; i < argc; ++i) {
        if (strcmp(argv[i], flag) == 0)
            *seen = true;
        else
            rest.push_back(argv[i]);
    }
    return rest;
}

bool take_option(std::vector<char*>* words, const char* name, const char** value)
{
    *value = nullptr;
    std::vector<char*> rest;
    for (size_t i = 0; i < words->size(); ++i) {
        if (strcmp((*words)[i], name) != 0) {
            rest.push_back((*words)[i]);
            continue;
        }
        if (i + 1 == words->size())
            return false;
        *value = (*words)[++i];
    }
    *words = rest;
    return true;
}

}  // namespace lumctl
