// Records of the PVR device management, sent as images of the structures in
// the host's byte order.
#pragma once

#include <cstddef>

#include "StorageDevice.h"

// The verdict of the PVR checks; the numbers reach clients.
typedef enum {
    PVR_SUCCESS = 0,
    PVR_CAPACITY_SMALLER_4G = 1,
    PVR_FORMAT_UNUSABLE = 2,
    PVR_MOUNTPATH_NOT_EXIST = 3,
    PVR_IDENTITY_FAIL = 4,
    PVR_ERROR_PARAMS = 5,
} EStoragePvrFlag;

// Payload of LUM_TV_EVT_STORAGE_PVR_MARK. 40 bytes.
typedef struct {
    LUM_BOOL is_pvr_partition;  // 1 if pvr_flag is PVR_SUCCESS
    EStoragePvrFlag pvr_flag;
    char partition_id[32];      // the disk id, cut at 31 characters
} SStorageMarkPvrInfo;

static_assert(sizeof(EStoragePvrFlag) == 4, "enums are 4 bytes (no -fshort-enums)");
static_assert(sizeof(SStorageMarkPvrInfo) == 40, "SStorageMarkPvrInfo is 40 bytes");
LUM_AT(SStorageMarkPvrInfo, is_pvr_partition, 0); LUM_AT(SStorageMarkPvrInfo, pvr_flag, 4);
LUM_AT(SStorageMarkPvrInfo, partition_id, 8);

// What the user interface is asked to do after a plug-in or plug-out.
typedef enum {
    PLUGIN_EVENT_SPACE_NOT_ENOUGH_FOR_TSH = 0,
    PLUGIN_EVENT_REQUEST_FORMAT_PARTITION = 1,
    PLUGIN_EVENT_REQUEST_SELECT_PARTITION = 2,
    PLUGIN_EVENT_SPACE_NOT_ENOUGH_FOR_RECORD = 3,
    PLUGIN_EVENT_BUTT = 4,
} E_PLUGIN_EVENT;

#define STORAGE_GUIDE_ROWS 32

// The guide record: payload of LUM_TV_EVT_STORAGE_CONNECT_STATE and
// LUM_TV_EVT_STORAGE_DISCONNECT, and the reply of
// STORAGE_PVR_GET_DEV_GUIDE_INFO. 63000 bytes.
typedef struct {
    LUM_BOOL bShow;
    E_PLUGIN_EVENT enEvt;
    int s32PartitionNum;
    SConnectedDevice astPartition[STORAGE_GUIDE_ROWS];
    int s32ConnectedDevNum;
    SConnectedDevice astConnectedDev[STORAGE_GUIDE_ROWS];
} SStoragePvrDevGuideInfo;

static_assert(sizeof(E_PLUGIN_EVENT) == 4, "enums are 4 bytes (no -fshort-enums)");
LUM_AT(SStoragePvrDevGuideInfo, bShow, 0); LUM_AT(SStoragePvrDevGuideInfo, enEvt, 4);
LUM_AT(SStoragePvrDevGuideInfo, s32PartitionNum, 8);
LUM_AT(SStoragePvrDevGuideInfo, astPartition, 16);  // rows aligned on 8: 4 bytes of padding before
LUM_AT(SStoragePvrDevGuideInfo, s32ConnectedDevNum, 31504); LUM_AT(SStoragePvrDevGuideInfo, astConnectedDev, 31512);
static_assert(sizeof(SStoragePvrDevGuideInfo) == 63000, "SStoragePvrDevGuideInfo is 63000 bytes");
