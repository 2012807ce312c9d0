// One-shot timers: expiries arrive once and in order, stale ones are told apart from live ones.
#include <gtest/gtest.h>
#include <memory>

#include "norvfw/TimeOut.h"
#include "test_util.h"

using namespace norvtest;

namespace {
class Timers : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!TimeOutServer::instance().IsRunning()) {
            ASSERT_EQ(0, TimeOutServer::instance().StartThread("timeout_server", 0, 0));
        }
        ASSERT_EQ(0, m_Queue.Create(QueueName("timer").c_str(), 10));
    }
    void Sleep(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }
    CNorvMsgQueue m_Queue;
};

}  // namespace

TEST_F(Timers, FireOnceInOrderOfDueTimeWithLiveExpiries)
{
    int q = m_Queue.GetHandle();
    TimeOutTimer late(0, 0, -1, 0);
    TimeOutTimer early(0, 0, -1, 0);
    TimeOutTimer middle(0, 0, -1, 0);
    ASSERT_EQ(0, late.StartTimer(300, 3, q, 0));
    ASSERT_EQ(0, early.StartTimer(10, 1, q, 0));
    ASSERT_EQ(0, middle.StartTimer(150, 2, q, 0));
    EXPECT_TRUE(early.IsRunning());
    TimeOutTimer* timers[] = {&early, &middle, &late};
    for (unsigned long expected = 1; expected <= 3; ++expected) {
        CNorvMsg msg;
        ASSERT_TRUE(WaitForMsg(&m_Queue, &msg));
        EXPECT_EQ(expected, msg.GetSignalName());
        EXPECT_NE(0, timers[expected - 1]->TimerIsValid(&msg));
        EXPECT_EQ(0, timers[expected % 3]->TimerIsValid(&msg));  // not another timer's
        EXPECT_FALSE(timers[expected - 1]->IsRunning());
    }
    CNorvMsg plain(1);
    EXPECT_EQ(0, early.TimerIsValid(&plain));
    Sleep(100);
    EXPECT_EQ(0, m_Queue.Count());  // each fired once
    EXPECT_NE(0, early.StartTimer(10, 1, -1, 0));
}

TEST_F(Timers, ReArmOrStopMakesAQueuedExpiryStale)
{
    TimeOutTimer t(0, 0, -1, 0);
    for (int stop = 0; stop < 2; ++stop) {
        ASSERT_EQ(0, t.StartTimer(1, 5, m_Queue.GetHandle(), 0));
        ASSERT_TRUE(WaitFor([&] { return m_Queue.Count() == 1; }));
        if (stop) {
            t.StopTimer();
        } else {
            ASSERT_EQ(0, t.StartTimer(60000, 5, m_Queue.GetHandle(), 0));
        }
        CNorvMsg msg;
        ASSERT_EQ(0, m_Queue.TryReceive(&msg));
        EXPECT_EQ(0, t.TimerIsValid(&msg));
        EXPECT_EQ(stop == 0, t.IsRunning());
    }
}

TEST_F(Timers, StopRacingWithTheExpiryNeverLeavesALiveExpiry)
{
    TimeOutTimer t(0, 0, -1, 0);
    for (int round = 0; round < 300; ++round) {
        ASSERT_EQ(0, t.StartTimer(round % 3, 10, m_Queue.GetHandle(), 0));
        std::thread stopper([&] { t.StopTimer(); });
        stopper.join();
        if (round == 299)
            Sleep(20);
        CNorvMsg msg;
        while (m_Queue.TryReceive(&msg) == 0)
            ASSERT_EQ(0, t.TimerIsValid(&msg)) << "round " << round;
    }
}

TEST_F(Timers, FullQueueIsRetriedUntilThereIsRoomOrTheTimerStops)
{
    CNorvMsgQueue small;
    ASSERT_EQ(0, small.Create(QueueName("small").c_str(), 1));
    TimeOutTimer t(0, 0, -1, 0);
    for (int stop = 0; stop < 2; ++stop) {
        ASSERT_EQ(0, CNorvMsgQueue::Post(small.GetHandle(), CNorvMsg(99)));
        ASSERT_EQ(0, t.StartTimer(1, 7, small.GetHandle(), 0));
        Sleep(50);
        if (stop)
            t.StopTimer();
        CNorvMsg msg;
        ASSERT_EQ(0, small.TryReceive(&msg));
        EXPECT_EQ(99u, msg.GetSignalName());
        if (stop) {
            Sleep(50);
            EXPECT_EQ(0, small.Count());
        } else {
            ASSERT_TRUE(WaitForMsg(&small, &msg));
            EXPECT_NE(0, t.TimerIsValid(&msg));
        }
    }
}

TEST_F(Timers, DestroyedArmedTimerNeverFires)
{
    // Due in 300 ms, so that the timer is destroyed before it is due even
    // on a loaded machine or under emulation; it would have fired by 400.
    std::unique_ptr<TimeOutTimer> t(new TimeOutTimer(0, 0, -1, 0));
    ASSERT_EQ(0, t->StartTimer(300, 11, m_Queue.GetHandle(), 0));
    t.reset();
    Sleep(400);
    EXPECT_EQ(0, m_Queue.Count());
}

TEST_F(Timers, StartedBeforeTheServerRunsFireOnceItRuns)
{
    TimeOutServer& server = TimeOutServer::instance();
    ASSERT_EQ(0, server.StopThreadAndWait());
    TimeOutTimer t(0, 0, -1, 0);
    ASSERT_EQ(0, t.StartTimer(1, 12, m_Queue.GetHandle(), 0));
    Sleep(30);
    EXPECT_EQ(0, m_Queue.Count());
    ASSERT_EQ(0, server.StartThread("timeout_server", 0, 0));
    CNorvMsg msg;
    ASSERT_TRUE(WaitForMsg(&m_Queue, &msg));
    EXPECT_NE(0, t.TimerIsValid(&msg));
}
