// Log lines of the service. Every format begins with "[%s, %d] ", filled
// with the function's name and the line number by these macros, so the texts
// stay as they are written at the call.
#pragma once

#include <android/log.h>

#define STORAGE_TAG_SERVICE "Storage@ManagerService"
#define STORAGE_TAG_HUB "Storage@ModuleHub"
#define STORAGE_TAG_HOTPLUG "Storage@HotPlug"

#define SLOG_TAG(prio, tag, fmt, ...) \
    __android_log_print((prio), (tag), fmt, __func__, __LINE__, ##__VA_ARGS__)

#define SLOGD(fmt, ...) SLOG_TAG(ANDROID_LOG_DEBUG, STORAGE_TAG_SERVICE, fmt, ##__VA_ARGS__)
#define SLOGI(fmt, ...) SLOG_TAG(ANDROID_LOG_INFO, STORAGE_TAG_SERVICE, fmt, ##__VA_ARGS__)
#define SLOGW(fmt, ...) SLOG_TAG(ANDROID_LOG_WARN, STORAGE_TAG_SERVICE, fmt, ##__VA_ARGS__)
#define SLOGE(fmt, ...) SLOG_TAG(ANDROID_LOG_ERROR, STORAGE_TAG_SERVICE, fmt, ##__VA_ARGS__)
