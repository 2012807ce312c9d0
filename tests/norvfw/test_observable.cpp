// Observers: every queue whose filter takes a signal gets its own copy.
#include <gtest/gtest.h>

#include "norvfw/Observable.h"
#include "test_util.h"

using namespace norvtest;

namespace {
std::vector<unsigned long> Drain(CNorvMsgQueue* q)
{
    std::vector<unsigned long> got;
    CNorvMsg msg;
    while (q->TryReceive(&msg) == 0)
        got.push_back(msg.GetSignalName());
    return got;
}

}  // namespace

TEST(Observable, NotifiesEveryQueueWhoseFilterTakesTheSignal)
{
    CNorvMsgQueue all, seven, full;
    ASSERT_EQ(0, all.Create(QueueName("obs_all").c_str(), 10));
    ASSERT_EQ(0, seven.Create(QueueName("obs_7").c_str(), 10));
    ASSERT_EQ(0, full.Create(QueueName("obs_full").c_str(), 1));
    ASSERT_EQ(0, CNorvMsgQueue::Post(full.GetHandle(), CNorvMsg(1)));
    CObservableCallbackQueue subject;
    ASSERT_EQ(0, subject.RegisterCallbackQueue(all.GetHandle(), 1, 2, 0));
    ASSERT_EQ(0, subject.RegisterCallbackQueue(seven.GetHandle(), 0, 0, 7));
    ASSERT_EQ(0, subject.RegisterCallbackQueue(full.GetHandle(), 0, 0, 0));
    ASSERT_EQ(0, subject.RegisterCallbackQueue(-1, 0, 0, 0));  // a queue that is gone
    EXPECT_EQ(-1, subject.RegisterCallbackQueue(seven.GetHandle(), 0, 0, 7));
    EXPECT_TRUE(subject.AlreadyRegisteredWithCallbackQueue(seven.GetHandle(), 7));
    EXPECT_FALSE(subject.AlreadyRegisteredWithCallbackQueue(seven.GetHandle(), 8));
    EXPECT_EQ(4, subject.CountObserversWithCallbackQueue(0));
    EXPECT_EQ(4, subject.CountObserversWithCallbackQueue(7));
    EXPECT_EQ(3, subject.CountObserversWithCallbackQueue(8));
    // The full and the missing queue do not keep the others from their copy.
    CNorvMsg s7(7), s8(8);
    EXPECT_EQ(2, subject.NotifyObserversWithCallbackQueue(&s7));
    EXPECT_EQ(1, subject.NotifyObserversWithCallbackQueue(&s8));
    EXPECT_EQ(0, subject.NotifyObserversWithCallbackQueue(nullptr));
    EXPECT_EQ((std::vector<unsigned long>{7, 8}), Drain(&all));
    EXPECT_EQ((std::vector<unsigned long>{7}), Drain(&seven));
    EXPECT_EQ((std::vector<unsigned long>{1}), Drain(&full));
    EXPECT_EQ(0, subject.UnregisterCallbackQueue(all.GetHandle(), 0));
    EXPECT_EQ(-1, subject.UnregisterCallbackQueue(all.GetHandle(), 0));
    EXPECT_EQ(2, subject.NotifyObserversWithCallbackQueue(&s7));
    EXPECT_TRUE(Drain(&all).empty());
    subject.DeleteObserversWithCallbackQueue();
    EXPECT_EQ(0, subject.NotifyObserversWithCallbackQueue(&s7));
}
