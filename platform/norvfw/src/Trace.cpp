// Trace output: one line per call, written with a single write(2) so that
// lines of several threads never mix. Levels and switches may change while
// other threads trace (the debug shell's "trace" command), so they are read
// and written atomically.
#include "norvfw/Trace.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>
#include <unistd.h>

#include "internal.h"

// The application's names of the trace units, if it exports them: an array of
// names and a pointer to the array's size in bytes. Weak, so that programs
// without them still link and load; their addresses are null then.
extern const char* traceUnitsStringArray[] __attribute__((weak));
extern const int* traceUnitsStringArraySizePtr __attribute__((weak));

CNorvTrace norvTrace;

namespace {

const size_t kLineMax = 1024;
const unsigned int kUnits = 128;

struct LevelName {
    const char* name;
    int level;
};

const LevelName kLevelNames[] = {
    {"all", TRACELEVEL_ALL},         {"debug", TRACELEVEL_DEBUG}, {"info", TRACELEVEL_INFO},
    {"warning", TRACELEVEL_WARNING}, {"error", TRACELEVEL_ERROR}, {"none", TRACELEVEL_NONE},
};

void WriteWhole(const char* buf, size_t len)
{
    while (len > 0) {
        ssize_t n = write(STDOUT_FILENO, buf, len);
        if (n < 0) {
            if (errno == EINTR) {
                continue;  // the wake signal of a stopping thread
            }
            return;
        }
        buf += n;
        len -= static_cast<size_t>(n);
    }
}

// How much of a snprintf result landed in a buffer of room bytes.
size_t Landed(int written, size_t room)
{
    if (written < 0 || room == 0) {
        return 0;
    }
    return static_cast<size_t>(written) < room ? static_cast<size_t>(written) : room - 1;
}

// Formats "[trace label] text" into one line ending in exactly one newline
// and writes it at once.
void WriteTraceLine(const char* label, const char* fmt, va_list ap)
{
    char line[kLineMax];
    size_t pos;
    if (norvTrace.IsPrintingTimestamps()) {
        pos = Landed(snprintf(line, sizeof(line), "[%s %.3f] %s: ", norvTrace.GetName(),
                              norvfw_internal::MonotonicMs() / 1000.0, label),
                     sizeof(line));
    } else {
        pos = Landed(snprintf(line, sizeof(line), "[%s] %s: ", norvTrace.GetName(), label), sizeof(line));
    }
    pos += Landed(vsnprintf(line + pos, sizeof(line) - pos, fmt, ap), sizeof(line) - pos);
    if (pos > sizeof(line) - 2) {
        pos = sizeof(line) - 2;
    }
    while (pos > 0 && line[pos - 1] == '\n') {
        --pos;
    }
    line[pos++] = '\n';
    WriteWhole(line, pos);
}

void WriteTraceLineV(const char* label, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void WriteTraceLineV(const char* label, const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    WriteTraceLine(label, fmt, ap);
    va_end(ap);
}

bool ParseLong(const char* text, long low, long high, long* value)
{
    if (text == nullptr || text[0] == '\0') {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    long v = strtol(text, &end, 10);
    if (errno != 0 || *end != '\0' || v < low || v > high) {
        return false;
    }
    *value = v;
    return true;
}

// Number of names in the application's table; 0 without one.
unsigned int AppUnitCount()
{
    if (traceUnitsStringArray == nullptr || &traceUnitsStringArraySizePtr == nullptr ||
        traceUnitsStringArraySizePtr == nullptr || *traceUnitsStringArraySizePtr <= 0) {
        return 0;
    }
    return static_cast<unsigned int>(static_cast<size_t>(*traceUnitsStringArraySizePtr) / sizeof(char*));
}

}  // namespace

namespace norvfw_internal {

const char* TraceUnitName(unsigned int unit, char* buf, size_t len)
{
    if (unit < AppUnitCount() && traceUnitsStringArray[unit] != nullptr) {
        snprintf(buf, len, "%s", traceUnitsStringArray[unit]);
    } else {
        snprintf(buf, len, "%u", unit);
    }
    return buf;
}

int ParseTraceLevel(const char* text)
{
    for (const LevelName& l : kLevelNames) {
        if (text != nullptr && strcasecmp(text, l.name) == 0) {
            return l.level;
        }
    }
    long v = 0;
    return ParseLong(text, TRACELEVEL_ALL, TRACELEVEL_NONE, &v) ? static_cast<int>(v) : -1;
}

int ParseTraceUnit(const char* text)
{
    long v = 0;
    if (ParseLong(text, 0, kUnits - 1, &v)) {
        return static_cast<int>(v);
    }
    unsigned int count = AppUnitCount();
    for (unsigned int i = 0; text != nullptr && i < count; ++i) {
        if (traceUnitsStringArray[i] != nullptr && strcasecmp(text, traceUnitsStringArray[i]) == 0) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

}  // namespace norvfw_internal

CNorvTrace::CNorvTrace() : m_ToScreen(false), m_DirectPrint(false), m_Timestamp(false)
{
    snprintf(m_Name, sizeof(m_Name), "%s", "norv");
    for (int& level : m_Levels) {
        level = TRACELEVEL_ERROR;
    }
}

int CNorvTrace::Init(const char* name, int bufferLines)
{
    (void)bufferLines;  // lines go out at once; nothing is buffered
    snprintf(m_Name, sizeof(m_Name), "%s", name != nullptr ? name : "norv");
    return 0;
}

void CNorvTrace::StartTracingToScreen()
{
    __atomic_store_n(&m_ToScreen, true, __ATOMIC_RELAXED);
}

void CNorvTrace::StopTracingToScreen()
{
    __atomic_store_n(&m_ToScreen, false, __ATOMIC_RELAXED);
}

void CNorvTrace::PrintTimestamp()
{
    __atomic_store_n(&m_Timestamp, true, __ATOMIC_RELAXED);
}

void CNorvTrace::SetTraceModeDirectPrint(int on)
{
    __atomic_store_n(&m_DirectPrint, on != 0, __ATOMIC_RELAXED);
}

void CNorvTrace::SetTraceOnAll(T_TraceLevel level)
{
    for (int& l : m_Levels) {
        __atomic_store_n(&l, static_cast<int>(level), __ATOMIC_RELAXED);
    }
}

void CNorvTrace::SetTraceOn(unsigned int unit, T_TraceLevel level)
{
    if (unit < kUnits) {
        __atomic_store_n(&m_Levels[unit], static_cast<int>(level), __ATOMIC_RELAXED);
    }
}

T_TraceLevel CNorvTrace::GetTraceLevel(unsigned int unit) const
{
    if (unit >= kUnits) {
        return TRACELEVEL_NONE;
    }
    return static_cast<T_TraceLevel>(__atomic_load_n(&m_Levels[unit], __ATOMIC_RELAXED));
}

bool CNorvTrace::IsTracingToScreen() const
{
    return __atomic_load_n(&m_ToScreen, __ATOMIC_RELAXED);
}

bool CNorvTrace::IsPrintingTimestamps() const
{
    return __atomic_load_n(&m_Timestamp, __ATOMIC_RELAXED);
}

const char* CNorvTrace::GetName() const
{
    return m_Name;
}

// A unit set to TRACELEVEL_NONE prints nothing, whatever the line's level.
void TraceFormattedString(unsigned int unit, T_TraceLevel level, const char* fmt, ...)
{
    if (fmt == nullptr || !norvTrace.IsTracingToScreen()) {
        return;
    }
    T_TraceLevel unitLevel = norvTrace.GetTraceLevel(unit);
    if (unitLevel == TRACELEVEL_NONE || level < unitLevel) {
        return;
    }
    char unitName[48];
    norvfw_internal::TraceUnitName(unit, unitName, sizeof(unitName));
    va_list ap;
    va_start(ap, fmt);
    WriteTraceLine(unitName, fmt, ap);
    va_end(ap);
}

void FormattedStringToStdout(const char* fmt, ...)
{
    if (fmt == nullptr) {
        return;
    }
    char text[kLineMax];
    va_list ap;
    va_start(ap, fmt);
    size_t len = Landed(vsnprintf(text, sizeof(text), fmt, ap), sizeof(text));
    va_end(ap);
    WriteWhole(text, len);
}

CTimeTrace::CTimeTrace(int id, int maxPoints) : m_Id(id), m_MaxPoints(maxPoints), m_Count(0), m_FirstMs(0) {}

CTimeTrace::~CTimeTrace() = default;

// Points past maxPoints are neither counted nor printed.
void CTimeTrace::TTPoint(int nr, const char* text)
{
    if (m_Count >= m_MaxPoints) {
        return;
    }
    double now = norvfw_internal::MonotonicMs();
    if (m_Count == 0) {
        m_FirstMs = now;
    }
    ++m_Count;
    if (norvTrace.IsTracingToScreen()) {
        WriteTraceLineV("TT", "TT[%d] point %d: %s +%.3f ms", m_Id, nr, text != nullptr ? text : "",
                        now - m_FirstMs);
    }
}

int CTimeTrace::GetNrOfPoints() const
{
    return m_Count;
}

void NorvAppInit()
{
    norvfw_internal::InstallWakeSignal();
}
