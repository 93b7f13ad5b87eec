// The timer's waits: what moment they wait for, and what steps of the wall clock do to them.
#include <gtest/gtest.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <mutex>
#include <vector>

#include "Framework/GCL/CTimer.h"
#include "Framework/GCL/testing/FaultInjection.h"
#include "tests/support/TimerSupport.h"

using gcltest::eventually;
using gcltest::Hook;
using gcltest::kForever;
using gcltest::Milliseconds;
using gcltest::pause;
using gcltest::SteadyClock;
using gcltest::Threads;
using gcltest::Timespec64;
namespace calls = gcltest::calls;

namespace {

constexpr int64_t kSecond = 1'000'000'000;
constexpr int64_t kMs = 1'000'000;

int64_t nsOf(const Timespec64& time)
{
    return int64_t{time.tv_sec} * kSecond + time.tv_nsec;
}

Timespec64 timeOf(int64_t ns)
{
    Timespec64 time{};
    time.tv_sec = ns / kSecond;
    time.tv_nsec = static_cast<decltype(time.tv_nsec)>(ns % kSecond);
    return time;
}

// A wall clock that can be set: the real one and an offset. A wait in progress sees the change, as
// the system's own waits do.
class SteppableClock {
public:
    SteppableClock()
        : clock(
              calls::clock_gettime64,
              [this](clockid_t id, Timespec64* time) {
                  const int result = calls::clock_gettime64.real(id, time);
                  if (id == CLOCK_REALTIME) {
                      // Behind a wait comes the look at the clock, then the next pass.
                      if (readingsToStep != 0 && --readingsToStep == 0) {
                          offset += pendingStep;
                      }
                      *time = timeOf(nsOf(*time) + offset.load());
                  }
                  return result;
              },
              Threads::all),
          wait(
              calls::pthread_cond_timedwait64,
              [this](pthread_cond_t* condition, pthread_mutex_t* mutex, const Timespec64* due) {
                  return waitUntil(condition, mutex, nsOf(*due));
              },
              Threads::all)
    {
    }

    void step(Milliseconds by) { offset += by.count() * kMs; }
    // Ends the running wait as if the system had woken it for no reason, or the next one.
    void wakeSpuriously() { spurious = true; }
    // The same, with a step before the next pass begins.
    void stepBetweenPasses(Milliseconds by)
    {
        pendingStep = by.count() * kMs;
        wakeSpuriously();
    }
    bool waking() const { return spurious; }
    unsigned waits() const { return wait.calls(); }

private:
    int waitUntil(pthread_cond_t* condition, pthread_mutex_t* mutex, int64_t due)
    {
        for (;;) {
            if (spurious.exchange(false)) {
                readingsToStep = pendingStep != 0 ? 2 : 0;
                return 0;
            }
            Timespec64 real{};
            calls::clock_gettime64.real(CLOCK_REALTIME, &real);
            const int64_t now = nsOf(real) + offset.load();
            if (now >= due) {
                return ETIMEDOUT;
            }
            const Timespec64 piece = timeOf(nsOf(real) + std::min(due - now, 2 * kMs));
            const int result = calls::pthread_cond_timedwait64.real(condition, mutex, &piece);
            if (result != ETIMEDOUT) {
                return result;
            }
        }
    }

    std::atomic<int64_t> offset{0};
    std::atomic<bool> spurious{false};
    std::atomic<int64_t> pendingStep{0};
    std::atomic<int> readingsToStep{0};
    Hook<int(clockid_t, Timespec64*)> clock;
    Hook<int(pthread_cond_t*, pthread_mutex_t*, const Timespec64*)> wait;
};

// Keeps the times of its calls, counted from its construction.
class CallTimes {
public:
    std::function<void(void*)> callback()
    {
        return [this](void*) {
            const std::lock_guard<std::mutex> lock(mutex);
            times.push_back(SteadyClock::now() - begin);
        };
    }
    size_t count() const
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return times.size();
    }
    bool reaches(size_t wanted) const
    {
        return eventually([&] { return count() >= wanted; });
    }
    SteadyClock::duration at(size_t index) const
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return times.at(index);
    }

private:
    mutable std::mutex mutex;
    std::vector<SteadyClock::duration> times;
    SteadyClock::time_point begin = SteadyClock::now();
};

