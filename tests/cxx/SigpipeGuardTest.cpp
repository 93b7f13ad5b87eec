#include "Framework/GCL/cxx/SigpipeGuard.h"

#include <gtest/gtest.h>

#include <pthread.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>
#include <type_traits>

#include "Framework/GCL/cxx/TcpSocket.h"
#include "Framework/GCL/testing/FaultInjection.h"
#include "Framework/GCL/testing/TraceCapture.h"
#include "tests/support/Loopback.h"

using gcl::SigpipeGuard;
using gcltest::Fault;
using gcltest::OwnedFd;
namespace calls = gcltest::calls;

namespace {

// Counts SIGPIPE for each thread, and leaves the disposition and this thread's mask as they were.
class SigpipeGuardTest : public testing::Test {
protected:
    SigpipeGuardTest()
    {
        struct sigaction action {};
        action.sa_handler = [](int) { ++received; };
        EXPECT_EQ(sigaction(SIGPIPE, &action, &actionBefore), 0);
        received = 0;
        int ends[2] = {-1, -1};
        EXPECT_EQ(pipe(ends), 0);
        close(ends[0]);
        brokenPipe.reset(ends[1]);
    }
    ~SigpipeGuardTest() override
    {
        unblock();
        sigaction(SIGPIPE, &actionBefore, nullptr);
    }

    // A write that raises SIGPIPE in its thread.
    void writeToNobody() const
    {
        EXPECT_EQ(write(brokenPipe.get(), "x", 1), -1);
        EXPECT_EQ(errno, EPIPE);
    }

    static sigset_t sigpipe()
    {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGPIPE);
        return set;
    }
    static void block()
    {
        const sigset_t set = sigpipe();
        EXPECT_EQ(pthread_sigmask(SIG_BLOCK, &set, nullptr), 0);
    }
    static void unblock()
    {
        const sigset_t set = sigpipe();
        EXPECT_EQ(pthread_sigmask(SIG_UNBLOCK, &set, nullptr), 0);
    }
    static bool isBlocked(int signal = SIGPIPE)
    {
        sigset_t mask;
        sigemptyset(&mask);
        EXPECT_EQ(pthread_sigmask(SIG_BLOCK, nullptr, &mask), 0);
        return sigismember(&mask, signal) == 1;
    }
    static bool isPending()
    {
        sigset_t pending;
        sigemptyset(&pending);
        EXPECT_EQ(sigpending(&pending), 0);
        return sigismember(&pending, SIGPIPE) == 1;
    }

    static inline thread_local volatile int received = 0;
    OwnedFd brokenPipe;

private:
    struct sigaction actionBefore {};
};

} // namespace

TEST_F(SigpipeGuardTest, WithoutItAWriteRaisesTheSignal)
{
    static_assert(!std::is_copy_constructible_v<SigpipeGuard>);
    static_assert(!std::is_copy_assignable_v<SigpipeGuard>);
    writeToNobody();
    EXPECT_EQ(received, 1);
}

TEST_F(SigpipeGuardTest, KeepsTheSignalOff)
{
    {
        const SigpipeGuard guard;
        EXPECT_TRUE(isBlocked());
        writeToNobody();
        writeToNobody();
        EXPECT_TRUE(isPending());
    }
    EXPECT_FALSE(isBlocked());
    EXPECT_FALSE(isPending());
    EXPECT_EQ(received, 0);
    writeToNobody();
    EXPECT_EQ(received, 1);
}

TEST_F(SigpipeGuardTest, ChangesNothingWhereNothingIsRaised)
{
    {
        const SigpipeGuard guard;
    }
    EXPECT_FALSE(isBlocked());
    EXPECT_FALSE(isPending());
    EXPECT_EQ(received, 0);
}

TEST_F(SigpipeGuardTest, LeavesTheSignalBlockedWhereItWas)
{
    block();
    {
        const SigpipeGuard guard;
        writeToNobody();
    }
    EXPECT_TRUE(isBlocked());
    EXPECT_FALSE(isPending());
    unblock();
    EXPECT_EQ(received, 0);
}

TEST_F(SigpipeGuardTest, LeavesASignalThatWasPendingForTheThread)
{
    block();
    ASSERT_EQ(pthread_kill(pthread_self(), SIGPIPE), 0);
    {
        const SigpipeGuard guard;
        writeToNobody(); // it becomes one with the other
    }
    EXPECT_TRUE(isBlocked());
    EXPECT_TRUE(isPending());
    EXPECT_EQ(received, 0);
    unblock();
    EXPECT_EQ(received, 1);
}

TEST_F(SigpipeGuardTest, LeavesASignalThatWasPendingForTheProcess)
{
    block(); // the case's process has no other thread
    ASSERT_EQ(kill(getpid(), SIGPIPE), 0);
    {
        const SigpipeGuard guard;
    }
    EXPECT_TRUE(isPending());
    unblock();
    EXPECT_EQ(received, 1);
}

