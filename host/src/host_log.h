// Log lines of the daemon: tag "lumstoraged", each line starting with the
// function and line that wrote it.
#pragma once

#include <android/log.h>

#define HOST_LOG(prio, fmt, ...) \
    __android_log_print(ANDROID_LOG_##prio, "lumstoraged", "[%s, %d] " fmt, __func__, __LINE__, ##__VA_ARGS__)
