// One-shot timers served by one thread.
//
// Every arming and every stop gives the timer a new generation, drawn from
// one counter for all timers, and each expiry message carries (timer,
// generation). TimerIsValid compares that stamp with the timer's current
// generation, so an expiry that a StopTimer or a re-arm overtook is stale,
// even if it already waits in the queue, and so is one left over from a
// destroyed timer whose address was reused.
//
// All timer state is guarded by the server's lock, and expiries are posted
// with the lock held: a StopTimer either comes first (nothing is posted) or
// second (the posted expiry is stale). Post never waits, so holding the lock
// costs nothing; a full queue is retried every kRetryMs until the expiry goes
// in or the timer is stopped or re-armed.
#include "norvfw/TimeOut.h"

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>

#include "internal.h"
#include "norvfw/NorvMsgQueue.h"
#include "norvfw/Trace.h"

namespace {

const double kRetryMs = 10.0;

unsigned long g_LastGeneration = 0;  // guarded by the server's lock

unsigned long NextGeneration()
{
    return ++g_LastGeneration;
}

void RemoveTimer(std::vector<TimeOutTimer*>* timers, const TimeOutTimer* timer)
{
    for (size_t i = 0; i < timers->size(); ++i) {
        if ((*timers)[i] == timer) {
            timers->erase(timers->begin() + static_cast<long>(i));
            return;
        }
    }
}

std::chrono::steady_clock::time_point SteadyAt(double ms)
{
    std::chrono::duration<double, std::milli> d(ms);
    return std::chrono::steady_clock::time_point(std::chrono::duration_cast<std::chrono::steady_clock::duration>(d));
}

}  // namespace

namespace norvfw_internal {

double MonotonicMs()
{
    std::chrono::duration<double, std::milli> d = std::chrono::steady_clock::now().time_since_epoch();
    return d.count();
}

}  // namespace norvfw_internal

TimeOutTimer::TimeOutTimer(double timeMs, unsigned long signal, int queueHandle, long param)
    : m_Generation(0), m_Armed(false), m_Fired(false), m_DueMs(timeMs), m_Signal(signal), m_Queue(queueHandle),
      m_Param(param)
{
}

TimeOutTimer::~TimeOutTimer()
{
    TimeOutServer::instance().Forget(this);
}

int TimeOutTimer::StartTimer(double timeMs, unsigned long signal, int queueHandle, long param)
{
    if (std::isnan(timeMs) || queueHandle < 0) {
        return -EINVAL;
    }
    TimeOutServer::instance().Arm(this, timeMs < 0 ? 0 : timeMs, signal, queueHandle, param);
    return 0;
}

int TimeOutTimer::StopTimer()
{
    TimeOutServer::instance().Disarm(this);
    return 0;
}

int TimeOutTimer::TimerIsValid(CNorvMsg* msg)
{
    if (msg == nullptr) {
        return 0;
    }
    return TimeOutServer::instance().IsLive(this, msg);
}

bool TimeOutTimer::IsRunning() const
{
    return TimeOutServer::instance().IsArmed(this);
}

// Never destroyed: timers in static objects may be destroyed after it
// otherwise, and the timer thread may still run at exit.
TimeOutServer& TimeOutServer::instance()
{
    static TimeOutServer* server = new TimeOutServer;
    return *server;
}

TimeOutServer::TimeOutServer() = default;

void TimeOutServer::ThreadWorkFunction()
{
    std::unique_lock<std::mutex> lock(m_Lock);
    while (m_StopFlag.load() == 0) {
        double next = FireDue(norvfw_internal::MonotonicMs());
        if (m_StopFlag.load() != 0) {
            break;
        }
        if (next < 0) {
            m_Wake.wait(lock);
        } else {
            m_Wake.wait_until(lock, SteadyAt(next));
        }
    }
}

// Overdue timers go out earliest first, so expiries keep the order of their
// due times even when the thread was late.
double TimeOutServer::FireDue(double nowMs)
{
    for (;;) {
        size_t first = m_Timers.size();
        for (size_t i = 0; i < m_Timers.size(); ++i) {
            if (first == m_Timers.size() || m_Timers[i]->m_DueMs < m_Timers[first]->m_DueMs) {
                first = i;
            }
        }
        if (first == m_Timers.size()) {
            return -1.0;
        }
        TimeOutTimer* t = m_Timers[first];
        if (t->m_DueMs > nowMs) {
            return t->m_DueMs;
        }
        CNorvMsg msg(t->m_Signal);
        msg.SetTimerStamp(t, t->m_Generation);
        int rc = CNorvMsgQueue::Post(t->m_Queue, msg);
        if (rc == -EAGAIN) {
            t->m_DueMs = nowMs + kRetryMs;
            continue;
        }
        if (rc != 0) {
            TraceFormattedString(TRACE_TOSV, TRACELEVEL_ERROR, "timer signal %lu to queue %d lost: %s",
                                 t->m_Signal, t->m_Queue, strerror(-rc));
        }
        t->m_Armed = false;
        t->m_Fired = (rc == 0);
        m_Timers.erase(m_Timers.begin() + static_cast<long>(first));
    }
}

int TimeOutServer::StopThread()
{
    {
        std::lock_guard<std::mutex> guard(m_Lock);
        m_StopFlag.store(1);
    }
    m_Wake.notify_all();
    return CThreadObject::StopThread();
}

void TimeOutServer::Arm(TimeOutTimer* timer, double timeMs, unsigned long signal, int queue, long param)
{
    {
        std::lock_guard<std::mutex> guard(m_Lock);
        timer->m_Generation = NextGeneration();
        timer->m_Armed = true;
        timer->m_Fired = false;
        timer->m_DueMs = norvfw_internal::MonotonicMs() + timeMs;
        timer->m_Signal = signal;
        timer->m_Queue = queue;
        timer->m_Param = param;
        RemoveTimer(&m_Timers, timer);
        m_Timers.push_back(timer);
    }
    m_Wake.notify_all();
}

void TimeOutServer::Disarm(TimeOutTimer* timer)
{
    std::lock_guard<std::mutex> guard(m_Lock);
    timer->m_Generation = NextGeneration();
    timer->m_Armed = false;
    timer->m_Fired = false;
    RemoveTimer(&m_Timers, timer);
}

int TimeOutServer::IsLive(TimeOutTimer* timer, const CNorvMsg* msg)
{
    std::lock_guard<std::mutex> guard(m_Lock);
    return (msg->GetTimerOwner() == timer && msg->GetTimerGeneration() == timer->m_Generation &&
            timer->m_Fired)
               ? 1
               : 0;
}

bool TimeOutServer::IsArmed(const TimeOutTimer* timer)
{
    std::lock_guard<std::mutex> guard(m_Lock);
    return timer->m_Armed;
}

void TimeOutServer::Forget(TimeOutTimer* timer)
{
    std::lock_guard<std::mutex> guard(m_Lock);
    timer->m_Armed = false;
    RemoveTimer(&m_Timers, timer);
}