// What a wait is given, on a wall clock that stands still until somebody waits on it: each wait
// lasts exactly until its moment. The waits end in a notification once `limit` of them are over.
class ScriptedClock {
public:
    explicit ScriptedClock(int64_t start, size_t limitOfWaits = 3)
        : now(start),
          limit(limitOfWaits),
          clock(
              calls::clock_gettime64,
              [this](clockid_t id, Timespec64* time) {
                  const int result = calls::clock_gettime64.real(id, time);
                  if (id == CLOCK_REALTIME) {
                      *time = timeOf(now.load());
                  }
                  return result;
              },
              Threads::all),
          wait(
              calls::pthread_cond_timedwait64,
              [this](pthread_cond_t* condition, pthread_mutex_t* mutex, const Timespec64* due) {
                  if (dues.size() < limit) {
                      dues.push_back(*due);
                      now = std::max(now.load(), nsOf(*due));
                      done = dues.size() == limit;
                      return ETIMEDOUT;
                  }
                  return pthread_cond_wait(condition, mutex);
              },
              Threads::all)
    {
    }

    std::atomic<int64_t> now;
    std::vector<Timespec64> dues; // the worker's until `done`
    std::atomic<bool> done{false};

private:
    size_t limit;
    Hook<int(clockid_t, Timespec64*)> clock;
    Hook<int(pthread_cond_t*, pthread_mutex_t*, const Timespec64*)> wait;
};

// --- The moment --------------------------------------------------------------------------------

TEST(CTimerCyclicWait, IsDueOnePeriodAfterItBegins)
{
    // Also beyond 2038, where 32 bits of seconds end.
    for (const int64_t start : {1'000 * kSecond + 999'999'999, 5'000'000'000 * kSecond + 1}) {
        ScriptedClock clock(start);
        std::atomic<int> count{0};
        CTimer timer(
            [&](void*) {
                ++count;
                clock.now += 30 * kMs; // the callback's run time
            },
            nullptr, "cyclic", CTimer::Cyclic);
        ASSERT_TRUE(timer.start(Milliseconds(100)));
        ASSERT_TRUE(eventually([&] { return clock.done && count == 3; }));
        for (int i = 0; i < 3; ++i) {
            const int64_t due = start + 100 * kMs + i * 130 * kMs;
            EXPECT_EQ(clock.dues[static_cast<size_t>(i)].tv_sec, due / kSecond);
            EXPECT_EQ(clock.dues[static_cast<size_t>(i)].tv_nsec, due % kSecond);
        }
    }
}

