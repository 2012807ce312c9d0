// The line handlers of the mount and unmount runs and what they keep from
// line to line. The runs are their only callers in the service; the header
// lets tests and fuzz targets hand them lines directly.
#pragma once

#define MOUNT_MAX_NAMES 32

typedef struct _MOUNT_USB_DEVICES_CALLBACK_DATA {
    int num_new_mounted;  // first: its 4 bytes are the end event's payload
    int num_already_mounted;
    char volumeName[MOUNT_MAX_NAMES][32];
    const char* offline;  // the volume a format works on ("" for none)
} MOUNT_USB_DEVICES_CALLBACK_DATA;

// One line of `blkid -d` ("/dev/sda1: LABEL=... TYPE="vfat""): mounts the
// partition under the tree unless it is mounted already. Always 0.
int mount_usb_devices_callback(void* context, char* line);

typedef struct _UNMOUNT_USB_DEVICES_CALLBACK_DATA {
    int num_unmounted;  // first: its 4 bytes are the end event's payload
    const char* unmount_connected_device;
} UNMOUNT_USB_DEVICES_CALLBACK_DATA;

// One line of `mount` under the tree: unmounts it when blkid no longer lists
// its device or the caller named it. Always 0.
int unmount_usb_devices_callback(void* context, char* line);

// One line of `mount` of an MTP device ("<id> on <path> type mptpfs ..."):
// unmounts it when no slot of the driver offers the id any more and counts
// it in the int at context. Always 0.
int unmount_mtp_devices_callback(void* context, char* line);
