#include "Framework/GCL/cxx/FifoBuffer.h"

#include <gtest/gtest.h>

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <new>
#include <string>
#include <system_error>
#include <thread>
#include <type_traits>
#include <vector>

#include "Framework/GCL/testing/FaultInjection.h"
#include "Framework/GCL/testing/TraceCapture.h"

using gcl::FifoBuffer;
using gcltest::Count;
using gcltest::Fault;
using gcltest::gclReport;
using gcltest::Report;
using gcltest::takeReports;
namespace calls = gcltest::calls;

namespace {

struct Sample {
    uint32_t number;
    double value;
};

constexpr ETaskingMode kModes[] = {eTaskingModeSemaphore, eTaskingModeNone, eTaskingModeMutex};

void sleepMs(int ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

std::vector<Report> reportOf(const std::string& function, const std::string& text, uint32_t code)
{
    return {gclReport("CFifoBuffer", "CFifoBuffer_" + function, text, code)};
}

std::vector<Report> waitFailed(const std::string& function, const std::string& semaphore, int error)
{
    return reportOf(function,
                    "CFifoBuffer_" + function + ": sem_wait failed waiting for " + semaphore +
                        " (errno: " + std::to_string(error) + ")",
                    0x8019);
}

// A handler that interrupts what its thread waits in.
class Interruption {
public:
    Interruption()
    {
        struct sigaction action {};
        action.sa_handler = [](int) { ++handled; }; // without SA_RESTART
        EXPECT_EQ(sigaction(SIGUSR1, &action, &before), 0);
        handled = 0;
    }
    ~Interruption() { sigaction(SIGUSR1, &before, nullptr); }
    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;

    // Signals the thread until its handler has run so many times more.
    static void interrupt(std::thread& thread, int times)
    {
        const int enough = handled + times;
        while (handled < enough) {
            pthread_kill(thread.native_handle(), SIGUSR1);
            sleepMs(5);
        }
    }

private:
    static inline std::atomic<int> handled{0};
    struct sigaction before {};
};

} // namespace

TEST(FifoBufferProperties, StaysWhereItIs)
{
    static_assert(!std::is_copy_constructible_v<FifoBuffer<int>>);
    static_assert(!std::is_copy_assignable_v<FifoBuffer<int>>);
    static_assert(!std::is_move_constructible_v<FifoBuffer<int>>);
    static_assert(!std::is_move_assignable_v<FifoBuffer<int>>);
    static_assert(sizeof(FifoBuffer<int>) == sizeof(CFifoBuffer));
    const auto make = [] { return FifoBuffer<int>(2, eTaskingModeNone); };
    const FifoBuffer<int> fifo = make();
    EXPECT_TRUE(fifo.isEmpty());
}

TEST(FifoBufferPut, HandsElementsOverInEveryMode)
{
    for (const ETaskingMode mode : kModes) {
        FifoBuffer<Sample> fifo(2, mode);
        FifoBuffer<Sample>::Statistics figures{};
        EXPECT_TRUE(fifo.isEmpty());
        ASSERT_EQ(fifo.put({1, 0.5}), GCL_OK);
        ASSERT_EQ(fifo.put({2, -0.5}), GCL_OK);
        EXPECT_FALSE(fifo.isEmpty());
        ASSERT_EQ(fifo.getStatistics(figures), GCL_OK);
        EXPECT_EQ(figures.currentSize, 2u);
        EXPECT_EQ(figures.elementSize, sizeof(Sample));
        EXPECT_EQ(figures.capacity, 2u);
        Sample sample{};
        ASSERT_EQ(fifo.get(sample), GCL_OK);
        EXPECT_EQ(sample.number, 1u);
        EXPECT_EQ(sample.value, 0.5);
        ASSERT_EQ(fifo.get(sample), GCL_OK);
        EXPECT_EQ(sample.number, 2u);
        EXPECT_EQ(sample.value, -0.5);
    }
    EXPECT_EQ(takeReports(), std::vector<Report>{});
}

TEST(FifoBufferPut, FailsWhereAnUnprotectedRingIsFullOrEmpty)
{
    FifoBuffer<int> fifo(1, eTaskingModeNone);
    int element = 77;
    EXPECT_EQ(fifo.get(element), GCL_FIFO_EMPTY);
    EXPECT_EQ(element, 77);
    EXPECT_EQ(takeReports(), reportOf("Get", "Fifo buffer empty", 0x8017));
    ASSERT_EQ(fifo.put(1), GCL_OK);
    EXPECT_EQ(fifo.put(2), GCL_FIFO_FULL);
    EXPECT_EQ(takeReports(), std::vector<Report>{});
}

TEST(FifoBufferPut, DropsTheOldestElementBehindTheMutex)
{
    FifoBuffer<int> fifo(2, eTaskingModeMutex);
    int element = 0;
    for (const int value : {1, 2, 3}) {
        ASSERT_EQ(fifo.put(value), GCL_OK);
    }
    ASSERT_EQ(fifo.get(element), GCL_OK);
    EXPECT_EQ(element, 2);
    {
        const Fault fault(calls::pthread_mutex_lock, {EDEADLK, EDEADLK, 1, 2});
        EXPECT_EQ(fifo.put(4), GCL_MUTEX_FAILED);
        EXPECT_EQ(fifo.get(element), GCL_MUTEX_FAILED);
    }
    EXPECT_EQ(takeReports().size(), 2u);
}

TEST(FifoBufferPut, RefusesAModeThatIsNone)
{
    FifoBuffer<int> fifo(2, static_cast<ETaskingMode>(3));
    int element = 77;
    EXPECT_EQ(fifo.put(1), GCL_FAILURE);
    EXPECT_EQ(fifo.get(element), GCL_FAILURE);
    EXPECT_EQ(element, 77);
    EXPECT_EQ(takeReports().size(), 2u);
}

TEST(FifoBufferConstruct, RefusesRingsThatDoNotFit)
{
    FifoBuffer<uint64_t> fifo(1, eTaskingModeNone);
    ASSERT_EQ(fifo.put(5), GCL_OK);
    // The plain function would wrap to a ring of 0 and of 8 bytes.
    for (const size_t capacity : {size_t{0}, size_t{0x20000000}, size_t{0x20000001}, ~size_t{0}}) {
        EXPECT_EQ(fifo.construct(capacity, eTaskingModeNone), GCL_INVALID_ARGUMENT) << capacity;
        EXPECT_THROW(FifoBuffer<uint64_t>(capacity, eTaskingModeNone), std::system_error);
    }
    uint64_t element = 0;
    EXPECT_EQ(fifo.get(element), GCL_OK);
    EXPECT_EQ(element, 5u);
    const Fault fault(calls::newArray, {0, 0});
    EXPECT_THROW(FifoBuffer<uint64_t>(0x1FFFFFFF, eTaskingModeNone), std::bad_alloc);
    EXPECT_EQ(fault.failures(), 1u);
    EXPECT_EQ(takeReports(), std::vector<Report>{});
}

TEST(FifoBufferConstruct, TellsThatASemaphoreCouldNotBeMade)
{
    const char* const names[] = {"putSemaphore", "getSemaphore", "cpyMutex"};
    for (unsigned nth = 1; nth <= 3; ++nth) {
        FifoBuffer<int> fifo(1, eTaskingModeNone);
        const gcltest::Frees frees;
        {
            const Fault fault(calls::sem_init, {-1, ENOSPC, nth});
            EXPECT_EQ(fifo.construct(2, eTaskingModeSemaphore), GCL_FAILURE);
        }
        EXPECT_EQ(frees.memory().size(), 2u) << "both rings are freed at once";
        EXPECT_EQ(takeReports(),
                  reportOf("Construct",
                           std::string("Could not create semaphore (") + names[nth - 1] + ")",
                           0x8000));
        EXPECT_EQ(fifo.put(1), GCL_FIFO_NOT_INITIALIZED);
        EXPECT_EQ(takeReports().size(), 1u);

        const Fault fault(calls::sem_init, {-1, ENOSPC, nth});
        try {
            const FifoBuffer<int> thrown(2, eTaskingModeSemaphore);
            FAIL() << "nothing was thrown";
        } catch (const std::system_error& failure) {
            EXPECT_EQ(failure.code(), GCL_FAILURE);
        }
        EXPECT_EQ(takeReports().size(), 1u);
    }
}

TEST(FifoBufferConstruct, GoesOnWithoutAMutexOfItsOwn)
{
    const Fault fault(calls::pthread_mutex_init, {ENOMEM, 0});
    FifoBuffer<int> fifo;
    EXPECT_EQ(fifo.construct(2, eTaskingModeMutex), GCL_OK);
    EXPECT_EQ(takeReports(),
              reportOf("Construct", "CFifoBuffer_Construct: Could not initialize mutex (fifoMutex)",
                       0x1000));
    EXPECT_EQ(fifo.put(1), GCL_OK);
}

TEST(FifoBufferConstruct, LetsAnAllocationFailurePass)
{
    FifoBuffer<int> fifo(1, eTaskingModeNone);
    ASSERT_EQ(fifo.put(1), GCL_OK);
    const Fault fault(calls::newArray, {0, 0, 1, 2});
    EXPECT_THROW(static_cast<void>(fifo.construct(2, eTaskingModeNone)), std::bad_alloc);
    EXPECT_THROW(FifoBuffer<int>(2, eTaskingModeNone), std::bad_alloc);
    EXPECT_EQ(fifo.put(1), GCL_FIFO_NOT_INITIALIZED);
    EXPECT_EQ(takeReports().size(), 1u);
}

TEST(FifoBufferDestruct, LeavesAFifoThatRefusesAndCanBeConstructed)
{
    for (const ETaskingMode mode : kModes) {
        FifoBuffer<int> fifo;
        FifoBuffer<int>::Statistics figures{1, 2, 3};
        int element = 77;
        for (int round = 0; round < 2; ++round) {
            EXPECT_EQ(fifo.put(1), GCL_FIFO_NOT_INITIALIZED);
            EXPECT_EQ(fifo.get(element), GCL_FIFO_NOT_INITIALIZED);
            EXPECT_EQ(fifo.getStatistics(figures), GCL_FIFO_NOT_INITIALIZED);
            EXPECT_TRUE(fifo.isEmpty());
            EXPECT_EQ(takeReports().size(), 4u);
            ASSERT_EQ(fifo.construct(2, mode), GCL_OK);
            ASSERT_EQ(fifo.put(4), GCL_OK);
            ASSERT_EQ(fifo.construct(3, mode), GCL_OK);
            EXPECT_TRUE(fifo.isEmpty());
            ASSERT_EQ(fifo.put(5), GCL_OK);
            fifo.destruct();
            fifo.destruct();
        }
        EXPECT_EQ(element, 77);
        EXPECT_EQ(figures.currentSize, 1u);
        const FifoBuffer<int>& constant = fifo;
        EXPECT_EQ(&constant.native(), &fifo.native());
    }
}

TEST(FifoBufferThreads, HandOverWithoutLoss)
{
    constexpr int kCount = 2000;
    FifoBuffer<int> fifo(3, eTaskingModeSemaphore);
    std::thread producer([&] {
        for (int i = 0; i < kCount; ++i) {
            EXPECT_EQ(fifo.put(i), GCL_OK);
        }
    });
    for (int i = 0; i < kCount; ++i) {
        int element = -1;
        ASSERT_EQ(fifo.get(element), GCL_OK);
        ASSERT_EQ(element, i);
    }
    producer.join();
}

TEST(FifoBufferSignals, EndThePlainWait)
{
    const Interruption interruption;
    FifoBuffer<int> fifo(1, eTaskingModeSemaphore);
    std::thread consumer([&] {
        int element = 77;
        EXPECT_EQ(fifo.get(element), GCL_SEMAPHORE_FAILED);
        EXPECT_EQ(element, 77);
    });
    sleepMs(50); // it waits by then; should it not, the next signal finds it
    Interruption::interrupt(consumer, 1);
    // It may have been signalled before its wait.
    while (takeReports().empty()) {
        pthread_kill(consumer.native_handle(), SIGUSR1);
        sleepMs(5);
    }
    consumer.join();
}

TEST(FifoBufferSignals, DoNotEndTheOtherGet)
{
    const Interruption interruption;
    FifoBuffer<int> fifo(1, eTaskingModeSemaphore);
    std::atomic<bool> done{false};
    std::thread consumer([&] {
        int element = 77;
        EXPECT_EQ(fifo.getThroughSignals(element), GCL_OK);
        EXPECT_EQ(element, 5);
        done = true;
    });
    Interruption::interrupt(consumer, 10);
    EXPECT_FALSE(done);
    ASSERT_EQ(fifo.put(5), GCL_OK);
    consumer.join();
    const std::vector<Report> reports = takeReports();
    EXPECT_GE(reports.size(), 1u) << "no wait was interrupted";
    for (const Report& report : reports) {
        EXPECT_EQ(report, waitFailed("Get", "getSemaphore", EINTR)[0]);
    }
}

TEST(FifoBufferSignals, DoNotEndTheOtherPut)
{
    const Interruption interruption;
    FifoBuffer<int> fifo(1, eTaskingModeSemaphore);
    ASSERT_EQ(fifo.put(1), GCL_OK);
    std::atomic<bool> done{false};
    std::thread producer([&] {
        EXPECT_EQ(fifo.putThroughSignals(2), GCL_OK);
        done = true;
    });
    Interruption::interrupt(producer, 10);
    EXPECT_FALSE(done);
    int element = 0;
    ASSERT_EQ(fifo.get(element), GCL_OK);
    EXPECT_EQ(element, 1);
    producer.join();
    ASSERT_EQ(fifo.get(element), GCL_OK);
    EXPECT_EQ(element, 2);
    const std::vector<Report> reports = takeReports();
    EXPECT_GE(reports.size(), 1u) << "no wait was interrupted";
    for (const Report& report : reports) {
        EXPECT_EQ(report, waitFailed("Put", "putSemaphore", EINTR)[0]);
    }
}

TEST(FifoBufferSignals, EndTheWaitWhereTheConditionSaysSo)
{
    const Interruption interruption;
    FifoBuffer<int> fifo(1, eTaskingModeSemaphore);
    std::atomic<bool> asked{false};
    std::thread consumer([&] {
        int element = 77;
        int left = 3;
        const auto goOn = [&] { return --left > 0; };
        EXPECT_EQ(fifo.getThroughSignals(element, goOn), GCL_SEMAPHORE_FAILED);
        EXPECT_EQ(left, 0);
        ASSERT_EQ(fifo.put(1), GCL_OK);
        EXPECT_EQ(fifo.putThroughSignals(2, [] { return false; }), GCL_SEMAPHORE_FAILED);
        asked = true;
    });
    while (!asked) {
        pthread_kill(consumer.native_handle(), SIGUSR1);
        sleepMs(5);
    }
    consumer.join();
    EXPECT_EQ(takeReports().size(), 4u);
}

TEST(FifoBufferSignals, AreCountedByTheCallsOfTheWait)
{
    FifoBuffer<int> fifo(1, eTaskingModeSemaphore);
    int element = 0;
    {
        const Fault fault(calls::sem_wait, {-1, EINTR, 1, 3});
        EXPECT_EQ(fifo.putThroughSignals(5), GCL_OK);
        EXPECT_EQ(fault.failures(), 3u);
        EXPECT_EQ(fault.calls(), 5u);
    }
    {
        // The wait for the lock inside, too.
        const Fault fault(calls::sem_wait, {-1, EINTR, 2, 1});
        EXPECT_EQ(fifo.getThroughSignals(element), GCL_OK);
        EXPECT_EQ(element, 5);
        EXPECT_EQ(fault.calls(), 4u);
    }
    EXPECT_EQ(takeReports().size(), 4u);
}

TEST(FifoBufferSignals, AreNotLookedForWhereTheSemaphoreIsBad)
{
    FifoBuffer<int> fifo(1, eTaskingModeSemaphore);
    const Fault fault(calls::sem_wait, {-1, EINVAL, 1, gcltest::Failure::kForGood});
    int asked = 0;
    const auto goOn = [&] {
        ++asked;
        return true;
    };
    EXPECT_EQ(fifo.putThroughSignals(5, goOn), GCL_SEMAPHORE_FAILED);
    EXPECT_EQ(asked, 0);
    EXPECT_EQ(fault.calls(), 1u);
    EXPECT_EQ(takeReports(), waitFailed("Put", "putSemaphore", EINVAL));
}

TEST(FifoBufferSignals, AreRetriedWhateverTheTraceFrameworkDoesToErrno)
{
    const gcltest::BeginHook hook([](const Report&) { errno = EAGAIN; });
    FifoBuffer<int> fifo(1, eTaskingModeSemaphore);
    const Fault fault(calls::sem_wait, {-1, EINTR, 1, 3});
    EXPECT_EQ(fifo.putThroughSignals(5), GCL_OK);
    EXPECT_EQ(takeReports().size(), 3u);
}

TEST(FifoBufferSignals, LetOtherFailuresPass)
{
    FifoBuffer<int> fifo(1, eTaskingModeNone);
    int element = 0;
    const auto never = [] {
        ADD_FAILURE();
        return false;
    };
    EXPECT_EQ(fifo.getThroughSignals(element, never), GCL_FIFO_EMPTY);
    EXPECT_EQ(fifo.putThroughSignals(1, never), GCL_OK);
    EXPECT_EQ(fifo.putThroughSignals(1, never), GCL_FIFO_FULL);
    EXPECT_EQ(takeReports().size(), 1u);
}
