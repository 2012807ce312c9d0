// Helpers shared by the framework's source files; not part of the interface.
#pragma once

#include <atomic>
#include <cstddef>

namespace norvfw_internal {

// The signal that interrupts a framework thread's blocking system call when
// the thread is asked to stop. Its handler does nothing and is installed
// without SA_RESTART, so the call returns EINTR and the thread sees its flag.
int WakeSignal();
// Installs the handler once per process; safe to call from any thread.
void InstallWakeSignal();

// Lets the "threads" command show the calling framework thread's message
// count from counter, without calling into an object that may be in its
// destructor.
void SetCurrentThreadCounter(const std::atomic<unsigned long>* counter);

// Writes the unit's name from the application's table, or its number when
// the application has no table, into buf. Returns buf.
const char* TraceUnitName(unsigned int unit, char* buf, size_t len);
// Parses a trace level given as a number or as all/debug/info/warning/error/
// none. Returns -1 when text is neither.
int ParseTraceLevel(const char* text);
// Parses a trace unit given as a number or as a name of the application's
// table. Returns -1 when text is neither.
int ParseTraceUnit(const char* text);

// Milliseconds of the monotonic clock.
double MonotonicMs();

// Messages travel through the kernel, which ThreadSanitizer cannot see; these
// tell it that what the sender wrote before Post is visible to the receiver.
// They compile to nothing in other builds.
void QueueSyncRelease(int handle);
void QueueSyncAcquire(int handle);

}  // namespace norvfw_internal
