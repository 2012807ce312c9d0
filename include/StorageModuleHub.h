// The service's front door: one request Parcel in, one reply Parcel out.
#pragma once

#include <functional>
#include <map>

#include <binder/Parcel.h>

class StorageModuleHub {
public:
    typedef std::function<int(const android::Parcel&, android::Parcel*)> Handler;

    static StorageModuleHub* self();

    // Reads the command word, picks the handler of its group and runs it on
    // the caller's thread. Returns the handler's result (0), or -1 when no
    // handler serves the group; then the reply stays empty. Several threads
    // may call it at once.
    int invoke(const android::Parcel& request, android::Parcel* reply);

    virtual ~StorageModuleHub();

private:
    StorageModuleHub();
    StorageModuleHub(const StorageModuleHub&) = delete;
    StorageModuleHub& operator=(const StorageModuleHub&) = delete;

    std::map<unsigned int, Handler> mHubMap;
};
