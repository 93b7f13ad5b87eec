// The helper that fails the platform's calls must itself do what it says.
#include "Framework/GCL/testing/FaultInjection.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using gcltest::Count;
using gcltest::Failure;
using gcltest::Fault;
using gcltest::Hook;
using gcltest::Threads;
namespace calls = gcltest::calls;

namespace {

// The results of four calls of sem_post, which succeed unless they are made to fail.
std::vector<int> fourPosts(sem_t& semaphore)
{
    std::vector<int> results;
    for (int i = 0; i < 4; ++i) {
        results.push_back(sem_post(&semaphore));
    }
    return results;
}

class FaultInjection : public testing::Test {
protected:
    FaultInjection() { sem_init(&semaphore, 0, 0); }
    ~FaultInjection() override { sem_destroy(&semaphore); }

    int value()
    {
        int result = -1;
        sem_getvalue(&semaphore, &result);
        return result;
    }

    sem_t semaphore{};
};

} // namespace

TEST_F(FaultInjection, FailsTheChosenCallsOnlyAndMakesTheOthers)
{
    const Fault fault(calls::sem_post, {-1, EOVERFLOW, 2, 2});
    errno = 0;
    EXPECT_EQ(fourPosts(semaphore), (std::vector<int>{0, -1, -1, 0}));
    EXPECT_EQ(errno, EOVERFLOW);
    EXPECT_EQ(value(), 2);
    EXPECT_EQ(fault.calls(), 4u);
    EXPECT_EQ(fault.failures(), 2u);
}

TEST_F(FaultInjection, FailsForGoodUntilItEnds)
{
    {
        const Fault fault(calls::sem_post, {-1, 0, 1, Failure::kForGood});
        EXPECT_EQ(fourPosts(semaphore), (std::vector<int>{-1, -1, -1, -1}));
    }
    EXPECT_EQ(fourPosts(semaphore), (std::vector<int>{0, 0, 0, 0}));
}

TEST_F(FaultInjection, LeavesOtherThreadsAloneUnlessAskedFor)
{
    std::vector<int> results;
    {
        const Fault fault(calls::sem_post, {-1, 0, 1, Failure::kForGood});
        std::thread([&] { results = fourPosts(semaphore); }).join();
        EXPECT_EQ(results, (std::vector<int>{0, 0, 0, 0}));
        EXPECT_EQ(fault.calls(), 0u);
    }
    const Fault fault(calls::sem_post, {-1, 0, 1, Failure::kForGood}, Threads::all);
    std::thread([&] { results = fourPosts(semaphore); }).join();
    EXPECT_EQ(results, (std::vector<int>{-1, -1, -1, -1}));
}

TEST_F(FaultInjection, CountsWithoutFailing)
{
    const Count count(calls::sem_post);
    EXPECT_EQ(fourPosts(semaphore), (std::vector<int>{0, 0, 0, 0}));
    EXPECT_EQ(count.calls(), 4u);
    EXPECT_EQ(count.failures(), 0u);
}

TEST_F(FaultInjection, PutsAFunctionInPlaceOfACallThatItCanStillMake)
{
    const Hook hook(calls::sem_post, [](sem_t* posted) {
        EXPECT_EQ(calls::sem_post.real(posted), 0);
        return sem_post(posted) + 5; // from inside the hook: the C library's
    });
    EXPECT_EQ(sem_post(&semaphore), 5);
    EXPECT_EQ(hook.calls(), 1u);
    EXPECT_EQ(value(), 2);
}

// Calls of the operators by name: a new expression the compiler may leave out.
TEST(FaultInjectionNew, ThrowsBadAllocForArraysAndScalars)
{
    {
        const Fault fault(calls::newArray, {0, 0});
        EXPECT_THROW(::operator delete[](::operator new[](10)), std::bad_alloc);
        EXPECT_NO_THROW(::operator delete[](::operator new[](10)));
        EXPECT_EQ(fault.calls(), 2u);
    }
    const Fault fault(calls::newScalar, {0, 0});
    EXPECT_THROW(::operator delete(::operator new(10)), std::bad_alloc);
}

