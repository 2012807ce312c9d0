// The hot-plug watcher: turns kernel device events into plug-in and plug-out
// signals for the service thread.
#pragma once

#include <norvfw/Observable.h>
#include <norvfw/ThreadObject.h>

class CHotPlug : public CThreadObject, public CObservableCallbackQueue {
public:
    CHotPlug();
    ~CHotPlug() override;
    void ThreadWorkFunction() override;
};
