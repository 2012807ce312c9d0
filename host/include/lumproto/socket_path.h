// Where the daemon listens unless told otherwise.
#pragma once

namespace lumproto {

constexpr const char* kDefaultSocketPath = "/run/lumstorage/lumstoraged.sock";
constexpr const char* kSocketEnv = "LUMSTORAGED_SOCKET";

// $LUMSTORAGED_SOCKET when set and not empty, else kDefaultSocketPath.
const char* default_socket_path();

}  // namespace lumproto
