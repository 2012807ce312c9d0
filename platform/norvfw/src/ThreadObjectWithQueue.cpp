// CThreadObjectWithQueue: a thread that serves its own message queue.
//
// Payload ownership: SendCmd hands the payload to the queue. If the message
// cannot go in, SendCmd releases the payload itself, so a sender never frees
// a payload after SendCmd and nothing leaks on a full queue. A message taken
// from the queue belongs to ProcessNorvMsg, which releases its payload with
// FreeSignal when it is done with it.
#include "norvfw/ThreadObject.h"

#include <cerrno>
#include <cstring>

#include "internal.h"
#include "norvfw/Trace.h"

CThreadObjectWithQueue::CThreadObjectWithQueue() : m_Processed(0) {}

CThreadObjectWithQueue::~CThreadObjectWithQueue()
{
    // The thread reads m_Queue: it has to end before the queue goes. One
    // that would not end (only at exit) keeps the queue.
    if (StopForDestruction()) {
        ClearQueue();
        m_Queue.Destroy();
    }
}

int CThreadObjectWithQueue::Init(const char* name, int depth, int flags, bool nonBlocking)
{
    (void)flags;
    (void)nonBlocking;
    return m_Queue.Create(name, depth);
}

int CThreadObjectWithQueue::GetQueueHandle() const
{
    return m_Queue.GetHandle();
}

int CThreadObjectWithQueue::GetThreadType()
{
    return THREAD_TYPE_MSG_QUEUE;
}

unsigned long CThreadObjectWithQueue::GetNrOfProcessedMsgs() const
{
    return m_Processed.load();
}

void CThreadObjectWithQueue::ThreadWorkFunction()
{
    norvfw_internal::SetCurrentThreadCounter(&m_Processed);
    BeforeProcessingMsgs();
    while (m_StopFlag.load() == 0) {
        int rc = ReadMsgsFromBlockingQueue();
        if (rc != 0 && rc != -EINTR) {
            TraceFormattedString(TRACE_TOWQUEUE, TRACELEVEL_ERROR, "thread %s: receive failed: %s; ending",
                                 GetThreadName(), strerror(-rc));
            break;
        }
    }
}

int CThreadObjectWithQueue::SendCmd(CNorvMsg* msg)
{
    if (msg == nullptr) {
        return -EINVAL;
    }
    int rc = CNorvMsgQueue::Post(m_Queue.GetHandle(), *msg);
    if (rc != 0) {
        TraceFormattedString(TRACE_TOWQUEUE, TRACELEVEL_WARNING, "queue %s: signal %lu dropped: %s",
                             m_Queue.GetName(), msg->GetSignalName(), strerror(-rc));
        msg->FreeSignal();
    }
    return rc;
}

void CThreadObjectWithQueue::ClearQueue()
{
    CNorvMsg msg;
    while (m_Queue.TryReceive(&msg) == 0) {
        msg.FreeSignal();
    }
}

int CThreadObjectWithQueue::GetNrOfMsgsInQueue()
{
    return m_Queue.Count();
}

void CThreadObjectWithQueue::BeforeProcessingMsgs() {}

int CThreadObjectWithQueue::ReadMsgsFromBlockingQueue()
{
    CNorvMsg msg;
    int rc = m_Queue.Receive(&msg);
    if (rc != 0) {
        return rc;
    }
    ProcessNorvMsg(&msg);
    m_Processed.fetch_add(1);
    return 0;
}

int CThreadObjectWithQueue::ReadMsgsFromNonBlockingQueue()
{
    int count = 0;
    CNorvMsg msg;
    while (m_Queue.TryReceive(&msg) == 0) {
        ProcessNorvMsg(&msg);
        m_Processed.fetch_add(1);
        ++count;
    }
    return count;
}
