// The timer's interface, its construction and its life; CTimerWaitTest.cpp has the clocks,
// CTimerSchedulingTest.cpp the scheduling policy, CTimerStressTest.cpp many threads at once.
#include "Framework/GCL/CTimer.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/prctl.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <set>
#include <stdexcept>
#include <system_error>
#include <type_traits>
#include <utility>

#include "Framework/GCL/testing/FaultInjection.h"
#include "tests/support/TimerSupport.h"

using gcltest::addressOf;
using gcltest::Count;
using gcltest::eventually;
using gcltest::Failure;
using gcltest::Fault;
using gcltest::Hook;
using gcltest::implOf;
using gcltest::kForever;
using gcltest::Milliseconds;
using gcltest::pause;
using gcltest::Report;
using gcltest::setTraceLevel;
using gcltest::SleepWatch;
using gcltest::takeReports;
using gcltest::Threads;
using gcltest::timerReport;
using gcltest::TimerReports;
namespace calls = gcltest::calls;

namespace {

using Reports = std::vector<Report>;
using Callback = std::function<void(void*)>;

void ignore(void*) {}

// Counts its calls and keeps the argument of the last one.
struct Calls {
    std::atomic<int> count{0};
    std::atomic<void*> argument{nullptr};

    Callback callback()
    {
        return [this](void* arg) {
            argument = arg;
            ++count;
        };
    }
};

// A callback that blocks until it is let go.
struct Blocker {
    std::atomic<bool> entered{false};
    std::atomic<bool> released{false};
    std::atomic<bool> left{false};

