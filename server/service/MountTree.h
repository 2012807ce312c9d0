// The tree every volume is mounted in: one directory per partition or MTP
// device id directly below it.
#pragma once

#define MOUNT_DIR "/mnt/pvr/shared"
#define MOUNT_DIR_INT_HDD "/mnt/pvr/shared/"
#define MOUNT_DIR_EXT_USB "/mnt/pvr/shared/"
