// Byte builders of the fake service's canned events: big-endian numbers,
// host-order counts, C strings and structure images, assembled by hand from
// the event layouts.
#pragma once

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <vector>

#include <lumemclient/EMALClient.h>

namespace fakesvc {

using Bytes = std::vector<uint8_t>;

inline void put_be16(Bytes* out, uint32_t v)
{
    out->push_back(static_cast<uint8_t>(v >> 8));
    out->push_back(static_cast<uint8_t>(v));
}

inline void put_be32(Bytes* out, uint32_t v)
{
    put_be16(out, v >> 16);
    put_be16(out, v & 0xffff);
}

inline Bytes join(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

// The characters and the NUL.
inline Bytes c_string(const char* text)
{
    return Bytes(text, text + strlen(text) + 1);
}

// The characters without a NUL.
inline Bytes text_bytes(const char* text)
{
    return Bytes(text, text + strlen(text));
}

inline Bytes host_count(int32_t count)
{
    Bytes out(sizeof(count));
    memcpy(out.data(), &count, sizeof(count));
    return out;
}

template <typename T>
Bytes image_of(const T& record)
{
    const uint8_t* p = reinterpret_cast<const uint8_t*>(&record);
    return Bytes(p, p + sizeof(record));
}

inline void notify(int32_t id, const Bytes& data)
{
    EMAL_Notify(id, data.empty() ? nullptr : const_cast<uint8_t*>(data.data()), static_cast<int>(data.size()));
}

}  // namespace fakesvc
