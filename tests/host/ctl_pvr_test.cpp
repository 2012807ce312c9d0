// lumstoragectl pvr end to end against an in-process daemon on the fake
// service (hand-built replies and events in fake_pvr.cpp), and the guide
// record's rendering on records built here.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "ctl_run.h"
#include "fake_devices.h"
#include "fake_pvr.h"
#include <nlohmann/json.hpp>
#include "lumctl/cmd_table.h"
#include "lumctl/guide_text.h"
#include "test_support.h"

namespace {

using hosttest::ctl;
using hosttest::CtlRun;
using hosttest::has;

using hosttest::Expect;

class CtlPvr : public ::testing::Test {
protected:
    void SetUp() override
    {
        fakesvc::reset_pvr();
        ASSERT_EQ(0, srv.start());
    }
    void TearDown() override { fakesvc::reset_pvr(); }
    CtlRun run(std::vector<std::string> words) { return ctl(srv.config.socket_path, std::move(words)); }
    void expect_all(std::initializer_list<Expect> cases) { hosttest::expect_runs(srv.config.socket_path, cases); }
    hosttest::TestServer srv;
};

TEST_F(CtlPvr, StateAndPathFollowThePvrPartition)
{
    expect_all({{{"pvr", "state"}, 0, "PVR partition: /mnt/pvr/shared/sdb1\n"},
                {{"pvr", "path"}, 0, "/mnt/pvr/shared/sdb1\n"},
                {{"pvr", "state", "--json"}, 0, "{\"pvr\":true,\"mountPath\":\"/mnt/pvr/shared/sdb1\"}\n"},
                {{"--json", "pvr", "path"}, 0, "{\"mountPath\":\"/mnt/pvr/shared/sdb1\"}\n"}});
    fakesvc::g_pvr_present = false;
    expect_all({{{"pvr", "state"}, 3, "no PVR partition\n"},
                {{"pvr", "path"}, 3, ""},
                {{"pvr", "state", "--json"}, 3, "{\"pvr\":false,\"mountPath\":\"\"}\n"},
                {{"pvr", "path", "--json"}, 3, "{\"mountPath\":\"\"}\n"}});
    EXPECT_EQ("lumstoragectl: pvr path: no PVR mount path\n", run({"pvr", "path"}).err);
}

TEST_F(CtlPvr, AvailableNamesEachVerdictAndExitsThreeUnlessUsable)
{
    expect_all({{{"pvr", "available", "sdb"}, 0, "sdb: verdict 0, success\n"},
                {{"pvr", "available", "small"}, 3, "small: verdict 1, capacity smaller than the limit\n"},
                {{"pvr", "available", "ntfs"}, 3, "ntfs: verdict 2, format unusable\n"},
                {{"pvr", "available", "nomount"}, 3, "nomount: verdict 3, no mount path\n"},
                {{"pvr", "available", "noid"}, 3, "noid: verdict 4, identity failed\n"},
                {{"pvr", "available", ""}, 3, ": verdict 5, bad parameters\n"},
                {{"pvr", "available", "odd"}, 3, "odd: verdict 9, unknown\n"},
                {{"pvr", "available", "sdb", "--json"},
                 0,
                 "{\"disk\":\"sdb\",\"verdict\":0,\"name\":\"success\",\"usable\":true}\n"},
                {{"pvr", "available", "small", "--json"},
                 3,
                 "{\"disk\":\"small\",\"verdict\":1,\"name\":\"capacity smaller than the limit\",\"usable\":false}\n"}});
}

TEST_F(CtlPvr, TotalGivesTheSizeOrSaysThereIsNone)
{
    expect_all({{{"pvr", "total", "sdb"}, 0, "sdb: 29.1G (29822 MB)\n"},
                {{"pvr", "total", "sdx"}, 3, "sdx: no size known (0 MB)\n"},
                {{"pvr", "total", "sdb", "--json"}, 0, "{\"disk\":\"sdb\",\"totalMB\":29822}\n"}});
}

TEST_F(CtlPvr, LimitIsReadOrSetAndReadBack)
{
    expect_all({{{"pvr", "limit"}, 0, "PVR size limit: 4G (4096 MB)\n"},
                {{"pvr", "limit", "8000"}, 0, "PVR size limit: 7.8G (8000 MB), was 4G (4096 MB)\n"},
                {{"pvr", "limit", "--json"}, 0, "{\"limitMB\":8000}\n"},
                {{"pvr", "limit", "8000"}, 0, "PVR size limit: 7.8G (8000 MB), unchanged: it was set already\n"},
                {{"pvr", "limit", "1000"},
                 3,
                 "PVR size limit: 7.8G (8000 MB), unchanged: 1000 MB ignored, below the minimum of 1800 MB\n"},
                {{"pvr", "limit", "1800", "--json"},
                 0,
                 "{\"limitMB\":1800,\"previousMB\":8000,\"requestedMB\":1800,\"changed\":true}\n"}});
    EXPECT_EQ(1800u, fakesvc::g_size_limit.load());

    // Neither recording nor timeshift: the service keeps its value.
    fakesvc::g_pvr_enabled = false;
    expect_all({{{"pvr", "limit", "9000"},
                 3,
                 "PVR size limit: 1.8G (1800 MB), unchanged: 9000 MB ignored, the service takes a new limit only while "
                 "recording or timeshift is on\n"},
                {{"pvr", "limit", "9000", "--json"},
                 3,
                 "{\"limitMB\":1800,\"previousMB\":1800,\"requestedMB\":9000,\"changed\":false,\"ignored\":\"the "
                 "service takes a new limit only while recording or timeshift is on\"}\n"}});
    EXPECT_EQ(1800u, fakesvc::g_size_limit.load());

    // Not a number of megabytes: nothing is sent.
    for (const char* bad : {"abc", "-5", "0x100", "4294967296", "12MB"}) {
        CtlRun r = run({"pvr", "limit", bad});
        EXPECT_EQ(2, r.code) << bad;
        EXPECT_TRUE(has(r.err, "pvr limit: MB is a whole number of megabytes")) << r.err;
    }
    EXPECT_EQ(2, run({"pvr", "limit", "1", "2"}).code);
    EXPECT_EQ(1800u, fakesvc::g_size_limit.load());
}

TEST_F(CtlPvr, GuideSaysWhatTheUserInterfaceIsAsked)
{
    struct Case {
        int32_t event;
        const char* out;
    };
    const Case cases[] = {
        {PLUGIN_EVENT_SPACE_NOT_ENOUGH_FOR_TSH,
         "show: yes\nasks: not enough space for timeshift\npartitions: 0\nconnected devices: 1\n"},
        {PLUGIN_EVENT_REQUEST_FORMAT_PARTITION,
         "show: yes\nasks: offer to format sdb1\npartitions: 1\n"
         "  sdb1: vfat, 29.1G (29773 MB), on /mnt/usb/sdb1, label PVRDISK\nconnected devices: 3\n"},
        {PLUGIN_EVENT_REQUEST_SELECT_PARTITION,
         "show: yes\nasks: let the user choose among sdb1, sdc1\npartitions: 2\n"
         "  sdb1: vfat, 29.1G (29773 MB), on /mnt/usb/sdb1, label PVRDISK\n"
         "  sdc1: ext4, 931.5G (953869 MB), on /mnt/usb/sdc1\nconnected devices: 4\n"},
        {PLUGIN_EVENT_SPACE_NOT_ENOUGH_FOR_RECORD,
         "show: yes\nasks: not enough space for recording\npartitions: 0\nconnected devices: 1\n"},
        {PLUGIN_EVENT_BUTT, "show: no\nasks: nothing to do\npartitions: 0\nconnected devices: 2\n"},
        {7, "show: yes\nasks: unknown request 7\npartitions: 0\nconnected devices: 1\n"},
    };
    for (const Case& c : cases) {
        fakesvc::g_guide_event = c.event;
        CtlRun r = run({"pvr", "guide"});
        EXPECT_EQ(0, r.code) << r.err;
        EXPECT_EQ(c.out, r.out) << c.event;
    }

    fakesvc::g_guide_event = PLUGIN_EVENT_REQUEST_SELECT_PARTITION;
    CtlRun r = run({"pvr", "guide", "--json"});
    EXPECT_EQ(0, r.code);
    EXPECT_TRUE(nlohmann::json::accept(r.out)) << r.out;
    EXPECT_EQ(0u, r.out.find("{\"show\":true,\"event\":2,\"asks\":\"let the user choose among sdb1, sdc1\","
                             "\"partitionNum\":2,\"partitions\":[{\"name\":\"sdb1\",\"devName\":\"/dev/sdb1\","
                             "\"fsType\":\"vfat\",\"sizeMB\":29773,"))
        << r.out;
    EXPECT_TRUE(has(r.out, "\"label\":\"\"}],\"connectedDevNum\":4}\n")) << r.out;
}

TEST(CtlGuideText, CountsAreBoundedAndNamesEndAtTheirFields)
{
    std::unique_ptr<SStoragePvrDevGuideInfo> g(new SStoragePvrDevGuideInfo);
    memset(g.get(), 0, sizeof(*g));
    g->bShow = 1;
    g->enEvt = PLUGIN_EVENT_REQUEST_SELECT_PARTITION;
    for (SConnectedDevice& row : g->astPartition) {
        memset(row.devName, 'x', sizeof(row.devName));  // no NUL
        memcpy(row.fsType, "vfat", 5);
        row.devSize = 2048;
    }
    g->s32PartitionNum = 40;
    std::string text = lumctl::guide_text(*g);
    EXPECT_TRUE(has(text, "partitions: 40 (32 in the record)\n")) << text;
    EXPECT_EQ(32u, hosttest::occurrences(text, "  " + std::string(30, 'x') + ": vfat, 2G (2048 MB)\n"));
    EXPECT_EQ(32u, hosttest::occurrences(lumctl::json_line(lumctl::guide_json(*g)), "\"sizeMB\":2048"));

    g->s32PartitionNum = -3;
    EXPECT_EQ("let the user choose a partition (none listed)", lumctl::guide_request(*g));
    EXPECT_TRUE(has(lumctl::guide_text(*g), "partitions: -3 (0 in the record)\nconnected devices: 0\n"));
    g->enEvt = PLUGIN_EVENT_REQUEST_FORMAT_PARTITION;
    EXPECT_EQ("offer to format a partition (none listed)", lumctl::guide_request(*g));
}

TEST_F(CtlPvr, MarkWaitsForItsOwnVerdict)
{
    // Before each verdict the fake sends one for "sdz".
    expect_all({{{"pvr", "mark", "sdb"}, 0, "sdb: marked as the PVR disk\n"},
                {{"pvr", "mark", "small"}, 3, "small: not marked: capacity smaller than the limit (1)\n"},
                {{"pvr", "mark", "noid", "--json"},
                 3,
                 "{\"disk\":\"noid\",\"marked\":false,\"verdict\":4,\"name\":\"identity failed\"}\n"}});

    CtlRun r = run({"pvr", "mark", fakesvc::kRefused});
    EXPECT_EQ(1, r.code);
    EXPECT_EQ("lumstoragectl: pvr mark refuse: the service refused the request\n", r.err);
    r = run({"pvr", "mark", fakesvc::kSilent, "--timeout", "0.2"});
    EXPECT_EQ(1, r.code);
    EXPECT_TRUE(has(r.err, "pvr mark silent: timed out after 0.2 s waiting for the marking's verdict")) << r.err;
    r = run({"pvr", "mark", fakesvc::kSilent, "--format", "--timeout", "0.2"});
    EXPECT_TRUE(has(r.err, "waiting for the result of the format of silent (so far: no step yet)")) << r.err;
}

TEST_F(CtlPvr, MarkWithFormatShowsTheFormatThenTheVerdict)
{
    CtlRun r = run({"pvr", "mark", "--format", "sdb"});
    EXPECT_EQ(0, r.code) << r.err;
    EXPECT_EQ("unmounting\n"
              "unmounted /mnt/pvr/shared/sdb1\n"
              "PVR partition gone: /mnt/pvr/shared/sdb1\n"
              "formatting\n"
              "mounting\n"
              "mounted /mnt/pvr/shared/sdb1 (vfat, label PVRDISK)\n"
              "PVR partition now /mnt/pvr/shared/sdb1\n"
              "result: ok, 1.2G (1234 MB)\n"
              "sdb: marked as the PVR disk\n",
              r.out);
    r = run({"pvr", "mark", "sdb", "--format", "--json"});
    EXPECT_TRUE(hosttest::json_lines(r.out)) << r.out;
    EXPECT_TRUE(has(r.out, "{\"step\":\"result\",\"volume\":\"sdb\",\"ok\":true,\"result\":0,\"sizeMB\":1234}\n"
                           "{\"disk\":\"sdb\",\"marked\":true,\"verdict\":0,\"name\":\"success\"}\n"))
        << r.out;
}

TEST_F(CtlPvr, UsageAndCommandNames)
{
    for (const auto& words : std::vector<std::vector<std::string>>{
             {"pvr"}, {"pvr", "bogus"}, {"pvr", "available"}, {"pvr", "state", "x"}, {"pvr", "total", "a", "b"},
             {"pvr", "guide", "--verbose"}, {"pvr", "mark"}, {"pvr", "path", "--timeout", "-1"}}) {
        CtlRun r = run(words);
        EXPECT_EQ(2, r.code) << words.size();
        EXPECT_TRUE(has(r.err, "lumstoragectl: pvr")) << r.err;
    }
    // The words are no command's short name; the command names stay raw.
    EXPECT_EQ(nullptr, lumctl::cmd_find("pvr"));
    EXPECT_EQ(nullptr, lumctl::cmd_find("format"));
    CtlRun r = run({"pvr-mount-path"});
    EXPECT_EQ("STORAGE_PVR_MOUNT_PATH (4130): result 0\n  value: \"/mnt/pvr/shared/sdb1\"\n", r.out);
    r = run({"help"});
    for (const char* word : {"format VOLUME", "pvr state", "pvr available DISK", "pvr mark DISK [--format]",
                             "pvr guide", "pvr limit [MB]", "3 the service"})
        EXPECT_TRUE(has(r.out, word)) << word;

    hosttest::TempDir dir;
    r = ctl(dir.path + "/none.sock", {"pvr", "state"});
    EXPECT_EQ(1, r.code);
    EXPECT_TRUE(has(r.err, "pvr state: cannot connect to ")) << r.err;
}

}  // namespace
