// Log lines of the client: tag "lumstoragectl", each line starting with the
// function and line that wrote it.
#pragma once

#include <android/log.h>

#define CTL_LOG(prio, fmt, ...) \
    __android_log_print(ANDROID_LOG_##prio, "lumstoragectl", "[%s, %d] " fmt, __func__, __LINE__, ##__VA_ARGS__)
