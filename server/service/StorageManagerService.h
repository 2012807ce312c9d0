// The storage service: one global object whose thread takes signals from the
// queue "/MQ_STORAGE_SRV" and runs one operation per signal.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <pthread.h>
#include <string>
#include <sys/types.h>

#include <norvfw/NorvMsg.h>
#include <norvfw/Observable.h>
#include <norvfw/ThreadObject.h>
#include <norvfw/TimeOut.h>

#include "HotPlug.h"
#include "StorageDevice.h"
#include "StorageEvents.h"
#include "StoragePvr.h"
#include "StorageManagerAction.h"

#define STORAGE_SERVICE_QUEUE_NAME "/MQ_STORAGE_SRV"
#define MAX_STORAGE_QUEUE_SIZE 10
#define STORAGE_TSH_FORMAT_TIMEOUT_IN_MS 15000
#define STORAGE_PVR_FORMAT_TIMEOUT_IN_MS 60000
#define STORAGE_SEND_BUF_SIZE 50000
#define STORAGE_DEV_TAB_BUF_SIZE 2048
#define STORAGE_MAX_CONNECTED_DEVICES 32

typedef enum {
    HddNoHdd = -2,
    HddUnknown = -1,
    HddOff = 0,
    HddStarting = 1,
    HddRunning = 2,
    HddStopping = 3,
} HddState;

class StorageManagerService : public CThreadObjectWithQueue, public CObservableCallbackQueue {
public:
    StorageManagerService();
    ~StorageManagerService() override;

    // Creates the queue, starts the service thread and the hot-plug watcher.
    // Returns the result of starting the service thread (negative on failure).
    int Init();
    // Runs the operation of one signal and releases its payload.
    void ProcessNorvMsg(CNorvMsg* msg) override;
    // The single exit of results: hands the event to the event manager.
    void NotifyToStorageManager(LUM_EM_TYPE_E event, void* data, int len);

    // Mount and unmount runs (MountEngine.cpp, UnmountEngine.cpp), one at a
    // time: the service thread and the format thread both run them.
    int MountUsbDevices(const char* pDevName);
    int UnmountUsbDevices(const char* pDevName);
    // A format's runs around its tool: the first takes the volume off-line,
    // so that no other mount run brings it back under the tool; the second
    // brings it back.
    int TakeOffline(const char* volume);
    int BringOnline(const char* volume);
    void ClearMountPath();

    // The device table (../device/DevTable.cpp).
    void GetDevTable();
    void GetDevInfo(const unsigned char* buf, int len);
    void trace_dev_table(const unsigned char* buf, int len);

    // MTP and PTP devices (MtpDevices.cpp).
    int MountMtpDevices();
    int UnmountMtpDevices();
    int GetMtpDeviceNr(const char* pDeviceName);

    // Formatting (../format/Format.cpp).
    bool Format(std::string volId);
    bool SetAllPartitions(const unsigned char* buf, int len);

    // Disk benchmark (../format/Benchmark.cpp).
    bool StartBenchmark(std::string mountPoint);
    int ReadBenchmarkProgress();
    int ReadBenchmarkResult(unsigned long* pWriteSpeed, unsigned long* pReadSpeed);
    void CancelBenchmark();
    // Stops a benchmark that measures the volume at mountPoint, before the
    // volume goes: its tool could neither end nor have its files removed
    // once the volume is away. True when one was stopped (status 1 sent).
    bool StopBenchmarkOn(const char* mountPoint);
    // Ends the tool, joins the thread a cancel has claimed, removes the work
    // files and sends the status-1 end.
    void StopClaimedBenchmark(pthread_t tid);

    // PVR suitability and marking (../device/PvrMark.cpp).
    uint64_t GetDiskTotalSize(const char* diskId);
    bool CheckDiskEnoughForPvr(const char* diskId);
    bool CheckDiskPartition(const char* diskId);
    EStoragePvrFlag CheckDevAvailableForPvr(const char* diskId);
    bool MarkPvrDev(const char* diskId, bool isFormat);

    // PVR identity, choice and guide (../device/PvrIdentity.cpp, PvrPlug.cpp).
    bool FindPvrIdentityFromStorage(const char* path, char* pvrIdentity, int pvrIdentityLen);
    bool CreatePvrIdentity(const char* path);
    void SetPvrDevState(bool state);
    bool GetPvrDevState();
    void SetPvrMountPath(std::string path);
    std::string GetPvrMountPath();
    int MountPvrPartitionProcess();
    int UnmountPvrPartitionProcess();
    int GetPvrDevGuideInfo(SStoragePvrDevGuideInfo& stPvrGuideInfo);
    // Sends a fresh guide record as event.
    void NotifyGuide(LUM_EM_TYPE_E event);
    // Announces a chosen partition and remembers it.
    void ChoosePvrPartition(const char* mountPoint);