TEST(CTimerOneShotWait, PlacesTheRestOfTheTimeOnTheWallClock)
{
    for (const int64_t start : {1'000 * kSecond, 5'000'000'000 * kSecond}) {
        ScriptedClock clock(start, 1);
        std::atomic<int> count{0};
        CTimer timer([&](void*) { ++count; }, nullptr, "one shot", CTimer::NonCyclic);
        ASSERT_TRUE(timer.start(Milliseconds(7'200'000)));
        ASSERT_TRUE(eventually([&] { return clock.done && count == 1; }));
        const int64_t due = nsOf(clock.dues[0]);
        // The moment is taken when start is entered; the worker needs some time to begin.
        EXPECT_LE(due, start + 7'200 * kSecond);
        EXPECT_GT(due, start + 7'190 * kSecond);
    }
}

// 32-bit processors read the monotonic clock by another name.
#if __SIZEOF_POINTER__ == 8
TEST(CTimerOneShotWait, ReadsTheMonotonicClockFirst)
{
    const pthread_t owner = pthread_self();
    std::vector<clockid_t> read; // the worker's until `waiting`
    std::atomic<bool> waiting{false};
    const Hook clock(
        calls::clock_gettime64,
        [&](clockid_t id, Timespec64* time) {
            if (!waiting && pthread_equal(owner, pthread_self()) == 0) {
                read.push_back(id);
            }
            return calls::clock_gettime64.real(id, time);
        },
        Threads::all);
    const Hook wait(
        calls::pthread_cond_timedwait64,
        [&](pthread_cond_t* condition, pthread_mutex_t* mutex, const Timespec64* due) {
            waiting = true;
            return calls::pthread_cond_timedwait64.real(condition, mutex, due);
        },
        Threads::all);
    CTimer timer([](void*) {}, nullptr, "order", CTimer::NonCyclic);
    ASSERT_TRUE(timer.start(kForever));
    ASSERT_TRUE(eventually([&] { return waiting.load(); }));
    EXPECT_EQ(read, (std::vector<clockid_t>{CLOCK_MONOTONIC, CLOCK_REALTIME}));
}
#endif

TEST(CTimerCyclicWait, LastsThePeriodAndTheCallbacksTime)
{
    CallTimes times;
    const auto note = times.callback();
    CTimer timer(
        [&](void* arg) {
            note(arg);
            pause(30);
        },
        nullptr, "drift", CTimer::Cyclic);
    ASSERT_TRUE(timer.start(Milliseconds(50)));
    ASSERT_TRUE(times.reaches(5));
    EXPECT_GE(times.at(0), Milliseconds(49));
    for (size_t i = 1; i < 5; ++i) {
        EXPECT_GE(times.at(i) - times.at(i - 1), Milliseconds(79));
    }
    EXPECT_LT(times.at(4), Milliseconds(5'000));
}

TEST(CTimerOneShotWait, LastsTheDuration)
{
    CallTimes times;
    CTimer timer(times.callback(), nullptr, "one shot", CTimer::NonCyclic);
    ASSERT_TRUE(timer.start(Milliseconds(100)));
    ASSERT_TRUE(times.reaches(1));
    EXPECT_GE(times.at(0), Milliseconds(99));
    EXPECT_LT(times.at(0), Milliseconds(5'000));
}

TEST(CTimerOneShotWait, CountsFromTheCallOfStart)
{
    // A start that waits for a stop to be acknowledged has its moment already.
    constexpr int64_t kStart = 1'000 * kSecond;
    ScriptedClock clock(kStart, 2);
    gcltest::SleepWatch watch;
    std::atomic<int> count{0};
    CTimer timer(
        [&](void*) {
            if (++count == 1) {
                EXPECT_TRUE(watch.eventuallyAsleep());
                pause(300);
            }
        },
        nullptr, "moment", CTimer::NonCyclic);
    ASSERT_TRUE(timer.start(Milliseconds(0)));
    while (count == 0) {
        std::this_thread::yield();
    }
    timer.stop();
    watch.announce();
    ASSERT_TRUE(timer.start(Milliseconds(30'000)));
    // The rest of the time, as it is placed on the wall clock, tells when the count began.
    ASSERT_TRUE(eventually([&] { return clock.done && count == 2; }));
    EXPECT_LE(nsOf(clock.dues[1]) - kStart, 29'700 * kMs);
    EXPECT_GT(nsOf(clock.dues[1]) - kStart, 1'000 * kMs);
}

TEST(CTimerOneShotWait, IsOverAtOnceForNothingOrLess)
{
    for (const int64_t ms :
         {int64_t{0}, int64_t{-1}, int64_t{-100'000'000}, INT64_MIN / 1'000'000, INT64_MIN}) {
        CallTimes times;
        CTimer timer(times.callback(), nullptr, "at once", CTimer::NonCyclic);
        ASSERT_TRUE(timer.start(Milliseconds(ms)));
        ASSERT_TRUE(times.reaches(1)) << ms;
        EXPECT_LT(times.at(0), Milliseconds(5'000));
    }
}

TEST(CTimerCyclicWait, CallsBackToBackForNothingOrLess)
{
    for (const int64_t ms : {int64_t{0}, int64_t{-1}, int64_t{-100'000'000'000'000}, INT64_MIN}) {
        CallTimes times;
        CTimer timer(times.callback(), nullptr, "no pause", CTimer::Cyclic);
        ASSERT_TRUE(timer.start(Milliseconds(ms)));
        ASSERT_TRUE(times.reaches(200)) << ms;
        timer.stop();
        EXPECT_TRUE(timer.start(kForever)); // the stop is acknowledged
        const size_t count = times.count();
        pause(20);
        EXPECT_EQ(times.count(), count);
    }
}

// --- Durations that do not fit -----------------------------------------------------------------

int64_t processorTimeNs()
{
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return int64_t{time.tv_sec} * kSecond + time.tv_nsec;
}

const int64_t kTooLong[] = {INT64_MAX, INT64_MAX - 1, INT64_MAX / 1'000'000,
                            int64_t{100} * 366 * 86'400'000, int64_t{290} * 366 * 86'400'000};

TEST(CTimerLongWait, NeitherSpinsNorFires)
{
    for (const CTimer::Type type : {CTimer::NonCyclic, CTimer::Cyclic}) {
        for (const int64_t ms : kTooLong) {
            CallTimes times;
            CTimer timer(times.callback(), nullptr, "long", type);
            ASSERT_TRUE(timer.start(Milliseconds(ms)));
            pause(20);
            const int64_t before = processorTimeNs();
            pause(300);
            EXPECT_LT(processorTimeNs() - before, 150 * kMs) << ms;
            EXPECT_EQ(times.count(), 0u) << ms;
            EXPECT_TRUE(timer.isRunning());
        }
    }
}

TEST(CTimerLongWait, IsDueAtTheLatestMomentThatFits)
{
    for (const CTimer::Type type : {CTimer::NonCyclic, CTimer::Cyclic}) {
        for (const int64_t ms : {INT64_MAX, int64_t{290} * 366 * 86'400'000}) {
            ScriptedClock clock(1'700'000'000 * kSecond, 1);
            CTimer timer([](void*) {}, nullptr, "long", type);
            ASSERT_TRUE(timer.start(Milliseconds(ms)));
            ASSERT_TRUE(eventually([&] { return clock.done.load(); }));
            EXPECT_EQ(nsOf(clock.dues[0]), INT64_MAX);
        }
    }
}

TEST(CTimerLongWait, OfANegativeDurationIsOver)
{
    ScriptedClock clock(1'700'000'000 * kSecond, 1);
    std::atomic<int> count{0};
    CTimer timer([&](void*) { ++count; }, nullptr, "past", CTimer::NonCyclic);
    ASSERT_TRUE(timer.start(Milliseconds::min()));
    ASSERT_TRUE(eventually([&] { return clock.done && count == 1; }));
    EXPECT_LT(nsOf(clock.dues[0]), 0);
    EXPECT_EQ(clock.now, 1'700'000'000 * kSecond);
}

TEST(CTimerLongWait, CanBeStopped)
{
    for (const CTimer::Type type : {CTimer::NonCyclic, CTimer::Cyclic}) {
        CTimer timer([](void*) {}, nullptr, "long", type);
        for (int i = 0; i < 3; ++i) {
            ASSERT_TRUE(timer.start(Milliseconds::max()));
            pause(5);
            timer.stop();
        }
    }
}

TEST(CTimerLongWait, WaitsAsLongAsItCanOnAKernelWithNarrowTimes)
{
    std::atomic<int> refusals{0};
    std::atomic<int64_t> accepted{0};
    Hook hook(
        calls::pthread_cond_timedwait64,
        [&](pthread_cond_t* condition, pthread_mutex_t* mutex, const Timespec64* due) {
            if (due->tv_sec > INT32_MAX) {
                ++refusals;
                return EOVERFLOW;
            }
            accepted = nsOf(*due);
            return calls::pthread_cond_timedwait64.real(condition, mutex, due);
        },
        Threads::all);
    CTimer timer([](void*) {}, nullptr, "narrow", CTimer::Cyclic);
    ASSERT_TRUE(timer.start(Milliseconds::max()));
    EXPECT_TRUE(eventually([&] { return accepted != 0; }));
    pause(100);
    EXPECT_EQ(accepted, INT32_MAX * kSecond);
    EXPECT_LT(refusals, 20);
}

// --- Steps of the wall clock -------------------------------------------------------------------

TEST(CTimerClockStep, DuringAWaitMovesItsEnd)
{
    for (const CTimer::Type type : {CTimer::NonCyclic, CTimer::Cyclic}) {
        {
            SteppableClock clock;
            CallTimes times;
            CTimer timer(times.callback(), nullptr, "forward", type);
            ASSERT_TRUE(timer.start(Milliseconds(60'000)));
            ASSERT_TRUE(eventually([&] { return clock.waits() > 0; }));
            pause(50);
            clock.step(Milliseconds(59'900));
            ASSERT_TRUE(times.reaches(1)); // instead of a minute later
            EXPECT_GE(times.at(0), Milliseconds(99));
        }
        {
            SteppableClock clock;
            CallTimes times;
            CTimer timer(times.callback(), nullptr, "backward", type);
            ASSERT_TRUE(timer.start(Milliseconds(60'000)));
            ASSERT_TRUE(eventually([&] { return clock.waits() > 0; }));
            clock.step(Milliseconds(-3'600'000));
            clock.step(Milliseconds(60'000)); // the end that the wait would have had
            pause(200);
            EXPECT_EQ(times.count(), 0u);
            clock.step(Milliseconds(3'600'000));
            ASSERT_TRUE(times.reaches(1));
        }
    }
}

TEST(CTimerClockStep, BeforeAPassOfAOneShotWaitIsMadeGood)
{
    for (const int stepMs : {-3'600'000, 3'600'000}) {
        SteppableClock clock;
        CallTimes times;
        CTimer timer(times.callback(), nullptr, "one shot", CTimer::NonCyclic);
        ASSERT_TRUE(timer.start(Milliseconds(60'000)));
        ASSERT_TRUE(eventually([&] { return clock.waits() == 1; }));
        clock.stepBetweenPasses(Milliseconds(stepMs));
        ASSERT_TRUE(eventually([&] { return clock.waits() == 2; }));
        pause(50);
        EXPECT_EQ(times.count(), 0u); // not at once
        clock.step(Milliseconds(60'000));
        ASSERT_TRUE(times.reaches(1)); // and not an hour later
        EXPECT_EQ(clock.waits(), 2u);
    }
}

TEST(CTimerClockStep, IsNotMadeGoodInAPeriod)
{
    SteppableClock clock;
    CallTimes times;
    CTimer timer(times.callback(), nullptr, "cyclic", CTimer::Cyclic);
    ASSERT_TRUE(timer.start(Milliseconds(60'000)));
    ASSERT_TRUE(eventually([&] { return clock.waits() > 0; }));
    clock.step(Milliseconds(-3'600'000));
    clock.wakeSpuriously();
    ASSERT_TRUE(eventually([&] { return clock.waits() > 1; })); // the wait goes on, as it was
    clock.step(Milliseconds(60'000));
    pause(200);
    EXPECT_EQ(times.count(), 0u);
    clock.step(Milliseconds(3'600'000));
    ASSERT_TRUE(times.reaches(1));
}

TEST(CTimerSpuriousWakeUp, DoesNotEndAWait)
{
    for (const CTimer::Type type : {CTimer::NonCyclic, CTimer::Cyclic}) {
        SteppableClock clock;
        CallTimes times;
        CTimer timer(times.callback(), nullptr, "spurious", type);
        ASSERT_TRUE(timer.start(Milliseconds(200)));
        for (int i = 0; i < 5; ++i) {
            clock.wakeSpuriously();
            ASSERT_TRUE(eventually([&] { return !clock.waking(); }));
        }
        ASSERT_TRUE(times.reaches(1));
        EXPECT_GE(times.at(0), Milliseconds(199));
        EXPECT_GE(clock.waits(), 5u);
    }
}

// --- Refused starts ----------------------------------------------------------------------------

TEST(CTimerRefusedStart, LeavesTheRunningPassOfAOneShotTimer)
{
    SteppableClock clock;
    CallTimes times;
    CTimer timer(times.callback(), nullptr, "one shot", CTimer::NonCyclic);
    ASSERT_TRUE(timer.start(Milliseconds(60'000)));
    ASSERT_TRUE(eventually([&] { return clock.waits() > 0; }));
    EXPECT_FALSE(timer.start(kForever));
    clock.step(Milliseconds(30'000));
    pause(50);
    EXPECT_EQ(times.count(), 0u);
    clock.step(Milliseconds(30'000));
    ASSERT_TRUE(times.reaches(1)); // and not an hour later
}

TEST(CTimerRefusedStart, MovesAOneShotTimerThatIsWoken)
{
    SteppableClock clock;
    CallTimes times;
    CTimer timer(times.callback(), nullptr, "one shot", CTimer::NonCyclic);
    ASSERT_TRUE(timer.start(kForever));
    ASSERT_TRUE(eventually([&] { return clock.waits() > 0; }));
    EXPECT_FALSE(timer.start(Milliseconds(100)));
    pause(200);
    EXPECT_EQ(times.count(), 0u);
    clock.wakeSpuriously();
    ASSERT_TRUE(times.reaches(1));
}

TEST(CTimerRefusedStart, ChangesAPeriodFromTheNextOneOn)
{
    SteppableClock clock;
    CallTimes times;
    CTimer timer(times.callback(), nullptr, "cyclic", CTimer::Cyclic);
    ASSERT_TRUE(timer.start(Milliseconds(60'000)));
    ASSERT_TRUE(eventually([&] { return clock.waits() > 0; }));
    EXPECT_FALSE(timer.start(Milliseconds(1)));
    pause(50);
    EXPECT_EQ(times.count(), 0u); // the period in progress goes on
    clock.step(Milliseconds(60'000));
    ASSERT_TRUE(times.reaches(10));
    EXPECT_FALSE(timer.start(kForever));
    // One period of the old length may still be under way.
    ASSERT_TRUE(eventually([&] {
        const size_t count = times.count();
        pause(200);
        return times.count() == count;
    }));
}

} // namespace
