// The command table of the hub: one row per command code that the service
// serves. A code without a row is not handled.
#pragma once

#include <binder/Parcel.h>
#include <norvfw/ThreadObject.h>

#include "StorageManagerAction.h"
#include "StorageModuleCmd.h"  // the codes, from include/

typedef enum {
    CMD_ROAD_POST,  // posted as a signal; the reply says whether it was queued
    CMD_ROAD_CALL,  // answered on the caller's thread by the row's function
} ECmdRoad;

// The most raw bytes a 't' field takes.
#define CMD_RAW_TAIL_MAX 1024

// Posted rows without a record: the signal travels alone.
#define CMD_POST_NO_PAYLOAD 0x1u

typedef void (*cmd_call_t)(const android::Parcel& request, android::Parcel* reply);

typedef struct {
    int code;
    ECmdRoad road;
    // CMD_ROAD_POST: the signal, and where each request field goes, one
    // letter per field in request order:
    //   '1' cstring into buf1, '2' cstring into buf2, 'i' int32 into intValue1,
    //   'b' bool into boolValue1, 'w' int64 whose low 16 bits go into
    //   ushortValue1, 'c' char into buf1[0], 'f' an optional int32 whose low
    //   byte goes behind buf1's text (a listing's flags; intValue1 then
    //   counts the text, its terminator and the byte that is there), 't'
    //   optional raw bytes behind the int32, as many as it says (the whole
    //   request of a copy; see post_cmd_row).
    unsigned long signal;
    const char* fields;
    unsigned int flags;
    // Optional debug line, given the first text and its length.
    const char* logFormat;
    // CMD_ROAD_CALL
    cmd_call_t call;
} SCmdRow;

const SCmdRow* find_cmd_row(int code);

// Reads the row's fields into the zeroed record and posts its signal into
// target's queue (the service's, outside tests). A row with 't' whose raw
// bytes are there posts a fresh block instead: the record followed by the
// bytes (message size = record + bytes, intValue1 = their count, buf1 = the
// first text cut to 99 bytes); the bytes must begin with the first text and
// its NUL and count at most CMD_RAW_TAIL_MAX. Without them intValue1 is the
// first text's length + 1. record then stays with the caller (*bFree true).
// Returns true if the signal is in the queue. *bFree turns false once the
// record travels with the message; from then on the queue owns it, also when
// posting fails. record may be null (no memory): nothing is posted then.
bool post_cmd_row(const SCmdRow& row, const android::Parcel& request,
                  StorageManagerAction_t* record, bool* bFree, CThreadObjectWithQueue& target);
