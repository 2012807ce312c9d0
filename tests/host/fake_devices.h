// Device commands of the fake service: canned answers by event, built by
// hand from the event layouts, so lumstoragectl's device subcommands can be
// tested without the real service.
#pragma once

#include <cstddef>
#include <cstdint>

#include <binder/Parcel.h>

namespace fakesvc {

struct Row {
    int32_t word;
    int (*run)(const android::Parcel& request, android::Parcel* reply);
};

// Operands with a fixed behaviour in every device command.
constexpr const char kRefused[] = "refuse";  // reply false, no event
constexpr const char kSilent[] = "silent";   // reply true, no event

// The device's canned answers (a bool reply and events):
//   GET_STORAGE_VOLUMES: a stale empty device table, the list of /dev/sdb
//     (USB Ext, SanDisk), /dev/sdb1 (vfat "KINGSTON" on /mnt/usb/sdb1,
//     48 MB, 12 used), /dev/sdb2 (ext4 on /mnt/usb/sdb2) and an MTP phone,
//     a format event, then the matching 4-row device table.
//   GET_STORAGE_VOLUME "sdb": device information; any other name: status 1.
//   DEV_MOUNT / DEV_UMOUNT "sdb": two volumes with a format event between
//     them, then the end with count 2; any other name: the end with 0.
//   GET_DEVICE_SIZE / GET_PARTITION_USE: first an answer for /dev/sdz9 and
//     one of the other size event for the same device, then the answer
//     (sdb 29822 / -, sdb1 48 / 12, others 1 / 1).
//   GET_ALLOCATE_BYTES "1234-ABCD": 1234 MB; GET_UUID_FOR_PATH
//     "/mnt/usb/sdb1": "1234-ABCD"; anything else: no event.
const Row* device_rows(size_t* count);

}  // namespace fakesvc
