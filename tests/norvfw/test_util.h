// Helpers of the framework tests.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "norvfw/ThreadObject.h"

namespace norvtest {
// POSIX queue names are system-wide: the pid keeps parallel test processes
// apart, the counter the queues of one process.
inline std::string QueueName(const char* tag)
{
    static std::atomic<int> counter{0};
    return "/norvfw_t" + std::to_string(getpid()) + "_" + tag + std::to_string(counter.fetch_add(1));
}

// Polls a condition for up to timeoutMs; the margin is generous on purpose.
template <typename Pred>
bool WaitFor(Pred pred, int timeoutMs = 5000)
{
    for (int waited = 0; waited < timeoutMs; ++waited) {
        if (pred())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

inline bool WaitForMsg(CNorvMsgQueue* queue, CNorvMsg* msg)
{
    return WaitFor([&] { return queue->TryReceive(msg) == 0; });
}

inline CNorvMsg PayloadMsg(unsigned long signal)
{
    unsigned long* payload = static_cast<unsigned long*>(malloc(sizeof(unsigned long)));
    *payload = signal;
    CNorvMsg msg(signal);
    msg.SetSignalPtr(payload, sizeof(unsigned long));
    return msg;
}

// A queue thread that records the signals it processes and releases their payloads, as a product thread does.
class Recorder : public CThreadObjectWithQueue {
public:
    ~Recorder() override { StopThreadAndWait(); }  // before the members go
    void ProcessNorvMsg(CNorvMsg* msg) override
    {
        std::lock_guard<std::mutex> guard(m_Lock);
        m_Signals.push_back(msg->GetSignalName());
        msg->FreeSignal();
    }
    std::vector<unsigned long> Signals() { std::lock_guard<std::mutex> guard(m_Lock); return m_Signals; }

private:
    std::mutex m_Lock;
    std::vector<unsigned long> m_Signals;
};

// Sends standard output (file descriptor 1) into a temporary file until Stop.
class StdoutCapture {
public:
    StdoutCapture()
    {
        fflush(stdout);
        m_File = fileno(tmpfile());
        m_Saved = dup(STDOUT_FILENO);
        dup2(m_File, STDOUT_FILENO);
    }
    ~StdoutCapture() { Stop(); }
    std::string Stop()
    {
        if (m_Saved >= 0) {
            dup2(m_Saved, STDOUT_FILENO);
            close(m_Saved);
            m_Saved = -1;
            char buf[4096];
            ssize_t n;
            for (off_t at = 0; (n = pread(m_File, buf, sizeof(buf), at)) > 0; at += n)
                m_Text.append(buf, static_cast<size_t>(n));
        }
        return m_Text;
    }

private:
    int m_File = -1;
    int m_Saved = -1;
    std::string m_Text;
};

}  // namespace norvtest
