// The packed requests of the file operations, as pure functions on fuzzed bytes: a Copy's request text
// (parse_copy_request, which the copy thread runs on what a client sent), the unpacking of a rename's or
// move's path pair from any bytes, and packing two texts, which must unpack to the same two texts. The bytes
// sit in a block of their own size, so a read past the request shows.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "CopyEngine.h"
#include "PathPair.h"
#include "StorageModuleCmd.h"
#include "fuzz_bytes.h"

namespace {
// The input split at its first NUL: the source, and the destination behind it (none when there is no NUL).
void pack_round_trip(const uint8_t* data, size_t size)
{
    std::string bytes(reinterpret_cast<const char*>(data), size);
    size_t nul = bytes.find('\0');
    bool hasDst = nul != std::string::npos;
    std::string src = bytes.substr(0, nul);
    std::string dst = hasDst ? bytes.substr(nul + 1) : "";
    unsigned char buf[PATH_PAIR_BUF_LEN];
    if (!pack_path_pair(STROAGE_LUM_MOVE, src.c_str(), hasDst ? dst.c_str() : nullptr, size % 2 == 0, buf))
        return;
    const char* s = nullptr;
    const char* d = nullptr;
    if (!unpack_path_pair(buf, sizeof(buf), &s, &d) || strcmp(s, src.c_str()) != 0 || strcmp(d, dst.c_str()) != 0)
        abort();  // a packed pair that does not come back as it went in
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    unsigned char* buf = fuzz_bytes(data, size);
    COPY_THREAD_CONTEXT ctx;
    parse_copy_request(buf, static_cast<int>(size), &ctx);
    const char* src = nullptr;
    const char* dst = nullptr;
    if (unpack_path_pair(buf, static_cast<int>(size), &src, &dst) && strlen(src) + strlen(dst) > size)
        abort();  // the paths must lie inside the request
    free(buf);
    pack_round_trip(data, size);
    return 0;
}
