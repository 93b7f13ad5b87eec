// The limits that the system sets a process: descriptors, threads, memory. What they refuse has its
// documented result, nothing is left over, and all works again once a limit is lifted. Each case
// runs in a child process of its own, so that its limits end with it.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <grp.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "Framework/GCL/CFifoBuffer.h"
#include "Framework/GCL/CList.h"
#include "Framework/GCL/CMemoryPool.h"
#include "Framework/GCL/CTcpSocket.h"
#include "Framework/GCL/CTimer.h"
#include "Framework/GCL/HijackApi.h"
#include "Framework/GCL/ResultCodes.h"
#include "Framework/GCL/testing/TraceCapture.h"
#include "Framework/VT/VorTrace.h"
#include "tests/support/Loopback.h"

using gcltest::gclReport;
using gcltest::Listener;
using gcltest::Report;
using gcltest::takeReports;

namespace {

using Reports = std::vector<Report>;

// A soft limit of this process while it lives.
class Limit {
public:
    Limit(__rlimit_resource_t limited, rlim_t value) : resource(limited)
    {
        EXPECT_EQ(getrlimit(resource, &before), 0);
        const rlimit lowered = {value, before.rlim_max};
        EXPECT_EQ(setrlimit(resource, &lowered), 0);
    }
    ~Limit() { EXPECT_EQ(setrlimit(resource, &before), 0); }
    Limit(const Limit&) = delete;
    Limit& operator=(const Limit&) = delete;

private:
    __rlimit_resource_t resource;
    rlimit before = {};
};

// Runs `body` in a child process; its failed expectations are said there and fail the case here.
template <typename Body>
void inChild(Body body)
{
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        alarm(50);
        body();
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
}

[[maybe_unused]] rlim_t addressSpace()
{
    long pages = 0;
    FILE* const file = fopen("/proc/self/statm", "r");
    EXPECT_EQ(fscanf(file, "%ld", &pages), 1);
    fclose(file);
    return static_cast<rlim_t>(pages) * static_cast<rlim_t>(sysconf(_SC_PAGESIZE));
}

// Whether a one-shot timer calls back within reason.
bool timerWorks(CTimer& timer, const std::atomic<int>& calls)
{
    const int before = calls;
    EXPECT_TRUE(timer.start(std::chrono::milliseconds(0)));
    for (int i = 0; i < 2000 && calls == before; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return calls != before;
}

} // namespace

TEST(LimitsOfDescriptors, RefuseConnectionsUntilThereAreSomeAgain)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the undefined-behaviour sanitizer needs descriptors for its own checks";
#endif
    inChild([] {
        const Listener listener;
        VorTrace trace("KIV.LIMITS", VorTraceLevel4);
        Util::HijackApi client(trace, static_cast<unsigned short>(listener.port), 1000, 1, 2);
        CTcpSocket* object = nullptr;
        const int next = dup(0);
        close(next);
        {
            const Limit limit(RLIMIT_NOFILE, static_cast<rlim_t>(next));
            EXPECT_EQ(CTcpSocket_Create(&object, "127.0.0.1", listener.port, 10), 0x800Bu);
            EXPECT_EQ(object, nullptr);
            EXPECT_EQ(takeReports(), (Reports{gclReport("CTcpSocket", "CTcpSocket_Create",
                                                        "Client failed to connect", 0x800B)}));
            EXPECT_EQ(CTcpSocket_WaitForConnection(&object, 0, 10), 0x800Au);
            EXPECT_EQ(object, nullptr);
            Reports reports = takeReports();
            ASSERT_FALSE(reports.empty());
            EXPECT_EQ(reports.back(), gclReport("CTcpSocket", "CTcpSocket_WaitForConnection",
                                                "Failed to bind", 0x800A));
            reports.pop_back();
            EXPECT_FALSE(reports.empty());
            for (const Report& report : reports) { // one for each address
                EXPECT_EQ(report, gclReport("CTcpSocket", "CTcpSocket_WaitForConnection",
                                            "Socket closed", 0x800A));
            }
            EXPECT_FALSE(client.connectToServer("127.0.0.1"));
            EXPECT_EQ(client.socketFd, -1);
            EXPECT_EQ(
                takeReports(gcltest::withText("Error in socket: Too many open files\n")).size(),
                1u);
            static_cast<void>(takeReports());
            // A timer needs none.
            std::atomic<int> calls{0};
            CTimer timer([&](void*) { ++calls; }, nullptr, "limited", CTimer::NonCyclic);
            EXPECT_TRUE(timerWorks(timer, calls));
        }
        EXPECT_EQ(CTcpSocket_Create(&object, "127.0.0.1", listener.port, 10), GCL_OK);
        ASSERT_NE(object, nullptr);
        EXPECT_EQ(object->iSocketHandle, next); // nothing was left open
        EXPECT_EQ(CTcpSocket_Close(object), GCL_OK);
        delete[] object;
        EXPECT_TRUE(client.connectToServer("127.0.0.1"));
        EXPECT_EQ(client.socketFd, next);
        close(client.socketFd);
    });
}

