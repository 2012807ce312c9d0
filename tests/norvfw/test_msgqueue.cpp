// The message queue and the payload ownership rule of SendCmd.
#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <mqueue.h>

#include "norvfw/testing.h"
#include "test_util.h"

using namespace norvtest;

TEST(MsgQueue, KeepsFifoOrderAndCarriesPayloadsAndStamps)
{
    CNorvMsgQueue q;
    ASSERT_EQ(0, q.Create(QueueName("fifo").c_str(), 10));
    std::vector<void*> sent;
    for (unsigned long i = 0; i < 10; ++i) {
        CNorvMsg msg = PayloadMsg(i);
        msg.SetTimerStamp(&q, 7 + i);
        sent.push_back(msg.GetSignalPtr());
        ASSERT_EQ(0, CNorvMsgQueue::Post(q.GetHandle(), msg));
    }
    CNorvMsg full(99);
    EXPECT_EQ(-EAGAIN, CNorvMsgQueue::Post(q.GetHandle(), full));  // at once, no waiting
    for (unsigned long i = 0; i < 10; ++i) {
        CNorvMsg got;
        ASSERT_EQ(0, q.Receive(&got));
        EXPECT_EQ(i, got.GetSignalName());
        EXPECT_EQ(sent[i], got.GetSignalPtr());
        EXPECT_EQ(i, *static_cast<unsigned long*>(got.GetSignalPtr()));
        EXPECT_EQ(&q, got.GetTimerOwner());
        EXPECT_EQ(7 + i, got.GetTimerGeneration());
        got.FreeSignal();
    }
    EXPECT_EQ(-EAGAIN, q.TryReceive(&full));
    CNorvMsgQueue never;
    EXPECT_LT(CNorvMsgQueue::Post(never.GetHandle(), full), 0);
    EXPECT_LT(never.Receive(&full), 0);
}

TEST(MsgQueue, CreateReplacesAStaleQueueAndChecksDepth)
{
    std::string name = QueueName("stale");
    CNorvMsgQueue first;
    ASSERT_EQ(0, first.Create(name.c_str(), 4));
    ASSERT_EQ(0, CNorvMsgQueue::Post(first.GetHandle(), CNorvMsg(5)));
    CNorvMsgQueue second;
    ASSERT_EQ(0, second.Create(name.c_str(), 4));
    EXPECT_EQ(0, second.Count());
    first.Destroy();  // must not remove the name, which is second's now
    mqd_t still = mq_open(name.c_str(), O_RDONLY);
    ASSERT_NE(static_cast<mqd_t>(-1), still);
    mq_close(still);
    FILE* f = fopen("/proc/sys/fs/mqueue/msg_max", "r");
    int max = 0;
    ASSERT_TRUE(f != nullptr && fscanf(f, "%d", &max) == 1);
    fclose(f);
    CNorvMsgQueue q;
    EXPECT_EQ(-EINVAL, q.Create(QueueName("deep").c_str(), max + 1));
    EXPECT_EQ(-EINVAL, q.Create(QueueName("zero").c_str(), 0));
    EXPECT_LT(q.Create("/a/b", 4), 0);
    EXPECT_EQ(0, q.Create(QueueName("max").c_str(), max));
}

TEST(SendCmd, RefusedMessageHasItsPayloadFreedExactlyOnce)
{
    Recorder r;  // not started: nothing drains the queue
    CNorvMsg early = PayloadMsg(1);
    unsigned long before = NorvMsgFreedPayloads();
    EXPECT_NE(0, r.SendCmd(&early));  // no queue yet
    EXPECT_EQ(before + 1, NorvMsgFreedPayloads());
    ASSERT_EQ(0, r.Init(QueueName("full").c_str(), 2, 0, false));
    for (unsigned long s = 2; s <= 3; ++s) {
        CNorvMsg msg = PayloadMsg(s);
        ASSERT_EQ(0, r.SendCmd(&msg));
    }
    CNorvMsg refused = PayloadMsg(4);
    EXPECT_NE(0, r.SendCmd(&refused));
    EXPECT_EQ(before + 2, NorvMsgFreedPayloads());
    refused.FreeSignal();  // a careless second release does nothing
    EXPECT_EQ(before + 2, NorvMsgFreedPayloads());
    EXPECT_EQ(2, r.ReadMsgsFromNonBlockingQueue());  // the queued ones are intact
    EXPECT_EQ((std::vector<unsigned long>{2, 3}), r.Signals());
    EXPECT_EQ(before + 4, NorvMsgFreedPayloads());
}

TEST(SendCmd, ClearQueueAndDestructionReleaseWaitingPayloads)
{
    unsigned long before = NorvMsgFreedPayloads();
    {
        Recorder r;
        ASSERT_EQ(0, r.Init(QueueName("clear").c_str(), 5, 0, false));
        for (unsigned long s = 0; s < 5; ++s) {
            CNorvMsg msg = PayloadMsg(s);
            ASSERT_EQ(0, r.SendCmd(&msg));
            if (s == 2) {
                r.ClearQueue();
                EXPECT_EQ(0, r.GetNrOfMsgsInQueue());
                EXPECT_EQ(before + 3, NorvMsgFreedPayloads());
            }
        }
    }
    EXPECT_EQ(before + 5, NorvMsgFreedPayloads());
}
