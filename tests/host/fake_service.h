// A stand-in for the storage service's hub, for the daemon's tests and the fake daemon.
#pragma once

#include <atomic>
#include <cstdint>

#include <binder/Parcel.h>

namespace fakesvc {
constexpr int32_t kEcho = 1;  // reply = the request bytes behind the word
constexpr int32_t kEmit = 2;  // int32 event id, int32 count: that many EMAL_Notify calls,
                              // payload = int32 sequence number 0..count-1

// kEcho and kEmit; any other word: -1 and no reply, as the hub answers a group it has no handler for.
int invoke(const android::Parcel& request, android::Parcel* reply);

// Number of invoke calls so far.
extern std::atomic<int> g_invokes;

}  // namespace fakesvc
