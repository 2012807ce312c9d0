// Linux stand-in only: the hosting process installs the receiver of events.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// Receives each event on the thread that called EMAL_Notify. data is valid
// only during the call.
typedef void (*EMAL_Sink)(int event, const void* data, int len, void* ctx);

// Installs (or, with null, removes) the sink. Once this returns, no call to
// the previous sink is running or will start.
void EMAL_SetSink(EMAL_Sink sink, void* ctx);

#ifdef __cplusplus
}
#endif
