// An observable that delivers notifications into the message queues of its
// observers.
#pragma once

#include <mutex>
#include <vector>

#include "norvfw/NorvMsg.h"

class CObservableCallbackQueue {
public:
    CObservableCallbackQueue();
    virtual ~CObservableCallbackQueue();

    // Adds the queue with that handle as observer. param1 and param2 travel
    // with the registration; filter 0 takes every signal, any other value only
    // that signal. 0 on success, -1 if already registered.
    virtual int RegisterCallbackQueue(int queueHandle, long param1, long param2, unsigned long filter);
    virtual int UnregisterCallbackQueue(int queueHandle, unsigned long filter);
    virtual void DeleteObserversWithCallbackQueue();
    virtual int CountObserversWithCallbackQueue(unsigned long filter);
    virtual bool AlreadyRegisteredWithCallbackQueue(int queueHandle, unsigned long filter);
    // Posts a copy of msg into every observer queue whose filter takes it;
    // msg stays the caller's. Returns how many queues took it.
    virtual int NotifyObserversWithCallbackQueue(CNorvMsg* msg);

private:
    struct Observer {
        int handle;
        long param1;
        long param2;
        unsigned long filter;
    };
    std::mutex m_Lock;
    std::vector<Observer> m_Observers;
};
