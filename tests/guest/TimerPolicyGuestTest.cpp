// The scheduling policy of the timer's worker, as the kernel tells it and as it acts on it.
#include <dirent.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <thread>

#include "Framework/GCL/CTimer.h"
#include "tests/guest/WallClock.h"
#include "tests/support/TimerSupport.h"

using gcltest::eventually;
using gcltest::Milliseconds;
using gcltest::Report;
using gcltest::setTraceLevel;
using gcltest::takeReports;
using gcltest::timerReport;
using gcltest::TimerReports;

namespace {

using Reports = std::vector<Report>;

// Policy and priority.
struct Scheduling {
    int policy;
    int priority;
    bool operator==(const Scheduling& other) const
    {
        return policy == other.policy && priority == other.priority;
    }
};

std::ostream& operator<<(std::ostream& out, const Scheduling& scheduling)
{
    return out << "policy " << scheduling.policy << ", priority " << scheduling.priority;
}

std::string lineOf(pid_t thread, const char* file)
{
    std::ifstream stream("/proc/self/task/" + std::to_string(thread) + "/" + file);
    std::string line;
    std::getline(stream, line);
    return line;
}

// The only thread of this name, which it gives itself; 0 if there is none.
pid_t threadCalled(const std::string& name)
{
    pid_t found = 0;
    DIR* const folder = opendir("/proc/self/task");
    while (const dirent* const entry = readdir(folder)) {
        const pid_t thread = std::atoi(entry->d_name);
        if (thread != 0 && lineOf(thread, "comm") == name) {
            EXPECT_EQ(found, 0) << "two threads are called " << name;
            found = thread;
        }
    }
    closedir(folder);
    return found;
}

// What the kernel knows of a thread, asked in two ways.
Scheduling schedulingOf(pid_t thread)
{
    sched_param parameters{};
    EXPECT_EQ(sched_getparam(thread, &parameters), 0) << std::strerror(errno);
    const Scheduling asked{sched_getscheduler(thread), parameters.sched_priority};

    const std::string line = lineOf(thread, "stat");
    std::istringstream fields(line.substr(line.rfind(") ") + 2)); // from the 3rd field on
    std::string skipped;
    for (int field = 3; field < 40; ++field) {
        fields >> skipped;
    }
    Scheduling listed{-1, -1};
    fields >> listed.priority >> listed.policy;
    EXPECT_EQ(asked, listed);
    return asked;
}

// A timer's worker under the kernel's eyes, before it is started.
Scheduling workerOf(CTimer& timer)
{
    pid_t worker = 0;
    EXPECT_TRUE(eventually([&] { return (worker = threadCalled("policy")) != 0; }));
    const Scheduling found = schedulingOf(worker);
    EXPECT_TRUE(timer.start(gcltest::kForever));
    timer.stop();
    EXPECT_EQ(schedulingOf(worker), found) << "start and stop change nothing";
    return found;
}

Scheduling schedulingWith(int32_t policy, int priority)
{
    CTimer timer([](void*) {}, nullptr, "policy", static_cast<CTimer::Policy>(policy), priority,
                 CTimer::Cyclic);
    return workerOf(timer);
}

// Runs `body` on a thread of its own, whose scheduling, rights and processors end with it.
void onThread(const std::function<void()>& body)
{
    std::thread(body).join();
}

void adopt(Scheduling scheduling)
{
    sched_param parameters{};
    parameters.sched_priority = scheduling.priority;
    ASSERT_EQ(pthread_setschedparam(pthread_self(), scheduling.policy, &parameters), 0);
}

// Takes the right to real-time scheduling from the calling thread, and from those that it creates.
void dropTheRight()
{
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2] = {};
    ASSERT_EQ(syscall(SYS_capget, &header, data), 0) << std::strerror(errno);
    const uint32_t right = 1U << CAP_SYS_NICE;
    ASSERT_NE(data[0].effective & right, 0u);
    data[0].effective &= ~right;
    ASSERT_EQ(syscall(SYS_capset, &header, data), 0) << std::strerror(errno);
}

// A one-shot timer that runs no more has called.
bool fires(CTimer& timer)
{
    EXPECT_TRUE(timer.start(Milliseconds(1)));
    return eventually([&] { return !timer.isRunning(); });
}

// --- What is set ---------------------------------------------------------------------------------

