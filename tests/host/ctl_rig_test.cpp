// lumstoragectl's text and JSON output against the real service on the simulated television: one stick, every
// subcommand family run in both forms, its exit code and facts of its output checked against what the
// television's own tools say. Needs root (skipped loudly without).
#include <gtest/gtest.h>

#include "rig_fixture.h"

namespace e2e {
namespace {
// vfat sda1 (chosen as the PVR partition at its plug: timeshift on, a 10 MB limit), ext4 sda2.
const char* kStick =
    "disk stick size=128M table=msdos plugged=no vendor=SanDisk model=\"Cruzer Blade\" serial=4C530001 dev=sda\n"
    "  part size=48M fs=vfat label=TSH\n"
    "    file /readme.txt text=hello\n"
    "  part fs=ext4 label=DATA\n";
const char* kProperties = "mkdir -p /run/properties && printf 0 > /run/properties/persist.pvr.rec.enable && "
                          "printf 1 > /run/properties/persist.pvr.tshift.enable && "
                          "printf 10 > /run/properties/persist.pvr.device_size_limit";
const std::string kFat = "/mnt/pvr/shared/sda1";
const std::string kExt = "/mnt/pvr/shared/sda2";

class CtlRig : public ServiceRig {
protected:
    struct Case {
        std::vector<std::string> words;
        int code;
        std::vector<std::string> text;  // parts of the text output
        std::vector<std::string> json;  // parts of the --json output
        std::string input = {};         // standard input of the text run
    };
    // Each case runs as text, then (when it has JSON facts) with --json.
    void Check(const std::vector<Case>& cases)
    {
        for (const Case& c : cases) {
            SCOPED_TRACE(testing::PrintToString(c.words));
            std::vector<std::string> argv{LUMSTORAGECTL_BIN, "--socket", socket_};
            argv.insert(argv.end(), c.words.begin(), c.words.end());
            Result text = lumrig::Run(argv, c.input, 120);
            EXPECT_EQ(c.code, text.status) << text.Describe();
            for (const std::string& part : c.text)
                EXPECT_TRUE(Has(text.out, part)) << part << "\n" << text.Describe();
            if (c.json.empty())
                continue;
            Result json = Ctl(c.words);
            EXPECT_EQ(c.code, json.status) << json.Describe();
            for (const std::string& part : c.json)
                EXPECT_TRUE(Has(json.out, part)) << part << "\n" << json.Describe();
        }
    }
};

TEST_F(CtlRig, EverySubcommandFamilyInTextAndJson)
{
    StartService(kStick, {"stick"}, {}, kProperties);
    if (HasFatalFailure())
        return;
    const std::string uuid = tv.Exec("blkid -s UUID -o value /dev/sda2").Line();
    const std::string used = tv.Exec("df -Pm " + kFat + " | awk 'NR==2 {print $3}'").Line();
    // Free blocks, the reserved ones too.
    const std::string free_mb = tv.Exec("echo $(( $(stat -f -c '%f * %S' " + kExt + ") / 1048576 ))").Line();
    ASSERT_FALSE(uuid.empty());
    auto fd_open = [this](const char* flags) {
        return std::to_string(Number(Ctl({"fd", "open", kExt + "/h", flags, "0644"}).out, "fd"));
    };
    const std::string w = fd_open("O_WRONLY|O_CREAT"), r = fd_open("O_RDONLY");
    Check({
        {{"pvr-dev-state"}, 0, {"STORAGE_PVR_DEV_STATE (4125): result 0\n  value: true\n"},
         {"{\"command\":\"STORAGE_PVR_DEV_STATE\",\"code\":4125,\"result\":0,\"reply\":{\"value\":true},"}},
        {{"volumes"}, 0,
         {"NAME", "sda ", "├─sda1", "└─sda2", "vfat", "TSH", "ext4", "DATA", kFat, "SanDisk", "Cruzer Blade", "128M"},
         {"\"devices\":[", "\"devName\":\"/dev/sda2\"", "\"node\":\"/dev/sda2\",\"mountPoint\":\"" + kExt + "\""}},
        {{"devinfo", "/dev/sda"}, 0, {"vendor: SanDisk", "model: Cruzer Blade", "serial: 4C530001", "devId: 0x"},
         {"\"serial\":\"4C530001\""}},
        {{"devinfo", "/dev/sdz"}, 3, {}, {"\"status\":1"}},
        {{"size", "/dev/sda"}, 0, {"/dev/sda: 128M (128 MB)\n"}, {"{\"device\":\"/dev/sda\",\"sizeMB\":128}"}},
        {{"used", "/dev/sda1"}, 0, {"/dev/sda1: " + used + "M used (" + used + " MB)\n"},
         {"{\"device\":\"/dev/sda1\",\"usedMB\":" + used + "}"}},
        {{"uuid", kExt}, 0, {kExt + ": " + uuid + "\n"}, {"{\"path\":\"" + kExt + "\",\"uuid\":\"" + uuid + "\"}"}},
        {{"free", uuid}, 0, {uuid + ": ", "free (" + free_mb + " MB)"},
         {"{\"uuid\":\"" + uuid + "\",\"freeMB\":" + free_mb + "}"}},
        // PVR: the stick's vfat partition was chosen at its plug.
        {{"pvr", "state"}, 0, {"PVR partition: " + kFat + "\n"}, {"{\"pvr\":true,\"mountPath\":\"" + kFat + "\"}"}},
        {{"pvr", "path"}, 0, {kFat + "\n"}, {"{\"mountPath\":\"" + kFat + "\"}"}},
        {{"pvr", "available", "/dev/sda1"}, 0, {"/dev/sda1: verdict 0, success\n"},
         {"{\"disk\":\"/dev/sda1\",\"verdict\":0,\"name\":\"success\",\"usable\":true}"}},
        {{"pvr", "total", "/dev/sda"}, 0, {"/dev/sda: ", "(128 MB)"}, {"{\"disk\":\"/dev/sda\",\"totalMB\":128}"}},
        {{"pvr", "limit"}, 0, {"PVR size limit: 10M (10 MB)"}, {"{\"limitMB\":10}"}},
        // With the PVR partition chosen there is nothing to ask.
        {{"pvr", "guide"}, 0, {"show: no\nasks: nothing to do\npartitions: 0\nconnected devices: 3\n"},
         {"{\"show\":false,\"event\":4,\"partitionNum\":0,\"partitions\":[],\"connectedDevNum\":3,",
          "\"asks\":\"nothing to do\"}"}},
        // Files on the ext4 partition, checked there by the shell and by exec.
        {{"ls", kFat}, 0, {"readme.txt"}, {"\"name\":\"readme.txt\""}},
        {{"mkdir", kExt + "/d"}, 0, {}, {}},
        {{"write", kExt + "/d/f", "-"}, 0, {}, {}, "hello"},
        {{"chmod", kExt + "/d/f", "0640"}, 0, {}, {}},
        // Descriptors stay open in the daemon between runs.
        {{"fd", "write", w, "-"}, 0, {"wrote 3 of 3 bytes to fd " + w + "\n"}, {}, "abc"},
        {{"fd", "sync", w}, 0, {"synced the file system of fd " + w + "\n"}, {"\"ok\":true"}},
        {{"fd", "read", r, "2"}, 0, {"ab"}, {"\"count\":1,\"hex\":\"63\""}},  // the JSON run reads on
        {{"fd", "close", w}, 0, {"closed fd " + w + "\n"}, {}},
        {{"fd", "close", w}, 1, {}, {"\"errno\":9"}},
        {{"fd", "close", r}, 0, {}, {}},
        {{"exec", "--capture", "--", "cat", kExt + "/d/f", kExt + "/h"}, 0, {"helloabc"}, {}},
        {{"rm", kExt + "/d/missing"}, 1, {}, {"\"result\":3"}},
    });
    EXPECT_EQ(tv.Exec("stat -c %a " + kExt + "/d/f").Line(), "640");
    // A run of the stick's volumes, then a format of its ext4 partition.
    Check({
        {{"umount", "/dev/sda"}, 0, {"unmounted " + kFat + "\n", "unmounted " + kExt + "\n", "/dev/sda: 2 volumes unmounted\n"},
         {}},
        {{"mount", "/dev/sda"}, 0,
         {"mounted " + kFat + " (vfat, label TSH)\n", "mounted " + kExt + " (ext4, label DATA)\n",
          "/dev/sda: 2 volumes mounted\n"},
         {}},
        // Without recording the service makes FAT32.
        {{"format", "/dev/sda2"}, 0,
         {"unmounting\nunmounted " + kExt + "\nformatting\nmounting\nmounted " + kExt + " (vfat)\nresult: ok, "},
         {}},
    });
    EXPECT_EQ(tv.Exec("blkid -p -s TYPE -o value /dev/sda2").Line(), "vfat");
}

}  // namespace
}  // namespace e2e