// What the rows of the table say.
TEST(FaultInjectionFailure, IsToldAsTheFunctionTellsIt)
{
    {
        const Fault fault(calls::recv, calls::recv.failure(ENOTCONN));
        errno = 0;
        EXPECT_EQ(recv(-1, nullptr, 0, 0), -1);
        EXPECT_EQ(errno, ENOTCONN);
    }
    {
        const Fault fault(calls::recv, calls::recv.failure(0, 2, 2)); // the usual error
        recv(-1, nullptr, 0, 0);
        EXPECT_EQ(errno, EBADF);
        recv(-1, nullptr, 0, 0);
        EXPECT_EQ(errno, ECONNRESET);
        recv(-1, nullptr, 0, 0);
        EXPECT_EQ(errno, ECONNRESET);
        recv(-1, nullptr, 0, 0);
        EXPECT_EQ(errno, EBADF);
    }
    {
        const Fault fault(calls::pthread_mutex_lock, calls::pthread_mutex_lock.failure(EINVAL));
        pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
        errno = 0;
        EXPECT_EQ(pthread_mutex_lock(&mutex), EINVAL);
        EXPECT_EQ(errno, 0);
    }
    {
        const Fault fault(calls::gmtime_r, calls::gmtime_r.failure());
        const time_t now = 0;
        tm parts{};
        EXPECT_EQ(gmtime_r(&now, &parts), nullptr);
        EXPECT_EQ(errno, EOVERFLOW);
    }
    {
        const Fault fault(calls::inet_aton, calls::inet_aton.failure());
        in_addr address{};
        EXPECT_EQ(inet_aton("127.0.0.1", &address), 0);
    }
    {
        const Fault fault(calls::newArray, calls::newArray.failure(0, 2));
        ::operator delete[](::operator new[](10));
        EXPECT_THROW(::operator delete[](::operator new[](10)), std::bad_alloc);
    }
    EXPECT_THROW(calls::freeaddrinfo.failure(), std::logic_error);
}

TEST(FaultInjectionText, IsFormattedAsByTheCLibrary)
{
    char text[20];
    volatile int seven = 7; // for all the compiler knows
    EXPECT_EQ(snprintf(text, sizeof text, "%s %d%%", "abc", seven), 6);
    EXPECT_STREQ(text, "abc 7%");
    const Fault fault(calls::snprintf, calls::snprintf.failure(ENOMEM));
    EXPECT_EQ(snprintf(text, sizeof text, "%d", seven), -1);
    EXPECT_EQ(errno, ENOMEM);
    const Count printed(calls::printf);
    testing::internal::CaptureStdout();
    printf("%s %d%%\n", "abc", seven);
    fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "abc 7%\n");
    EXPECT_EQ(printed.calls(), 1u);
}

TEST(FaultInjectionText, GivesTheLogALineAsItIs)
{
    std::string line;
    const Hook hook(calls::syslog, [&](int, const char* text) { line = text; });
    syslog(LOG_INFO, "%d%% %s", 5, "%n");
    EXPECT_EQ(line, "5% %n");
}

// The names of fortified builds, which keep their checks.
extern "C" ssize_t __recv_chk(int fd, void* data, size_t length, size_t room, int flags);
extern "C" ssize_t __read_chk(int fd, void* data, size_t length, size_t room);
extern "C" int __poll_chk(pollfd* entries, nfds_t count, int limit, size_t room);
extern "C" int __open_2(const char* path, int flags);

