// Trace output by unit and level, a start-up time trace, and the console.
#pragma once

typedef enum {
    TRACELEVEL_ALL = 0,
    TRACELEVEL_DEBUG = 10,
    TRACELEVEL_INFO = 20,
    TRACELEVEL_WARNING = 30,
    TRACELEVEL_ERROR = 40,
    TRACELEVEL_NONE = 50,
} T_TraceLevel;

// The platform's trace units; names come from the application's exported
// traceUnitsStringArray.
enum {
    TRACE_NONE = 0,
    TRACE_TVSYSTEM = 1,
    TRACE_NORVMSG = 2,
    TRACE_NORVMSGQUEUE = 3,
    TRACE_THREADOBJ = 4,
    TRACE_THREADOBJSI = 5,
    TRACE_TOWQUEUE = 6,
    TRACE_NSHELL = 9,
    TRACE_TOSV = 11,
    TRACE_RPCMSGSRC = 14,
    TRACE_RPCMSGDEST = 15,
    TRACE_OBSERVE = 17,
    TRACE_MAX_NR_OF_GENERAL_TRACE_UNITS = 65,
    TRACE_RTC_APP = 67,
    TRACE_PICTCTRL_EPGSC = 68,
    TRACE_FILESYSTEM_DRV = 70,
    TRACE_MAX_NR_OF_TRACE_UNITS = 71,
};

class CNorvTrace {
public:
    CNorvTrace();
    // Names the trace; bufferLines is the framework's line buffer size.
    int Init(const char* name, int bufferLines);
    void StartTracingToScreen();
    void StopTracingToScreen();
    // From now on every line starts with the monotonic time in seconds.
    void PrintTimestamp();
    void SetTraceModeDirectPrint(int on);
    void SetTraceOnAll(T_TraceLevel level);
    void SetTraceOn(unsigned int unit, T_TraceLevel level);
    T_TraceLevel GetTraceLevel(unsigned int unit) const;
    bool IsTracingToScreen() const;
    bool IsPrintingTimestamps() const;
    const char* GetName() const;

private:
    char m_Name[32];
    int m_Levels[128];
    bool m_ToScreen;
    bool m_DirectPrint;
    bool m_Timestamp;
};

extern CNorvTrace norvTrace;

// Prints through the trace when level reaches the unit's level.
void TraceFormattedString(unsigned int unit, T_TraceLevel level, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));
// Prints to the console (standard output).
void FormattedStringToStdout(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// Numbered time points of a start-up, printed with the time since the first.
class CTimeTrace {
public:
    CTimeTrace(int id, int maxPoints);
    ~CTimeTrace();
    void TTPoint(int nr, const char* text);
    int GetNrOfPoints() const;

private:
    int m_Id;
    int m_MaxPoints;
    int m_Count;
    double m_FirstMs;
};

// Sets the framework up for this process (signal handling of its threads).
void NorvAppInit();