TEST_F(SigpipeGuardTest, LetsASignalThroughThatComesAfterwards)
{
    {
        const SigpipeGuard guard;
        writeToNobody();
    }
    ASSERT_EQ(pthread_kill(pthread_self(), SIGPIPE), 0);
    EXPECT_EQ(received, 1);
}

TEST_F(SigpipeGuardTest, WorksWhereTheSignalIsIgnored)
{
    signal(SIGPIPE, SIG_IGN);
    {
        const SigpipeGuard guard;
        writeToNobody();
    }
    EXPECT_FALSE(isPending());
    EXPECT_FALSE(isBlocked());
}

TEST_F(SigpipeGuardTest, Nests)
{
    {
        const SigpipeGuard outer;
        {
            const SigpipeGuard inner;
            writeToNobody();
        }
        EXPECT_TRUE(isBlocked());
        EXPECT_FALSE(isPending());
        writeToNobody();
        {
            const SigpipeGuard inner; // the outer one's signal is pending
            writeToNobody();
        }
        EXPECT_TRUE(isPending());
    }
    EXPECT_FALSE(isBlocked());
    EXPECT_FALSE(isPending());
    EXPECT_EQ(received, 0);
}

TEST_F(SigpipeGuardTest, KeepsErrnoAndTheRestOfTheMask)
{
    {
        const SigpipeGuard guard;
        writeToNobody();
        sigset_t other;
        sigemptyset(&other);
        sigaddset(&other, SIGUSR2);
        ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &other, nullptr), 0);
        errno = EPIPE;
    }
    EXPECT_EQ(errno, EPIPE);
    EXPECT_TRUE(isBlocked(SIGUSR2)) << "what the thread did itself stays";
    sigset_t other;
    sigemptyset(&other);
    sigaddset(&other, SIGUSR2);
    ASSERT_EQ(pthread_sigmask(SIG_UNBLOCK, &other, nullptr), 0);
}

TEST_F(SigpipeGuardTest, TakesTheSignalOffThroughOtherSignals)
{
    const Fault fault(calls::sigtimedwait, calls::sigtimedwait.failure(EINTR, 1, 3));
    {
        const SigpipeGuard guard;
        writeToNobody();
        errno = EPIPE;
    }
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(fault.failures(), 3u);
    EXPECT_FALSE(isPending());
    EXPECT_EQ(received, 0);
}

TEST_F(SigpipeGuardTest, DoesNotWaitForASignalThatAnotherThreadTook)
{
    const Fault fault(calls::sigtimedwait, calls::sigtimedwait.failure(EAGAIN, 1, 1));
    {
        const SigpipeGuard guard;
        writeToNobody();
        errno = EPIPE;
    }
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(fault.failures(), 1u);
    EXPECT_EQ(received, 1) << "it was there after all";
}

TEST_F(SigpipeGuardTest, DoesNotConcernOtherThreads)
{
    std::atomic<int> step{0};
    const auto reach = [&](int next) {
        step = next;
        while (step != next + 1) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    };
    std::thread other([&] {
        while (step != 1) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        EXPECT_FALSE(isBlocked());
        writeToNobody();
        EXPECT_EQ(received, 1);
        // A signal for the process finds the thread that does not block it.
        EXPECT_EQ(kill(getpid(), SIGPIPE), 0);
        while (received != 2) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        block(); // its own pending signal is not the guard's to take
        writeToNobody();
        step = 2;
        while (step != 3) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        EXPECT_TRUE(isPending());
        unblock();
        EXPECT_EQ(received, 3);
    });
    {
        const SigpipeGuard guard;
        writeToNobody();
        reach(1);
    }
    EXPECT_EQ(received, 0);
    EXPECT_FALSE(isPending());
    step = 3;
    other.join();
}

TEST_F(SigpipeGuardTest, GuardsAWriteToAResetConnection)
{
    gcltest::Connection connection;
    gcl::TcpSocket socket(connection.near.release(), 1, 100);
    const linger abort = {1, 0};
    ASSERT_EQ(setsockopt(connection.far.get(), SOL_SOCKET, SO_LINGER, &abort, sizeof abort), 0);
    connection.far.reset(); // resets the connection
    {
        const SigpipeGuard guard;
        gcl::Result result = GCL_OK;
        errno = 0;
        for (int i = 0; i < 200 && errno != EPIPE; ++i) {
            result = socket.write("x", 1);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        EXPECT_EQ(result, GCL_SOCKET_FAILED);
        EXPECT_EQ(errno, EPIPE);
        EXPECT_TRUE(isPending());
    }
    EXPECT_EQ(received, 0);
    EXPECT_FALSE(isPending());
    socket.destruct();
    gcltest::takeReports();
}
