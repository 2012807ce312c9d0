#include "lumctl/bench_decoders.h"

namespace lumctl {

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
