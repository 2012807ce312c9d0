// The tree every volume is mounted in: one directory per partition or MTP
// device id directly below it.
#pragma once

#define MOUNT_DIR "/mnt/pvr/shared"
#define MOUNT_DIR_INT_HDD "/mnt/pvr/shared/"
#define MOUNT_DIR_EXT_USB "/mnt/pvr/shared/"

// Names the service puts into shell lines without quotes (device paths,
// mount points, MTP ids) must be plain words: letters, digits and "_-.+/".
bool is_plain_word(const char* text);

// Removes an empty mount point: " rmdir PATH".
void remove_mount_dir(const char* path);
