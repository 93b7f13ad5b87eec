#include "Framework/GCL/SleepApi.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <cstring>
#include <memory>
#include <thread>
#include <type_traits>
#include <vector>

#include "Framework/GCL/DefaultSleepApi.h"
#include "Framework/GCL/SimulatedSleeper.h"
#include "Framework/GCL/testing/FaultInjection.h"

using gcltest::Hook;
using Util::DefaultSleepApi;
using Util::ISleepApi;
using Util::SimulatedSleeper;
using Util::SleepApi;
namespace calls = gcltest::calls;

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

struct Request {
    long seconds;
    long nanoseconds;
    bool inPlace; // the remainder is the request itself
    long remainderSeconds;
    long remainderNanoseconds;

    bool operator==(const Request& other) const
    {
        return seconds == other.seconds && nanoseconds == other.nanoseconds &&
               inPlace == other.inPlace && remainderSeconds == other.remainderSeconds &&
               remainderNanoseconds == other.remainderNanoseconds;
    }
};

// What sleepMs asks of nanosleep, which answers `results` in order and leaves a remainder.
std::vector<Request> requestsOf(unsigned ms, std::vector<int> results, int error = 0)
{
    std::vector<Request> requests;
    Hook hook(calls::nanosleep, [&](const timespec* request, timespec* remainder) -> int {
        requests.push_back({static_cast<long>(request->tv_sec), request->tv_nsec,
                            request == remainder, static_cast<long>(remainder->tv_sec),
                            remainder->tv_nsec});
        const int result = results.at(requests.size() - 1);
        remainder->tv_sec = 7 + static_cast<long>(requests.size());
        remainder->tv_nsec = 5;
        if (error != 0) {
            errno = error;
        }
        return result;
    });
    SleepApi sleeper;
    sleeper.sleepMs(ms);
    return requests;
}

TEST(SleepApiSleepMs, SplitsIntoSecondsAndNanoseconds)
{
    using Requests = std::vector<Request>;
    EXPECT_EQ(requestsOf(0, {0}), (Requests{{0, 0, false, 0, 0}}));
    EXPECT_EQ(requestsOf(1, {0}), (Requests{{0, 1'000'000, false, 0, 0}}));
    EXPECT_EQ(requestsOf(999, {0}), (Requests{{0, 999'000'000, false, 0, 0}}));
    EXPECT_EQ(requestsOf(1000, {0}), (Requests{{1, 0, false, 0, 0}}));
    EXPECT_EQ(requestsOf(1500, {0}), (Requests{{1, 500'000'000, false, 0, 0}}));
    EXPECT_EQ(requestsOf(UINT_MAX, {0}), (Requests{{4294967, 295'000'000, false, 0, 0}}));
}

TEST(SleepApiSleepMs, GoesOnWithTheRemainderWhileTheResultIsFour)
{
    EXPECT_EQ(requestsOf(1500, {4, 4, 0}),
              (std::vector<Request>{
                  {1, 500'000'000, false, 0, 0}, {8, 5, true, 8, 5}, {9, 5, true, 9, 5}}));
    EXPECT_EQ(requestsOf(1500, {4, -1}).size(), 2u);
}

// Each sleep finds what the one before left on the stack, and, with the address sanitizer, on one
// of the many stacks that it uses in turn.
TEST(SleepApiSleepMs, StartsWithARemainderOfZero)
{
    for (int i = 0; i < 5000; ++i) {
        ASSERT_EQ(requestsOf(1500, {0}), (std::vector<Request>{{1, 500'000'000, false, 0, 0}}))
            << i;
    }
}

TEST(SleepApiSleepMs, DoesNotResumeAfterASignal)
{
    EXPECT_EQ(requestsOf(1500, {-1}, EINTR).size(), 1u);
    EXPECT_EQ(requestsOf(1500, {EINTR + 1}).size(), 1u);
}

TEST(SleepApiSleepMs, SleepsAtLeastTheTime)
{
    SleepApi sleeper;
    const auto before = steady_clock::now();
    sleeper.sleepMs(60);
    EXPECT_GE(steady_clock::now() - before, milliseconds(60));
}

TEST(SleepApiSleepMs, ReturnsAtOnceForZero)
{
    SleepApi sleeper;
    const auto before = steady_clock::now();
    for (int i = 0; i < 100; ++i) {
        sleeper.sleepMs(0);
    }
    EXPECT_LT(steady_clock::now() - before, milliseconds(3000));
}

