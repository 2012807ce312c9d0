// The hot-plug watcher: turns kernel device events into plug-in and plug-out
// signals for the service thread. It keeps no device state: the service finds
// out by itself what came and what went.
#pragma once

#include <norvfw/Observable.h>
#include <norvfw/ThreadObject.h>

#define HOTPLUG_RECV_BUF_SIZE 1024
#define HOTPLUG_PROC_DEV_FILE "/tmp/mw_proc_dev"

class CHotPlug : public CThreadObject, public CObservableCallbackQueue {
public:
    CHotPlug();
    ~CHotPlug() override;
    void ThreadWorkFunction() override;
};

// True when the kernel knows at least one sd block device already.
bool proc_devs_exist();

// The signal a uevent datagram of rc bytes in buf stands for: plug-in for the
// addition of a USB disk, plug-out for its removal, 0 for anything else. buf
// holds rc bytes and a NUL behind them; its NULs become line feeds when the
// header qualifies.
unsigned long classify_uevent(char* buf, int rc);
