// A program without the application's unit table: the library's weak
// references stay null, it still links and loads, and units go by number.
#include <gtest/gtest.h>

#include "norvfw/Nshell.h"
#include "norvfw/Trace.h"
#include "test_util.h"

TEST(TraceWithoutUnitTable, UnitsArePrintedAndParsedByNumber)
{
    norvTrace.Init("plain", 10);
    norvTrace.SetTraceOn(TRACE_NORVMSGQUEUE, TRACELEVEL_ALL);
    norvTrace.StartTracingToScreen();
    norvtest::StdoutCapture capture;
    TraceFormattedString(TRACE_NORVMSGQUEUE, TRACELEVEL_INFO, "hello");
    norvTrace.StopTracingToScreen();
    EXPECT_EQ("[plain] 3: hello\n", capture.Stop());
    nshell.AddNshellInternalNshellCmds();
    std::string out;
    EXPECT_EQ(0, nshell.Execute("trace 3 error", &out));
    EXPECT_EQ(TRACELEVEL_ERROR, norvTrace.GetTraceLevel(3));
    EXPECT_NE(0, nshell.Execute("trace NorvMsgQueue error", &out));
}
