// Frames of the lumstoraged client protocol: an 8-byte little-endian header
// {uint16 version, uint16 type, uint32 payload length}, then the payload.
// docs/protocol.md describes each type.
#pragma once

#include <cstddef>
#include <cstdint>

namespace lumproto {

constexpr uint16_t kVersion = 1;
constexpr size_t kHeaderSize = 8;
// Largest payload either side accepts; commands may carry raw file bytes.
constexpr uint32_t kMaxPayload = 16u * 1024u * 1024u;
// Longest ERROR text a peer sends; longer texts are cut.
constexpr size_t kMaxErrorText = 1024;

enum FrameType : uint16_t {
    kRequest = 1,     // client: request Parcel bytes
    kReply = 2,       // server: int32 invoke result, then reply Parcel bytes
    kSubscribe = 3,   // client: empty
    kSubscribed = 4,  // server: empty; events follow from here on
    kEvent = 5,       // server: int32 event id, then the event's bytes
    kDropped = 6,     // server: uint32 number of events lost just before the next one
    kPing = 7,        // client: up to kMaxPingPayload bytes
    kPong = 8,        // server: the PING payload
    kError = 9,       // server: UTF-8 text; the server closes the connection after it
};

constexpr uint32_t kMaxPingPayload = 256;

struct FrameHeader {
    uint16_t version;
    uint16_t type;
    uint32_t length;
};

void encode_header(const FrameHeader& header, uint8_t out[kHeaderSize]);
FrameHeader decode_header(const uint8_t in[kHeaderSize]);

void put_u32le(uint32_t value, uint8_t out[4]);
uint32_t get_u32le(const uint8_t in[4]);

// Name of a frame type ("REQUEST"), or "UNKNOWN".
const char* frame_type_name(uint16_t type);

}  // namespace lumproto
