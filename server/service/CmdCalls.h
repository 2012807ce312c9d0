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

// ../file/CmdFileCalls.cpp: file operations, answered by a bool and an event.
void cmd_delete_dir(const android::Parcel& request, android::Parcel* reply);
void cmd_delete_file(const android::Parcel& request, android::Parcel* reply);
void cmd_rename_file(const android::Parcel& request, android::Parcel* reply);
void cmd_create_dir(const android::Parcel& request, android::Parcel* reply);
void cmd_write_file(const android::Parcel& request, android::Parcel* reply);

// ../file/CmdDirectCalls.cpp: shell commands and file primitives.
void cmd_sys_cmd(const android::Parcel& request, android::Parcel* reply);
void cmd_sys_cmd_ret(const android::Parcel& request, android::Parcel* reply);
void cmd_lum_chmod(const android::Parcel& request, android::Parcel* reply);
void cmd_lum_open(const android::Parcel& request, android::Parcel* reply);
void cmd_lum_close(const android::Parcel& request, android::Parcel* reply);
void cmd_lum_read(const android::Parcel& request, android::Parcel* reply);
void cmd_lum_write(const android::Parcel& request, android::Parcel* reply);
void cmd_lum_sync(const android::Parcel& request, android::Parcel* reply);

// CmdArgs.cpp: checks of request arguments that several rows share.
// A warning that cmd's request lacks a text; the row then answers its failure.
void warn_missing_text(int cmd);
// True if count raw bytes (padded to 4, as Parcel::read takes them) follow in
// request; false, with a warning, for a negative count or fewer bytes.
bool raw_bytes_arrived(const android::Parcel& request, int cmd, int32_t count);
