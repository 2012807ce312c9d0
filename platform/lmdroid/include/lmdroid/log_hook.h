// Linux stand-in only: no TV build includes this header.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// Called for every line at or above the threshold, after formatting, from the
// logging thread. msg has no trailing line feed added or removed. Calls are
// made one at a time, and none is still running once lmdroid_set_log_hook
// has returned. A line logged from inside the hook skips the hook.
typedef void (*lmdroid_log_hook_t)(int prio, const char* tag, const char* msg, void* ctx);

// Installs a hook (null removes it). With a hook installed, lines still go to
// standard error unless quiet is non-zero.
void lmdroid_set_log_hook(lmdroid_log_hook_t hook, void* ctx, int quiet);

// Lines below prio are dropped. The start value comes from the environment
// variable LUM_LOG_LEVEL (a number 2..8 or one of v, d, i, w, e, f, s);
// without it, ANDROID_LOG_DEBUG.
void lmdroid_set_log_threshold(int prio);
int lmdroid_get_log_threshold(void);

#ifdef __cplusplus
}
#endif
