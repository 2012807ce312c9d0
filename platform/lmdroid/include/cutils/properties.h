// Android system properties. In the Linux stand-in, "persist.*" properties
// live one file each in the directory named by LMDROID_PROPERTY_DIR
// (default /var/lib/lmdroid/property), written atomically so that they
// survive a restart or a crash; other properties live in the process.
#pragma once

#include <stdint.h>

#define PROPERTY_KEY_MAX 32
#define PROPERTY_VALUE_MAX 92

#ifdef __cplusplus
extern "C" {
#endif

// Copies the value (or default_value, or "") into value, which must hold
// PROPERTY_VALUE_MAX bytes; returns the length copied.
int property_get(const char* key, char* value, const char* default_value);
// "1", "y", "yes", "on", "true" are true; "0", "n", "no", "off", "false"
// false; anything else gives default_value.
int8_t property_get_bool(const char* key, int8_t default_value);
int64_t property_get_int64(const char* key, int64_t default_value);
int32_t property_get_int32(const char* key, int32_t default_value);
// 0 on success, negative on failure (key too long, value too long, a
// persistent write that did not reach the disk).
int property_set(const char* key, const char* value);

#ifdef __cplusplus
}
#endif
