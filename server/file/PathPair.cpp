#include "PathPair.h"

#include <cstring>

#include "CmdCalls.h"
#include "ServiceLog.h"

#define HLOGW(fmt, ...) SLOG_TAG(ANDROID_LOG_WARN, STORAGE_TAG_HUB, fmt, ##__VA_ARGS__)

bool pack_path_pair(int cmd, const char* pSrc, const char* pDst, bool flag,
                    unsigned char (&buf)[PATH_PAIR_BUF_LEN])
{
    memset(buf, 0, sizeof(buf));
    if (pSrc == nullptr || pDst == nullptr) {
        warn_missing_text(cmd);
        return false;
    }
    size_t src = strlen(pSrc);
    size_t dst = strlen(pDst);
    if (src + dst + 3 > sizeof(buf)) {
        HLOGW("[%s, %d] ***W: cmd %d: paths of %zu and %zu bytes do not fit %zu bytes\n", cmd, src, dst,
              sizeof(buf));
        return false;
    }
    buf[0] = flag ? 1 : 0;
    memcpy(buf + 1, pSrc, src);
    memcpy(buf + src + 2, pDst, dst);
    return true;
}

// The paths of a packed request (flag byte, source, destination), each of
// which must end inside the len bytes of buf.
bool unpack_path_pair(const unsigned char* buf, int len, const char** src, const char** dst)
{
    if (buf == nullptr || len < 3)
        return false;
    const char* p = reinterpret_cast<const char*>(buf + 1);
    size_t room = static_cast<size_t>(len) - 1;
    size_t n = strnlen(p, room);
    if (n + 1 >= room)
        return false;
    *src = p;
    p += n + 1;
    room -= n + 1;
    if (strnlen(p, room) >= room)
        return false;
    *dst = p;
    return true;
}