TEST(TimerPolicy, IsTheWorkersFromItsCreationOn)
{
    const struct {
        int32_t policy;
        int priority;
        Scheduling wanted;
    } rows[] = {
        {CTimer::Fifo, 1, {SCHED_FIFO, 1}},       {CTimer::Fifo, 50, {SCHED_FIFO, 50}},
        {CTimer::Fifo, 99, {SCHED_FIFO, 99}},     {CTimer::RoundRobin, 1, {SCHED_RR, 1}},
        {CTimer::RoundRobin, 20, {SCHED_RR, 20}}, {CTimer::RoundRobin, 99, {SCHED_RR, 99}},
        {CTimer::Other, 0, {SCHED_OTHER, 0}},     {CTimer::Default, 0, {SCHED_OTHER, 0}},
        {CTimer::Default, 50, {SCHED_OTHER, 0}},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(schedulingWith(row.policy, row.priority), row.wanted);
        EXPECT_EQ(schedulingOf(gettid()), (Scheduling{SCHED_OTHER, 0})) << "the creator's own";
    }
    EXPECT_EQ(takeReports(), Reports{});
}

TEST(TimerPolicy, BringsThePriorityIntoTheKernelsRange)
{
    const struct {
        int32_t policy;
        int priority;
        Scheduling wanted;
    } rows[] = {
        {CTimer::Fifo, 0, {SCHED_FIFO, 1}},         {CTimer::Fifo, -1, {SCHED_FIFO, 1}},
        {CTimer::Fifo, INT_MIN, {SCHED_FIFO, 1}},   {CTimer::Fifo, 100, {SCHED_FIFO, 99}},
        {CTimer::Fifo, INT_MAX, {SCHED_FIFO, 99}},  {CTimer::RoundRobin, 0, {SCHED_RR, 1}},
        {CTimer::RoundRobin, 1000, {SCHED_RR, 99}}, {CTimer::Other, 5, {SCHED_OTHER, 0}},
        {CTimer::Other, INT_MIN, {SCHED_OTHER, 0}},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(schedulingWith(row.policy, row.priority), row.wanted) << row.priority;
    }
    EXPECT_EQ(takeReports(), Reports{});
}

TEST(TimerPolicy, IsOtherForAValueWithoutAName)
{
    for (const int32_t policy : {4, 9, -1}) {
        EXPECT_EQ(schedulingWith(policy, 50), (Scheduling{SCHED_OTHER, 0}));
        EXPECT_EQ(takeReports(), (Reports{timerReport(1, "convertPolicyToInt",
                                                      "Unhandled policy, returning SCHED_OTHER")}));
    }
}

TEST(TimerPolicy, IsTheCreatorsWhereNoneIsGiven)
{
    onThread([] {
        adopt({SCHED_FIFO, 30});
        EXPECT_EQ(schedulingWith(CTimer::Default, 50), (Scheduling{SCHED_FIFO, 30}));
        CTimer timer([](void*) {}, nullptr, "policy", CTimer::NonCyclic);
        EXPECT_EQ(workerOf(timer), (Scheduling{SCHED_FIFO, 30}));
    });
    onThread([] {
        adopt({SCHED_RR, 7});
        EXPECT_EQ(schedulingWith(CTimer::Default, 0), (Scheduling{SCHED_RR, 7}));
        EXPECT_EQ(schedulingWith(CTimer::Other, 0), (Scheduling{SCHED_OTHER, 0}));
        EXPECT_EQ(schedulingWith(CTimer::Fifo, 3), (Scheduling{SCHED_FIFO, 3}));
    });
}

TEST(TimerPolicy, IsTracedAsTheKernelHasIt)
{
    setTraceLevel("KIV.CTimer", 5);
    TimerReports reports;
    EXPECT_EQ(schedulingWith(CTimer::RoundRobin, 200), (Scheduling{SCHED_RR, 99}));
    const auto text = [](const std::string& rest) {
        return timerReport(5, "Impl", "\"policy\" " + rest);
    };
    EXPECT_TRUE(reports.has(text("valid priority range for policy: SCHED_RR is, min: 1, max: 99")));
    EXPECT_TRUE(reports.has(text("set thread policy: SCHED_RR, priority: 99")));
}

// --- Without the right ---------------------------------------------------------------------------

// The text is that of errno, where the C library's call has left its reason.
Report refusal()
{
    return timerReport(1, "Impl",
                       std::string("\"policy\" Failed to setschedparam: ") + std::strerror(EPERM));
}

TEST(TimerPolicy, IsRefusedWithoutTheRightAndTheTimerWorks)
{
    for (const int32_t policy : {CTimer::Fifo, CTimer::RoundRobin}) {
        onThread([=] {
            dropTheRight();
            CTimer timer([](void*) {}, nullptr, "policy", static_cast<CTimer::Policy>(policy), 10,
                         CTimer::NonCyclic);
            EXPECT_EQ(takeReports(), (Reports{refusal()}));
            EXPECT_EQ(workerOf(timer), (Scheduling{SCHED_OTHER, 0}));
            EXPECT_TRUE(fires(timer));
        });
    }
}

TEST(TimerPolicy, StaysTheCreatorsWhereAnotherIsRefused)
{
    onThread([] {
        adopt({SCHED_FIFO, 30});
        dropTheRight();
        CTimer timer([](void*) {}, nullptr, "policy", CTimer::RoundRobin, 40, CTimer::NonCyclic);
        EXPECT_EQ(takeReports(), (Reports{refusal()}));
        EXPECT_EQ(workerOf(timer), (Scheduling{SCHED_FIFO, 30}));
        EXPECT_TRUE(fires(timer));
    });
}

