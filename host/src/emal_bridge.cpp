// EMAL_Notify → host server. The sink's context is the server; EMAL_SetSink
// waits for running sinks, so swapping the context is safe at any time.
#include <lumemclient/EMALSink.h>

#include "lumhost/server.h"

namespace lumhost {

namespace {

void emal_sink(int event, const void* data, int len, void* ctx)
{
    if (ctx == nullptr || len < 0)
        return;
    host_server_publish(static_cast<HostServer*>(ctx), event, data, static_cast<size_t>(len));
}

}  // namespace

void host_emal_attach(HostServer* server)
{
    EMAL_SetSink(emal_sink, server);
}

void host_emal_detach()
{
    EMAL_SetSink(nullptr, nullptr);
}

}  // namespace lumhost
