// lumstoragectl's device subcommands end to end: ctl_main against an
// in-process daemon on the fake service, whose canned events (built by hand
// in fake_devices.cpp) come mixed with unrelated ones and with answers for
// other devices.
#include <gtest/gtest.h>

#include "ctl_run.h"
#include "fake_devices.h"
#include <nlohmann/json.hpp>
#include "lumctl/cmd_table.h"
#include "lumctl/ctl.h"
#include "test_support.h"

namespace {

using hosttest::ctl;
using hosttest::CtlRun;
using hosttest::has;
using hosttest::json_lines;
using hosttest::occurrences;

class CtlDevices : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(0, srv.start()); }
    CtlRun run(std::vector<std::string> words) { return ctl(srv.config.socket_path, std::move(words)); }
    hosttest::TestServer srv;
};

TEST_F(CtlDevices, VolumesPrintTheListAsATreeOrBothFormsAsJson)
{
    CtlRun r = run({"volumes"});
    EXPECT_EQ(0, r.code) << r.err;
    EXPECT_EQ("NAME              TYPE CONN    FSTYPE LABEL     SIZE USED MOUNTPOINT     VENDOR  MODEL\n"
              "sdb               disk USB Ext                 29.1G                     SanDisk Cruzer Blade\n"
              "\u251c\u2500sdb1            part -       vfat   KINGSTON   48M  12M /mnt/usb/sdb1\n"
              "\u2514\u2500sdb2            part -       ext4            29.1G 1.9G /mnt/usb/sdb2\n"
              "VEN_04E8_PID_6860 mtp  PTP     mtpfs           55.7G 100M /mnt/mtp/phone Samsung Galaxy S9\n",
              r.out);

    // JSON: the list and the device table after it, not the stale empty
    // table that came first.
    for (const auto& words : {std::vector<std::string>{"volumes", "--json"},
                              std::vector<std::string>{"--json", "volumes"}}) {
        r = run(words);
        EXPECT_EQ(0, r.code) << r.err;
        EXPECT_TRUE(nlohmann::json::accept(r.out)) << r.out;
        EXPECT_EQ(0u, r.out.find("{\"devices\":[{\"node\":\"/dev/sdb\",\"conn\":6,")) << r.out;
        EXPECT_EQ(4u, occurrences(r.out, "\"node\":"));
        EXPECT_EQ(4u, occurrences(r.out, "\"devName\":"));
        EXPECT_TRUE(has(r.out, "],\"rows\":[{\"devName\":\"/dev/sdb\",\"conn\":6,")) << r.out;
        EXPECT_FALSE(has(r.out, "sdz")) << "an unrelated event was taken";
    }
}

TEST_F(CtlDevices, DevinfoShowsTheDeviceOrSaysThereIsNone)
{
    CtlRun r = run({"devinfo", "sdb"});
    EXPECT_EQ(0, r.code) << r.err;
    EXPECT_EQ("device: sdb\nstatus: 0 (ok)\nvendor: SanDisk\nmodel: Cruzer Blade\nserial: 4C530001\n"
              "devId: 0x0781556B\n",
              r.out);
    r = run({"devinfo", "--json", "sdb"});
    EXPECT_EQ(0, r.code);
    EXPECT_TRUE(nlohmann::json::accept(r.out)) << r.out;
    EXPECT_EQ(0u, r.out.find("{\"name\":\"sdb\",\"status\":0,\"device\":{\"vendor\":")) << r.out;
    EXPECT_TRUE(has(r.out, "\"devId\":125916523")) << r.out;

    // The service answered, and the answer is no.
    r = run({"devinfo", "sdx"});
    EXPECT_EQ(3, r.code);
    EXPECT_EQ("", r.out);
    EXPECT_TRUE(has(r.err, "no device information for sdx")) << r.err;
}

TEST_F(CtlDevices, MountAndUmountPrintEachVolumeThenTheCount)
{
    CtlRun r = run({"mount", "sdb"});
    EXPECT_EQ(0, r.code) << r.err;
    EXPECT_EQ("mounted /mnt/usb/sdb1 (vfat, label KINGSTON)\n"
              "mounted /mnt/usb/sdb2 (ext4)\n"
              "sdb: 2 volumes mounted\n",
              r.out);
    r = run({"umount", "sdb", "--timeout", "30"});
    EXPECT_EQ(0, r.code) << r.err;
    EXPECT_EQ("unmounted /mnt/usb/sdb1\nunmounted /mnt/usb/sdb2\nsdb: 2 volumes unmounted\n", r.out);
    // A run that finds nothing still ends with its end event.
    r = run({"mount", "sdc"});
    EXPECT_EQ(0, r.code) << r.err;
    EXPECT_EQ("sdc: 0 volumes mounted\n", r.out);

    r = run({"mount", "--json", "sdb"});
    EXPECT_EQ(0, r.code);
    EXPECT_TRUE(json_lines(r.out)) << r.out;
    EXPECT_EQ(3u, occurrences(r.out, "\n"));
    EXPECT_EQ(0u, r.out.find("{\"mounted\":{\"mountPoint\":\"/mnt/usb/sdb1\",\"label\":\"KINGSTON\",")) << r.out;
    EXPECT_TRUE(has(r.out, "\n{\"device\":\"sdb\",\"mounted\":2}\n")) << r.out;
    r = run({"umount", "sdb", "--json"});
    EXPECT_TRUE(json_lines(r.out)) << r.out;
    EXPECT_TRUE(has(r.out, "{\"unmounted\":{\"mountPoint\":\"/mnt/usb/sdb2\"}}\n")) << r.out;
}

