#include "lumctl/bench_decoders.h"

namespace lumctl {

namespace {

uint32_t be32(const uint8_t* p)
{
    return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 | static_cast<uint32_t>(p[2]) << 8 |
           p[3];
}

}  // namespace

size_t decode_benchmark(const uint8_t* data, size_t len, Decoded* out)
{
    if (len < 10)
        return 0;
    add_uint(out, "status", data[0]);
    add_uint(out, "progress", data[1]);
    add_uint(out, "speed", be32(data + 2));
    add_uint(out, "processes", be32(data + 6));
    return 10;
}

}  // namespace lumctl
