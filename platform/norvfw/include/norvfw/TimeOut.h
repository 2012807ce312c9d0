// One-shot timers served by one timer thread. An expiry is a message with the
// timer's signal id posted into the timer's queue; TimerIsValid tells a live
// expiry from one that a StopTimer or a new StartTimer made stale.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "norvfw/NorvMsg.h"
#include "norvfw/ThreadObject.h"

class TimeOutTimer {
public:
    // The arguments preset the timer; it runs only after StartTimer.
    TimeOutTimer(double timeMs, unsigned long signal, int queueHandle, long param);
    ~TimeOutTimer();
    TimeOutTimer(const TimeOutTimer&) = delete;
    TimeOutTimer& operator=(const TimeOutTimer&) = delete;

    // Arms the timer: after timeMs milliseconds a message with signal goes to
    // queueHandle. A timer that runs already is re-armed, and an earlier
    // expiry still waiting in the queue becomes stale. 0 on success.
    int StartTimer(double timeMs, unsigned long signal, int queueHandle, long param);
    // Cancels the timer; an expiry already in the queue becomes stale.
    int StopTimer();
    // Non-zero only for the live expiry of the current arming of this timer.
    int TimerIsValid(CNorvMsg* msg);
    bool IsRunning() const;

private:
    friend class TimeOutServer;
    unsigned long m_Generation;  // guarded by the server's lock
    bool m_Armed;
    bool m_Fired;
    double m_DueMs;
    unsigned long m_Signal;
    int m_Queue;
    long m_Param;
};

class TimeOutServer : public CThreadObject {
public:
    static TimeOutServer& instance();

    void ThreadWorkFunction() override;
    int StopThread() override;

    // Used by TimeOutTimer.
    void Arm(TimeOutTimer* timer, double timeMs, unsigned long signal, int queue, long param);
    void Disarm(TimeOutTimer* timer);
    int IsLive(TimeOutTimer* timer, const CNorvMsg* msg);
    bool IsArmed(const TimeOutTimer* timer);
    void Forget(TimeOutTimer* timer);

private:
    TimeOutServer();
    // Posts the expiries that are due at nowMs; returns when the next timer
    // is due, or a negative value when none is armed. Called with m_Lock held.
    double FireDue(double nowMs);

    std::mutex m_Lock;
    std::condition_variable m_Wake;
    std::vector<TimeOutTimer*> m_Timers;
};
