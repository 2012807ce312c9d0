#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <linux/netlink.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

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

class Probe : public CThreadObjectWithQueue {
public:
    void ProcessNorvMsg(CNorvMsg* msg) override
    {
        signals.push_back(msg->GetSignalName());
        msg->FreeSignal();
    }
    std::vector<unsigned long> signals;
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
    EXPECT_EQ(classify(uevent("add@/devices/platform/usb1/1-1/1-1:1.0/0003:046D:C52B.0001/hidraw/hidraw0",
                              {"DEVTYPE=disk"})),
              0ul);
    // The header alone decides the action: a key naming /usb does not help.
    EXPECT_EQ(classify(uevent("add@/devices/virtual/block/sdz", {"DEVPATH=/usb/block/sd", "DEVTYPE=disk"})),
              0ul);
    // An add without DEVTYPE=disk is dropped, not tried as a removal.
    EXPECT_EQ(classify(uevent("add@" + disk + "remove@", {"DEVTYPE=partition"})), 0ul);
    EXPECT_EQ(classify(""), 0ul);
}

TEST(Uevent, OnlyTheFirst1023BytesAreLookedAt)
{
    std::string pad(1100, 'x');
    std::string late = uevent(std::string("add@") + kUsbDisk, {("PAD=" + pad).c_str(), "DEVTYPE=disk"});
    std::vector<char> buf(1024, '\0');
    memcpy(buf.data(), late.data(), 1023);
    EXPECT_EQ(classify_uevent(buf.data(), 1023), 0ul);
}

TEST(HotPlugThread, PostsOneSignalPerQualifyingDatagram)
{
    REQUIRE_ISOLATION();
    Probe probe;
    ASSERT_EQ(probe.Init("/lumtest_hotplug", 10, 0, false), 0);
    CHotPlug watcher;
    watcher.RegisterCallbackQueue(probe.GetQueueHandle(), 0, 0, 0);
    ASSERT_EQ(watcher.StartThread("CHotPlug", 0, 0), 0);

    int tx = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT);
    ASSERT_GE(tx, 0);
    // An explicit port id: the first socket bound with 0 would take the
    // process id, which the watcher binds to.
    struct sockaddr_nl self = {};
    self.nl_family = AF_NETLINK;
    self.nl_pid = 0x7f000000u | static_cast<unsigned>(getpid());
    ASSERT_EQ(bind(tx, reinterpret_cast<sockaddr*>(&self), sizeof(self)), 0);
    struct sockaddr_nl group = {};
    group.nl_family = AF_NETLINK;
    group.nl_groups = 1;
    std::string disk = kUsbDisk;
    std::vector<std::string> sent = {
        uevent("add@" + disk, {"ACTION=add", "SUBSYSTEM=block", "DEVTYPE=disk"}),
        uevent("add@" + disk + "/sdb1", {"ACTION=add", "SUBSYSTEM=block", "DEVTYPE=partition"}),
        uevent("add@" + disk + "/sdb2", {"ACTION=add", "SUBSYSTEM=block", "DEVTYPE=partition"}),
        uevent("remove@" + disk, {"ACTION=remove", "SUBSYSTEM=block", "DEVTYPE=disk"}),
    };
    // The watcher may not have bound yet: send until the first signal shows.
    std::vector<unsigned long> want = {SIG_ID_STORAGE_PLUG_IN, SIG_ID_STORAGE_PLUG_OUT};
    for (int attempt = 0; attempt < 200 && probe.signals.empty(); ++attempt) {
        sendto(tx, sent[0].data(), sent[0].size(), 0, reinterpret_cast<sockaddr*>(&group), sizeof(group));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        probe.ReadMsgsFromNonBlockingQueue();
    }
    ASSERT_FALSE(probe.signals.empty()) << "no plug-in arrived";
    probe.signals.clear();
    for (size_t i = 1; i < sent.size(); ++i)
        sendto(tx, sent[i].data(), sent[i].size(), 0, reinterpret_cast<sockaddr*>(&group), sizeof(group));
    for (int i = 0; i < 200 && probe.signals.empty(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        probe.ReadMsgsFromNonBlockingQueue();
    }
    EXPECT_EQ(probe.signals, std::vector<unsigned long>{SIG_ID_STORAGE_PLUG_OUT});
    watcher.StopThreadAndWait();
    close(tx);
}
