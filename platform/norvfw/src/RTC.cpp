// ClassRTC: on Linux the system clock is the television's clock. It counts as
// set from the start; SetDateTimeFound(false) makes the box behave like a set
// that has not received the time yet.
#include "norvfw/RTC.h"

#include <ctime>

ClassRTC theRTC;

ClassRTC::ClassRTC() : m_Found(true) {}

void ClassRTC::SetDateTimeFound(bool found)
{
    __atomic_store_n(&m_Found, found, __ATOMIC_RELAXED);
}

bool ClassRTC::IsDateTimeFound() const
{
    return __atomic_load_n(&m_Found, __ATOMIC_RELAXED);
}

int ClassRTC::GetCurrentDateTimeLocal(N_DateTime* dt)
{
    if (dt == nullptr || !IsDateTimeFound()) {
        return -1;
    }
    time_t now = time(nullptr);
    struct tm local;
    if (localtime_r(&now, &local) == nullptr) {
        return -1;
    }
    dt->Year = local.tm_year + 1900;
    dt->Month = local.tm_mon + 1;
    dt->Day = local.tm_mday;
    dt->Hours = local.tm_hour;
    dt->Minutes = local.tm_min;
    dt->Seconds = local.tm_sec;
    return 0;
}

int ClassRTC::GetLto()
{
    time_t now = time(nullptr);
    struct tm local;
    if (localtime_r(&now, &local) == nullptr) {
        return 0;
    }
    return static_cast<int>(local.tm_gmtoff / 60);
}

double time_now()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) * 1e6 + static_cast<double>(ts.tv_nsec) / 1e3;
}

double time_minus(double later, double earlier)
{
    return later - earlier;
}
