// Default socket path shared by lumstoraged and lumstoragectl.
#include "lumproto/socket_path.h"

#include <cstdlib>

namespace lumproto {

const char* default_socket_path()
{
    const char* env = getenv(kSocketEnv);
    return (env != nullptr && env[0] != '\0') ? env : kDefaultSocketPath;
}

}  // namespace lumproto
