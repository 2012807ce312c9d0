// Framework threads: start, stop, wake from blocking calls, destruction.
#include <cerrno>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include "norvfw/Nshell.h"
#include "norvfw/TimeOut.h"
#include "norvfw/testing.h"
#include "test_util.h"

using namespace norvtest;

namespace {
// Blocks in recv on a socket nobody writes to.
class SocketWaiter : public CThreadObject {
public:
    SocketWaiter() { socketpair(AF_UNIX, SOCK_STREAM, 0, m_Fds); }
    ~SocketWaiter() override
    {
        StopThreadAndWait();
        close(m_Fds[0]);
        close(m_Fds[1]);
    }
    void ThreadWorkFunction() override
    {
        char c;
        while (m_StopFlag.load() == 0) {
            m_Entered.store(true);
            if (recv(m_Fds[0], &c, 1, 0) < 0 && errno == EINTR)
                m_Interrupted.fetch_add(1);
        }
    }
    std::atomic<bool> m_Entered{false};
    std::atomic<int> m_Interrupted{0};

private:
    int m_Fds[2];
};

// Waits on a condition until s_released: the wake signal cannot end that. Its thread touches nothing of the
// object, which may be gone by then.
class Stuck : public CThreadObject {
public:
    void ThreadWorkFunction() override
    {
        std::unique_lock<std::mutex> guard(*s_lock);
        s_cond->wait(guard, [] { return s_released; });
        ++s_ended;
    }
    static inline std::mutex* s_lock = new std::mutex;  // never destroyed: threads may wait at exit
    static inline std::condition_variable* s_cond = new std::condition_variable;
    static inline bool s_released = false;
    static inline std::atomic<int> s_ended{0};
};

// Ends the process from its own thread, as a product command handler may.
class ExitingRecorder : public Recorder {
public:
    void ProcessNorvMsg(CNorvMsg*) override { exit(0); }
};

}  // namespace

TEST(Threads, StopWakesRecvAndASecondStartIsRefused)
{
    SocketWaiter w;
    ASSERT_EQ(0, w.StartThread("sock_waiter", 0, 0));
    EXPECT_LT(w.StartThread("sock_waiter", 0, 0), 0);
    ASSERT_TRUE(WaitFor([&] { return w.m_Entered.load(); }));
    EXPECT_EQ(0, w.StopThreadAndWait());
    EXPECT_GE(w.m_Interrupted.load(), 1);
    EXPECT_FALSE(w.IsRunning());
    ASSERT_EQ(0, w.StartThread("again", 0, 64 * 1024));  // a stopped thread starts anew
    EXPECT_FALSE(w.IsStopRequested());
    EXPECT_EQ(0, w.StopThreadAndWait());
}

TEST(Threads, ConcurrentSendersLoseNothingKeepOrderAndFreeEveryPayloadOnce)
{
    Recorder r;
    ASSERT_EQ(0, r.Init(QueueName("many").c_str(), 10, 0, false));
    ASSERT_EQ(0, r.StartThread("many_senders", 0, 0));
    unsigned long before = NorvMsgFreedPayloads();
    const unsigned long kSenders = 4;
    const unsigned long kEach = 250;
    std::atomic<unsigned long> refused{0};
    std::vector<std::thread> senders;
    for (unsigned long s = 0; s < kSenders; ++s) {
        senders.emplace_back([&, s] {
            for (unsigned long i = 0; i < kEach; ++i) {
                CNorvMsg msg = PayloadMsg(s * kEach + i);
                while (r.SendCmd(&msg) != 0) {  // full: SendCmd released the payload
                    refused.fetch_add(1);
                    msg = PayloadMsg(s * kEach + i);
                    std::this_thread::yield();
                }
            }
        });
    }
    for (std::thread& t : senders)
        t.join();
    ASSERT_TRUE(WaitFor([&] { return r.GetNrOfProcessedMsgs() == kSenders * kEach; }));
    std::vector<unsigned long> next(kSenders);
    for (unsigned long signal : r.Signals()) {  // each sender's messages in its order
        ASSERT_EQ(next[signal / kEach]++, signal % kEach);
    }
    EXPECT_EQ(before + kSenders * kEach + refused.load(), NorvMsgFreedPayloads());
    EXPECT_EQ(0, r.StopThreadAndWait());  // it waits in mq_receive now
    EXPECT_FALSE(r.IsRunning());
}

TEST(Threads, DestroyingRunningThreadsStopsThem)
{
    // Heap objects, so that AddressSanitizer sees a use after the delete.
    Recorder* r = new Recorder;
    ASSERT_EQ(0, r->Init(QueueName("dtor").c_str(), 4, 0, false));
    ASSERT_EQ(0, r->StartThread("dtor_queue", 0, 0));
    SocketWaiter* w = new SocketWaiter;
    ASSERT_EQ(0, w->StartThread("dtor_sock", 0, 0));
    ASSERT_TRUE(WaitFor([&] { return w->m_Entered.load(); }));
    // One that does not stop is let go after a while; its entry goes, and only its own.
    Stuck* stuck = new Stuck;
    ASSERT_EQ(0, stuck->StartThread("dtor_stuck", 0, 0));
    SocketWaiter* after = new SocketWaiter;
    ASSERT_EQ(0, after->StartThread("dtor_after", 0, 0));
    delete stuck;
    InitThreadObjectNshell();
    std::string threads;
    ASSERT_EQ(0, nshell.Execute("threads", &threads));
    EXPECT_TRUE(threads.find("dtor_after") != std::string::npos && threads.find("dtor_stuck") == std::string::npos)
        << threads;
    std::unique_lock<std::mutex> release(*Stuck::s_lock);
    Stuck::s_released = true;
    release.unlock();
    Stuck::s_cond->notify_all();
    // Its end must leave the gone object alone (a use after free otherwise).
    ASSERT_TRUE(WaitFor([] { return Stuck::s_ended.load() == 1; }));
    delete after;
    delete r;
    delete w;
}

TEST(ThreadsAtExit, ExitWithRunningThreadsEndsCleanly)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            static Recorder queueThread;
            static SocketWaiter sockThread;
            queueThread.Init(QueueName("exit").c_str(), 4, 0, false);
            queueThread.StartThread("exit_queue", 0, 0);
            sockThread.StartThread("exit_sock", 0, 0);
            TimeOutServer::instance().StartThread("timeout_server", 0, 0);
            exit(0);
        },
        ::testing::ExitedWithCode(0), "");
    EXPECT_EXIT(
        {
            static Stuck stuck;  // given up on after a bounded wait
            stuck.StartThread("exit_stuck", 0, 0);
            exit(0);
        },
        ::testing::ExitedWithCode(0), "");
    EXPECT_EXIT(
        {
            static ExitingRecorder r;  // destroyed on its own thread
            r.Init(QueueName("self").c_str(), 4, 0, false);
            r.StartThread("exit_self", 0, 0);
            CNorvMsg msg(1);
            r.SendCmd(&msg);
            pause();
        },
        ::testing::ExitedWithCode(0), "");
}
