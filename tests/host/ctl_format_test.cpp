// lumstoragectl format end to end: ctl_main against an in-process daemon on
// the fake service, which plays hand-built event sequences of formats that
// succeed, fail, are refused as busy or outlive their watchdog, mixed with
// other clients' events.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "ctl_run.h"
#include "fake_devices.h"
#include "fake_pvr.h"
#include "test_support.h"

namespace {

using hosttest::ctl;
using hosttest::CtlRun;
using hosttest::has;

class CtlFormat : public ::testing::Test {
protected:
    void SetUp() override
    {
        fakesvc::reset_pvr();
        ASSERT_EQ(0, srv.start());
    }
    CtlRun run(std::vector<std::string> words) { return ctl(srv.config.socket_path, std::move(words)); }
    hosttest::TestServer srv;
};

// The "step" values of JSON lines, in order.
// The "step" of each JSON line ("?" for a line without one or no JSON).
std::vector<std::string> steps_of(const std::string& out)
{
    std::vector<std::string> steps;
    for (size_t start = 0, nl = out.find('\n'); nl != std::string::npos; start = nl + 1, nl = out.find('\n', start)) {
        const nlohmann::json line = nlohmann::json::parse(out.substr(start, nl - start), nullptr, false);
        steps.push_back(line.is_object() ? line.value("step", "?") : "?");
    }
    return steps;
}

TEST_F(CtlFormat, SuccessPrintsEachStepAndTheNewSize)
{
    // Other clients' formats (one of "sdb10"), a SET_ALL_PARTITION of
    // another device, a mount before the end of the unmount run and an
    // unmount after it come between the format's own events.
    CtlRun r = run({"format", "sdb1"});
    EXPECT_EQ(0, r.code) << r.err;
    EXPECT_EQ("unmounting\n"
              "unmounted /mnt/pvr/shared/sdb1\n"
              "PVR partition gone: /mnt/pvr/shared/sdb1\n"
              "formatting\n"
              "mounting\n"
              "mounted /mnt/pvr/shared/sdb1 (vfat, label PVRDISK)\n"
              "PVR partition now /mnt/pvr/shared/sdb1\n"
              "result: ok, 1.2G (1234 MB)\n",
              r.out);
    EXPECT_EQ("", r.err);

    for (const auto& words : {std::vector<std::string>{"format", "sdb1", "--json"},
                              std::vector<std::string>{"--json", "format", "sdb1"}}) {
        r = run(words);
        EXPECT_EQ(0, r.code) << r.err;
        EXPECT_TRUE(hosttest::json_lines(r.out)) << r.out;
        EXPECT_EQ((std::vector<std::string>{"unmounting", "unmounted", "pvrPlugOut", "formatting", "mounting",
                                            "mounted", "pvrChange", "mountEnd", "partition", "result"}),
                  steps_of(r.out));
        EXPECT_TRUE(has(r.out, "{\"step\":\"mounted\",\"mountPoint\":\"/mnt/pvr/shared/sdb1\",\"label\":\"PVRDISK\","))
            << r.out;
        EXPECT_TRUE(has(r.out, "{\"step\":\"result\",\"volume\":\"sdb1\",\"ok\":true,\"result\":0,\"sizeMB\":1234}\n"))
            << r.out;
        for (const char* other : {"sdz", "sdb10", "STRAY"})
            EXPECT_FALSE(has(r.out, other)) << other << " was taken for the format's own event";
    }
}

TEST_F(CtlFormat, FailuresNameTheToolsReasonAndExitOne)
{
    struct Case {
        const char* volume;
        const char* reason;
    };
    for (const Case& c : {Case{"sdc1", "tool failed"}, Case{"sde1", "no table row"}}) {
        const std::string v = c.volume;
        CtlRun r = run({"format", v});
        EXPECT_EQ(1, r.code) << v;
        EXPECT_EQ("unmounting\nunmounted /mnt/usb/" + v + "\nformatting\nmounting\nmounted /mnt/usb/" + v +
                      " (ext4)\nresult: failed (" + c.reason + ")\n",
                  r.out);
        r = run({"format", v, "--json"});
        EXPECT_EQ(1, r.code);
        EXPECT_TRUE(hosttest::json_lines(r.out)) << r.out;
        const std::string result = "{\"step\":\"result\",\"volume\":\"" + v + "\",\"ok\":false,\"result\":-1,";
        EXPECT_TRUE(has(r.out, result + "\"reason\":\"" + c.reason + "\"}\n")) << r.out;
    }
}

TEST_F(CtlFormat, BusyEndsAtOnceWithExitOne)
{
    // The default wait is 600 s: only the busy answer ends this quickly.
    CtlRun r = run({"format", "busy"});
    EXPECT_EQ(1, r.code);
    EXPECT_EQ("result: failed (another format is running)\n", r.out);
    r = run({"format", "busy", "--json"});
    EXPECT_EQ("{\"step\":\"result\",\"volume\":\"busy\",\"ok\":false,\"result\":-2,"
              "\"reason\":\"another format is running\"}\n",
              r.out);
}

TEST_F(CtlFormat, WatchdogIsToldAndTheFinalResultDecides)
{
    // Between the unmount run and the watchdog, a busy answer for the same
    // volume (another client's request) must not end the wait.
    CtlRun r = run({"format", "sdd1"});
    EXPECT_EQ(0, r.code) << r.err;
    EXPECT_EQ("unmounting\n"
              "unmounted /mnt/usb/sdd1\n"
              "formatting\n"
              "watchdog expired, still formatting\n"
              "mounting\n"
              "mounted /mnt/usb/sdd1 (vfat, label BIG)\n"
              "result: ok, 931.5G (953869 MB)\n",
              r.out);
    r = run({"format", "sdd1", "--json"});
    EXPECT_EQ((std::vector<std::string>{"unmounting", "unmounted", "formatting", "watchdog", "mounting", "mounted",
                                        "mountEnd", "partition", "result"}),
              steps_of(r.out));
    EXPECT_TRUE(has(r.out, "{\"step\":\"watchdog\",\"devName\":\"sdd1\",\"result\":-3}\n")) << r.out;
}

TEST_F(CtlFormat, AResultWithoutStepsStillEndsTheFormat)
{
    // The fake answers an unknown volume with the result alone.
    CtlRun r = run({"format", "sda1"});
    EXPECT_EQ(0, r.code) << r.err;
    EXPECT_EQ("result: ok\n", r.out);
}

TEST_F(CtlFormat, RefusalTimeOutAndUsage)
{
    CtlRun r = run({"format", fakesvc::kRefused});
    EXPECT_EQ(1, r.code);
    EXPECT_EQ("", r.out);
    EXPECT_EQ("lumstoragectl: format refuse: the service refused the request\n", r.err);

    r = run({"format", fakesvc::kSilent, "--timeout", "0.2"});
    EXPECT_EQ(1, r.code);
    EXPECT_TRUE(has(r.err, "format silent: timed out after 0.2 s waiting for the result of the format of silent "
                           "(so far: no step yet)"))
        << r.err;

    const std::string too_long(30, 'a');
    for (const auto& words : std::vector<std::vector<std::string>>{
             {"format"}, {"format", "a", "b"}, {"format", ""}, {"format", too_long}, {"format", "x", "--timeout", "0"},
             {"format", "x", "--force"}}) {
        r = run(words);
        EXPECT_EQ(2, r.code) << words.size();
        EXPECT_TRUE(has(r.err, "lumstoragectl: format")) << r.err;
    }
    // 29 characters fit the event's name field.
    r = run({"format", std::string(29, 'a')});
    EXPECT_EQ(0, r.code) << r.err;
}

}  // namespace
