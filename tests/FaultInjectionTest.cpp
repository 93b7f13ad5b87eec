// The helper that fails the platform's calls must itself do what it says.
#include "Framework/GCL/testing/FaultInjection.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <new>
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
