// Big-endian numbers in the payloads the service assembles byte by byte
// (listing blocks, sizes, the format reply, the benchmark result).
#pragma once

#include <cstdint>

inline void put_be16(unsigned char* p, uint16_t v)
{
    p[0] = static_cast<unsigned char>(v >> 8);
    p[1] = static_cast<unsigned char>(v);
}

inline void put_be24(unsigned char* p, uint32_t v)
{
    p[0] = static_cast<unsigned char>(v >> 16);
    p[1] = static_cast<unsigned char>(v >> 8);
    p[2] = static_cast<unsigned char>(v);
}

inline void put_be32(unsigned char* p, uint32_t v)
{
    p[0] = static_cast<unsigned char>(v >> 24);
    p[1] = static_cast<unsigned char>(v >> 16);
    p[2] = static_cast<unsigned char>(v >> 8);
    p[3] = static_cast<unsigned char>(v);
}

inline unsigned get_be16(const unsigned char* p)
{
    return (static_cast<unsigned>(p[0]) << 8) | p[1];
}

inline uint32_t get_be32(const unsigned char* p)
{
    return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
           (static_cast<uint32_t>(p[2]) << 8) | p[3];
}
