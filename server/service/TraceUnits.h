// The trace unit table that the framework reads from the application.
#pragma once

#define TRACE_UNIT_COUNT 72

extern const char* traceUnitsStringArray[TRACE_UNIT_COUNT];
// Byte size of the table: the framework divides it by the size of a pointer.
extern const int traceUnitsStringArraySize;
extern const int* traceUnitsStringArraySizePtr;
