// The platform's event manager client.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// Hands one event to the event manager. data is the sender's buffer: the
// call has finished with it when it returns. Callable from any thread.
// Returns 0 when the event was handed on, -1 when nobody receives events.
int EMAL_Notify(int event, void* data, int len);

#ifdef __cplusplus
}
#endif