TEST_F(CtlDevices, SizeAnswersAreMatchedByDeviceName)
{
    // Before each answer the fake sends one for /dev/sdz9 and the other size
    // event for the asked device, with other numbers.
    struct Case {
        std::vector<std::string> words;
        const char* out;
    };
    const Case cases[] = {
        {{"size", "sdb1"}, "/dev/sdb1: 48M (48 MB)\n"},
        {{"size", "/dev/sdb"}, "/dev/sdb: 29.1G (29822 MB)\n"},
        {{"used", "sdb2"}, "/dev/sdb2: 1.9G used (1945 MB)\n"},
        {{"size", "--json", "sdb1"}, "{\"device\":\"/dev/sdb1\",\"sizeMB\":48}\n"},
        {{"used", "sdb1", "--json"}, "{\"device\":\"/dev/sdb1\",\"usedMB\":12}\n"},
        {{"free", "1234-ABCD"}, "1234-ABCD: 1.2G free (1234 MB)\n"},
        {{"free", "1234-ABCD", "--json"}, "{\"uuid\":\"1234-ABCD\",\"freeMB\":1234}\n"},
        {{"uuid", "/mnt/usb/sdb1"}, "/mnt/usb/sdb1: 1234-ABCD\n"},
        {{"--json", "uuid", "/mnt/usb/sdb1"}, "{\"path\":\"/mnt/usb/sdb1\",\"uuid\":\"1234-ABCD\"}\n"},
    };
    for (const Case& c : cases) {
        CtlRun r = run(c.words);
        EXPECT_EQ(0, r.code) << c.words[0] << ": " << r.err;
        EXPECT_EQ(c.out, r.out);
    }
}

TEST_F(CtlDevices, RefusedRequestsFailAtOnce)
{
    // Default waits of 20 and 60 s: only the refusal ends these quickly, and
    // the message says it was the refusal.
    for (const char* sub : {"devinfo", "mount", "umount", "size", "used", "free", "uuid"}) {
        CtlRun r = run({sub, fakesvc::kRefused});
        EXPECT_EQ(1, r.code) << sub;
        EXPECT_EQ("", r.out) << sub;
        EXPECT_EQ(std::string("lumstoragectl: ") + sub + " refuse: the service refused the request\n", r.err);
    }
}

TEST_F(CtlDevices, MissingAnswersTimeOutWithAMessage)
{
    struct Case {
        std::vector<std::string> words;
        const char* waiting;
    };
    const Case cases[] = {
        {{"free", "0000-0000"}, "waiting for the answer (the service sends none for an unknown uuid)"},
        {{"uuid", "/nowhere"}, "waiting for the answer (the service sends none for a path on no known volume)"},
        {{"size", fakesvc::kSilent}, "waiting for the answer (is it a device the service knows?)"},
        {{"devinfo", fakesvc::kSilent}, "waiting for the device information"},
        {{"mount", fakesvc::kSilent}, "waiting for the end of the run (0 volumes mounted so far)"},
        {{"umount", fakesvc::kSilent}, "waiting for the end of the run (0 volumes unmounted so far)"},
    };
    for (const Case& c : cases) {
        std::vector<std::string> words = c.words;
        words.insert(words.end(), {"--timeout", "0.2"});
        CtlRun r = run(words);
        EXPECT_EQ(1, r.code) << words[0];
        EXPECT_EQ("", r.out);
        EXPECT_TRUE(has(r.err, words[0] + " " + words[1] + ": timed out after 0.2 s " + c.waiting)) << r.err;
    }
}

TEST_F(CtlDevices, CommandNamesKeepTheirRawPathAndUsageIsChecked)
{
    // The subcommand words are no command's short name, so every command
    // stays reachable; the command names send the raw request.
    for (const char* word : {"volumes", "devinfo", "mount", "umount", "size", "used", "free", "uuid"})
        EXPECT_EQ(nullptr, lumctl::cmd_find(word)) << word;
    CtlRun r = run({"dev-mount", "sdb"});
    EXPECT_EQ(0, r.code);
    EXPECT_EQ("STORAGE_DEV_MOUNT (4109): result 0\n  value: true\n", r.out);
    r = run({"STORAGE_GET_DEVICE_SIZE", "sdb1", "0"});
    EXPECT_EQ("STORAGE_GET_DEVICE_SIZE (4101): result 0\n  value: true\n", r.out);
    r = run({"4106"});
    EXPECT_EQ("STORAGE_GET_STORAGE_VOLUMES (4106): result 0\n  value: true\n", r.out);

    for (const auto& words : std::vector<std::vector<std::string>>{
             {"size"}, {"mount", "a", "b"}, {"volumes", "sdb"}, {"free", "x", "--timeout", "0"},
             {"uuid", "/x", "--timeout"}, {"devinfo", "sdb", "--verbose"}, {"used", "--timeout", "-1", "a"}}) {
        r = run(words);
        EXPECT_EQ(2, r.code) << words[0] << " " << words.size();
        EXPECT_TRUE(has(r.err, "lumstoragectl: " + words[0])) << r.err;
    }
    r = run({"help"});
    for (const char* word : {"volumes", "devinfo DEVICE", "mount DEVICE", "umount DEVICE", "size DEVICE",
                             "used DEVICE", "free UUID", "uuid PATH", "--timeout S"})
        EXPECT_TRUE(has(r.out, word)) << word;

    hosttest::TempDir dir;
    r = ctl(dir.path + "/none.sock", {"volumes"});
    EXPECT_EQ(1, r.code);
    EXPECT_TRUE(has(r.err, "volumes: cannot connect to " + dir.path + "/none.sock")) << r.err;
    EXPECT_TRUE(has(r.err, "is lumstoraged running?")) << r.err;
}

}  // namespace
