// The scheduling policy of the timer's worker, step by step.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <thread>

#include "Framework/GCL/CTimer.h"
#include "Framework/GCL/testing/FaultInjection.h"
#include "tests/support/TimerSupport.h"

using gcltest::Count;
using gcltest::eventually;
using gcltest::Failure;
using gcltest::Fault;
using gcltest::Hook;
using gcltest::Milliseconds;
using gcltest::Report;
using gcltest::setTraceLevel;
using gcltest::takeReports;
using gcltest::timerReport;
using gcltest::TimerReports;
namespace calls = gcltest::calls;

namespace {

using Reports = std::vector<Report>;

Report implReport(int level, const std::string& text)
{
    return timerReport(level, "Impl", "\"sched\" " + text);
}

// What setschedparam was asked for, and answered without privileges.
class Scheduler {
public:
    explicit Scheduler(int setResult = 0)
        : set(calls::pthread_setschedparam,
              [this, setResult](pthread_t, int newPolicy, const sched_param* parameters) {
                  askedPolicy = newPolicy;
                  askedPriority = parameters->sched_priority;
                  if (setResult == 0) {
                      policy = newPolicy;
                      priority = parameters->sched_priority;
                  }
                  return setResult;
              }),
          get(calls::pthread_getschedparam,
              [this](pthread_t, int* currentPolicy, sched_param* parameters) {
                  *currentPolicy = policy;
                  parameters->sched_priority = priority;
                  return 0;
              })
    {
    }

