// The monotonic clock and deadlines.
#include "lumctl/ctl_args.h"

#include <cmath>
#include <ctime>

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

}  // namespace lumctl