    Callback callback()
    {
        return [this](void*) {
            entered = true;
            while (!released) {
                pause(1);
            }
            left = true;
        };
    }
};

struct Receiver : ITimerReceiver {
    std::atomic<int> count{0};
    std::atomic<void*> argument{nullptr};
    void onTimer(void* userArg) override
    {
        argument = userArg;
        ++count;
    }
};

std::string threadName()
{
    char name[17] = "";
    EXPECT_EQ(prctl(PR_GET_NAME, name), 0);
    return name;
}

// Runs `body` in a thread of its own, which is cancelled as soon as `ready`.
template <typename Ready, typename Body>
void runCancelled(Ready ready, Body body)
{
    pthread_t thread{};
    std::function<void()> function = body;
    ASSERT_EQ(pthread_create(
                  &thread, nullptr,
                  [](void* arg) -> void* {
                      (*static_cast<std::function<void()>*>(arg))();
                      return nullptr;
                  },
                  &function),
              0);
    EXPECT_TRUE(eventually(ready));
    EXPECT_EQ(pthread_cancel(thread), 0);
    void* result = nullptr;
    EXPECT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
}

// --- Construction ------------------------------------------------------------------------------

TEST(CTimerConstruction, RefusesANameOfAWrongLength)
{
    for (const std::string& name :
         {std::string(), std::string(16, 'n'), std::string(500, 'x'), std::string(20, '\0'),
          std::string("a \"quoted\" one, too long")}) {
        const CTimer timer(ignore, nullptr, name, CTimer::Cyclic);
        EXPECT_EQ(implOf(timer), nullptr);
        EXPECT_EQ(takeReports(), (Reports{timerReport(1, "make_ctimer_impl",
                                                      '"' + name + "\" is an invalid name.")}));
    }
}

TEST(CTimerConstruction, RefusesAnEmptyCallback)
{
    const CTimer timer(Callback(), nullptr, "fifteen letters", CTimer::NonCyclic);
    EXPECT_EQ(implOf(timer), nullptr);
    EXPECT_EQ(takeReports(), (Reports{timerReport(1, "make_ctimer_impl",
                                                  "\"fifteen letters\" has nullptr callback.")}));
}

TEST(CTimerConstruction, LooksAtTheNameFirst)
{
    const CTimer timer(Callback(), nullptr, "", CTimer::Default, 0, CTimer::NonCyclic);
    EXPECT_EQ(takeReports(),
              (Reports{timerReport(1, "make_ctimer_impl", "\"\" is an invalid name.")}));
}

TEST(CTimerConstruction, IsSilentAtTheInitialLevel)
{
    {
        CTimer timer(ignore, nullptr, "t", CTimer::Cyclic);
        EXPECT_TRUE(timer.start(kForever));
        EXPECT_FALSE(timer.start(kForever));
        timer.stop();
        timer.stop();
    }
    EXPECT_EQ(takeReports(), Reports{});
}

TEST(CTimerConstruction, KeepsFourteenCharactersOfTheName)
{
    for (const std::string name : {"n", "fourteen chars", "fifteen charact"}) {
        setTraceLevel("KIV.CTimer", 5);
        std::string seen;
        std::atomic<bool> called{false};
        TimerReports reports;
        const std::string kept = name.substr(0, 14);
        std::string address;
        {
            CTimer timer(
                [&](void*) {
                    seen = threadName();
                    called = true;
                },
                nullptr, name, CTimer::NonCyclic);
            address = addressOf(timer);
            EXPECT_TRUE(timer.start(Milliseconds(0)));
            EXPECT_TRUE(eventually([&] { return called.load(); }));
        }
        EXPECT_EQ(seen, kept);
        EXPECT_TRUE(reports.has(
            timerReport(5, "start", '"' + kept + "\" successfully started [" + address + "].")));
    }
}

TEST(CTimerConstruction, MakesAOneShotTimerOfEveryOtherType)
{
    for (const int32_t type : {0, 2, 7, -1, INT32_MAX}) {
        Calls calls;
        CTimer timer(calls.callback(), nullptr, "once", static_cast<CTimer::Type>(type));
        EXPECT_TRUE(timer.start(Milliseconds(1)));
        EXPECT_TRUE(eventually([&] { return !timer.isRunning(); }));
        pause(20);
        EXPECT_EQ(calls.count, 1);
    }
}

TEST(CTimerConstruction, PassesTheUserArgumentToEachKindOfCallback)
{
    int object = 0;
    for (const CTimer::Type type : {CTimer::NonCyclic, CTimer::Cyclic}) {
        Receiver receiver;
        Calls calls[2];
        CTimer timers[] = {
            CTimer(&receiver, &object, "receiver", type),
            CTimer(calls[0].callback(), &object, "callback", type),
            CTimer(calls[1].callback(), &object, "policy", CTimer::Default, 0, type),
        };
        for (CTimer& timer : timers) {
            EXPECT_TRUE(timer.start(Milliseconds(1)));
        }
        const int wanted = type == CTimer::Cyclic ? 3 : 1;
        EXPECT_TRUE(eventually([&] {
            return receiver.count >= wanted && calls[0].count >= wanted && calls[1].count >= wanted;
        }));
        EXPECT_EQ(receiver.argument, &object);
        EXPECT_EQ(calls[0].argument, &object);
        EXPECT_EQ(calls[1].argument, &object);
    }
}

TEST(CTimerConstruction, DoesNotDetectANullReceiver)
{
    const CTimer timer(static_cast<ITimerReceiver*>(nullptr), nullptr, "null", CTimer::Cyclic);
    EXPECT_NE(implOf(timer), nullptr);
    EXPECT_EQ(takeReports(), Reports{});
}

TEST(CTimerConstruction, UsesDefaultAndPriorityZeroWithoutAPolicy)
{
    setTraceLevel("KIV.CTimer", 5);
    Receiver receiver;
    const Report wanted =
        timerReport(5, "Impl", "\"t\" using default thread policy: SCHED_OTHER, priority: 0");
    TimerReports reports;
    for (int way = 0; way < 3; ++way) {
        reports.clear();
        const CTimer timer = way == 0 ? CTimer(&receiver, nullptr, "t", CTimer::Cyclic)
                             : way == 1
                                 ? CTimer(ignore, nullptr, "t", CTimer::Cyclic)
                                 : CTimer(ignore, nullptr, "t", CTimer::Default, 0, CTimer::Cyclic);
        EXPECT_EQ(reports.of("Impl"), (Reports{timerReport(5, "Impl",
                                                           "\"t\" thread successfully created [" +
                                                               addressOf(timer) + "]."),
                                               wanted}));
    }
}

TEST(CTimerConstruction, ReleasesTheCallbackWithTheTimer)
{
    const auto token = std::make_shared<int>(0);
    {
        const CTimer timer([token](void*) {}, nullptr, "t", CTimer::Cyclic);
        EXPECT_EQ(token.use_count(), 2);
        const CTimer refused([token](void*) {}, nullptr, "", CTimer::Cyclic);
        EXPECT_EQ(token.use_count(), 2);
    }
    EXPECT_EQ(token.use_count(), 1);
}

// --- Interface ---------------------------------------------------------------------------------

TEST(CTimerInterface, HasItsOperationsInOrder)
{
    CTimer timer(ignore, nullptr, "slots", CTimer::Cyclic);
    ICTimer* const object = &timer;
    void** vtable = nullptr;
    std::memcpy(&vtable, static_cast<const void*>(object), sizeof vtable);
    // Behind the two entries of the destructor.
    const auto start = reinterpret_cast<bool (*)(ICTimer*, Milliseconds)>(vtable[2]);
    const auto stop = reinterpret_cast<void (*)(ICTimer*)>(vtable[3]);
    const auto isRunning = reinterpret_cast<bool (*)(const ICTimer*)>(vtable[4]);
    EXPECT_FALSE(isRunning(object));
    EXPECT_TRUE(start(object, kForever));
    EXPECT_TRUE(isRunning(object));
    stop(object);
    EXPECT_FALSE(isRunning(object));

    Receiver receiver;
    ITimerReceiver* const base = &receiver;
    std::memcpy(&vtable, static_cast<const void*>(base), sizeof vtable);
    reinterpret_cast<void (*)(ITimerReceiver*, void*)>(vtable[0])(base, &timer);
    EXPECT_EQ(receiver.argument, &timer);
}

TEST(CTimerInterface, HasFixedEnumerations)
{
    EXPECT_TRUE((std::is_same<std::underlying_type<CTimer::Type>::type, int32_t>::value));
    EXPECT_TRUE((std::is_same<std::underlying_type<CTimer::Policy>::type, int32_t>::value));
    EXPECT_EQ(CTimer::NonCyclic, 0);
    EXPECT_EQ(CTimer::Cyclic, 1);
    EXPECT_EQ(CTimer::Other, 0);
    EXPECT_EQ(CTimer::Fifo, 1);
    EXPECT_EQ(CTimer::RoundRobin, 2);
    EXPECT_EQ(CTimer::Default, 3);
}

TEST(CTimerInterface, CannotBeCopied)
{
    EXPECT_FALSE(std::is_copy_constructible<CTimer>::value);
    EXPECT_FALSE(std::is_copy_assignable<CTimer>::value);
    EXPECT_TRUE(std::is_nothrow_move_constructible<CTimer>::value);
    EXPECT_TRUE(std::is_nothrow_move_assignable<CTimer>::value);
    EXPECT_TRUE(std::has_virtual_destructor<ICTimer>::value);
}

TEST(CTimerInterface, IsDestroyedThroughItsBase)
{
    const auto token = std::make_shared<int>(0);
    std::unique_ptr<ICTimer> timer(new CTimer([token](void*) {}, nullptr, "t", CTimer::Cyclic));
    EXPECT_TRUE(timer->start(kForever));
    timer.reset();
    EXPECT_EQ(token.use_count(), 1);
}

void expectRefused(CTimer& timer)
{
    EXPECT_EQ(implOf(timer), nullptr);
    EXPECT_FALSE(timer.start(Milliseconds(0)));
    EXPECT_FALSE(timer.isRunning());
    timer.stop();
    EXPECT_FALSE(timer.isRunning());
    EXPECT_EQ(takeReports(), Reports{});
}

TEST(CTimerRefused, NeverRuns)
{
    CTimer timer(ignore, nullptr, "", CTimer::Cyclic);
    takeReports();
    expectRefused(timer);
}

TEST(CTimerMove, CarriesARunningTimer)
{
    Calls calls;
    CTimer first(calls.callback(), nullptr, "moved", CTimer::Cyclic);
    void* const impl = implOf(first);
    EXPECT_TRUE(first.start(Milliseconds(1)));
    CTimer second(std::move(first));
    expectRefused(first);
    EXPECT_EQ(implOf(second), impl);
    EXPECT_TRUE(second.isRunning());
    const int before = calls.count;
    EXPECT_TRUE(eventually([&] { return calls.count > before + 2; }));
}

TEST(CTimerMove, AssignmentEndsTheTimerThatItReplaces)
{
    Blocker blocker;
    Calls calls;
    const auto token = std::make_shared<int>(0);
    CTimer target([&, token](void*) { blocker.callback()(nullptr); }, nullptr, "old",
                  CTimer::NonCyclic);
    CTimer source(calls.callback(), nullptr, "new", CTimer::Cyclic);
    void* const impl = implOf(source);
    EXPECT_TRUE(target.start(Milliseconds(0)));
    EXPECT_TRUE(eventually([&] { return blocker.entered.load(); }));
    std::thread release([&] {
        pause(50);
        blocker.released = true;
    });
    target = std::move(source);
    EXPECT_TRUE(blocker.left);
    EXPECT_EQ(token.use_count(), 1);
    release.join();
    expectRefused(source);
    EXPECT_EQ(implOf(target), impl);
    EXPECT_TRUE(target.start(Milliseconds(1)));
    EXPECT_TRUE(eventually([&] { return calls.count > 2; }));
}

TEST(CTimerMove, TheReplacedTimersLastCallbackHasItStill)
{
    Blocker blocker;
    CTimer* self = nullptr;
    std::atomic<bool> ran{true};
    CTimer target(
        [&](void*) {
            blocker.callback()(nullptr);
            ran = self->isRunning();
            self->stop();
        },
        nullptr, "old", CTimer::NonCyclic);
    self = &target;
    CTimer source(ignore, nullptr, "new", CTimer::NonCyclic);
    EXPECT_TRUE(source.start(kForever));
    EXPECT_TRUE(target.start(Milliseconds(0)));
    EXPECT_TRUE(eventually([&] { return blocker.entered.load(); }));
    target.stop();
    setTraceLevel("KIV.CTimer", 5);
    std::thread release([&] {
        EXPECT_TRUE(gcltest::waitForReport(gcltest::inFunction("wait_for_thread"), 20'000));
        blocker.released = true;
    });
    target = std::move(source);
    release.join();
    EXPECT_FALSE(ran) << "the old timer was stopped";
    EXPECT_TRUE(target.isRunning()) << "the new one was not";
}

TEST(CTimerMove, AssignmentToItselfDoesNothing)
{
    Calls calls;
    CTimer timer(calls.callback(), nullptr, "self", CTimer::Cyclic);
    EXPECT_TRUE(timer.start(Milliseconds(1)));
    CTimer& same = timer;
    timer = std::move(same);
    EXPECT_NE(implOf(timer), nullptr);
    EXPECT_TRUE(timer.isRunning());
    const int before = calls.count;
    EXPECT_TRUE(eventually([&] { return calls.count > before; }));
}

TEST(CTimerMove, WorksWithRefusedTimers)
{
    CTimer refused(ignore, nullptr, "", CTimer::Cyclic);
    CTimer timer(ignore, nullptr, "t", CTimer::Cyclic);
    takeReports();
    timer = std::move(refused);
    expectRefused(timer);
    expectRefused(refused);
}

// --- Life --------------------------------------------------------------------------------------

TEST(CTimerLife, IsToldStepByStepAtLevelFive)
{
    setTraceLevel("KIV.CTimer", 5);
    TimerReports reports;
    std::string address;
    Calls calls;
    {
        CTimer timer(calls.callback(), nullptr, "life", CTimer::NonCyclic);
        address = addressOf(timer);
        EXPECT_TRUE(timer.start(kForever));
        timer.stop();
    }
    const auto text = [&](const std::string& what) { return "\"life\" " + what + address + "]."; };
    EXPECT_EQ(reports.of("Impl").front(),
              timerReport(5, "Impl", text("thread successfully created [")));
    EXPECT_EQ(reports.of("start"),
              (Reports{timerReport(5, "start", text("successfully started ["))}));
    EXPECT_EQ(reports.of("stop"),
              (Reports{timerReport(5, "stop", text("successfully stopped ["))}));
    EXPECT_EQ(reports.of("wait_for_thread"),
              (Reports{timerReport(5, "wait_for_thread", text("wating to join thread ["))}));
    EXPECT_EQ(
        reports.of("timer_thread_function"),
        (Reports{timerReport(5, "timer_thread_function", text("entered thread function [")),
                 timerReport(5, "timer_thread_function", text("leaving thread function ["))}));
    EXPECT_EQ(reports.all().size(), 7u);
    EXPECT_EQ(calls.count, 0);
}

TEST(CTimerLife, TellsNeedlessCallsAtLevelFour)
{
    setTraceLevel("KIV.CTimer", 4);
    Blocker blocker;
    CTimer timer(blocker.callback(), nullptr, "four", CTimer::NonCyclic);
    timer.stop();
    EXPECT_EQ(takeReports(), (Reports{timerReport(4, "stop", "\"four\" is not running.")}));
    EXPECT_TRUE(timer.start(Milliseconds(0)));
    EXPECT_FALSE(timer.start(Milliseconds(0)));
    EXPECT_EQ(takeReports(), (Reports{timerReport(4, "start", "\"four\" is already started.")}));
    EXPECT_TRUE(eventually([&] { return blocker.entered.load(); }));
    timer.stop();
    EXPECT_EQ(takeReports(), Reports{});
    timer.stop();
    EXPECT_EQ(takeReports(),
              (Reports{timerReport(4, "stop", "\"four\" has already been stopped.")}));
    blocker.released = true;
}

TEST(CTimerLife, SaysNothingBelowTheMessagesLevel)
{
    for (const int level : {0, 1, 3}) {
        setTraceLevel("KIV.CTimer", level);
        CTimer timer([](void*) { throw 1; }, nullptr, "t", CTimer::NonCyclic);
        timer.stop();
        EXPECT_TRUE(timer.start(Milliseconds(0)));
        EXPECT_TRUE(eventually([&] { return !timer.isRunning(); }));
        EXPECT_EQ(takeReports().size(), level >= 2 ? 1u : 0u);
        const CTimer refused(ignore, nullptr, "", CTimer::Cyclic);
        EXPECT_EQ(takeReports().size(), level >= 1 ? 1u : 0u);
    }
}

TEST(CTimerLife, WritesItsMessagesUnderItsLock)
{
    setTraceLevel("KIV.CTimer", 5);
    Blocker blocker;
    std::unique_ptr<CTimer> timer(
        new CTimer(blocker.callback(), nullptr, "lock", CTimer::NonCyclic));
    CTimer* const same = timer.get();
    std::atomic<int> passed{0};
    int passedMeanwhile = 0;
    std::vector<std::string> functions;
    std::vector<std::thread> probes;
    const gcltest::BeginHook hook([&](const Report& report) {
        if (report.function != "start" && report.function != "stop" &&
            report.function != "wait_for_thread") {
            return;
        }
        functions.push_back(report.function);
        const int before = passed;
        probes.emplace_back([&] {
            static_cast<void>(same->isRunning());
            ++passed;
        });
        pause(50);
        passedMeanwhile += passed - before;
    });
    const auto allHavePassed = [&] {
        return eventually([&] { return passed == static_cast<int>(functions.size()); });
    };
    EXPECT_TRUE(timer->start(Milliseconds(0)));
    EXPECT_TRUE(allHavePassed());
    EXPECT_FALSE(timer->start(Milliseconds(0)));
    EXPECT_TRUE(allHavePassed());
    EXPECT_TRUE(eventually([&] { return blocker.entered.load(); }));
    timer->stop();
    EXPECT_TRUE(allHavePassed());
    timer->stop();
    EXPECT_TRUE(allHavePassed());
    std::thread release([&] {
        EXPECT_TRUE(eventually([&] { return passed == 5; }));
        blocker.released = true; // the timer has lived until then
    });
    timer.reset();
    release.join();
    for (std::thread& probe : probes) {
        probe.join();
    }
    EXPECT_EQ(passedMeanwhile, 0);
    EXPECT_EQ(functions,
              (std::vector<std::string>{"start", "start", "stop", "stop", "wait_for_thread"}));
}

TEST(CTimerLife, WritesItsWorkersMessagesWithoutItsLock)
{
    setTraceLevel("KIV.CTimer", 5);
    CTimer* same = nullptr;
    std::atomic<bool> built{false};
    std::vector<std::thread> probes;
    std::vector<std::string> functions;
    const gcltest::BeginHook hook([&](const Report& report) {
        if (!built || (report.function != "timer_callback_catch_exceptions" &&
                       report.function != "timer_thread_function")) {
            return;
        }
        const auto passed = std::make_shared<std::atomic<bool>>(false);
        probes.emplace_back([same, passed] {
            static_cast<void>(same->isRunning());
            *passed = true;
        });
        EXPECT_TRUE(eventually([&] { return passed->load(); })) << report;
        functions.push_back(report.function);
    });
    {
        CTimer timer(
            [calls = 0](void*) mutable {
                if (++calls == 1) {
                    throw std::runtime_error("x");
                }
                throw 1;
            },
            nullptr, "no lock", CTimer::NonCyclic);
        // The worker has told that it has begun, and waits.
        EXPECT_TRUE(gcltest::waitForReport(gcltest::inFunction("timer_thread_function"), 20'000));
        same = &timer;
        built = true;
        for (int run = 0; run < 2; ++run) {
            EXPECT_TRUE(timer.start(Milliseconds(0)));
            EXPECT_TRUE(eventually([&] { return !timer.isRunning(); }));
        }
    }
    for (std::thread& probe : probes) {
        probe.join();
    }
    EXPECT_EQ(functions, (std::vector<std::string>{"timer_callback_catch_exceptions",
                                                   "timer_callback_catch_exceptions",
                                                   "timer_thread_function"}));
}

TEST(CTimerLife, NamesTheLineOfEachSite)
{
    setTraceLevel("KIV.CTimer", 5);
    {
        CTimer timer(ignore, nullptr, "lines", CTimer::NonCyclic);
        EXPECT_TRUE(timer.start(kForever));
        timer.stop();
    }
    const size_t messages = takeReports().size();
    EXPECT_EQ(messages, 7u);
    const std::vector<int> lines = gcltest::takenLines();
    EXPECT_EQ(std::set<int>(lines.begin(), lines.end()).size(), messages);
}

TEST(CTimerLife, HasATraceObjectOfLevelThree)
{
    EXPECT_EQ(gcltest::traceLevel("KIV.CTimer"), 3);
}

TEST(CTimerLife, WritesAMessageInThreePieces)
{
    gcltest::takeCalls();
    const CTimer timer(ignore, nullptr, "", CTimer::Cyclic);
    EXPECT_EQ(gcltest::takeCalls(),
              (std::vector<std::string>{"begin KIV.CTimer 1", "data make_ctimer_impl", "data (): ",
                                        "data \"\" is an invalid name.", "end KIV.CTimer"}));
    EXPECT_EQ(takeReports().size(), 1u);
    EXPECT_GT(gcltest::takenLines().at(0), 0);
}

TEST(CTimerLife, LeavesErrnoAlone)
{
    setTraceLevel("KIV.CTimer", 5);
    errno = 4711;
    {
        const CTimer refused(ignore, nullptr, std::string(300, 'n'), CTimer::Cyclic);
        EXPECT_EQ(errno, 4711);
        CTimer timer(ignore, nullptr, "errno", CTimer::Cyclic);
        EXPECT_EQ(errno, 4711);
        EXPECT_TRUE(timer.start(kForever));
        EXPECT_FALSE(timer.start(kForever));
        timer.stop();
        EXPECT_EQ(errno, 4711);
    }
    EXPECT_EQ(errno, 4711);
}

TEST(CTimerLife, KeepsErrnoWhereBuildingTheTextChangesIt)
{
    bool building = false;
    int errnoAtBegin = 0;
    const std::string name(300, 'n');
    const Callback callback = ignore;
    const gcltest::BeginHook begin([&](const gcltest::Report&) { errnoAtBegin = errno; });
    Hook hook(calls::newScalar, [&](size_t size) -> void* {
        void* const memory = calls::newScalar.real(size);
        if (size >= name.size()) {
            building = true;
            errno = ENOMEM;
        }
        return memory;
    });
    errno = 4711;
    const CTimer refused(callback, nullptr, name, CTimer::Cyclic);
    EXPECT_EQ(errno, 4711);
    EXPECT_TRUE(building);
    EXPECT_EQ(errnoAtBegin, 4711);
}

// The trace framework ends the process in the middle of a message: the trace object, which is
// destroyed on the way, is waited for and then left to the message.
TEST(CTimerLifeDeathTest, AProcessThatEndsInAMessageKeepsTheTraceObject)
{
    const auto begin = gcltest::SteadyClock::now();
    EXPECT_EXIT(
        {
            const gcltest::BeginHook hook([](const Report&) { std::exit(7); });
            const CTimer refused(ignore, nullptr, "", CTimer::Cyclic);
        },
        testing::ExitedWithCode(7), "");
    EXPECT_GE(gcltest::SteadyClock::now() - begin, Milliseconds(1000));
}

// What the loader cannot tell is not asked for: the timer works without the reference.
TEST(CTimerLife, WorksWhereTheLoaderDoesNotKnowTheLibrary)
{
    const Fault unknown(gcltest::calls::dladdr, gcltest::calls::dladdr.failure());
    const Count references(gcltest::calls::dlopen);
    Calls counted;
    {
        CTimer timer(counted.callback(), nullptr, "unknown", CTimer::NonCyclic);
        EXPECT_TRUE(timer.start(Milliseconds(0)));
        EXPECT_TRUE(eventually([&] { return counted.count == 1; }));
    }
    EXPECT_EQ(unknown.failures(), 1u);
    EXPECT_EQ(references.calls(), 0u);
    EXPECT_EQ(takeReports(), Reports{});
}

TEST(CTimerLife, KeepsItsLibraryLoaded)
{
    Dl_info library{};
    const CTimer refused(ignore, nullptr, "", CTimer::Cyclic);
    void** vtable = nullptr;
    std::memcpy(&vtable, static_cast<const void*>(&refused), sizeof vtable);
    ASSERT_NE(dladdr(vtable[2], &library), 0);
    void* handle = nullptr;
    const Hook taken(calls::dlopen, [&](const char* path, int flags) {
        EXPECT_STREQ(path, library.dli_fname);
        EXPECT_EQ(flags, RTLD_LAZY | RTLD_NOLOAD);
        return handle = calls::dlopen.real(path, flags);
    });
    const Hook dropped(calls::dlclose, [&](void* closed) {
        EXPECT_EQ(closed, handle);
        return calls::dlclose.real(closed);
    });
    {
        const CTimer timer(ignore, nullptr, "loaded", CTimer::Cyclic);
        EXPECT_EQ(taken.calls(), 1u);
        EXPECT_NE(handle, nullptr);
        EXPECT_EQ(dropped.calls(), 0u);
    }
    EXPECT_EQ(taken.calls(), 1u);
    EXPECT_EQ(dropped.calls(), 1u);
}

TEST(CTimerLife, OneThreadServesAllRuns)
{
    Count created(calls::pthread_create);
    Calls calls;
    CTimer timer(calls.callback(), nullptr, "runs", CTimer::NonCyclic);
    for (int run = 1; run <= 20; ++run) {
        EXPECT_TRUE(timer.start(Milliseconds(0)));
        EXPECT_TRUE(eventually([&] { return !timer.isRunning(); }));
        EXPECT_EQ(calls.count, run);
    }
    EXPECT_EQ(created.calls(), 1u);
}

TEST(CTimerLife, AOneShotTimerRunsUntilItsCallbackHasReturned)
{
    Blocker blocker;
    CTimer timer(blocker.callback(), nullptr, "one shot", CTimer::NonCyclic);
    EXPECT_FALSE(timer.isRunning());
    EXPECT_TRUE(timer.start(Milliseconds(1)));
    EXPECT_TRUE(timer.isRunning());
    EXPECT_TRUE(eventually([&] { return blocker.entered.load(); }));
    EXPECT_TRUE(timer.isRunning());
    blocker.released = true;
    EXPECT_TRUE(eventually([&] { return !timer.isRunning(); }));
}

TEST(CTimerLife, StopInterruptsTheWait)
{
    for (const CTimer::Type type : {CTimer::NonCyclic, CTimer::Cyclic}) {
        setTraceLevel("KIV.CTimer", 5);
        Calls calls;
        CTimer timer(calls.callback(), nullptr, "stop", type);
        for (int i = 0; i < 3; ++i) {
            EXPECT_TRUE(timer.start(kForever));
            pause(10);
            timer.stop();
            EXPECT_FALSE(timer.isRunning());
            // The next start waits for the worker; had the wait gone on, it would not return.
        }
        EXPECT_TRUE(timer.start(kForever));
        EXPECT_EQ(calls.count, 0);
    }
}

TEST(CTimerLife, AStartBehindAStopWaitsForTheRunningCallback)
{
    Blocker blocker;
    CTimer timer(blocker.callback(), nullptr, "restart", CTimer::Cyclic);
    EXPECT_TRUE(timer.start(Milliseconds(0)));
    EXPECT_TRUE(eventually([&] { return blocker.entered.load(); }));
    timer.stop();
    std::atomic<bool> restarted{false};
    std::thread starter([&] {
        EXPECT_TRUE(timer.start(kForever));
        EXPECT_TRUE(blocker.left);
        restarted = true;
    });
    pause(50);
    EXPECT_FALSE(restarted);
    EXPECT_FALSE(timer.isRunning());
    blocker.released = true;
    starter.join();
    EXPECT_TRUE(timer.isRunning());
}

TEST(CTimerLife, AllStartsThatWaitForAStopSucceed)
{
    Blocker blocker;
    CTimer timer(blocker.callback(), nullptr, "two", CTimer::NonCyclic);
    EXPECT_TRUE(timer.start(Milliseconds(0)));
    EXPECT_TRUE(eventually([&] { return blocker.entered.load(); }));
    timer.stop();
    SleepWatch watches[2];
    std::atomic<int> succeeded{0};
    const auto restart = [&](SleepWatch& watch) {
        watch.announce();
        succeeded += timer.start(kForever) ? 1 : 0;
    };
    std::thread first([&] { restart(watches[0]); });
    std::thread second([&] { restart(watches[1]); });
    EXPECT_TRUE(watches[0].eventuallyAsleep());
    EXPECT_TRUE(watches[1].eventuallyAsleep());
    blocker.released = true;
    first.join();
    second.join();
    EXPECT_EQ(succeeded, 2);
    EXPECT_TRUE(timer.isRunning());
}

// A wait on a condition may end without a notification (pthread_cond_wait(3)).
TEST(CTimerLife, LooksAgainAfterAWaitThatEndsByItself)
{
    std::atomic<int> endedByItself{0};
    std::atomic<bool> quiet{false};
    const Hook waits(
        calls::pthread_cond_wait,
        [&](pthread_cond_t* condition, pthread_mutex_t* mutex) {
            if (!quiet) {
                quiet = ++endedByItself == 3;
                return 0;
            }
            return calls::pthread_cond_wait.real(condition, mutex);
        },
        Threads::all);
    Blocker blocker;
    CTimer timer(blocker.callback(), nullptr, "again", CTimer::NonCyclic);
    EXPECT_TRUE(eventually([&] { return quiet.load(); }));
    pause(30);
    EXPECT_FALSE(blocker.entered) << "it was never started";
    EXPECT_TRUE(timer.start(Milliseconds(0)));
    EXPECT_TRUE(eventually([&] { return blocker.entered.load(); }));
    timer.stop();
    endedByItself = 0;
    quiet = false;
    std::atomic<bool> restarted{false};
    std::thread starter([&] { restarted = timer.start(kForever); });
    EXPECT_TRUE(eventually([&] { return quiet.load(); }));
    pause(30);
    EXPECT_FALSE(restarted) << "the stop is not acknowledged yet";
    blocker.released = true;
    starter.join();
    EXPECT_TRUE(restarted);
}

TEST(CTimerLife, StopInTheCallbackOfACyclicTimerIsItsLastCall)
{
    std::atomic<int> count{0};
    CTimer* self = nullptr;
    CTimer timer(
        [&](void*) {
            ++count;
            EXPECT_TRUE(self->isRunning());
            self->stop();
            EXPECT_FALSE(self->isRunning());
        },
        nullptr, "self stop", CTimer::Cyclic);
    self = &timer;
    EXPECT_TRUE(timer.start(Milliseconds(1)));
    EXPECT_TRUE(eventually([&] { return count > 0; }));
    pause(30);
    EXPECT_EQ(count, 1);
    EXPECT_TRUE(timer.start(Milliseconds(1)));
    EXPECT_TRUE(eventually([&] { return count == 2; }));
}

TEST(CTimerLife, StartInTheCallbackIsRefusedButStoresTheDuration)
{
    std::atomic<int> count{0};
    std::atomic<bool> result{true};
    CTimer* self = nullptr;
    CTimer timer(
        [&](void*) {
            if (++count == 1) {
                result = self->start(kForever);
            }
        },
        nullptr, "callback", CTimer::Cyclic);
    self = &timer;
    EXPECT_TRUE(timer.start(Milliseconds(1)));
    EXPECT_TRUE(eventually([&] { return count > 0; }));
    pause(50);
    EXPECT_EQ(count, 1); // the new period is an hour
    EXPECT_FALSE(result);
    EXPECT_TRUE(timer.isRunning());
    EXPECT_EQ(takeReports(),
              (Reports{timerReport(1, "start",
                                   "\"callback\" must not call start() from callback context.")}));
}

TEST(CTimerLife, StartInTheCallbackAfterAStopIsRefusedToo)
{
    std::atomic<int> refused{0};
    CTimer* self = nullptr;
    CTimer timer(
        [&](void*) {
            self->stop();
            refused += self->start(Milliseconds(0)) ? 0 : 1;
        },
        nullptr, "callback", CTimer::Cyclic);
    self = &timer;
    EXPECT_TRUE(timer.start(Milliseconds(1)));
    EXPECT_TRUE(eventually([&] { return refused == 1; }));
    pause(20);
    EXPECT_EQ(refused, 1);
    EXPECT_EQ(takeReports().size(), 1u);
}

// --- Destruction -------------------------------------------------------------------------------

TEST(CTimerDestruction, EndsTimersInEveryStateWithoutACall)
{
    for (const CTimer::Type type : {CTimer::NonCyclic, CTimer::Cyclic}) {
        for (int state = 0; state < 3; ++state) {
            for (const int pauseMs : {0, 5}) {
                Calls calls;
                {
                    CTimer timer(calls.callback(), nullptr, "end", type);
                    if (state > 0) {
                        EXPECT_TRUE(timer.start(kForever));
                        pause(pauseMs);
                    }
                    if (state > 1) {
                        timer.stop();
                    }
                }
                EXPECT_EQ(calls.count, 0);
            }
        }
    }
}

TEST(CTimerDestruction, WaitsForTheRunningCallback)
{
    Blocker blocker;
    std::thread release;
    {
        CTimer timer(blocker.callback(), nullptr, "busy", CTimer::Cyclic);
        EXPECT_TRUE(timer.start(Milliseconds(0)));
        EXPECT_TRUE(eventually([&] { return blocker.entered.load(); }));
        release = std::thread([&] {
            pause(50);
            blocker.released = true;
        });
    }
    EXPECT_TRUE(blocker.left);
    release.join();
}

TEST(CTimerDestruction, RefusesAStartMeanwhile)
{
    setTraceLevel("KIV.CTimer", 5);
    TimerReports reports;
    Blocker blocker;
    auto* const timer = new CTimer(blocker.callback(), nullptr, "ending", CTimer::Cyclic);
    EXPECT_TRUE(timer->start(Milliseconds(0)));
    EXPECT_TRUE(eventually([&] { return blocker.entered.load(); }));
    std::thread destroyer([&] { delete timer; });
    EXPECT_TRUE(eventually([&] { return !reports.of("wait_for_thread").empty(); }));
    EXPECT_FALSE(timer->start(Milliseconds(0)));
    EXPECT_TRUE(reports.has(
        timerReport(2, "start", "\"ending\" must not call start() when being terminated.")));
    blocker.released = true;
    destroyer.join();
}

TEST(CTimerDestruction, WakesAStartThatWaitsForAStop)
{
    setTraceLevel("KIV.CTimer", 5);
    TimerReports reports;
    Blocker blocker;
    auto* const timer = new CTimer(blocker.callback(), nullptr, "ending", CTimer::Cyclic);
    EXPECT_TRUE(timer->start(Milliseconds(0)));
    EXPECT_TRUE(eventually([&] { return blocker.entered.load(); }));
    timer->stop();
    std::atomic<bool> refused{false};
    SleepWatch watch;
    std::thread starter([&] {
        watch.announce();
        refused = !timer->start(Milliseconds(0));
    });
    EXPECT_TRUE(watch.eventuallyAsleep());
    EXPECT_FALSE(refused);
    std::thread destroyer([&] { delete timer; });
    EXPECT_TRUE(eventually([&] { return refused.load(); })); // before the callback has returned
    EXPECT_FALSE(blocker.left);
    starter.join();
    EXPECT_TRUE(reports.has(
        timerReport(2, "start", "\"ending\" must not call start() when being terminated.")));
    blocker.released = true;
    destroyer.join();
}

TEST(CTimerDestruction, RefusesAStartOfTheCallbackAsEver)
{
    setTraceLevel("KIV.CTimer", 5);
    TimerReports reports;
    Blocker blocker;
    CTimer* self = nullptr;
    std::atomic<bool> started{true};
    const gcltest::BeginHook hook([&](const Report& report) {
        if (report.function == "wait_for_thread") {
            blocker.released = true;
        }
    });
    {
        CTimer timer(
            [&](void* arg) {
                blocker.callback()(arg);
                started = self->start(Milliseconds(0));
            },
            nullptr, "ending", CTimer::Cyclic);
        self = &timer;
        EXPECT_TRUE(timer.start(Milliseconds(0)));
        EXPECT_TRUE(eventually([&] { return blocker.entered.load(); }));
    }
    EXPECT_FALSE(started);
    EXPECT_TRUE(reports.has(
        timerReport(1, "start", "\"ending\" must not call start() from callback context.")));
    EXPECT_EQ(reports.of("start").size(), 2u);
}

// 32-bit processors read the monotonic clock by another name.
#if __SIZEOF_POINTER__ == 8
TEST(CTimerDestruction, StoresTheDurationOfAStartMeanwhile)
{
    Blocker blocker;
    auto* const timer = new CTimer(blocker.callback(), nullptr, "ending", CTimer::NonCyclic);
    EXPECT_TRUE(timer->start(Milliseconds(0)));
    EXPECT_TRUE(eventually([&] { return blocker.entered.load(); }));
    SleepWatch watch;
    std::thread destroyer([&] {
        watch.announce();
        delete timer;
    });
    EXPECT_TRUE(watch.eventuallyAsleep());
    int readings = 0;
    {
        // The moment of a one-shot timer is counted from now.
        Hook hook(calls::clock_gettime64, [&](clockid_t clock, gcltest::Timespec64* time) {
            readings += clock == CLOCK_MONOTONIC ? 1 : 0;
            return calls::clock_gettime64.real(clock, time);
        });
        EXPECT_FALSE(timer->start(Milliseconds(0)));
    }
    EXPECT_EQ(readings, 1);
    EXPECT_EQ(takeReports(),
              (Reports{timerReport(2, "start",
                                   "\"ending\" must not call start() when being terminated.")}));
    blocker.released = true;
    destroyer.join();
}
#endif

std::atomic<bool> holding{false};
std::atomic<bool> deleted{false};
std::atomic<bool> deletedMeanwhile{false};

// Holds its thread up for a while, unless the timer is gone before.
void holdUp(int)
{
    holding = true;
    const timespec piece = {0, 1'000'000};
    for (int i = 0; i < 200 && !deleted; ++i) {
        nanosleep(&piece, nullptr);
    }
    deletedMeanwhile = deleted.load();
}

TEST(CTimerDestruction, WaitsForAStartThatItRefuses)
{
    Blocker blocker;
    auto* const timer = new CTimer(blocker.callback(), nullptr, "ending", CTimer::Cyclic);
    EXPECT_TRUE(timer->start(Milliseconds(0)));
    EXPECT_TRUE(eventually([&] { return blocker.entered.load(); }));
    timer->stop();
    SleepWatch watch;
    std::thread starter([&] {
        watch.announce();
        EXPECT_FALSE(timer->start(Milliseconds(0)));
    });
    EXPECT_TRUE(watch.eventuallyAsleep());
    ASSERT_NE(signal(SIGUSR1, holdUp), SIG_ERR);
    ASSERT_EQ(pthread_kill(starter.native_handle(), SIGUSR1), 0);
    EXPECT_TRUE(eventually([] { return holding.load(); }));
    blocker.released = true;
    delete timer;
    deleted = true;
    starter.join();
    EXPECT_FALSE(deletedMeanwhile);
}

TEST(CTimerForcedUnwinding, OfAStartThatWaitsLeavesTheTimerToItsDestruction)
{
    Blocker blocker;
    SleepWatch watch;
    {
        CTimer timer(blocker.callback(), nullptr, "waiting", CTimer::Cyclic);
        EXPECT_TRUE(timer.start(Milliseconds(0)));
        EXPECT_TRUE(eventually([&] { return blocker.entered.load(); }));
        timer.stop();
        runCancelled([&] { return watch.eventuallyAsleep(); },
                     [&] {
                         watch.announce();
                         timer.start(Milliseconds(0));
                     });
        blocker.released = true;
    }
    EXPECT_TRUE(blocker.left);
}

// --- Exceptions --------------------------------------------------------------------------------

TEST(CTimerExceptions, AreTracedAndACyclicTimerGoesOn)
{
    struct Row {
        Callback callback;
        std::string text;
    };
    const Row rows[] = {
        {[](void*) { throw std::runtime_error("the reason"); },
         "\"throws\" callback raised exception: [the reason]"},
        {[](void*) { throw std::bad_alloc(); },
         "\"throws\" callback raised exception: [std::bad_alloc]"},
        {[](void*) { throw 1; }, "\"throws\" callback raised exception."},
        {[](void*) { throw "text"; }, "\"throws\" callback raised exception."},
    };
    for (const Row& row : rows) {
        TimerReports reports;
        const Report wanted = timerReport(2, "timer_callback_catch_exceptions", row.text);
        {
            CTimer timer(row.callback, nullptr, "throws", CTimer::Cyclic);
            EXPECT_TRUE(timer.start(Milliseconds(1)));
            EXPECT_TRUE(eventually([&] { return reports.has(wanted, 3); }));
            EXPECT_TRUE(timer.isRunning());
        }
        for (const Report& report : reports.all()) {
            EXPECT_EQ(report, wanted);
        }
    }
}

TEST(CTimerExceptions, EndTheRunOfAOneShotTimer)
{
    CTimer timer([](void*) { throw std::runtime_error("x"); }, nullptr, "throws",
                 CTimer::NonCyclic);
    for (int run = 0; run < 3; ++run) {
        EXPECT_TRUE(timer.start(Milliseconds(0)));
        EXPECT_TRUE(eventually([&] { return !timer.isRunning(); }));
    }
    EXPECT_EQ(takeReports().size(), 3u);
}

TEST(CTimerExceptions, OfTheTraceFrameworkGoNoFurther)
{
    setTraceLevel("KIV.CTimer", 5);
    std::atomic<int> thrown{0};
    Calls calls;
    const gcltest::BeginHook hook([&](const Report&) {
        if (++thrown % 2 == 0) {
            throw std::runtime_error("the trace framework's");
        }
        throw 1;
    });
    {
        CTimer timer(calls.callback(), nullptr, "trace", CTimer::Cyclic);
        EXPECT_TRUE(timer.start(Milliseconds(0)));
        EXPECT_FALSE(timer.start(Milliseconds(0)));
        EXPECT_TRUE(eventually([&] { return calls.count > 2; }));
        timer.stop();
    }
    EXPECT_EQ(thrown, 8); // the eight messages of this life
    EXPECT_EQ(takeReports(), Reports{});
}

// --- Without a worker --------------------------------------------------------------------------

// A timer without a worker goes through its steps, and nothing waits for ever.
void expectWorksWithoutWorker(CTimer& timer, const Calls& calls)
{
    const int before = calls.count;
    for (int run = 0; run < 3; ++run) {
        EXPECT_TRUE(timer.start(Milliseconds(0)));
        EXPECT_TRUE(timer.isRunning());
        EXPECT_FALSE(timer.start(Milliseconds(0)));
        timer.stop();
        EXPECT_FALSE(timer.isRunning());
        timer.stop();
    }
    pause(10);
    EXPECT_EQ(calls.count, before);
}

TEST(CTimerWithoutWorker, TracesTheSystemsRefusal)
{
    setTraceLevel("KIV.CTimer", 5);
    for (const CTimer::Type type : {CTimer::NonCyclic, CTimer::Cyclic}) {
        TimerReports reports;
        Calls calls;
        std::string address;
        {
            const Fault fault(gcltest::calls::pthread_create, Failure{EAGAIN, 0});
            Count scheduling(gcltest::calls::pthread_getschedparam);
            CTimer timer(calls.callback(), nullptr, "no worker", CTimer::Fifo, 7, type);
            EXPECT_EQ(scheduling.calls(), 0u);
            address = addressOf(timer);
            const std::system_error error(EAGAIN, std::generic_category());
            EXPECT_EQ(reports.all(),
                      (Reports{timerReport(1, "Impl",
                                           std::string("\"no worker\" cought exception [") +
                                               error.what() + "].")}));
            reports.clear();
            expectWorksWithoutWorker(timer, calls);
            EXPECT_EQ(
                reports.of("stop").at(0),
                timerReport(5, "stop", "\"no worker\" successfully stopped [" + address + "]."));
            EXPECT_EQ(reports.of("stop").at(1),
                      timerReport(4, "stop", "\"no worker\" is not running."));
            EXPECT_TRUE(timer.start(kForever));
        }
        EXPECT_EQ(reports.all().back(),
                  timerReport(5, "wait_for_thread",
                              "\"no worker\" wating to join thread [" + address + "]."));
    }
}

// Builds a timer while the n-th allocation fails as `fail` does, for n = 1, 2, ... until none fails
// any more. Returns the messages of the timers that were built.
template <typename Fail>
Reports sweepConstruction(Fail fail, int& thrown)
{
    Reports reports;
    bool failed = true;
    for (unsigned nth = 1; failed && nth < 100; ++nth) {
        failed = false;
        unsigned number = 0;
        const std::string name = "fourteen chars";
        const auto token = std::make_shared<int>(0);
        const Callback callback = [token](void*) {};
        try {
            Hook hook(calls::newScalar, [&](size_t size) -> void* {
                if (++number == nth) {
                    failed = true;
                    fail();
                }
                return calls::newScalar.real(size);
            });
            CTimer timer(callback, nullptr, name, CTimer::Cyclic);
            EXPECT_TRUE(timer.start(kForever));
        } catch (...) {
            ++thrown;
        }
        EXPECT_EQ(token.use_count(), 2);
        for (const Report& report : takeReports()) {
            reports.push_back(report);
        }
    }
    EXPECT_FALSE(failed);
    return reports;
}

TEST(CTimerWithoutWorker, TracesAnythingElseThatIsThrown)
{
    int thrown = 0;
    EXPECT_EQ(sweepConstruction([] { throw 4; }, thrown),
              (Reports{timerReport(1, "Impl", "\"fourteen chars\" cought unknown exception.")}));
    EXPECT_GT(thrown, 0); // where there is no memory for the timer itself
}

TEST(CTimerWithoutWorker, TracesALackOfMemory)
{
    int thrown = 0;
    EXPECT_EQ(
        sweepConstruction([] { throw std::bad_alloc(); }, thrown),
        (Reports{timerReport(1, "Impl", "\"fourteen chars\" cought exception [std::bad_alloc].")}));
    EXPECT_GT(thrown, 0);
}

TEST(CTimerWithoutWorker, DropsMessagesForWhichThereIsNoMemory)
{
    setTraceLevel("KIV.CTimer", 5);
    CTimer timer(ignore, nullptr, "fourteen chars", CTimer::Cyclic);
    TimerReports reports;
    // The worker's own message comes when it comes.
    EXPECT_TRUE(eventually([&] { return reports.of("timer_thread_function").size() == 1; }));
    reports.clear();
    {
        Fault fault(calls::newScalar, {0, 0, 1, Failure::kForGood});
        EXPECT_TRUE(timer.start(kForever));
        EXPECT_FALSE(timer.start(kForever));
        timer.stop();
        EXPECT_GT(fault.failures(), 2u);
    }
    EXPECT_EQ(takeReports(), Reports{});
}

// --- Forced unwinding --------------------------------------------------------------------------

TEST(CTimerForcedUnwinding, LeavesATimerWithoutAWorker)
{
    const Callback ends[] = {
        [](void*) { pthread_exit(nullptr); },
        [](void*) {
            pthread_cancel(pthread_self());
            pthread_testcancel();
        },
    };
    for (const Callback& end : ends) {
        for (const CTimer::Type type : {CTimer::NonCyclic, CTimer::Cyclic}) {
            Calls calls;
            {
                CTimer timer(
                    [&](void* arg) {
                        calls.callback()(arg);
                        end(arg);
                    },
                    nullptr, "unwind", type);
                EXPECT_TRUE(timer.start(Milliseconds(0)));
                EXPECT_TRUE(eventually([&] { return !timer.isRunning(); }));
                EXPECT_EQ(calls.count, 1);
                expectWorksWithoutWorker(timer, calls);
                EXPECT_TRUE(timer.start(Milliseconds(0)));
            }
            EXPECT_EQ(calls.count, 1);
            EXPECT_EQ(takeReports(), Reports{});
        }
    }
}

TEST(CTimerForcedUnwinding, AcknowledgesAPendingStop)
{
    Blocker blocker;
    CTimer timer(
        [&](void*) {
            blocker.callback()(nullptr);
            pthread_exit(nullptr);
        },
        nullptr, "unwind", CTimer::Cyclic);
    EXPECT_TRUE(timer.start(Milliseconds(0)));
    EXPECT_TRUE(eventually([&] { return blocker.entered.load(); }));
    timer.stop();
    SleepWatch watch;
    std::thread starter([&] {
        watch.announce();
        EXPECT_TRUE(timer.start(Milliseconds(0)));
    });
    EXPECT_TRUE(watch.eventuallyAsleep());
    blocker.released = true;
    starter.join();
    timer.stop();
    EXPECT_FALSE(timer.isRunning());
}

TEST(CTimerForcedUnwinding, MayHitTheWaits)
{
    for (const CTimer::Type type : {CTimer::NonCyclic, CTimer::Cyclic}) {
        for (const bool idle : {false, true}) {
            std::atomic<pthread_t> worker{};
            SleepWatch watch;
            Calls calls;
            CTimer timer(
                [&](void* arg) {
                    worker = pthread_self();
                    watch.announce();
                    calls.callback()(arg);
                },
                nullptr, "cancel", type);
            EXPECT_TRUE(timer.start(Milliseconds(0)));
            EXPECT_TRUE(eventually([&] { return calls.count > 0; }));
            timer.stop();
            EXPECT_TRUE(timer.start(kForever)); // the first run is over
            if (idle) {
                timer.stop();
            }
            EXPECT_TRUE(watch.eventuallyAsleep());
            ASSERT_EQ(pthread_cancel(worker), 0);
            EXPECT_TRUE(watch.eventuallyEnded());
            EXPECT_FALSE(timer.isRunning());
            expectWorksWithoutWorker(timer, calls);
        }
    }
}

// The trace framework ends the constructing thread while the worker waits already.
TEST(CTimerForcedUnwinding, OfTheConstructorEndsTheWorker)
{
    setTraceLevel("KIV.CTimer", 5);
    const auto token = std::make_shared<int>(0);
    for (const bool cancelled : {false, true}) {
        for (const CTimer::Policy policy : {CTimer::Default, CTimer::Other}) {
            for (int nth = 1; nth <= 2; ++nth) {
                std::atomic<int> messages{0};
                std::atomic<bool> constructed{false};
                std::atomic<bool> ended{false};
                SleepWatch worker;
                const gcltest::BeginHook hook([&](const Report& report) {
                    if (report.function == "timer_thread_function") {
                        worker.announce();
                    }
                    if (report.function != "Impl" || ++messages != nth) {
                        return;
                    }
                    EXPECT_TRUE(worker.eventuallyAsleep()); // it has to be woken to end
                    if (cancelled) {
                        pthread_cancel(pthread_self());
                        pthread_testcancel();
                    }
                    pthread_exit(nullptr);
                });
                std::thread([&] {
                    struct End {
                        std::atomic<bool>& flag;
                        ~End() { flag = true; }
                    } const end{ended};
                    const CTimer timer([token](void*) {}, nullptr, "unwound", policy, 0,
                                       CTimer::Cyclic);
                    constructed = true;
                }).join();
                EXPECT_TRUE(ended);
                EXPECT_FALSE(constructed);
                EXPECT_EQ(messages, nth);
                EXPECT_EQ(token.use_count(), 1);
            }
        }
    }
}

// The program's operator new ends the constructing thread, in each of its calls in turn.
TEST(CTimerForcedUnwinding, OfAnAllocationEndsTheConstruction)
{
    const auto token = std::make_shared<int>(0);
    unsigned unwound = 0;
    for (bool constructed = false; !constructed && unwound < 100;) {
        const unsigned nth = unwound + 1;
        std::thread([&] {
            unsigned number = 0;
            const Hook hook(gcltest::calls::newScalar, [&](size_t size) -> void* {
                if (++number == nth) {
                    ++unwound;
                    pthread_exit(nullptr);
                }
                return gcltest::calls::newScalar.real(size);
            });
            const CTimer timer([token](void*) {}, nullptr, "unwound", CTimer::Cyclic);
            constructed = number < nth;
        }).join();
        EXPECT_EQ(token.use_count(), 1);
    }
    EXPECT_GT(unwound, 1u);
    EXPECT_LT(unwound, 100u);
    EXPECT_EQ(takeReports(), Reports{});
}

TEST(CTimerForcedUnwinding, OfTheOwnerComesAfterTheDestruction)
{
    for (const bool assigned : {false, true}) {
        setTraceLevel("KIV.CTimer", 5);
        TimerReports reports;
        Blocker blocker;
        std::atomic<bool> destroyed{false};
        std::thread release([&] {
            EXPECT_TRUE(eventually([&] { return !reports.of("wait_for_thread").empty(); }));
            pause(50); // the owner is cancelled in its join
            blocker.released = true;
        });
        runCancelled([&] { return blocker.entered.load(); },
                     [&] {
                         {
                             CTimer timer(blocker.callback(), nullptr, "owned", CTimer::Cyclic);
                             EXPECT_TRUE(timer.start(Milliseconds(0)));
                             while (!blocker.entered) {
                                 std::this_thread::yield(); // no cancellation point
                             }
                             if (assigned) {
                                 timer = CTimer(ignore, nullptr, "next", CTimer::Cyclic);
                             }
                         }
                         destroyed = blocker.left.load();
                         pthread_testcancel();
                     });
        release.join();
        EXPECT_TRUE(destroyed);
    }
}

// --- The worker --------------------------------------------------------------------------------

TEST(CTimerWorker, TellsThatItHasBegunBeforeItIsNamed)
{
    setTraceLevel("KIV.CTimer", 5);
    std::atomic<bool> begun{false};
    std::atomic<bool> begunBefore{false};
    std::atomic<bool> named{false};
    const gcltest::BeginHook begin(
        [&](const Report& report) { begun = begun || report.function == "timer_thread_function"; });
    Hook hook(
        calls::prctl,
        [&](int option, unsigned long a, unsigned long b, unsigned long c, unsigned long d) {
            if (option == PR_SET_NAME) {
                begunBefore = begun.load();
                named = true;
            }
            return calls::prctl.real(option, a, b, c, d);
        },
        Threads::all);
    const CTimer timer(ignore, nullptr, "order", CTimer::Cyclic);
    EXPECT_TRUE(eventually([&] { return named.load(); }));
    EXPECT_TRUE(begunBefore);
}

TEST(CTimerWorker, HasTheSmallestTimerSlack)
{
    std::atomic<int> slack{0};
    CTimer timer([&](void*) { slack = prctl(PR_GET_TIMERSLACK); }, nullptr, "slack",
                 CTimer::NonCyclic);
    EXPECT_TRUE(timer.start(Milliseconds(0)));
    EXPECT_TRUE(eventually([&] { return slack != 0; }));
    EXPECT_EQ(slack, 1);
}

} // namespace
