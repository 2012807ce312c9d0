// Trace filtering, unit names from the application's table, whole lines.
#include <gtest/gtest.h>
#include <sstream>

#include "norvfw/Nshell.h"
#include "norvfw/Trace.h"
#include "test_util.h"

// The application's table, exported the way the product does.
const char* traceUnitsStringArray[72] = {"None", "TvSystem", "NorvMsg", "NorvMsgQueue"};
static const int kTraceUnitsSize = sizeof(traceUnitsStringArray);
const int* traceUnitsStringArraySizePtr = &kTraceUnitsSize;

namespace {
std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

class TraceTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        norvTrace.Init("tst", 100);
        norvTrace.SetTraceOnAll(TRACELEVEL_NONE);
        norvTrace.StartTracingToScreen();
    }
    void TearDown() override { norvTrace.StopTracingToScreen(); norvTrace.SetTraceOnAll(TRACELEVEL_ERROR); }
};

}  // namespace

TEST_F(TraceTest, LevelsFilterAndUnitsAreNamedFromTheTable)
{
    std::string out;
    nshell.AddNshellInternalNshellCmds();
    ASSERT_EQ(0, nshell.Execute("trace norvmsgqueue warning", &out)) << out;  // a unit by its name, any case
    norvTrace.SetTraceOn(TRACE_OBSERVE, TRACELEVEL_ALL);
    norvTrace.SetTraceOn(128, TRACELEVEL_ALL);  // no such unit: changes nothing
    norvtest::StdoutCapture capture;
    TraceFormattedString(TRACE_NORVMSGQUEUE, TRACELEVEL_INFO, "hidden %d", 1);
    TraceFormattedString(TRACE_NORVMSGQUEUE, TRACELEVEL_ERROR, "shown %d\n", 2);
    TraceFormattedString(TRACE_OBSERVE, TRACELEVEL_DEBUG, "unnamed %s", "unit");
    TraceFormattedString(TRACE_TVSYSTEM, TRACELEVEL_ERROR, "unit set to none");
    TraceFormattedString(500, TRACELEVEL_ERROR, "unit out of range");
    TraceFormattedString(TRACE_OBSERVE, TRACELEVEL_ERROR, "%s", std::string(5000, 'y').c_str());
    norvTrace.StopTracingToScreen();
    TraceFormattedString(TRACE_NORVMSGQUEUE, TRACELEVEL_ERROR, "screen off");
    std::vector<std::string> lines = Lines(capture.Stop());
    ASSERT_EQ(3u, lines.size());
    EXPECT_EQ("[tst] NorvMsgQueue: shown 2", lines[0]);
    EXPECT_EQ("[tst] 17: unnamed unit", lines[1]);
    EXPECT_LT(lines[2].size(), 1024u);  // cut, but still one line
}

TEST_F(TraceTest, LinesStayWholeWhenThreadsTraceAtOnce)
{
    norvTrace.SetTraceOn(TRACE_NORVMSG, TRACELEVEL_ALL);
    const int kThreads = 4;
    const int kLines = 300;
    const std::string tail = " " + std::string(200, 'x') + " end";
    norvtest::StdoutCapture capture;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kLines; ++i)
                TraceFormattedString(TRACE_NORVMSG, TRACELEVEL_INFO, "t%d n%d%s", t, i, tail.c_str());
        });
    }
    for (std::thread& th : threads)
        th.join();
    std::vector<std::string> lines = Lines(capture.Stop());
    ASSERT_EQ(static_cast<size_t>(kThreads * kLines), lines.size());
    std::vector<int> next(kThreads, 0);
    for (const std::string& line : lines) {
        int t = -1;
        int i = -1;
        ASSERT_EQ(2, sscanf(line.c_str(), "[tst] NorvMsg: t%d n%d", &t, &i)) << line;
        ASSERT_TRUE(t >= 0 && t < kThreads);
        EXPECT_EQ(next[t]++, i);
        ASSERT_EQ(tail, line.substr(line.size() - tail.size())) << line;
    }
}
