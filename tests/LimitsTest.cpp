// The limits that the system sets a process: descriptors, threads, memory. What they refuse has its
// documented result, nothing is left over, and all works again once a limit is lifted. Each case
// runs in a child process of its own, so that its limits end with it.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "Framework/GCL/CFifoBuffer.h"
#include "Framework/GCL/CHashTable.h"
#include "Framework/GCL/CList.h"
#include "Framework/GCL/CMemoryPool.h"
#include "Framework/GCL/CStack.h"
#include "Framework/GCL/CSysLogHandler.h"
#include "Framework/GCL/CTcpSocket.h"
#include "Framework/GCL/CTimer.h"
#include "Framework/GCL/HijackApi.h"
#include "Framework/GCL/ResultCodes.h"
#include "Framework/GCL/SleepApi.h"
#include "Framework/GCL/TraceChannels.h"
#include "Framework/GCL/testing/TraceCapture.h"
#include "Framework/VT/VorTrace.h"
#include "tests/support/Limit.h"
#include "tests/support/Loopback.h"
#include "tests/support/Sanitizers.h"

using gcltest::addressSpace;
using gcltest::gclReport;
using gcltest::Limit;
using gcltest::Listener;
using gcltest::NoMemory;
using gcltest::Report;
using gcltest::takeReports;

