// Timers under many threads at once, and before and after the trace object's time.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <random>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Framework/GCL/CTimer.h"
#include "tests/support/Sanitizers.h"
#include "tests/support/TimerSupport.h"

using gcltest::eventually;
using gcltest::kForever;
using gcltest::Milliseconds;
using gcltest::pause;
using gcltest::SteadyClock;
using gcltest::takeReports;

namespace {

// --- Before main -------------------------------------------------------------------------------

std::atomic<int> earlyCalls{0};

// Built and destroyed outside of main. It must end in silence: the recording trace framework does
// not outlive the main thread.
struct EarlyTimer {
    EarlyTimer() : timer([](void*) { ++earlyCalls; }, nullptr, "early", CTimer::NonCyclic)
    {
        timer.start(Milliseconds(0));
    }
    CTimer timer;
};
__attribute__((init_priority(101))) EarlyTimer early;

TEST(CTimerStress, ATimerOfAStaticObjectWorks)
{
    EXPECT_TRUE(eventually([] { return earlyCalls == 1; }));
    EXPECT_NE(gcltest::implOf(early.timer), nullptr);
}

// ThreadSanitizer and AddressSanitizer are not ready at that time themselves.
#if !defined(GCLTEST_ADDRESS_SANITIZER) && !defined(GCLTEST_THREAD_SANITIZER)

// Runs before the library's own objects are built.
int beforeTheTraceObject = 0;
void useTimersBeforeTheTraceObject(int, char**, char**)
{
    const CTimer refused([](void*) {}, nullptr, "", CTimer::Cyclic);
    CTimer timer([](void*) { throw ++beforeTheTraceObject; }, nullptr, "first", CTimer::NonCyclic);
    timer.start(Milliseconds(0));
    while (timer.isRunning()) {
        pause(1);
    }
}
__attribute__((section(".preinit_array"),
               used)) void (*const preinit)(int, char**, char**) = useTimersBeforeTheTraceObject;

TEST(CTimerStress, TimersOlderThanTheTraceObjectWorkSilently)
{
    EXPECT_EQ(beforeTheTraceObject, 1);
    EXPECT_EQ(takeReports(), std::vector<gcltest::Report>{});
    EXPECT_EQ(gcltest::takeCalls(), std::vector<std::string>{});
    const CTimer refused([](void*) {}, nullptr, "", CTimer::Cyclic);
    EXPECT_EQ(takeReports().size(), 1u); // it exists now
}

#endif

// --- Many threads ------------------------------------------------------------------------------

TEST(CTimerStress, HundredsOfTimersComeAndGo)
{
    std::atomic<int> calls{0};
    for (int round = 0; round < 3; ++round) {
        std::vector<std::unique_ptr<CTimer>> timers;
        for (int i = 0; i < 150; ++i) {
            const auto type = i % 2 == 0 ? CTimer::Cyclic : CTimer::NonCyclic;
            timers.emplace_back(
                new CTimer([&](void*) { ++calls; }, nullptr, "t" + std::to_string(i), type));
            ASSERT_TRUE(timers.back()->start(Milliseconds(i % 7)));
            if (i % 5 == 0) {
                timers.back()->stop();
            }
        }
        const int before = calls;
        EXPECT_TRUE(eventually([&] { return calls > before + 300; }));
    }
}

TEST(CTimerStress, AnyThreadMayCallAnything)
{
    for (const CTimer::Type type : {CTimer::NonCyclic, CTimer::Cyclic}) {
        for (const int level : {1, 5}) {
            gcltest::setTraceLevel("KIV.CTimer", level);
            std::atomic<int> callbacks{0};
            CTimer* self = nullptr;
            CTimer timer(
                [&](void*) {
                    switch (++callbacks % 4) {
                    case 0:
                        self->stop();
                        break;
                    case 1:
                        EXPECT_FALSE(self->start(Milliseconds(0)));
                        break;
                    case 2:
                        throw std::runtime_error("stress");
                    default:
                        static_cast<void>(self->isRunning());
                        break;
                    }
                },
                nullptr, "stress", type);
            self = &timer;
            std::atomic<bool> over{false};
            std::atomic<int> starts{0};
            std::vector<std::thread> threads;
            for (unsigned seed = 0; seed < 4; ++seed) {
                threads.emplace_back([&, seed] {
                    std::minstd_rand random(seed + 1);
                    while (!over) {
                        switch (random() % 4) {
                        case 0:
                        case 1:
                            starts += timer.start(Milliseconds(random() % 2)) ? 1 : 0;
                            break;
                        case 2:
                            timer.stop();
                            break;
                        default:
                            static_cast<void>(timer.isRunning());
                            break;
                        }
                        // Where processors are few, threads that never rest stop each run before
                        // the worker gets to it.
                        if (random() % 8 == 0) {
                            pause(1);
                        }
                    }
                });
            }
            EXPECT_TRUE(eventually([&] { return callbacks > 100 && starts > 100; }));
            over = true;
            for (std::thread& thread : threads) {
                thread.join();
            }
            takeReports();
            gcltest::takeCalls();
        }
    }
    gcltest::setTraceLevel("KIV.CTimer", 3);
}

TEST(CTimerStress, AStoppedRunIsNotCalledAfterTheRestart)
{
    // Each run of a one-shot timer has a number; a call that comes once the next run has been
    // started, but was meant for the stopped one, would come an hour early.
    std::atomic<bool> mayCall{true};
    std::atomic<int> late{0};
    std::atomic<int> calls{0};
    for (const CTimer::Type type : {CTimer::NonCyclic, CTimer::Cyclic}) {
        mayCall = true;
        CTimer timer(
            [&](void*) {
                ++calls;
                late += mayCall ? 0 : 1;
            },
            nullptr, "late", type);
        for (int run = 0; run < 300; ++run) {
            mayCall = true;
            ASSERT_TRUE(timer.start(Milliseconds(run % 2)));
            if (run % 3 == 0) {
                std::this_thread::sleep_for(std::chrono::microseconds(run * 4));
            }
            timer.stop();
            ASSERT_TRUE(timer.start(kForever)); // the stopped run is over now
            mayCall = false;
            if (run % 10 == 0) {
                pause(1);
            }
            timer.stop();
        }
    }
    EXPECT_EQ(late, 0);
}

TEST(CTimerStress, DestructionEndsAllCalls)
{
    for (int run = 0; run < 200; ++run) {
        std::unique_ptr<std::atomic<int>> calls(new std::atomic<int>(0));
        std::atomic<int>* const counter = calls.get();
        {
            CTimer timer([counter](void*) { ++*counter; }, nullptr, "end",
                         run % 2 == 0 ? CTimer::Cyclic : CTimer::NonCyclic);
            ASSERT_TRUE(timer.start(Milliseconds(0)));
            if (run % 3 == 0) {
                timer.stop();
            }
        }
        calls.reset(); // a later call would write to freed memory
    }
}

TEST(CTimerStress, TimersAreMovedWhileTheyRun)
{
    std::atomic<int> calls{0};
    std::vector<CTimer> timers; // moves as it grows
    for (int i = 0; i < 40; ++i) {
        timers.emplace_back([&](void*) { ++calls; }, nullptr, "moving", CTimer::Cyclic);
        ASSERT_TRUE(timers.back().start(Milliseconds(1)));
    }
    while (timers.size() > 1) {
        timers.erase(timers.begin());
    }
    const int before = calls;
    EXPECT_TRUE(eventually([&] { return calls > before; }));
}

} // namespace
