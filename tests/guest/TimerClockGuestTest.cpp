// Timers on a clock that is set while they wait, and beyond 2038.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <vector>

#include "Framework/GCL/CTimer.h"
#include "Framework/GCL/testing/FaultInjection.h"
#include "tests/guest/WallClock.h"
#include "tests/support/TimerSupport.h"

using gcltest::Count;
using gcltest::eventually;
using gcltest::Hook;
using gcltest::kForever;
using gcltest::Milliseconds;
using gcltest::pause;
using gcltest::Threads;
using gcltest::Timespec64;
using guest::dateNs;
using guest::kDay;
using guest::kLimit;
using guest::kMs;
using guest::kSecond;
using guest::monotonicNs;
using guest::setWallClock;
using guest::stepWallClock;
namespace calls = gcltest::calls;

namespace {

// A timer with the monotonic times of its calls, the number of its waits, and the processor time
// that its worker has taken.
class WatchedTimer {
public:
    explicit WatchedTimer(CTimer::Type type)
        : waits(calls::pthread_cond_timedwait64, Threads::all),
          narrowWaits(calls::pthread_cond_timedwait, Threads::all),
          timer(
              [this](void*) {
                  const std::lock_guard<std::mutex> lock(mutex);
                  workerNs = guest::threadTimeNs();
                  times.push_back(static_cast<int>((monotonicNs() - begin) / kMs));
              },
              nullptr, "watched", type)
    {
    }

    // Starts it and waits until its worker waits for the expiry.
    void start(int64_t ms)
    {
        const unsigned before = waitCount();
        begin = monotonicNs();
        ASSERT_TRUE(timer.start(Milliseconds(ms)));
        ASSERT_TRUE(eventually([&] { return waitCount() > before; }));
        pause(50);
    }

    void stop() { timer.stop(); }

    bool reaches(size_t wanted) const
    {
        return eventually([&] { return count() >= wanted; });
    }
    size_t count() const
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return times.size();
    }
    // The time of a call, in milliseconds since the start.
    int msOf(size_t call) const
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return times.at(call);
    }
    // Of both widths of time.
    unsigned waitCount() const { return waits.calls() + narrowWaits.calls(); }
    // Up to the last call.
    int64_t workerMs() const { return workerNs / kMs; }

private:
    mutable std::mutex mutex;
    std::vector<int> times; // ms
    std::atomic<int64_t> begin{0};
    std::atomic<int64_t> workerNs{0};
    Count<int(pthread_cond_t*, pthread_mutex_t*, const Timespec64*)> waits;
    Count<int(pthread_cond_t*, pthread_mutex_t*, const timespec*)> narrowWaits;
    CTimer timer;
};

class TimerClock : public testing::TestWithParam<CTimer::Type> {
protected:
    const guest::ClockKeeper keeper;
};

std::string nameOf(const testing::TestParamInfo<CTimer::Type>& info)
{
    return info.param == CTimer::Cyclic ? "Cyclic" : "OneShot";
}

INSTANTIATE_TEST_SUITE_P(Guest, TimerClock, testing::Values(CTimer::NonCyclic, CTimer::Cyclic),
                         nameOf);

// --- Steps -------------------------------------------------------------------------------------

