// CObservableCallbackQueue: notifications go to observers as messages posted
// into their queues. A notification carries no payload ownership: every
// observer gets a copy of the record, so observers are used with signals that
// have no payload.
#include "norvfw/Observable.h"

#include "norvfw/NorvMsgQueue.h"
#include "norvfw/Trace.h"

CObservableCallbackQueue::CObservableCallbackQueue() = default;

CObservableCallbackQueue::~CObservableCallbackQueue() = default;

int CObservableCallbackQueue::RegisterCallbackQueue(int queueHandle, long param1, long param2,
                                                    unsigned long filter)
{
    std::lock_guard<std::mutex> guard(m_Lock);
    for (const Observer& o : m_Observers) {
        if (o.handle == queueHandle && o.filter == filter) {
            return -1;
        }
    }
    m_Observers.push_back(Observer{queueHandle, param1, param2, filter});
    return 0;
}

int CObservableCallbackQueue::UnregisterCallbackQueue(int queueHandle, unsigned long filter)
{
    std::lock_guard<std::mutex> guard(m_Lock);
    for (size_t i = 0; i < m_Observers.size(); ++i) {
        if (m_Observers[i].handle == queueHandle && m_Observers[i].filter == filter) {
            m_Observers.erase(m_Observers.begin() + static_cast<long>(i));
            return 0;
        }
    }
    return -1;
}

void CObservableCallbackQueue::DeleteObserversWithCallbackQueue()
{
    std::lock_guard<std::mutex> guard(m_Lock);
    m_Observers.clear();
}

// filter 0 counts every observer; any other value counts the observers that
// would receive that signal.
int CObservableCallbackQueue::CountObserversWithCallbackQueue(unsigned long filter)
{
    std::lock_guard<std::mutex> guard(m_Lock);
    int count = 0;
    for (const Observer& o : m_Observers) {
        if (filter == 0 || o.filter == 0 || o.filter == filter) {
            ++count;
        }
    }
    return count;
}

bool CObservableCallbackQueue::AlreadyRegisteredWithCallbackQueue(int queueHandle, unsigned long filter)
{
    std::lock_guard<std::mutex> guard(m_Lock);
    for (const Observer& o : m_Observers) {
        if (o.handle == queueHandle && o.filter == filter) {
            return true;
        }
    }
    return false;
}

int CObservableCallbackQueue::NotifyObserversWithCallbackQueue(CNorvMsg* msg)
{
    if (msg == nullptr) {
        return 0;
    }
    std::lock_guard<std::mutex> guard(m_Lock);
    int taken = 0;
    for (const Observer& o : m_Observers) {
        if (o.filter != 0 && o.filter != msg->GetSignalName()) {
            continue;
        }
        // Post never waits, so holding the lock here cannot stall others.
        int rc = CNorvMsgQueue::Post(o.handle, *msg);
        if (rc == 0) {
            ++taken;
        } else {
            TraceFormattedString(TRACE_OBSERVE, TRACELEVEL_WARNING, "observer queue %d missed signal %lu (%d)",
                                 o.handle, msg->GetSignalName(), rc);
        }
    }
    return taken;
}