TEST(SleepApiSleepMs, EndsEarlyWhenASignalIsHandled)
{
    struct sigaction action {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
    std::atomic<bool> ended{false};
    const auto before = steady_clock::now();
    std::thread thread([&] {
        SleepApi sleeper;
        sleeper.sleepMs(30'000);
        ended = true;
    });
    while (!ended) {
        std::this_thread::sleep_for(milliseconds(20));
        pthread_kill(thread.native_handle(), SIGUSR1);
    }
    thread.join();
    EXPECT_LT(steady_clock::now() - before, milliseconds(15'000));
}

TEST(SleepApiSleepMs, SleepsInManyThreadsAtOnce)
{
    SleepApi sleeper;
    const auto before = steady_clock::now();
    std::vector<std::thread> threads;
    for (int i = 0; i < 20; ++i) {
        threads.emplace_back([&] { sleeper.sleepMs(300); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const auto elapsed = steady_clock::now() - before;
    EXPECT_GE(elapsed, milliseconds(300));
    EXPECT_LT(elapsed, milliseconds(20 * 300));
}

TEST(DefaultSleepApiGet, ReturnsTheRealSleeperWithoutAnOverride)
{
    ISleepApi& real = DefaultSleepApi::get();
    EXPECT_NE(dynamic_cast<SleepApi*>(&real), nullptr);
    EXPECT_EQ(&DefaultSleepApi::get(), &real);
}

TEST(DefaultSleepApiGet, ReturnsTheOverrideUntilItIsCleared)
{
    ISleepApi& real = DefaultSleepApi::get();
    SleepApi mine;
    SleepApi other;
    DefaultSleepApi::setOverride(&mine);
    EXPECT_EQ(&DefaultSleepApi::get(), &mine);
    DefaultSleepApi::setOverride(&other);
    EXPECT_EQ(&DefaultSleepApi::get(), &other);
    DefaultSleepApi::clearOverride();
    EXPECT_EQ(&DefaultSleepApi::get(), &real);
    DefaultSleepApi::setOverride(&mine);
    DefaultSleepApi::setOverride(nullptr);
    EXPECT_EQ(&DefaultSleepApi::get(), &real);
}

TEST(SleepApiInterface, HasItsOperationsInOrder)
{
    EXPECT_TRUE(std::has_virtual_destructor<ISleepApi>::value);
    EXPECT_EQ(sizeof(SleepApi), sizeof(void*));
    // Behind the two entries of the destructor.
    struct Sleeper : ISleepApi {
        unsigned slept = 0;
        void sleepMs(unsigned int ms) override { slept = ms; }
    };
    const std::unique_ptr<Sleeper> sleeper(new Sleeper);
    ISleepApi* const object = sleeper.get();
    void** vtable = nullptr;
    std::memcpy(&vtable, static_cast<const void*>(object), sizeof vtable);
    reinterpret_cast<void (*)(ISleepApi*, unsigned)>(vtable[2])(object, 12);
    EXPECT_EQ(sleeper->slept, 12u);
}

TEST(SimulatedSleeper, MovesItsClockInsteadOfSleeping)
{
    SimulatedSleeper sleeper;
    EXPECT_EQ(sleeper.elapsed(), milliseconds(0));
    const auto before = steady_clock::now();
    sleeper.sleepMs(3'600'000);
    sleeper.sleepMs(UINT_MAX);
    EXPECT_LT(steady_clock::now() - before, milliseconds(10'000));
    EXPECT_EQ(sleeper.elapsed(), milliseconds(3'600'000LL + UINT_MAX));
    EXPECT_EQ(sleeper.sleeps(), (std::vector<unsigned>{3'600'000, UINT_MAX}));
    sleeper.advance(milliseconds(5));
    EXPECT_EQ(sleeper.elapsed(), milliseconds(3'600'005LL + UINT_MAX));
    EXPECT_EQ(sleeper.sleeps().size(), 2u);
    sleeper.reset();
    EXPECT_EQ(sleeper.elapsed(), milliseconds(0));
    EXPECT_TRUE(sleeper.sleeps().empty());
}

TEST(SimulatedSleeper, IsTheSleeperOfTheProcessWhileInstalled)
{
    ISleepApi& real = DefaultSleepApi::get();
    SimulatedSleeper sleeper;
    {
        const SimulatedSleeper::Installation installed(sleeper);
        EXPECT_EQ(&DefaultSleepApi::get(), &sleeper);
        DefaultSleepApi::get().sleepMs(40);
    }
    EXPECT_EQ(&DefaultSleepApi::get(), &real);
    EXPECT_EQ(sleeper.sleeps(), std::vector<unsigned>{40});
}

TEST(SimulatedSleeper, AddsUpTheSleepsOfSeveralThreads)
{
    SimulatedSleeper sleeper;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int n = 0; n < 1000; ++n) {
                sleeper.sleepMs(2);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(sleeper.elapsed(), milliseconds(8000));
    EXPECT_EQ(sleeper.sleeps().size(), 4000u);
}

} // namespace
