// A named POSIX message queue that carries CNorvMsg records within one
// process. The queue handle is what timers and observers post to.
#pragma once

#include "norvfw/NorvMsg.h"

class CNorvMsgQueue {
public:
    CNorvMsgQueue();
    ~CNorvMsgQueue();
    CNorvMsgQueue(const CNorvMsgQueue&) = delete;
    CNorvMsgQueue& operator=(const CNorvMsgQueue&) = delete;

    // Creates the queue anew (a stale queue of that name is removed first)
    // with room for depth messages. 0 on success, -errno on failure.
    int Create(const char* name, int depth);
    // Removes the name and closes the queue.
    void Destroy();
    int GetHandle() const;   // -1 when there is no queue
    const char* GetName() const;

    // Copies msg into the queue without waiting. 0 on success; -EAGAIN when
    // the queue is full, other -errno values on failure.
    static int Post(int handle, const CNorvMsg& msg);
    // Waits for the next message. 0 on success, -errno on failure (-EINTR
    // when a thread stop interrupted the wait).
    int Receive(CNorvMsg* msg);
    // Takes a message only if one is there; -EAGAIN when the queue is empty.
    int TryReceive(CNorvMsg* msg);
    int Count() const;       // messages waiting, -1 without a queue

private:
    int m_Handle;
    char m_Name[64];
};

// The debug shell's "queues" command lists every queue that exists.
void InitNorvMsgQueueNshell();
