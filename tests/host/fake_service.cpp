#include "fake_service.h"

#include <lumemclient/EMALClient.h>

namespace fakesvc {
std::atomic<int> g_invokes{0};

int invoke(const android::Parcel& request, android::Parcel* reply)
{
    g_invokes.fetch_add(1);
    int32_t word = request.readInt32();
    if (word == kEcho) {
        if (request.dataAvail() > 0)
            reply->write(request.data() + request.dataPosition(), request.dataAvail());
        return 0;
    }
    if (word == kEmit) {
        int32_t id = request.readInt32();
        int32_t count = request.readInt32();
        for (int32_t seq = 0; seq < count; ++seq)
            EMAL_Notify(id, &seq, sizeof(seq));
        return 0;
    }
    return -1;
}

}  // namespace fakesvc
