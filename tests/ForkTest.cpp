// Children of a process whose timers and FIFOs are busy: every module but the timers, and every
// object that no other thread uses, works in them as it does anywhere.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>
#include <vector>

#include "Framework/GCL/CFifoBuffer.h"
#include "Framework/GCL/CHashTable.h"
#include "Framework/GCL/CList.h"
#include "Framework/GCL/CMemoryPool.h"
#include "Framework/GCL/CStack.h"
#include "Framework/GCL/CTcpSocket.h"
#include "Framework/GCL/CTimer.h"
#include "Framework/GCL/ResultCodes.h"
#include "Framework/GCL/SleepApi.h"
#include "tests/support/Loopback.h"

namespace {

// The reports are many. The sink opens their output with the first one, before a case begins.
const bool reportsAreDropped = [] {
    const CFifoBuffer none = {};
    return setenv("VT_OUTPUT", "/dev/null", 1) == 0 && CFifoBuffer_IsEmpty(&none) == 1;
}();

// What a process has before it forks, and its child goes on with.
struct Inherited {
    Inherited()
    {
        CList_Construct(&list);
        CHashTable_Construct(&table, 4);
        CStack_Construct(&stack, 2);
        CMemoryPool_Construct(&pool, 32, 2);
        CFifoBuffer_Construct(&fifo, sizeof(int), 2, eTaskingModeSemaphore);
        EXPECT_EQ(CList_PushTail(&list, 1), GCL_OK);
        EXPECT_EQ(CHashTable_Set(&table, "one", 1), GCL_OK);
    }
    ~Inherited()
    {
        CList_Destruct(&list);
        CHashTable_Destruct(&table);
        CStack_Destruct(&stack);
        CMemoryPool_Destruct(&pool);
        EXPECT_EQ(pthread_mutex_init(&fifo.fifoMutex, nullptr), 0); // for valgrind
        CFifoBuffer_Destruct(&fifo);
    }
    Inherited(const Inherited&) = delete;
    Inherited& operator=(const Inherited&) = delete;

    CList list = {};
    CHashTable table = {};
    CStack stack = {};
    CMemoryPool pool = {};
    CFifoBuffer fifo = {};
};

void handOver(CFifoBuffer& fifo)
{
    const int in = 42;
    int out = 0;
    EXPECT_EQ(CFifoBuffer_Put(&fifo, &in), GCL_OK);
    EXPECT_EQ(CFifoBuffer_Get(&fifo, &out), GCL_OK);
    EXPECT_EQ(out, in);
}

void useEveryModule(Inherited& inherited, int port)
{
    EXPECT_EQ(CList_PushHead(&inherited.list, 0), GCL_OK);
    EXPECT_EQ(CList_CurrentSize(&inherited.list), 2u);
    EXPECT_EQ(CHashTable_Set(&inherited.table, "two", 2), GCL_OK);
    unsigned long value = 0;
    EXPECT_EQ(CHashTable_Unset(&inherited.table, "one", &value), GCL_OK);
    EXPECT_EQ(CStack_Push(&inherited.stack, &value), GCL_OK);
    void* block = nullptr;
    EXPECT_EQ(CMemoryPool_Malloc(&inherited.pool, 32, &block), GCL_OK);
    EXPECT_EQ(CMemoryPool_Free(&inherited.pool, block), GCL_OK);
    handOver(inherited.fifo);
    CFifoBuffer made = {};
    CFifoBuffer_Construct(&made, sizeof(int), 2, eTaskingModeMutex);
    handOver(made);
    CFifoBuffer_Destruct(&made);
    Util::SleepApi().sleepMs(1);
    CTcpSocket* connected = nullptr;
    EXPECT_EQ(CTcpSocket_Create(&connected, "127.0.0.1", port, 10), GCL_OK);
    EXPECT_EQ(CTcpSocket_Close(connected), GCL_OK);
    delete[] connected;
    // Reported, by the sink, which another thread may have been using.
    EXPECT_EQ(CHashTable_Unset(&inherited.table, "one", &value), GCL_PAIR_NOT_FOUND);
}

} // namespace

TEST(Fork, LeavesTheChildEveryModuleButTheTimers)
{
    ASSERT_TRUE(reportsAreDropped);
    Inherited inherited;
    const gcltest::Listener listener;
    std::atomic<int> calls{0};
    std::vector<CTimer> timers;
    for (int i = 0; i < 3; ++i) {
        timers.emplace_back([&](void*) { ++calls; }, nullptr, "busy", CTimer::Cyclic);
        ASSERT_TRUE(timers.back().start(std::chrono::milliseconds(1)));
    }
    CFifoBuffer busy = {};
    CFifoBuffer_Construct(&busy, sizeof(int), 4, eTaskingModeSemaphore);
    CHashTable never = {};
    CHashTable_Construct(&never, 1);
    std::atomic<bool> done{false};
    std::thread other([&] {
        while (!done) {
            handOver(busy);
            unsigned long value = 0;
            EXPECT_EQ(CHashTable_Unset(&never, "one", &value), GCL_PAIR_NOT_FOUND); // reported
        }
    });
    for (int run = 0; run < 10; ++run) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            alarm(50); // ends a child that hangs
            useEveryModule(inherited, listener.port);
            _exit(testing::Test::HasFailure() ? 1 : 0);
        }
        int status = -1;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
        EXPECT_GE(listener.accepted().get(), 0);
    }
    done = true;
    other.join();
    EXPECT_EQ(pthread_mutex_init(&busy.fifoMutex, nullptr), 0); // for valgrind
    CFifoBuffer_Destruct(&busy);
    CHashTable_Destruct(&never);
    // The parent has what it had.
    EXPECT_EQ(CList_CurrentSize(&inherited.list), 1u);
    EXPECT_EQ(CHashTable_Exists(&inherited.table, "one"), 1u);
    const int before = calls;
    for (int i = 0; i < 2000 && calls < before + 6; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_GE(calls, before + 6);
}
