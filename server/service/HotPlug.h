// The hot-plug watcher: turns kernel device events into plug-in and plug-out
// signals for the service thread. It keeps no device state: the service finds
// out by itself what came and what went.
//
// A run looks at the devices as they are when it starts, so every event
// needs one run of its kind that starts after it, and no more: an event that
// comes while a run of its kind still waits in the queue posts nothing. An
// event whose signal the queue refuses (full) is posted again every
// HOTPLUG_RETRY_MS until the queue takes it. A burst of events thus leaves at
// most one plug-in and one plug-out waiting, and none is lost.
#pragma once

#include <atomic>

#include <norvfw/Observable.h>
#include <norvfw/ThreadObject.h>

#define HOTPLUG_RECV_BUF_SIZE 1024
#define HOTPLUG_PROC_DEV_FILE "/tmp/mw_proc_dev"
#define HOTPLUG_RETRY_MS 100

class CHotPlug : public CThreadObject, public CObservableCallbackQueue {
public:
    CHotPlug();
    ~CHotPlug() override;
    void ThreadWorkFunction() override;
    // The service thread calls this when it takes a plug signal, before the
    // run looks at any device: an event from then on needs a run of its own.
    void Taken(unsigned long signal);

private:
    struct SPending {
        unsigned long signal;
        std::atomic<bool> queued;  // a signal waits in the queue, not taken yet
        bool owed;                 // an event that no queued signal covers (watcher only)
        bool refused;              // the queue refused the last post (watcher only)
    };
    SPending* Find(unsigned long signal);
    // An event of this kind came: it owes a run unless one waits already.
    void Owe(unsigned long signal);
    // Posts what is owed; true when nothing is owed any more.
    bool PostOwed();

    SPending m_Pending[2];
};

// True when the kernel knows at least one sd block device already.
bool proc_devs_exist();

// The signal a uevent datagram of rc bytes in buf stands for: plug-in for the
// addition of a USB disk, plug-out for its removal, 0 for anything else. buf
// holds rc bytes and a NUL behind them; its NULs become line feeds when the
// header qualifies.
unsigned long classify_uevent(char* buf, int rc);