TEST_P(TimerClock, SetForwardDuringAWaitEndsItEarlyByTheStep)
{
    WatchedTimer timer(GetParam());
    timer.start(600'000);
    stepWallClock(598 * kSecond);
    ASSERT_TRUE(timer.reaches(1));
    EXPECT_GE(timer.msOf(0), 1'990);
    EXPECT_LT(timer.msOf(0), 20'000);
    EXPECT_EQ(timer.waitCount(), GetParam() == CTimer::Cyclic ? 2u : 1u);
}

TEST_P(TimerClock, SetForwardBeyondTheEndOfAWaitEndsItAtOnce)
{
    WatchedTimer timer(GetParam());
    timer.start(600'000);
    EXPECT_EQ(timer.count(), 0u);
    stepWallClock(kDay);
    ASSERT_TRUE(timer.reaches(1));
    EXPECT_LT(timer.msOf(0), 20'000);
}

TEST_P(TimerClock, SetBackwardDuringAWaitMakesItLongerByTheStep)
{
    WatchedTimer timer(GetParam());
    timer.start(2'000);
    stepWallClock(-2 * kSecond);
    ASSERT_TRUE(timer.reaches(1));
    EXPECT_GE(timer.msOf(0), 3'990);
    EXPECT_LT(timer.msOf(0), 20'000);
    EXPECT_EQ(timer.waitCount(), GetParam() == CTimer::Cyclic ? 2u : 1u);
}

TEST_P(TimerClock, SetForwardAndBackAgainChangesNothing)
{
    WatchedTimer timer(GetParam());
    timer.start(3'000);
    stepWallClock(2 * kSecond);
    stepWallClock(-2 * kSecond);
    ASSERT_TRUE(timer.reaches(1));
    EXPECT_GE(timer.msOf(0), 2'950); // the two readings of the clock take some time
    EXPECT_LT(timer.msOf(0), 20'000);
}

TEST_P(TimerClock, SetBeforeTheStartChangesNothing)
{
    for (const int64_t step : {-kDay, kDay}) {
        WatchedTimer timer(GetParam());
        stepWallClock(step);
        timer.start(500);
        ASSERT_TRUE(timer.reaches(1));
        EXPECT_GE(timer.msOf(0), 499);
        EXPECT_LT(timer.msOf(0), 20'000);
    }
}

TEST_P(TimerClock, SetBackwardByADayLeavesStopAndDestructionQuick)
{
    const int64_t begin = monotonicNs();
    {
        WatchedTimer timer(GetParam());
        timer.start(600'000);
        stepWallClock(-kDay);
        pause(50);
        timer.stop();
        timer.start(600'000); // acknowledged
        EXPECT_EQ(timer.count(), 0u);
    }
    EXPECT_LT(monotonicNs() - begin, 20 * kSecond);
}

// What a step has done to one period does not reach the next one.
TEST_F(TimerClock, SetDuringOnePeriodLeavesTheNextAsLongAsEver)
{
    WatchedTimer timer(CTimer::Cyclic);
    timer.start(1'000);
    stepWallClock(-2 * kSecond);
    ASSERT_TRUE(timer.reaches(2));
    EXPECT_GE(timer.msOf(0), 2'990);
    EXPECT_GE(timer.msOf(1) - timer.msOf(0), 999);
    stepWallClock(kDay);
    ASSERT_TRUE(timer.reaches(4));
    EXPECT_GE(timer.msOf(3) - timer.msOf(2), 999);
    EXPECT_LT(timer.msOf(3), 20'000);
}

// The callback's time is not waited for: a step in it moves nothing.
TEST_F(TimerClock, SetDuringTheCallbackChangesNothing)
{
    std::atomic<int> count{0};
    std::atomic<int64_t> times[3] = {};
    CTimer timer(
        [&](void*) {
            const int call = count;
            if (call < 3) {
                times[call] = monotonicNs();
                stepWallClock(call == 0 ? kDay : -kDay);
            }
            ++count;
        },
        nullptr, "steps", CTimer::Cyclic);
    ASSERT_TRUE(timer.start(Milliseconds(700)));
    ASSERT_TRUE(eventually([&] { return count >= 3; }));
    timer.stop();
    EXPECT_GE(times[1] - times[0], 699 * kMs);
    EXPECT_GE(times[2] - times[1], 699 * kMs);
    EXPECT_LT(times[2] - times[0], 20 * kSecond);
}

// A wait that is woken for no reason, behind a step of the clock: the one-shot timer places the
// rest of its time on the clock anew, the cyclic one keeps its moment on the wall clock.
TEST_P(TimerClock, SetBackwardBeforeASpuriousWakeUpIsMadeGoodForOneShotTimersOnly)
{
    std::atomic<unsigned> waits{0};
    std::atomic<int64_t> firedAt{0};
    const Hook wait(
        calls::pthread_cond_timedwait64,
        [&](pthread_cond_t* condition, pthread_mutex_t* mutex, const Timespec64* due) {
            if (++waits == 1) {
                stepWallClock(-3 * kSecond);
                return 0;
            }
            return calls::pthread_cond_timedwait64.real(condition, mutex, due);
        },
        Threads::all);
    const int64_t begin = monotonicNs();
    CTimer timer([&](void*) { firedAt = firedAt == 0 ? monotonicNs() : firedAt.load(); }, nullptr,
                 "passes", GetParam());
    ASSERT_TRUE(timer.start(Milliseconds(3'000)));
    ASSERT_TRUE(eventually([&] { return firedAt != 0; }));
    const int64_t ms = (firedAt - begin) / kMs;
    if (GetParam() == CTimer::Cyclic) {
        EXPECT_GE(ms, 5'950);
    } else {
        EXPECT_GE(ms, 2'999);
        EXPECT_LT(ms, 5'900);
    }
    EXPECT_LT(ms, 20'000);
    EXPECT_GE(waits, 2u);
}

TEST_F(TimerClock, SetMovesAllTimersThatWait)
{
    WatchedTimer oneShot(CTimer::NonCyclic);
    std::atomic<int> count{0};
    std::vector<CTimer> timers;
    for (int i = 0; i < 8; ++i) {
        timers.emplace_back([&](void*) { ++count; }, nullptr, "one of many",
                            i % 2 == 0 ? CTimer::NonCyclic : CTimer::Cyclic);
        ASSERT_TRUE(timers.back().start(Milliseconds(600'000)));
    }
    ASSERT_TRUE(eventually([&] { return oneShot.waitCount() == 8; }));
    pause(50);
    EXPECT_EQ(count, 0);
    stepWallClock(kDay);
    EXPECT_TRUE(eventually([&] { return count == 8; }));
}

// --- 2038 --------------------------------------------------------------------------------------

// Generous: a busy loop would take all of the time that passes.
constexpr int64_t kLittleProcessorMs = 400;

TEST_F(TimerClock, PassesTheLimitOf32BitsWithACyclicTimerOnTime)
{
    WatchedTimer timer(CTimer::Cyclic);
    setWallClock(kLimit - 1'250 * kMs);
    timer.start(500);
    ASSERT_TRUE(timer.reaches(6));
    for (size_t call = 0; call < 6; ++call) {
        const int before = call == 0 ? 0 : timer.msOf(call - 1);
        EXPECT_GE(timer.msOf(call) - before, 499) << call;
    }
    EXPECT_LT(timer.msOf(5), 20'000);
    EXPECT_GT(guest::wallClockNs(), kLimit);
    EXPECT_LE(timer.waitCount(), timer.count() + 1);
    EXPECT_LT(timer.workerMs(), kLittleProcessorMs);
}

TEST_F(TimerClock, PassesTheLimitOf32BitsWithAOneShotTimerInOneWait)
{
    WatchedTimer timer(CTimer::NonCyclic);
    setWallClock(kLimit - kSecond);
    timer.start(2'000);
    ASSERT_TRUE(timer.reaches(1));
    EXPECT_GE(timer.msOf(0), 1'999);
    EXPECT_LT(timer.msOf(0), 20'000);
    EXPECT_EQ(timer.waitCount(), 1u);
    EXPECT_LT(timer.workerMs(), kLittleProcessorMs);
}

TEST_P(TimerClock, SetAcrossTheLimitOf32BitsDuringAWait)
{
    WatchedTimer timer(GetParam());
    setWallClock(kLimit - 60 * kSecond);
    timer.start(122'000);
    setWallClock(kLimit + 60 * kSecond); // 2 s are left, some of them gone
    ASSERT_TRUE(timer.reaches(1));
    EXPECT_GE(timer.msOf(0), 1'999);
    EXPECT_LT(timer.msOf(0), 20'000);
    EXPECT_LE(timer.waitCount(), 2u);
    EXPECT_LT(timer.workerMs(), kLittleProcessorMs);
}

// From behind the limit to before it.
TEST_P(TimerClock, SetBackAcrossTheLimitOf32BitsDuringAWait)
{
    WatchedTimer timer(GetParam());
    setWallClock(kLimit + kSecond);
    timer.start(1'000);
    setWallClock(kLimit - kSecond); // 3 s are left
    ASSERT_TRUE(timer.reaches(1));
    EXPECT_GE(timer.msOf(0), 2'999);
    EXPECT_LT(timer.msOf(0), 20'000);
    EXPECT_LE(timer.waitCount(), 2u);
}

class TimerYear : public testing::TestWithParam<int> {
protected:
    const guest::ClockKeeper keeper;
};

// The limit of unsigned numbers as well, and the latest year that the kernel can be set to.
INSTANTIATE_TEST_SUITE_P(Guest, TimerYear,
                         testing::Values(1971, 2037, 2038, 2040, 2106, 2107, 2231),
                         testing::PrintToStringParamName());

TEST_P(TimerYear, FiresOnTimeAndDoesNotSpin)
{
    setWallClock(dateNs(GetParam(), 2, 7) + 6 * 3'600 * kSecond);
    for (const CTimer::Type type : {CTimer::NonCyclic, CTimer::Cyclic}) {
        const size_t wanted = type == CTimer::Cyclic ? 3 : 1;
        WatchedTimer timer(type);
        timer.start(800);
        ASSERT_TRUE(timer.reaches(wanted));
        EXPECT_GE(timer.msOf(wanted - 1), static_cast<int>(wanted) * 800 - 1);
        EXPECT_LT(timer.msOf(wanted - 1), 20'000);
        EXPECT_LE(timer.waitCount(), timer.count() + 1);
        EXPECT_LT(timer.workerMs(), kLittleProcessorMs);
    }
}

TEST_P(TimerYear, WaitsForTheLongestDurationWithoutSpinning)
{
    setWallClock(dateNs(GetParam(), 2, 7));
    for (const CTimer::Type type : {CTimer::NonCyclic, CTimer::Cyclic}) {
        for (const Milliseconds duration : {kForever, Milliseconds::max()}) {
            WatchedTimer timer(type);
            timer.start(duration.count());
            const int64_t begin = guest::processorTimeNs();
            pause(800);
            EXPECT_EQ(timer.count(), 0u);
            EXPECT_EQ(timer.waitCount(), 1u);
            EXPECT_LT(guest::processorTimeNs() - begin, kLittleProcessorMs * kMs);
        }
    }
}

TEST_P(TimerYear, FiresAtOnceForNothingOrLess)
{
    setWallClock(dateNs(GetParam(), 2, 7));
    for (const int64_t ms : {int64_t{0}, int64_t{-1}, INT64_MIN}) {
        std::atomic<int> count{0};
        CTimer timer([&](void*) { ++count; }, nullptr, "at once", CTimer::NonCyclic);
        ASSERT_TRUE(timer.start(Milliseconds(ms)));
        EXPECT_TRUE(eventually([&] { return count == 1; }));
    }
}

} // namespace
