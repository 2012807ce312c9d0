// Hub rows answered on the caller's thread, one file per subsystem.
#pragma once

#include <binder/Parcel.h>

// CmdVolume.cpp
void cmd_partition_fs_type(const android::Parcel& request, android::Parcel* reply);
void cmd_partition_total_size(const android::Parcel& request, android::Parcel* reply);
void cmd_partition_used_size(const android::Parcel& request, android::Parcel* reply);

// ../device/PvrPlug.cpp
void cmd_pvr_dev_state(const android::Parcel& request, android::Parcel* reply);
void cmd_pvr_mount_path(const android::Parcel& request, android::Parcel* reply);
void cmd_pvr_guide_info(const android::Parcel& request, android::Parcel* reply);

// ../device/PvrMark.cpp
void cmd_pvr_disk_total(const android::Parcel& request, android::Parcel* reply);
void cmd_pvr_dev_available(const android::Parcel& request, android::Parcel* reply);

// ../file/CopyEngine.cpp, ../file/FileMove.cpp
void cmd_copy_file(const android::Parcel& request, android::Parcel* reply);
void cmd_copy_dirs(const android::Parcel& request, android::Parcel* reply);
void cmd_lum_move(const android::Parcel& request, android::Parcel* reply);
