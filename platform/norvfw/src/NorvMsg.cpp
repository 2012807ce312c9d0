// CNorvMsg: a plain record; only FreeSignal touches the payload.
#include "norvfw/NorvMsg.h"

#include <atomic>
#include <cstdlib>

#include "norvfw/testing.h"

namespace {
std::atomic<unsigned long> g_FreedPayloads{0};
}

unsigned long NorvMsgFreedPayloads()
{
    return g_FreedPayloads.load();
}

CNorvMsg::CNorvMsg()
    : m_Signal(0), m_Ptr(nullptr), m_Size(0), m_TimerOwner(nullptr), m_TimerGeneration(0)
{
}

CNorvMsg::CNorvMsg(unsigned long signal)
    : m_Signal(signal), m_Ptr(nullptr), m_Size(0), m_TimerOwner(nullptr), m_TimerGeneration(0)
{
}

CNorvMsg::~CNorvMsg() = default;

void CNorvMsg::SetSignalName(unsigned long signal)
{
    m_Signal = signal;
}

unsigned long CNorvMsg::GetSignalName() const
{
    return m_Signal;
}

void CNorvMsg::SetSignalPtr(void* ptr, unsigned long size)
{
    m_Ptr = ptr;
    m_Size = size;
}

void* CNorvMsg::GetSignalPtr() const
{
    return m_Ptr;
}

unsigned long CNorvMsg::GetSignalSize() const
{
    return m_Size;
}

void CNorvMsg::FreeSignal()
{
    if (m_Ptr == nullptr) {
        return;
    }
    free(m_Ptr);
    m_Ptr = nullptr;
    m_Size = 0;
    g_FreedPayloads.fetch_add(1);
}

void CNorvMsg::SetTimerStamp(const void* timer, unsigned long generation)
{
    m_TimerOwner = timer;
    m_TimerGeneration = generation;
}

const void* CNorvMsg::GetTimerOwner() const
{
    return m_TimerOwner;
}

unsigned long CNorvMsg::GetTimerGeneration() const
{
    return m_TimerGeneration;
}
