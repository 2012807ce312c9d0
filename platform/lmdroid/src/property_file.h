// The "persist.*" properties on disk: one file per key, holding exactly the
// value's bytes, in the directory named by LMDROID_PROPERTY_DIR.
#pragma once

namespace lmdroid {

// Copies the stored value of key into value (PROPERTY_VALUE_MAX bytes, NUL
// terminated); returns its length, or -1 when the key has no readable file.
int persist_read(const char* key, char* value);

// Replaces the value of key so that a crash at any moment leaves the old or
// the new value on disk; returns 0 once the new value is durable, else -1.
int persist_write(const char* key, const char* value);

}  // namespace lmdroid