TEST(TimerPolicy, NeedsNoRightToBeLess)
{
    onThread([] {
        adopt({SCHED_FIFO, 30});
        dropTheRight();
        EXPECT_EQ(schedulingWith(CTimer::Fifo, 29), (Scheduling{SCHED_FIFO, 29}));
        EXPECT_EQ(schedulingWith(CTimer::Other, 0), (Scheduling{SCHED_OTHER, 0}));
        EXPECT_EQ(takeReports(), Reports{});
    });
}

TEST(TimerPolicy, IsSetWithoutTheRightAsFarAsTheLimitAllows)
{
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_RTPRIO, &before), 0);
    const rlimit limit{10, before.rlim_max};
    const rlimit wide{10, 10};
    ASSERT_EQ(setrlimit(RLIMIT_RTPRIO, before.rlim_max < 10 ? &wide : &limit), 0);
    onThread([] {
        dropTheRight();
        EXPECT_EQ(schedulingWith(CTimer::Fifo, 10), (Scheduling{SCHED_FIFO, 10}));
        EXPECT_EQ(takeReports(), Reports{});
        EXPECT_EQ(schedulingWith(CTimer::Fifo, 11), (Scheduling{SCHED_OTHER, 0}));
        EXPECT_EQ(takeReports(), (Reports{refusal()}));
    });
    ASSERT_EQ(setrlimit(RLIMIT_RTPRIO, &before), 0);
}

// --- What it does --------------------------------------------------------------------------------

// Keeps the processor that the calling thread and its children are bound to busy, at a real-time
// priority of its own, from the construction to the destruction.
class Hog {
public:
    explicit Hog(int priority) : thread([this, priority] { run(priority); })
    {
        EXPECT_TRUE(eventually([this] { return running.load(); }));
    }
    ~Hog()
    {
        ending = true;
        thread.join();
    }
    Hog(const Hog&) = delete;
    Hog& operator=(const Hog&) = delete;

private:
    void run(int priority)
    {
        adopt({SCHED_FIFO, priority});
        running = true;
        while (!ending) {
        }
    }

    std::atomic<bool> running{false};
    std::atomic<bool> ending{false};
    std::thread thread;
};

void bindToProcessor(int processor)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(processor, &set);
    ASSERT_EQ(pthread_setaffinity_np(pthread_self(), sizeof set, &set), 0);
}

// The kernel takes real-time threads off the processor for a part of each second; not while this
// lives.
class NoThrottling {
public:
    NoThrottling() { write(-1); }
    ~NoThrottling() { write(950'000); }
    NoThrottling(const NoThrottling&) = delete;
    NoThrottling& operator=(const NoThrottling&) = delete;

private:
    static void write(int microseconds)
    {
        std::ofstream file("/proc/sys/kernel/sched_rt_runtime_us");
        file << microseconds << std::flush;
        EXPECT_TRUE(file.good());
    }
};

// Whether a timer is called on a processor that a thread of real-time priority keeps busy.
bool isCalledBeside(int hogPriority, CTimer::Policy policy, int priority)
{
    std::atomic<bool> called{false};
    std::unique_ptr<CTimer> timer;
    std::unique_ptr<Hog> hog;
    const auto make = [&] {
        bindToProcessor(1);
        timer = std::make_unique<CTimer>([&](void*) { called = true; }, nullptr, "policy", policy,
                                         priority, CTimer::NonCyclic);
    };
    onThread(make);
    // The creator shares the processor with the hog only until both exist.
    onThread([&] {
        bindToProcessor(1);
        adopt({SCHED_FIFO, 90});
        hog = std::make_unique<Hog>(hogPriority);
    });
    EXPECT_TRUE(timer->start(Milliseconds(20)));
    const int64_t begin = guest::monotonicNs();
    while (!called && guest::monotonicNs() - begin < 400 * guest::kMs) {
        gcltest::pause(2);
    }
    const bool inTime = called;
    hog.reset();
    EXPECT_TRUE(eventually([&] { return called.load(); })) << "not even afterwards";
    return inTime;
}

TEST(TimerPolicy, DecidesWhetherTheWorkerGetsABusyProcessor)
{
    const NoThrottling noThrottling;
    bindToProcessor(0);
    EXPECT_TRUE(isCalledBeside(20, CTimer::Fifo, 21));
    EXPECT_TRUE(isCalledBeside(20, CTimer::RoundRobin, 99));
    EXPECT_FALSE(isCalledBeside(20, CTimer::Fifo, 19));
    EXPECT_FALSE(isCalledBeside(20, CTimer::Other, 0));
}

} // namespace
