// The television's clock.
#pragma once

struct N_DateTime {
    int Year;
    int Month;    // 1..12
    int Day;      // 1..31
    int Hours;
    int Minutes;
    int Seconds;
};

class ClassRTC {
public:
    ClassRTC();
    void SetDateTimeFound(bool found);
    bool IsDateTimeFound() const;
    // Local date and time. 0 on success, non-zero when the clock is not set.
    int GetCurrentDateTimeLocal(N_DateTime* dt);
    // Local time offset from UTC in minutes, daylight saving included.
    int GetLto();

private:
    bool m_Found;
};

extern ClassRTC theRTC;

// A monotonic clock in microseconds, and the difference of two readings.
double time_now();
double time_minus(double later, double earlier);
