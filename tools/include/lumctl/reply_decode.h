// Reply Parcels decoded by the reply token of their command row.
#pragma once

#include <cstddef>
#include <cstdint>

#include "lumctl/decoded.h"

namespace lumctl {

// Size of the guide record behind "iG".
constexpr size_t kGuideRecordBytes = 63000;

// Decodes reply bytes by token ("", b, s, l, u, i, "i>s", "i<i", "iG", "R";
// see StorageCmdList.h). A reply shorter than the token wants gives the
// fields that are there, complete = false and the undecoded bytes in rest;
// bytes beyond the token's layout also land in rest. An unknown token (or
// null: no layout known) decodes nothing and leaves every byte in rest.
Decoded decode_reply(const char* token, const uint8_t* data, size_t len);

}  // namespace lumctl