TEST(FaultInjectionOtherNames, CountAsTheFunction)
{
    char data[4];
    pollfd entry = {-1, 0, 0};
    {
        const Fault fault(calls::recv, calls::recv.failure(EPIPE));
        EXPECT_EQ(__recv_chk(-1, data, 4, 4, 0), -1);
        EXPECT_EQ(errno, EPIPE);
    }
    EXPECT_EQ(__recv_chk(-1, data, 4, 4, 0), -1);
    EXPECT_EQ(errno, EBADF);
    const Count reads(calls::read);
    EXPECT_EQ(__read_chk(-1, data, 4, 4), -1);
    EXPECT_EQ(reads.calls(), 1u);
    const Count polls(calls::poll);
    EXPECT_EQ(__poll_chk(&entry, 1, 0, sizeof entry), 0);
    EXPECT_EQ(polls.calls(), 1u);
    const Fault opens(calls::open, calls::open.failure(EACCES, 2));
    const int fd = __open_2("/dev/null", O_RDONLY);
    EXPECT_GE(fd, 0);
    close(fd);
    EXPECT_EQ(open64("/dev/null", O_RDONLY), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(opens.calls(), 2u);
}

TEST(FaultInjectionOtherNamesDeathTest, KeepTheChecksOfFortifiedBuilds)
{
    char data[8];
    EXPECT_DEATH(static_cast<void>(!__recv_chk(-1, data, 8, 4, 0)), "");
    EXPECT_DEATH(static_cast<void>(!__read_chk(-1, data, 8, 4)), "");
}

#if __SIZEOF_POINTER__ == 4
// The names of builds with 64-bit time.
extern "C" int __clock_gettime64(clockid_t clock, gcltest::Timespec64* time);
extern "C" int __select64(int, fd_set*, fd_set*, fd_set*, gcltest::Timeval64*);
extern "C" int __fcntl_time64(int fd, int command, ...);

TEST(FaultInjectionOtherNames, HaveCallsOfTheirOwnFor64BitTime)
{
    gcltest::Timespec64 now{};
    const Count plain(calls::clock_gettime);
    {
        const Fault fault(calls::clock_gettime64, calls::clock_gettime64.failure(EFAULT));
        EXPECT_EQ(__clock_gettime64(CLOCK_REALTIME, &now), -1);
        EXPECT_EQ(errno, EFAULT);
    }
    EXPECT_EQ(__clock_gettime64(CLOCK_REALTIME, &now), 0);
    EXPECT_GT(now.tv_sec, 1'700'000'000);
    EXPECT_EQ(plain.calls(), 0u);
    gcltest::Timeval64 limit{0, 1};
    const Count selects(calls::select64);
    EXPECT_EQ(__select64(0, nullptr, nullptr, nullptr, &limit), 0);
    EXPECT_EQ(selects.calls(), 1u);
    const Fault fcntls(calls::fcntl, calls::fcntl.failure(EAGAIN, 2));
    EXPECT_EQ(__fcntl_time64(0, F_GETFD), 0);
    EXPECT_EQ(__fcntl_time64(0, F_GETFD), -1);
    EXPECT_EQ(errno, EAGAIN);
}
#else
TEST(FaultInjectionOtherNames, AreTheFunctionWhereTimeHas64Bits)
{
    EXPECT_EQ(&calls::clock_gettime64, &calls::clock_gettime);
    EXPECT_EQ(&calls::select64, &calls::select);
}
#endif

TEST(FaultInjectionNoFaults, LeavesTheThreadAloneWhileItLives)
{
    const Fault fault(calls::close, calls::close.failure(EIO));
    {
        const gcltest::NoFaults noFaults;
        const gcltest::NoFaults again;
        EXPECT_EQ(close(-1), -1);
        EXPECT_EQ(errno, EBADF);
    }
    EXPECT_EQ(fault.calls(), 0u);
    close(-1);
    EXPECT_EQ(errno, EIO);
}

TEST(FaultInjectionDelete, NotesTheArraysThatAreFreed)
{
    void* const first = ::operator new[](10);
    void* const second = ::operator new[](10);
    const std::vector<const void*> both{second, first};
    const gcltest::Frees frees;
    EXPECT_EQ(frees.memory(), std::vector<const void*>{});
    ::operator delete[](second);
    ::operator delete[](nullptr);
    ::operator delete[](first);
    EXPECT_EQ(frees.memory(), both);
    EXPECT_EQ(frees.memory(), std::vector<const void*>{});
    std::thread([] { ::operator delete[](::operator new[](10)); }).join();
    EXPECT_EQ(frees.memory(), std::vector<const void*>{});
}
