// A stand-in for the storage service's hub, for tests and the fake daemon.
#pragma once

#include <atomic>
#include <cstdint>

#include <binder/Parcel.h>

namespace fakesvc {

// Command words the fake serves besides real ones.
constexpr int32_t kEcho = 1;  // reply = the request bytes behind the word
constexpr int32_t kEmit = 2;  // int32 event id, int32 count: that many EMAL_Notify calls,
                              // payload = int32 sequence number 0..count-1

// The device commands of fake_devices.h and the PVR and format commands of
// fake_pvr.h (STORAGE_PVR_DEV_STATE: bool true unless a test changed the
// PVR state; STORAGE_DEV_FORMAT of an unknown volume: bool true and a
// LUM_TV_EVT_STORAGE_FORMAT event for it with result 0), and the listing
// and cover commands of fake_listing.h: their canned answers. Anything
// else: -1 and no reply, as the hub answers a group it has no handler for.
int invoke(const android::Parcel& request, android::Parcel* reply);

// Number of invoke calls so far.
extern std::atomic<int> g_invokes;

}  // namespace fakesvc
