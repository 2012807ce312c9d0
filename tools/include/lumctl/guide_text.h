// The PVR guide record (what the user interface is asked after a plug-in or
// plug-out) in words: whether to show it, what it asks, the partitions in
// question and the number of connected devices.
#pragma once

#include <string>

#include <StoragePvr.h>

#include "lumctl/decoded.h"

namespace lumctl {

// What the record asks of the user interface: "offer to format sdb1", "let
// the user choose among sdb1, sdc1", "not enough space for timeshift", "not
// enough space for recording", "nothing to do".
std::string guide_request(const SStoragePvrDevGuideInfo& guide);

// Several lines:
//   show: yes
//   asks: offer to format sdb1
//   partitions: 1
//     sdb1: vfat, 29.1G (29773 MB), on /mnt/pvr/shared/sdb1, label PVRDISK
//   connected devices: 3
std::string guide_text(const SStoragePvrDevGuideInfo& guide);

// One JSON object: show, event, asks, partitionNum, partitions (name,
// devName, fsType, sizeMB, usedMB, mountPoint, label), connectedDevNum.
Json guide_json(const SStoragePvrDevGuideInfo& guide);

}  // namespace lumctl