// The limit holds for ordinary users only.
TEST(LimitsOfThreads, LeaveTimersWithoutAWorkerUntilThereAreSomeAgain)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "it becomes a user that has no other process, which only root can";
    }
    inChild([] {
        constexpr uid_t kNobodyElse = 64999;
        ASSERT_EQ(setgroups(0, nullptr), 0);
        ASSERT_EQ(setgid(kNobodyElse), 0);
        ASSERT_EQ(setuid(kNobodyElse), 0);
        std::atomic<int> calls{0};
        const auto count = [&](void*) { ++calls; };
        {
            const Limit limit(RLIMIT_NPROC, 2); // this thread and one more
            CTimer first(count, nullptr, "first", CTimer::NonCyclic);
            EXPECT_EQ(takeReports(), Reports{});
            {
                CTimer second(count, nullptr, "second", CTimer::Cyclic);
                const Reports reports = takeReports();
                ASSERT_EQ(reports.size(), 1u);
                EXPECT_EQ(reports[0].channel, "KIV.CTimer");
                EXPECT_EQ(reports[0].level, 1);
                EXPECT_EQ(reports[0].text, "Impl(): \"second\" cought exception [Resource "
                                           "temporarily unavailable].");
                EXPECT_TRUE(second.start(std::chrono::milliseconds(0)));
                EXPECT_TRUE(second.isRunning());
                second.stop();
                EXPECT_FALSE(second.isRunning());
                EXPECT_TRUE(second.start(std::chrono::milliseconds(0)));
            }
            EXPECT_EQ(calls, 0);
            EXPECT_TRUE(timerWorks(first, calls));
        }
        CTimer third(count, nullptr, "third", CTimer::NonCyclic);
        EXPECT_TRUE(timerWorks(third, calls));
        EXPECT_EQ(takeReports(), Reports{});
    });
}

#ifndef __SANITIZE_ADDRESS__ // which has an address space of its own
#ifndef __SANITIZE_THREAD__
TEST(LimitsOfMemory, LeaveObjectsAsTheyWereUntilThereIsSomeAgain)
{
    inChild([] {
        constexpr uint32_t kMuch = 256u << 20;
        CList list;
        CList_Construct(&list);
        unsigned long pushed = 0;
        CMemoryPool pool = {};
        CFifoBuffer fifo = {};
        std::atomic<int> calls{0};
        {
            const Limit limit(RLIMIT_AS, addressSpace() + (16u << 20));
            EXPECT_THROW(CMemoryPool_Construct(&pool, kMuch, 1), std::bad_alloc);
            void* block = nullptr;
            EXPECT_EQ(CMemoryPool_Malloc(&pool, 1, &block), 0x8007u);
            CMemoryPool_Destruct(&pool);
            EXPECT_THROW(CFifoBuffer_Construct(&fifo, kMuch, 1, eTaskingModeNone), std::bad_alloc);
            EXPECT_EQ(fifo.bInitialized, 0u);
            CFifoBuffer_Destruct(&fifo);
            static_cast<void>(takeReports());
            // To the last byte.
            try {
                while (pushed < 100'000'000) {
                    EXPECT_EQ(CList_PushTail(&list, pushed), GCL_OK);
                    ++pushed;
                }
                ADD_FAILURE() << "there is no limit";
            } catch (const std::bad_alloc&) {
            }
            EXPECT_EQ(CList_CurrentSize(&list), pushed);
        }
        EXPECT_EQ(CList_PushTail(&list, pushed), GCL_OK);
        unsigned long last = 0;
        EXPECT_EQ(CList_GetTail(&list, &last), GCL_OK);
        EXPECT_EQ(last, pushed);
        CList_Destruct(&list);
        CMemoryPool_Construct(&pool, kMuch, 1);
        void* block = nullptr;
        EXPECT_EQ(CMemoryPool_Malloc(&pool, kMuch, &block), GCL_OK);
        CMemoryPool_Destruct(&pool);
        CFifoBuffer_Construct(&fifo, 4, 1, eTaskingModeNone);
        EXPECT_EQ(CFifoBuffer_Put(&fifo, &last), GCL_OK);
        CFifoBuffer_Destruct(&fifo);
        CTimer timer([&](void*) { ++calls; }, nullptr, "again", CTimer::NonCyclic);
        EXPECT_TRUE(timerWorks(timer, calls));
        EXPECT_EQ(takeReports(), Reports{});
    });
}

// A thread's stack needs more of the address space than there is.
TEST(LimitsOfMemory, LeaveATimerWithoutAWorker)
{
    inChild([] {
        std::atomic<int> calls{0};
        const auto ignore = [](void*) {};
        // The stack of a thread that has ended is kept for the next one.
        const CTimer other(ignore, nullptr, "other", CTimer::NonCyclic);
        {
            const Limit limit(RLIMIT_AS, addressSpace() + (1u << 20));
            CTimer timer([&](void*) { ++calls; }, nullptr, "no stack", CTimer::NonCyclic);
            const Reports reports = takeReports();
            ASSERT_EQ(reports.size(), 1u);
            EXPECT_EQ(reports[0].text,
                      "Impl(): \"no stack\" cought exception [Resource temporarily unavailable].");
            EXPECT_TRUE(timer.start(std::chrono::milliseconds(0)));
            timer.stop();
            EXPECT_FALSE(timer.isRunning());
            EXPECT_EQ(calls, 0);
        }
        CTimer timer([&](void*) { ++calls; }, nullptr, "again", CTimer::NonCyclic);
        EXPECT_TRUE(timerWorks(timer, calls));
    });
}
#endif
#endif
