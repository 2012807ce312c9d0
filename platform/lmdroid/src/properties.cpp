// System properties: "persist.*" keys on disk (property_file.cpp), all other
// keys in a map private to the process.

#include <cutils/properties.h>

#include "property_file.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

namespace {

constexpr size_t kKeyMax = 255;  // also keeps a persistent key a valid file name
constexpr char kPersistPrefix[] = "persist.";

struct Store {
    std::mutex mutex;
    std::map<std::string, std::string> values;
};

// Never destroyed: threads may still read properties while the process exits.
Store& store() {
    static Store* s = new Store;
    return *s;
}

bool valid_key(const char* key) {
    if (key == nullptr) return false;
    size_t len = 0;
    for (; key[len] != '\0'; ++len) {
        char c = key[len];
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                  c == '.' || c == '_' || c == '-';
        if (!ok || len >= kKeyMax) return false;
    }
    return len > 0;
}

bool is_persist(const char* key) {
    return strncmp(key, kPersistPrefix, sizeof kPersistPrefix - 1) == 0;
}

// The stored value of key, or -1 when there is none.
int lookup(const char* key, char* value) {
    if (!valid_key(key)) return -1;
    if (is_persist(key)) return lmdroid::persist_read(key, value);
    Store& s = store();
    std::lock_guard<std::mutex> lock(s.mutex);
    auto it = s.values.find(key);
    if (it == s.values.end()) return -1;
    // property_set keeps values below PROPERTY_VALUE_MAX bytes.
    memcpy(value, it->second.c_str(), it->second.size() + 1);
    return static_cast<int>(it->second.size());
}

// Decimal with an optional sign; the whole string must be the number.
bool parse_int64(const char* s, int64_t* out) {
    if (!((*s >= '0' && *s <= '9') || *s == '-' || *s == '+')) return false;
    char* end = nullptr;
    errno = 0;
    long long v = strtoll(s, &end, 10);
    if (errno != 0 || end == s || *end != '\0') return false;
    *out = v;
    return true;
}

}  // namespace

extern "C" {

int property_get(const char* key, char* value, const char* default_value) {
    int len = lookup(key, value);
    if (len > 0) return len;
    // Like Android, an empty value reads as unset.
    value[0] = '\0';
    if (default_value == nullptr) return 0;
    size_t n = strnlen(default_value, PROPERTY_VALUE_MAX - 1);
    memcpy(value, default_value, n);
    value[n] = '\0';
    return static_cast<int>(n);
}

int8_t property_get_bool(const char* key, int8_t default_value) {
    char buf[PROPERTY_VALUE_MAX];
    if (property_get(key, buf, nullptr) == 0) return default_value;
    static const char* const kTrue[] = {"1", "y", "yes", "on", "true"};
    static const char* const kFalse[] = {"0", "n", "no", "off", "false"};
    for (const char* t : kTrue)
        if (strcmp(buf, t) == 0) return 1;
    for (const char* f : kFalse)
        if (strcmp(buf, f) == 0) return 0;
    return default_value;
}

int64_t property_get_int64(const char* key, int64_t default_value) {
    char buf[PROPERTY_VALUE_MAX];
    int64_t v;
    if (property_get(key, buf, nullptr) == 0 || !parse_int64(buf, &v)) return default_value;
    return v;
}

int32_t property_get_int32(const char* key, int32_t default_value) {
    int64_t v = property_get_int64(key, int64_t(INT32_MAX) + 1);
    if (v < INT32_MIN || v > INT32_MAX) return default_value;
    return static_cast<int32_t>(v);
}

int property_set(const char* key, const char* value) {
    if (!valid_key(key) || value == nullptr || strlen(value) >= PROPERTY_VALUE_MAX) return -1;
    if (is_persist(key)) return lmdroid::persist_write(key, value);
    Store& s = store();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.values[key] = value;
    return 0;
}

}  // extern "C"
