#include "fake_service.h"

#include "fake_devices.h"
#include "fake_listing.h"
#include "fake_pvr.h"

#include <cstdio>
#include <cstring>
#include <initializer_list>

#include <StorageEvents.h>
#include <StorageModuleCmd.h>
#include <lumemclient/EMALClient.h>

namespace fakesvc {

std::atomic<int> g_invokes{0};

namespace {

int echo(const android::Parcel& request, android::Parcel* reply)
{
    size_t left = request.dataAvail();
    if (left > 0)
        reply->write(request.data() + request.dataPosition(), left);
    return 0;
}

int emit(const android::Parcel& request, android::Parcel*)
{
    int32_t id = request.readInt32();
    int32_t count = request.readInt32();
    for (int32_t seq = 0; seq < count; ++seq)
        EMAL_Notify(id, &seq, sizeof(seq));
    return 0;
}

const Row kRows[] = {
    {kEcho, echo},
    {kEmit, emit},
};

}  // namespace

int invoke(const android::Parcel& request, android::Parcel* reply)
{
    g_invokes.fetch_add(1);
    int32_t word = request.readInt32();
    for (const Row& row : kRows) {
        if (row.word == word)
            return row.run(request, reply);
    }
    for (const Row* (*table)(size_t*) : {device_rows, pvr_rows, listing_rows}) {
        size_t count = 0;
        const Row* rows = table(&count);
        for (size_t i = 0; i < count; ++i) {
            if (rows[i].word == word)
                return rows[i].run(request, reply);
        }
    }
    return -1;
}

}  // namespace fakesvc