namespace {

using Reports = std::vector<Report>;

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

class LimitsOfDescriptors : public testing::Test {
    void SetUp() override
    {
#ifdef GCLTEST_ADDRESS_SANITIZER
        GTEST_SKIP() << "the undefined-behaviour sanitizer needs descriptors for its own checks";
#endif
    }
};

class LimitsOfMemory : public testing::Test {
    void SetUp() override
    {
#if defined(GCLTEST_ADDRESS_SANITIZER) || defined(GCLTEST_THREAD_SANITIZER)
        GTEST_SKIP() << "the sanitizer takes most of the address space for itself, and ends a "
                        "process that cannot have more";
#endif
    }
};

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

TEST_F(LimitsOfDescriptors, RefuseConnectionsUntilThereAreSomeAgain)
{
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

// The listening socket takes the last descriptor, and none is left for a client.
TEST_F(LimitsOfDescriptors, RefuseToAcceptUntilThereIsOneAgain)
{
    inChild([] {
        const int port = gcltest::freePort();
        const int next = dup(0);
        close(next);
        CTcpSocket* object = nullptr;
        {
            // Resolving an address takes a descriptor for a moment, the listening socket one for
            // good.
            const Limit limit(RLIMIT_NOFILE, static_cast<rlim_t>(next) + 1);
            EXPECT_EQ(CTcpSocket_WaitForConnection(&object, port, 10), 0x800Au);
            EXPECT_EQ(object, nullptr);
            EXPECT_EQ(takeReports(),
                      (Reports{gclReport("CTcpSocket", "CTcpSocket_WaitForConnection",
                                         "accept() failed", 0x800A)}));
        }
        const pid_t peer = fork();
        ASSERT_GE(peer, 0);
        if (peer == 0) {
            alarm(50);
            while (gcltest::connectTo(port).get() < 0) {
                usleep(5000);
            }
            _exit(0);
        }
        ASSERT_EQ(CTcpSocket_WaitForConnection(&object, port, 10), GCL_OK);
        EXPECT_EQ(object->iSocketHandle, next + 1); // nothing was left open
        EXPECT_EQ(CTcpSocket_Close(object), GCL_OK);
        delete[] object;
        int status = -1;
        EXPECT_EQ(waitpid(peer, &status, 0), peer);
        EXPECT_EQ(status, 0);
    });
}

// What needs no descriptor does its work, and the system log loses its lines in silence.
TEST_F(LimitsOfDescriptors, LeaveTheOtherModulesAsTheyAre)
{
    inChild([] {
        const int next = dup(0);
        close(next);
        {
            const Limit limit(RLIMIT_NOFILE, static_cast<rlim_t>(next));
            EXPECT_LT(dup(0), 0);
            CSysLogHandler_Log("LIMITS", "file.cpp", 1, 0x8000, "lost: no descriptor %d", next);
            Util::SleepApi().sleepMs(1);
            CHashTable table = {};
            CHashTable_Construct(&table, 8);
            EXPECT_EQ(CHashTable_Set(&table, "key", 5), GCL_OK);
            unsigned long value = 0;
            EXPECT_EQ(CHashTable_Get(&table, "key", &value), GCL_OK);
            EXPECT_EQ(value, 5u);
            CHashTable_Destruct(&table);
            for (const ETaskingMode mode :
                 {eTaskingModeSemaphore, eTaskingModeNone, eTaskingModeMutex}) {
                CFifoBuffer fifo = {};
                CFifoBuffer_Construct(&fifo, sizeof value, 2, mode);
                EXPECT_EQ(CFifoBuffer_Put(&fifo, &value), GCL_OK);
                unsigned long out = 0;
                EXPECT_EQ(CFifoBuffer_Get(&fifo, &out), GCL_OK);
                EXPECT_EQ(out, value);
                CFifoBuffer_Destruct(&fifo);
            }
            EXPECT_EQ(takeReports(), Reports{});
        }
        const int again = dup(0);
        EXPECT_EQ(again, next); // the system log has none open
        close(again);
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

TEST_F(LimitsOfMemory, LeaveObjectsAsTheyWereUntilThereIsSomeAgain)
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

// Every constructor and every operation that allocates, without a byte to be had: each throws and
// leaves what was there, and each works again afterwards.
TEST_F(LimitsOfMemory, RefuseEveryAllocation)
{
    inChild([] {
        CList list;
        CList_Construct(&list);
        EXPECT_EQ(CList_PushTail(&list, 1), GCL_OK);
        EXPECT_EQ(CList_PushTail(&list, 3), GCL_OK);
        CListNode* first = nullptr;
        EXPECT_EQ(CList_StartIterationFromHead(&list, &first), GCL_OK);
        CHashTable table = {};
        CHashTable_Construct(&table, 8);
        EXPECT_EQ(CHashTable_Set(&table, "held", 7), GCL_OK);
        CHashTable more = {};
        CStack stack = {};
        CMemoryPool pool = {};
        CFifoBuffer fifos[3] = {};
        const Listener listener;
        const std::string name = "no memory";
        const std::function<void(void*)> ignore = [](void*) {};
        CTcpSocket* object = nullptr;
        CList values;
        unsigned thrown = 0;
        const auto refused = [&](auto&& operation) {
            try {
                operation();
            } catch (const std::bad_alloc&) {
                ++thrown;
            }
        };
        GCL_trace.threshold = 0; // the recording trace framework needs memory
        uint32_t connected = GCL_OK;
        {
            const NoMemory noMemory;
            refused([&] { CList_PushHead(&list, 2); });
            refused([&] { CList_PushTail(&list, 2); });
            refused([&] { CList_InsertAfter(&list, 2, first); });
            refused([&] { CHashTable_Construct(&more, 8); });
            refused([&] { CHashTable_Set(&table, "new", 8); });
            refused([&] { CHashTable_ToList(&table, &values); });
            refused([&] { CStack_Construct(&stack, 8); });
            refused([&] { CMemoryPool_Construct(&pool, 64, 8); });
            for (uint32_t mode = 0; mode < 3; ++mode) {
                refused([&] {
                    CFifoBuffer_Construct(&fifos[mode], 8, 8, static_cast<ETaskingMode>(mode));
                });
            }
            refused([&] { const CTimer timer(ignore, nullptr, name, CTimer::Cyclic); });
            // Resolving the address fails first, with a code of its own.
            connected = CTcpSocket_Create(&object, "127.0.0.1", listener.port, 10);
        }
        EXPECT_EQ(thrown, 12u);
        EXPECT_EQ(connected, 0x800Au);
        EXPECT_EQ(object, nullptr);
        EXPECT_EQ(CList_CurrentSize(&list), 2u);
        EXPECT_EQ(table.uiCount, 1u);
        EXPECT_EQ(CHashTable_Exists(&table, "new"), 0u);
        // What could not be constructed can be destructed, and refuses everything else.
        EXPECT_EQ(CStack_Push(&stack, &stack), 0x8002u);
        void* block = nullptr;
        EXPECT_EQ(CMemoryPool_Malloc(&pool, 1, &block), 0x8007u);
        for (CFifoBuffer& fifo : fifos) {
            EXPECT_EQ(CFifoBuffer_Put(&fifo, &thrown), 0x8018u);
            CFifoBuffer_Destruct(&fifo);
        }
        GCL_trace.threshold = 0x1003;
        CHashTable_Destruct(&more);
        CStack_Destruct(&stack);
        CMemoryPool_Destruct(&pool);

        EXPECT_EQ(CList_InsertAfter(&list, 2, first), GCL_OK);
        EXPECT_EQ(CHashTable_Set(&table, "new", 8), GCL_OK);
        EXPECT_EQ(CHashTable_ToList(&table, &values), GCL_OK);
        EXPECT_EQ(CList_CurrentSize(&values), 2u);
        CStack_Construct(&stack, 8);
        EXPECT_EQ(CStack_Push(&stack, &stack), GCL_OK);
        CMemoryPool_Construct(&pool, 64, 8);
        EXPECT_EQ(CMemoryPool_Malloc(&pool, 64, &block), GCL_OK);
        for (CFifoBuffer& fifo : fifos) {
            CFifoBuffer_Construct(&fifo, 4, 8, eTaskingModeMutex);
            EXPECT_EQ(CFifoBuffer_Put(&fifo, &thrown), GCL_OK);
            CFifoBuffer_Destruct(&fifo);
        }
        EXPECT_EQ(CTcpSocket_Create(&object, "127.0.0.1", listener.port, 10), GCL_OK);
        EXPECT_EQ(CTcpSocket_Close(object), GCL_OK);
        static_cast<void>(takeReports()); // of how the send queue drained
        delete[] object;
        CList_Destruct(&values);
        CList_Destruct(&list);
        CHashTable_Destruct(&table);
        CStack_Destruct(&stack);
        CMemoryPool_Destruct(&pool);
        std::atomic<int> calls{0};
        CTimer timer([&](void*) { ++calls; }, nullptr, name, CTimer::NonCyclic);
        EXPECT_TRUE(timerWorks(timer, calls));
        EXPECT_EQ(takeReports(), Reports{});
    });
}

// Nothing that runs needs memory: timers call back, FIFOs, pools and stacks hand out what they
// have.
TEST_F(LimitsOfMemory, LeaveWhatIsConstructedAtWork)
{
    inChild([] {
        std::atomic<int> calls{0};
        CTimer cyclic([&](void*) { ++calls; }, nullptr, "cyclic", CTimer::Cyclic);
        CTimer single([&](void*) { ++calls; }, nullptr, "single", CTimer::NonCyclic);
        CStack stack = {};
        CStack_Construct(&stack, 8);
        CMemoryPool pool = {};
        CMemoryPool_Construct(&pool, 64, 2);
        CFifoBuffer fifo = {};
        CFifoBuffer_Construct(&fifo, sizeof(int), 2, eTaskingModeSemaphore);
        CHashTable table = {};
        CHashTable_Construct(&table, 8);
        EXPECT_EQ(CHashTable_Set(&table, "held", 7), GCL_OK);
        gcltest::Connection connection;
        CTcpSocket socket = {};
        CTcpSocket_Construct(&socket, connection.near.release(), 0, 100);
        bool allWell = true;
        {
            const NoMemory noMemory;
            allWell = cyclic.start(std::chrono::milliseconds(1)) && timerWorks(single, calls);
            void* block = nullptr;
            void* popped = nullptr;
            int out = 0;
            int32_t length = sizeof out;
            unsigned long value = 0;
            allWell = allWell && CMemoryPool_Malloc(&pool, 64, &block) == GCL_OK &&
                      CMemoryPool_Free(&pool, block) == GCL_OK &&
                      CStack_Push(&stack, &pool) == GCL_OK &&
                      CStack_Pop(&stack, &popped) == GCL_OK && popped == &pool;
            allWell = allWell && CFifoBuffer_Put(&fifo, &length) == GCL_OK &&
                      CFifoBuffer_Get(&fifo, &out) == GCL_OK && out == length;
            allWell = allWell && CHashTable_Set(&table, "held", 8) == GCL_OK &&
                      CHashTable_Unset(&table, "held", &value) == GCL_OK && value == 8;
            allWell = allWell && CTcpSocket_Write(&socket, &out, &length) == GCL_OK &&
                      read(connection.far.get(), &out, sizeof out) == sizeof out;
            cyclic.stop();
        }
        EXPECT_TRUE(allWell);
        EXPECT_EQ(CTcpSocket_Close(&socket), GCL_OK);
        CStack_Destruct(&stack);
        CMemoryPool_Destruct(&pool);
        CFifoBuffer_Destruct(&fifo);
        CHashTable_Destruct(&table);
        static_cast<void>(takeReports());
    });
}

// A thread's stack needs more of the address space than there is.
TEST_F(LimitsOfMemory, LeaveATimerWithoutAWorker)
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
