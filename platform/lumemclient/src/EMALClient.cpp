// Event manager client: every event goes to the one sink the hosting process
// installed. A shared lock lets senders on many threads run the sink at once,
// while EMAL_SetSink waits until no call into the old sink is running.
#include "lumemclient/EMALClient.h"
#include "lumemclient/EMALSink.h"

#include <mutex>
#include <shared_mutex>

namespace {
std::shared_mutex g_sinkLock;
EMAL_Sink g_sink = nullptr;
void* g_sinkCtx = nullptr;
}  // namespace

extern "C" int EMAL_Notify(int event, void* data, int len)
{
    std::shared_lock<std::shared_mutex> hold(g_sinkLock);
    if (g_sink == nullptr)
        return -1;
    if (len < 0 || (len > 0 && data == nullptr))
        len = 0;
    g_sink(event, data, len, g_sinkCtx);
    return 0;
}

extern "C" void EMAL_SetSink(EMAL_Sink sink, void* ctx)
{
    std::unique_lock<std::shared_mutex> hold(g_sinkLock);
    g_sink = sink;
    g_sinkCtx = ctx;
}