    int policy = SCHED_OTHER;
    int priority = 0;
    int askedPolicy = -1;
    int askedPriority = -1;

private:
    Hook<int(pthread_t, int, const sched_param*)> set;
    Hook<int(pthread_t, int*, sched_param*)> get;
};

// The messages of a timer's construction behind that of the thread's creation. The timer must
// work in any case.
Reports schedulingReports(int32_t policy, int priority)
{
    setTraceLevel("KIV.CTimer", 5);
    takeReports();
    TimerReports reports;
    std::atomic<bool> called{false};
    CTimer timer([&](void*) { called = true; }, nullptr, "sched",
                 static_cast<CTimer::Policy>(policy), priority, CTimer::NonCyclic);
    Reports found;
    for (const Report& report : reports.all()) {
        if (report.function == "Impl" || report.function == "convertPolicyToInt") {
            found.push_back(report);
        }
    }
    EXPECT_TRUE(timer.start(Milliseconds(0)));
    EXPECT_TRUE(eventually([&] { return called.load(); }));
    EXPECT_FALSE(found.empty());
    EXPECT_NE(found.front().text.find("thread successfully created"), std::string::npos);
    found.erase(found.begin());
    return found;
}

TEST(CTimerScheduling, IsThatOfTheWorker)
{
    std::vector<pthread_t> asked;
    const Hook get(calls::pthread_getschedparam,
                   [&asked](pthread_t thread, int* policy, sched_param* parameters) {
                       asked.push_back(thread);
                       return calls::pthread_getschedparam.real(thread, policy, parameters);
                   });
    const Hook set(calls::pthread_setschedparam,
                   [&asked](pthread_t thread, int, const sched_param*) {
                       asked.push_back(thread);
                       return 0;
                   });
    std::atomic<pthread_t> worker{};
    CTimer timer([&](void*) { worker = pthread_self(); }, nullptr, "sched", CTimer::Fifo, 1,
                 CTimer::NonCyclic);
    EXPECT_TRUE(timer.start(Milliseconds(0)));
    EXPECT_TRUE(eventually([&] { return worker != pthread_t{}; }));
    ASSERT_EQ(asked.size(), 3u);
    for (const pthread_t thread : asked) {
        EXPECT_NE(pthread_equal(thread, worker), 0);
    }
}

TEST(CTimerScheduling, NamesTheInheritedPolicy)
{
    const struct {
        int policy;
        const char* name;
    } rows[] = {{SCHED_OTHER, "SCHED_OTHER"}, {SCHED_FIFO, "SCHED_FIFO"},    {SCHED_RR, "SCHED_RR"},
                {SCHED_BATCH, "SCHED_BATCH"}, {SCHED_IDLE, "SCHED_UNKNOWN"}, {-1, "SCHED_UNKNOWN"}};
    for (const auto& row : rows) {
        Scheduler scheduler;
        scheduler.policy = row.policy;
        scheduler.priority = 12;
        const Count set(calls::sched_get_priority_min);
        EXPECT_EQ(schedulingReports(CTimer::Default, 50),
                  (Reports{implReport(5, std::string("using default thread policy: ") + row.name +
                                             ", priority: 12")}));
        EXPECT_EQ(scheduler.askedPolicy, -1);
        EXPECT_EQ(set.calls(), 0u);
    }
}

TEST(CTimerScheduling, BringsThePriorityIntoTheRange)
{
    const struct {
        int32_t policy;
        int priority;
        int wantedPolicy;
        int wantedPriority;
        const char* name;
        const char* range;
    } rows[] = {
        {CTimer::Fifo, 200, SCHED_FIFO, 99, "SCHED_FIFO", " is, min: 1, max: 99"},
        {CTimer::Fifo, 99, SCHED_FIFO, 99, "SCHED_FIFO", " is, min: 1, max: 99"},
        {CTimer::Fifo, 50, SCHED_FIFO, 50, "SCHED_FIFO", " is, min: 1, max: 99"},
        {CTimer::Fifo, 0, SCHED_FIFO, 1, "SCHED_FIFO", " is, min: 1, max: 99"},
        {CTimer::Fifo, INT_MIN, SCHED_FIFO, 1, "SCHED_FIFO", " is, min: 1, max: 99"},
        {CTimer::RoundRobin, INT_MAX, SCHED_RR, 99, "SCHED_RR", " is, min: 1, max: 99"},
        {CTimer::Other, 5, SCHED_OTHER, 0, "SCHED_OTHER", " is, min: 0, max: 0"},
        {CTimer::Other, -5, SCHED_OTHER, 0, "SCHED_OTHER", " is, min: 0, max: 0"},
    };
    for (const auto& row : rows) {
        Scheduler scheduler;
        EXPECT_EQ(
            schedulingReports(row.policy, row.priority),
            (Reports{implReport(5, std::string("valid priority range for policy: ") + row.name +
                                       row.range),
                     implReport(5, std::string("set thread policy: ") + row.name +
                                       ", priority: " + std::to_string(row.wantedPriority))}));
        EXPECT_EQ(scheduler.askedPolicy, row.wantedPolicy);
        EXPECT_EQ(scheduler.askedPriority, row.wantedPriority);
    }
}

TEST(CTimerScheduling, TakesAnUnknownPolicyForOther)
{
    for (const int32_t policy : {4, 9, -1, INT32_MIN}) {
        Scheduler scheduler;
        EXPECT_EQ(schedulingReports(policy, 3),
                  (Reports{timerReport(1, "convertPolicyToInt",
                                       "Unhandled policy, returning SCHED_OTHER"),
                           implReport(5, "valid priority range for policy: SCHED_OTHER is, min: 0, "
                                         "max: 0"),
                           implReport(5, "set thread policy: SCHED_OTHER, priority: 0")}));
        EXPECT_EQ(scheduler.askedPolicy, SCHED_OTHER);
    }
}

TEST(CTimerScheduling, GoesOnWithoutTheLowerBound)
{
    Scheduler scheduler;
    const Fault fault(calls::sched_get_priority_min, Failure{-1, EINVAL});
    const std::string text = std::strerror(EINVAL);
    EXPECT_EQ(schedulingReports(CTimer::Fifo, -7),
              (Reports{implReport(1, "Failed to retrieve min priority: " + text),
                       implReport(5, "valid priority range for policy: SCHED_FIFO is, min: -1, "
                                     "max: 99"),
                       implReport(5, "set thread policy: SCHED_FIFO, priority: -1")}));
    EXPECT_EQ(scheduler.askedPriority, -1);
}

TEST(CTimerScheduling, GoesOnWithoutTheUpperBound)
{
    const std::string text = std::strerror(EINVAL);
    const struct {
        int priority;
        bool range;
        int wanted;
    } rows[] = {{5, false, -1}, {0, false, -1}, {-1, true, 1}, {-5, true, 1}};
    for (const auto& row : rows) {
        Scheduler scheduler;
        const Fault fault(calls::sched_get_priority_max, Failure{-1, EINVAL});
        Reports wanted{implReport(1, "Failed to retrieve max priority: " + text)};
        if (row.range) {
            wanted.push_back(
                implReport(5, "valid priority range for policy: SCHED_FIFO is, min: 1, max: -1"));
        }
        wanted.push_back(implReport(5, "set thread policy: SCHED_FIFO, priority: " +
                                           std::to_string(row.wanted)));
        EXPECT_EQ(schedulingReports(CTimer::Fifo, row.priority), wanted);
        EXPECT_EQ(scheduler.askedPriority, row.wanted);
    }
}

TEST(CTimerScheduling, GoesOnWithoutEitherBound)
{
    for (const int priority : {5, -5}) {
        Scheduler scheduler;
        const Fault min(calls::sched_get_priority_min, Failure{-1, EPERM});
        const Fault max(calls::sched_get_priority_max, Failure{-1, EINVAL});
        Reports wanted{
            implReport(1, std::string("Failed to retrieve min priority: ") + std::strerror(EPERM)),
            implReport(1,
                       std::string("Failed to retrieve max priority: ") + std::strerror(EINVAL))};
        if (priority < 0) {
            wanted.push_back(
                implReport(5, "valid priority range for policy: SCHED_RR is, min: -1, max: -1"));
        }
        wanted.push_back(implReport(5, "set thread policy: SCHED_RR, priority: -1"));
        EXPECT_EQ(schedulingReports(CTimer::RoundRobin, priority), wanted);
    }
}

TEST(CTimerScheduling, TellsWhatTheSystemHasMadeOfIt)
{
    unsigned readings = 0;
    const Hook set(calls::pthread_setschedparam,
                   [](pthread_t, int, const sched_param*) { return 0; });
    const Hook get(calls::pthread_getschedparam,
                   [&](pthread_t, int* policy, sched_param* parameters) {
                       *policy = ++readings == 1 ? SCHED_OTHER : SCHED_BATCH;
                       parameters->sched_priority = readings == 1 ? 0 : 33;
                       return 0;
                   });
    EXPECT_EQ(schedulingReports(CTimer::Fifo, 10).back(),
              implReport(5, "set thread policy: SCHED_BATCH, priority: 33"));
}

TEST(CTimerScheduling, TracesARefusalWithTheTextOfErrno)
{
    for (const int error : {0, EACCES}) { // not the call's own result, EPERM
        Scheduler scheduler(EPERM);
        errno = error;
        EXPECT_EQ(schedulingReports(CTimer::Fifo, 10),
                  (Reports{implReport(5, "valid priority range for policy: SCHED_FIFO is, min: 1, "
                                         "max: 99"),
                           implReport(1, std::string("Failed to setschedparam: ") +
                                             std::strerror(error))}));
    }
}

TEST(CTimerScheduling, TracesFailuresAtTheInitialLevel)
{
    {
        Scheduler scheduler(EPERM);
        const Fault min(calls::sched_get_priority_min, Failure{-1, EINVAL});
        const Fault max(calls::sched_get_priority_max, Failure{-1, EINVAL});
        errno = 0;
        const CTimer timer([](void*) {}, nullptr, "sched", static_cast<CTimer::Policy>(9), -1,
                           CTimer::Cyclic);
    }
    const Reports reports = takeReports();
    ASSERT_EQ(reports.size(), 4u);
    for (const Report& report : reports) {
        EXPECT_EQ(report.level, 1);
    }
}

// --- The real scheduler ------------------------------------------------------------------------

// Whether this process may use real-time policies, here and by this kernel (or emulator).
bool mayUseRealTime()
{
    bool may = false;
    std::thread([&] {
        sched_param parameters{};
        parameters.sched_priority = 1;
        may = pthread_setschedparam(pthread_self(), SCHED_FIFO, &parameters) == 0;
    }).join();
    return may;
}

TEST(CTimerRealScheduling, AppliesThePolicyToTheWorkerOnly)
{
    if (!mayUseRealTime()) {
        GTEST_SKIP() << "needs CAP_SYS_NICE";
    }
    const struct {
        int32_t policy;
        int priority;
        int wantedPolicy;
        int wantedPriority;
    } rows[] = {{CTimer::Fifo, 200, SCHED_FIFO, 99},
                {CTimer::Fifo, 0, SCHED_FIFO, 1},
                {CTimer::RoundRobin, 20, SCHED_RR, 20},
                {CTimer::Other, 5, SCHED_OTHER, 0}};
    for (const auto& row : rows) {
        std::atomic<int> policy{-1};
        std::atomic<int> priority{-1};
        std::atomic<bool> called{false};
        CTimer timer(
            [&](void*) {
                int current = -1;
                sched_param parameters{};
                pthread_getschedparam(pthread_self(), &current, &parameters);
                policy = current;
                priority = parameters.sched_priority;
                called = true;
            },
            nullptr, "real time", static_cast<CTimer::Policy>(row.policy), row.priority,
            CTimer::NonCyclic);
        EXPECT_TRUE(timer.start(Milliseconds(0)));
        EXPECT_TRUE(eventually([&] { return called.load(); }));
        EXPECT_EQ(policy, row.wantedPolicy);
        EXPECT_EQ(priority, row.wantedPriority);
        EXPECT_EQ(sched_getscheduler(0), SCHED_OTHER);
    }
    EXPECT_EQ(takeReports(), Reports{});
}

TEST(CTimerRealScheduling, InheritsThePolicyOfItsCreator)
{
    setTraceLevel("KIV.CTimer", 5);
    std::thread([] {
        sched_param parameters{};
        if (pthread_setschedparam(pthread_self(), SCHED_IDLE, &parameters) != 0) {
            return;
        }
        TimerReports reports;
        const CTimer timer([](void*) {}, nullptr, "sched", CTimer::Cyclic);
        EXPECT_TRUE(
            reports.has(implReport(5, "using default thread policy: SCHED_UNKNOWN, priority: 0")));
    }).join();
}

TEST(CTimerRealScheduling, IsRefusedWithoutThePrivilege)
{
    const bool isRoot = geteuid() == 0;
    if (isRoot && seteuid(65534) != 0) {
        GTEST_SKIP() << "cannot drop privileges";
    }
    const bool hasPrivilege = mayUseRealTime();
    errno = 0;
    const Reports reports = hasPrivilege ? Reports{} : schedulingReports(CTimer::Fifo, 10);
    if (isRoot) {
        // LeakSanitizer traces its own process, which the change of identity has forbidden.
        ASSERT_EQ(seteuid(0), 0);
        ASSERT_EQ(prctl(PR_SET_DUMPABLE, 1L, 0L, 0L, 0L), 0);
    }
    if (hasPrivilege) {
        GTEST_SKIP() << "an ordinary user has the privilege";
    }
    ASSERT_EQ(reports.size(), 2u);
    EXPECT_EQ(reports[1].level, 1);
    EXPECT_EQ(reports[1].text.find("Impl(): \"sched\" Failed to setschedparam: "), 0u);
}

} // namespace
