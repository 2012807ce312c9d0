// Named threads with a stop flag, and threads that serve a message queue.
#pragma once

#include <atomic>
#include <mutex>
#include <pthread.h>

#include "norvfw/NorvMsg.h"
#include "norvfw/NorvMsgQueue.h"

enum {
    THREAD_TYPE_WORK_FUNCTION = 1,
    THREAD_TYPE_MSG_QUEUE = 2,
};

class CThreadObject {
public:
    CThreadObject();
    virtual ~CThreadObject();
    CThreadObject(const CThreadObject&) = delete;
    CThreadObject& operator=(const CThreadObject&) = delete;

    // Starts ThreadWorkFunction on a new thread called name (cut to the 15
    // characters Linux keeps). priority and stackSize 0 mean the defaults.
    // 0 on success, negative on failure (also when the thread runs already).
    virtual int StartThread(const char* name, int priority, int stackSize);
    // Sets the stop flag and wakes the thread from a blocking system call
    // (recv, mq_receive) so that it sees the flag. Does not wait.
    virtual int StopThread();
    // StopThread, then waits for the thread to end.
    virtual int StopThreadAndWait();
    virtual int GetThreadType();
    virtual unsigned long GetNrOfProcessedMsgs() const;
    virtual void ThreadWorkFunction() = 0;

    bool IsStopRequested() const;
    bool IsRunning() const;
    const char* GetThreadName() const;

protected:
    // For destructors, which must not hang when the process exits with its
    // threads running: stops the thread and waits for it a bounded time,
    // detaching it if it does not end. True when the thread no longer runs
    // or is the caller itself; false when it was left running.
    bool StopForDestruction();

    // The stop flag: 1 once a stop was requested.
    std::atomic<unsigned char> m_StopFlag;

private:
    static void* Trampoline(void* self);
    // Joins the thread, sending the wake signal again every few milliseconds
    // in case the first one came before the thread blocked. timeoutMs < 0
    // waits for good. 0 once joined, -ETIMEDOUT, or -EDEADLK on itself.
    int JoinWithWakes(double timeoutMs);

    pthread_t m_Thread;
    std::atomic<bool> m_Running;
    bool m_Joinable;          // guarded by m_Control
    char m_Name[16];
    unsigned long m_Serial;   // this run's key in the thread list
    std::mutex m_Control;     // orders start, wake and join
};

class CThreadObjectWithQueue : public CThreadObject {
public:
    CThreadObjectWithQueue();
    ~CThreadObjectWithQueue() override;

    // Creates the queue name with room for depth messages. flags and
    // nonBlocking are kept for the framework's interface; 0 and false are the
    // ordinary values. 0 on success.
    int Init(const char* name, int depth, int flags, bool nonBlocking);
    int GetQueueHandle() const;

    int GetThreadType() override;
    unsigned long GetNrOfProcessedMsgs() const override;
    // BeforeProcessingMsgs once, then ReadMsgsFromBlockingQueue until stopped.
    void ThreadWorkFunction() override;

    // Puts a copy of msg into the queue without waiting: 0 when it went in.
    // The queue owns the payload from this call on: when the message cannot
    // go in (queue full, no queue), the payload is released here, so the
    // sender never frees it.
    virtual int SendCmd(CNorvMsg* msg);
    // Drops every waiting message, releasing payloads.
    virtual void ClearQueue();
    virtual int GetNrOfMsgsInQueue();
    virtual void ProcessNorvMsg(CNorvMsg* msg) = 0;
    virtual void BeforeProcessingMsgs();
    // Waits for one message and processes it. 0 when one was processed.
    virtual int ReadMsgsFromBlockingQueue();
    // Processes whatever is waiting, without waiting; returns the count.
    virtual int ReadMsgsFromNonBlockingQueue();

private:
    CNorvMsgQueue m_Queue;
    std::atomic<unsigned long> m_Processed;
};

// The debug shell's "threads" command lists every framework thread.
void InitThreadObjectNshell();
