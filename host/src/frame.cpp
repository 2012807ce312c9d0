// Byte order of frame headers, written out byte by byte so the result does
// not depend on the host's byte order.
#include "lumproto/frame.h"

namespace lumproto {

namespace {

struct TypeName {
    uint16_t type;
    const char* name;
};

const TypeName kTypeNames[] = {
    {kRequest, "REQUEST"}, {kReply, "REPLY"},   {kSubscribe, "SUBSCRIBE"},
    {kSubscribed, "SUBSCRIBED"}, {kEvent, "EVENT"}, {kDropped, "DROPPED"},
    {kPing, "PING"},       {kPong, "PONG"},     {kError, "ERROR"},
};

void put_u16le(uint16_t value, uint8_t out[2])
{
    out[0] = static_cast<uint8_t>(value);
    out[1] = static_cast<uint8_t>(value >> 8);
}

uint16_t get_u16le(const uint8_t in[2])
{
    return static_cast<uint16_t>(in[0] | (in[1] << 8));
}

}  // namespace

void put_u32le(uint32_t value, uint8_t out[4])
{
    for (int i = 0; i < 4; ++i)
        out[i] = static_cast<uint8_t>(value >> (8 * i));
}

uint32_t get_u32le(const uint8_t in[4])
{
    return static_cast<uint32_t>(in[0]) | (static_cast<uint32_t>(in[1]) << 8) |
           (static_cast<uint32_t>(in[2]) << 16) | (static_cast<uint32_t>(in[3]) << 24);
}

void encode_header(const FrameHeader& header, uint8_t out[kHeaderSize])
{
    put_u16le(header.version, out);
    put_u16le(header.type, out + 2);
    put_u32le(header.length, out + 4);
}

FrameHeader decode_header(const uint8_t in[kHeaderSize])
{
    FrameHeader header;
    header.version = get_u16le(in);
    header.type = get_u16le(in + 2);
    header.length = get_u32le(in + 4);
    return header;
}

const char* frame_type_name(uint16_t type)
{
    for (const TypeName& row : kTypeNames) {
        if (row.type == type)
            return row.name;
    }
    return "UNKNOWN";
}

}  // namespace lumproto
