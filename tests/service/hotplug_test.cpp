#include <chrono>
#include <cstring>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <thread>

#include <norvfw/NorvMsgQueue.h>

#include "HotPlug.h"
#include "SignalNo.h"
#include "test_support.h"

namespace {
// A kernel uevent as the kernel sends it: header, NUL, key=value strings.
std::string uevent(const std::string& header, std::initializer_list<const char*> keys)
{
    std::string d = header;
    d.push_back('\0');
    for (const char* k : keys) {
        d += k;
        d.push_back('\0');
    }
    return d;
}

unsigned long classify(std::string datagram)
{
    std::vector<char> buf(datagram.begin(), datagram.end());
    buf.resize(std::max<size_t>(buf.size() + 1, 1024), '\0');
    return classify_uevent(buf.data(), static_cast<int>(datagram.size()));
}

const char* kUsbDisk = "/devices/pci0000:00/0000:00:14.0/usb1/1-1/1-1:1.0/host6/target6:0:0/6:0:0:0/block/sdb";

// Takes signals as the service thread does, telling the watcher (when it has one) that it took a plug signal.
class Probe : public CThreadObjectWithQueue {
public:
    void ProcessNorvMsg(CNorvMsg* msg) override
    {
        signals.push_back(msg->GetSignalName());
        if (watcher != nullptr)
            watcher->Taken(msg->GetSignalName());
        msg->FreeSignal();
    }
    std::vector<unsigned long> signals;
    CHotPlug* watcher = nullptr;
};

// Sends datagrams to uevent group 1, as the kernel does.
class UeventSender {
public:
    UeventSender()
    {
        fd_ = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT);
        // An explicit port id: the first socket bound with 0 would take the process id, which the watcher binds to.
        struct sockaddr_nl self = {};
        self.nl_family = AF_NETLINK;
        self.nl_pid = 0x7f000000u | static_cast<unsigned>(getpid());
        if (fd_ >= 0 && bind(fd_, reinterpret_cast<sockaddr*>(&self), sizeof(self)) != 0) {
            close(fd_);
            fd_ = -1;
        }
    }
    ~UeventSender()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    bool ok() const { return fd_ >= 0; }
    void send(const std::string& datagram) const
    {
        struct sockaddr_nl group = {};
        group.nl_family = AF_NETLINK;
        group.nl_groups = 1;
        sendto(fd_, datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr*>(&group), sizeof(group));
    }

private:
    int fd_ = -1;
};

const std::string kDiskAdd = uevent(std::string("add@") + kUsbDisk, {"ACTION=add", "SUBSYSTEM=block", "DEVTYPE=disk"});
const std::string kDiskRemove =
    uevent(std::string("remove@") + kUsbDisk, {"ACTION=remove", "SUBSYSTEM=block", "DEVTYPE=disk"});

// The watcher on a probe's queue, once it hears events.
class HotPlugWatch : public ::testing::Test {
protected:
    void Start(int depth)
    {
        ASSERT_EQ(probe.Init("/lumtest_hotplug", depth, 0, false), 0);
        probe.watcher = &watcher;
        watcher.RegisterCallbackQueue(probe.GetQueueHandle(), 0, 0, 0);
        ASSERT_EQ(watcher.StartThread("CHotPlug", 0, 0), 0);
        ASSERT_TRUE(tx.ok());
        // Plug-ins numbered until one is heard (those sent before the watcher's socket existed are lost).
        LogCapture heard;
        int sent = 0;
        for (; sent < 200 && probe.signals.empty(); ++sent) {
            const std::string seq = "SEQNUM=" + std::to_string(sent);
            tx.send(uevent(std::string("add@") + kUsbDisk, {"ACTION=add", "SUBSYSTEM=block", "DEVTYPE=disk", seq.c_str()}));
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            probe.ReadMsgsFromNonBlockingQueue();
        }
        ASSERT_FALSE(probe.signals.empty()) << "no plug-in arrived";
        // The watcher hears in order and logs an event once its run is
        // queued: when the last attempt is logged, none is on its way.
        const std::string last = "SEQNUM=" + std::to_string(sent - 1);
        ASSERT_TRUE(eventually([&] { return heard.has(last); })) << "attempt " << sent - 1 << " never heard";
        probe.ReadMsgsFromNonBlockingQueue();
        probe.signals.clear();
    }
    void TearDown() override { watcher.StopThreadAndWait(); }
    bool Collect(size_t n)
    {
        return eventually([&] {
            probe.ReadMsgsFromNonBlockingQueue();
            return probe.signals.size() >= n;
        });
    }
    Probe probe;
    CHotPlug watcher;
    UeventSender tx;
};

}  // namespace

TEST(Uevent, OnlyWholeUsbDisksComingOrGoingCount)
{
    std::string disk = kUsbDisk;
    EXPECT_EQ(classify(uevent("add@" + disk, {"ACTION=add", "SUBSYSTEM=block", "DEVTYPE=disk"})),
              static_cast<unsigned long>(SIG_ID_STORAGE_PLUG_IN));
    EXPECT_EQ(classify(uevent("remove@" + disk, {"ACTION=remove", "DEVTYPE=disk"})),
              static_cast<unsigned long>(SIG_ID_STORAGE_PLUG_OUT));
    // Partitions, other actions, other buses and other devices post nothing.
    EXPECT_EQ(classify(uevent("add@" + disk + "/sdb1", {"ACTION=add", "DEVTYPE=partition"})), 0ul);
    EXPECT_EQ(classify(uevent("change@" + disk, {"ACTION=change", "DEVTYPE=disk"})), 0ul);
    EXPECT_EQ(classify(uevent("add@/devices/pci0000:00/ata1/host0/target0:0:0/0:0:0:0/block/sda",
                              {"DEVTYPE=disk"})),
              0ul);
    // The header alone decides the action: a key naming /usb does not help.
    EXPECT_EQ(classify(uevent("add@/devices/virtual/block/sdz", {"DEVPATH=/usb/block/sd", "DEVTYPE=disk"})),
              0ul);
    // An add without DEVTYPE=disk is dropped, not tried as a removal.
    EXPECT_EQ(classify(uevent("add@" + disk + "remove@", {"DEVTYPE=partition"})), 0ul);
    EXPECT_EQ(classify(""), 0ul);
}

TEST_F(HotPlugWatch, ABurstLeavesOneRunOfEachKindWaitingAndALaterEventGetsItsOwn)
{
    REQUIRE_ISOLATION();
    Start(10);
    if (HasFatalFailure())
        return;
    LogCapture log;
    for (int i = 0; i < 20; ++i)
        tx.send(i % 2 == 0 ? kDiskAdd : kDiskRemove);
    // Each event is logged once its run is queued or covered.
    ASSERT_TRUE(eventually([&] { return log.count("add@") + log.count("remove@") >= 20; }));
    probe.ReadMsgsFromNonBlockingQueue();
    EXPECT_EQ(probe.signals, (std::vector<unsigned long>{SIG_ID_STORAGE_PLUG_IN, SIG_ID_STORAGE_PLUG_OUT}));
    EXPECT_EQ(log.count("covers this event"), 18);
    // Both runs have been taken: the next event needs a run of its own.
    probe.signals.clear();
    tx.send(kDiskRemove);
    ASSERT_TRUE(Collect(1));
    EXPECT_EQ(probe.signals, std::vector<unsigned long>{SIG_ID_STORAGE_PLUG_OUT});
}

