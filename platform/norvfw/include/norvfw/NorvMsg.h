// A framework message: a signal id, an optional payload and, for timer
// expiries, the stamp of the timer that sent it. Plain data: copying a message
// copies the payload pointer, not the payload.
#pragma once

class CNorvMsg {
public:
    CNorvMsg();
    explicit CNorvMsg(unsigned long signal);
    // Leaves the payload alone: whoever owns the message calls FreeSignal.
    ~CNorvMsg();

    void SetSignalName(unsigned long signal);
    unsigned long GetSignalName() const;

    // The payload must come from malloc (or calloc): FreeSignal releases it
    // with free.
    void SetSignalPtr(void* ptr, unsigned long size);
    void* GetSignalPtr() const;
    unsigned long GetSignalSize() const;

    // Releases the payload, if there is one, and forgets it, so a second call
    // does nothing.
    void FreeSignal();

    // Set by TimeOutTimer on its expiry messages; read by TimerIsValid.
    void SetTimerStamp(const void* timer, unsigned long generation);
    const void* GetTimerOwner() const;
    unsigned long GetTimerGeneration() const;

private:
    unsigned long m_Signal;
    void* m_Ptr;
    unsigned long m_Size;
    const void* m_TimerOwner;
    unsigned long m_TimerGeneration;
};