    // Volume and size queries (VolumeQuery.cpp).
    void GetDevSize(const unsigned char* buf, int len);
    void GetDevUsedSize(const unsigned char* buf, int len);
    bool GetAllocatableBytes(std::string storageUuid);
    bool GetStorageVolumes();
    bool GetUuidForPath(std::string mountPoint);
    std::string GetPartitionFsType(const char* partitionId);
    uint64_t GetPartitionTotalSize(const char* path);
    uint64_t GetPartitionUsedSize(const char* path);

    // Directory listings and covers (../file/ReadDir.cpp, ../file/Cover.cpp).
    bool ReadDirAdvanced(const char* sBuf, int len, unsigned short aCmdID);
    int ExtractCover(const char* sourceFolder, const char* fileName);

    // Copy requests on the copy thread (../file/CopyThread.cpp): starts the
    // copy that buf (len bytes) asks for, or with an empty source asks a
    // running tree copy to stop. The result comes as LUM_TV_EVT_STORAGE_COPY.
    void Copy(const unsigned char* buf, int len);
    // Moves a file, a recording or a tree (../file/FileMove.cpp): buf is the
    // packed request of 512 bytes. Sends LUM_TV_EVT_STORAGE_MOVE_FILE and
    // returns true when its result byte is 0.
    bool Move(const unsigned char* buf, int len);

    // Deletion, protection and directories (../file/FileDelete.cpp,
    // FileProtectCmd.cpp, FileDirs.cpp). Each sends a one-byte result event.
    bool CreateDir(const char* buf, int len);
    bool DeleteDir(const char* pPath, int cMode, int len);
    bool DeleteFile(const char* pPath, int len);
    void SetProtected(const unsigned char* buf, int len);
    bool GetDirSize(std::string path);

    // Rename and write (../file/FileRename.cpp, FileWrite.cpp).
    bool RenameFile(const unsigned char* buf, int len);
    bool WriteFile(const unsigned char* buf, int len);

    // Direct command and file primitives (../file/DirectCmds.cpp): no event,
    // the answer travels in the reply.
    int systemCmd(const char* pCmd, int len);
    int systemCmd(const char* pCmd, std::string& str);
    int LumChmod(const char* pPath, mode_t mode, int len, int* pErr);
    int LumOpen(const char* pPath, int flags, mode_t mode, int* pErr);
    int LumClose(int fd, int* pErr);
    int LumRead(int fd, void* pBuf, size_t bytes, int* pErr);
    int LumWrite(int fd, void* pBuf, size_t bytes, int* pErr);
    int LumSync(int fd);

    unsigned char m_SendBuf[STORAGE_SEND_BUF_SIZE];
    int m_DevTabBufLen;
    unsigned char m_DevTabBuf[STORAGE_DEV_TAB_BUF_SIZE];
    TimeOutTimer TosvBenchmarkProgress;
    TimeOutTimer TosvFormat;
    std::string m_FormatDev;
    bool m_PvrDevState;
    std::string m_PvrMountPath;
    int m_DeviceCnt;
    SConnectedDevice m_ConnectedDevice[STORAGE_MAX_CONNECTED_DEVICES];
    CHotPlug m_HotPlug;
    // Written on the service thread, read by traces and tests elsewhere.
    std::atomic<HddState> m_hddState;

    // Guards the device table in both forms (m_DevTabBuf, m_DevTabBufLen,
    // m_ConnectedDevice, m_DeviceCnt) and the PVR state (m_PvrDevState,
    // m_PvrMountPath): a run writes them on its thread while direct queries
    // read them on the callers' threads.
    std::mutex m_DevTableLock;
    // Guards m_SendBuf, which the service thread and the format thread both
    // build replies in: held from the first byte written to the send.
    std::mutex m_SendBufLock;
    // Held for a whole mount or unmount run; guards m_OfflineVolume, the
    // volume a format works on, which mount runs leave alone.
    std::mutex m_RunLock;
    std::string m_OfflineVolume;

private:
    int MountRunLocked(const char* pDevName);
    int UnmountRunLocked(const char* pDevName);
};

extern StorageManagerService theStorageManagerService;

// One row of the dispatcher: the operation of a signal.
typedef void (*signal_handler_t)(StorageManagerService& service, CNorvMsg* msg,
                                 StorageManagerAction_t* action);
