// Objects of every module with known contents, for the debugger: regular ones, those that the
// contracts allow, and damaged ones. It stops for the debugger in `checkpoint`; with the argument
// "abort" it ends there with a core dump.
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <new>
#include <string>
#include <thread>

#include <arpa/inet.h>
#include <semaphore.h>
#include <unistd.h>

#include "Framework/GCL/CFifoBuffer.h"
#include "Framework/GCL/CHashTable.h"
#include "Framework/GCL/CList.h"
#include "Framework/GCL/CMemoryPool.h"
#include "Framework/GCL/CStack.h"
#include "Framework/GCL/CTcpSocket.h"
#include "Framework/GCL/CTimer.h"
#include "Framework/GCL/HijackApi.h"
#include "Framework/GCL/ResultCodes.h"
#include "Framework/GCL/TraceChannels.h"
#include "Framework/VT/VorTrace.h"

extern "C" void checkpoint(const CList* list, const CFifoBuffer* fifo); // in Checkpoint.c

namespace {

// Freed memory is filled and kept, so that it looks the same in every run.
bool keepFreed = false;
constexpr int kFreedByte = 0xDD;
constexpr size_t kNodeBytes = sizeof(CListNode);

void* pointerTo(uintptr_t address)
{
    return reinterpret_cast<void*>(address);
}

void check(bool asExpected)
{
    if (!asExpected) {
        std::abort();
    }
}

} // namespace

void operator delete[](void* memory) noexcept
{
    if (keepFreed) {
        std::memset(memory, kFreedByte, kNodeBytes);
    } else {
        std::free(memory);
    }
}

void operator delete[](void* memory, size_t) noexcept
{
    operator delete[](memory);
}

void* operator new[](size_t size)
{
    void* const memory = std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

// An element of a FIFO whose size is that of no number.
struct Sample {
    uint16_t number, value, flags, level, count;
};

CList emptyList, threeItems, ring, laterRing, longList, tailBehind, lostNodes, brokenList,
    freedList, freedHead;
CList* nullList = nullptr;
CList* wildList = static_cast<CList*>(pointerTo(0x10));

CHashTable emptyTable, table, longTable, noBuckets, destructedTable, damagedBuckets, damagedChain,
    ringChain, lostPair;

CStack emptyStack, stack, fullStack, failedStack, noCapacity, destructedStack, damagedStack;

CMemoryPool freshPool, pool, strangePool, usedUpPool, destructedPool, damagedPool, freedPool;

CFifoBuffer words, bytes, samples, pairs, halves, waiting, locked, unlocked, readEmpty, oddMode,
    rawFifo, destructedFifo, damagedFifo;

CTcpSocket openSocket, closedSocket;

CTimer* idleTimer;
CTimer* cyclicTimer;
CTimer* oneShotTimer;
CTimer* stoppingTimer;
CTimer* refusedTimer;
CTimer* damagedTimer;
CTimer* wildTimer;

Util::HijackApi* freshClient;
Util::HijackApi* failedClient;
Util::HijackApi* client;

// Structures that only share a name with those of the library.
namespace other {
struct CStack {
    int depth;
};
CStack stack{4};
} // namespace other

namespace {

sem_t inCallback;

// A timer whose pointer to the working part is overwritten.
CTimer* brokenTimer(const void* impl)
{
    auto* const timer = new CTimer(std::function<void(void*)>(), nullptr, "broken", CTimer::Cyclic);
    std::memcpy(reinterpret_cast<char*>(timer) + sizeof(CTimer) - sizeof impl, &impl, sizeof impl);
    return timer;
}

void makeLists()
{
    for (CList* list : {&emptyList, &threeItems, &ring, &laterRing, &longList, &tailBehind,
                        &lostNodes, &brokenList, &freedList, &freedHead}) {
        CList_Construct(list);
    }
    for (const unsigned long item : {10UL, 255UL, 0UL}) {
        CList_PushTail(&threeItems, item);
        CList_PushTail(&ring, item);
        CList_PushTail(&laterRing, item);
        CList_PushTail(&tailBehind, item);
        CList_PushTail(&lostNodes, item);
        CList_PushTail(&brokenList, item);
        CList_PushTail(&freedList, item);
        CList_PushTail(&freedHead, item);
    }
    CList_InsertAt(&ring, 0, 77);
    laterRing.pTail->pNext = laterRing.pHead->pNext;
    for (unsigned long i = 0; i < 300; ++i) {
        CList_PushTail(&longList, i);
    }
    CList_InsertAfter(&tailBehind, 11, tailBehind.pTail);
    CList_InsertAfter(&lostNodes, 11, lostNodes.pTail);
    CList_PushTail(&lostNodes, 12);
    brokenList.pHead->pNext->pNext = static_cast<CListNode*>(pointerTo(0xDEAD0000));
    keepFreed = true;
    const CList copy = freedHead;
    CList_Destruct(&freedHead);
    freedHead = copy;
    CList_RemoveAt(&freedList, 2);
    freedList.pHead->pNext->pNext = freedList.pTail; // as a stale link would name it
    keepFreed = false;
}

void makeTables()
{
    CHashTable_Construct(&emptyTable, 4);
    for (CHashTable* made : {&table, &damagedChain, &ringChain, &lostPair, &destructedTable}) {
        CHashTable_Construct(made, 1);
        CHashTable_Set(made, "first", 1);
        CHashTable_Set(made, "", 2);
        CHashTable_Set(made, "a \"quoted\" \n key", 3);
    }
    CHashTable_Construct(&longTable, 100000);
    for (unsigned i = 0; i < 300; ++i) {
        CHashTable_Set(&longTable, ("key " + std::to_string(i)).c_str(), i);
    }
    CHashTable_Set(&longTable, std::string(300, 'x').c_str(), 300);
    CHashTable_Construct(&noBuckets, 0);
    CHashTable_Destruct(&destructedTable);
    CHashTable_Construct(&damagedBuckets, 4);
    damagedBuckets.pBuckets = static_cast<CHashTableBucket*>(pointerTo(0xDEAD0000));
    damagedChain.pBuckets[0].pFirst->pNext = static_cast<CHashTablePair*>(pointerTo(0xDEAD0000));
    ringChain.pBuckets[0].pFirst->pNext->pNext = ringChain.pBuckets[0].pFirst;
    lostPair.pBuckets[0].pFirst->pNext = nullptr;
}

void makeStacks()
{
    for (CStack* made : {&emptyStack, &stack, &failedStack, &destructedStack, &damagedStack}) {
        CStack_Construct(made, 4);
    }
    CStack_Construct(&fullStack, 1);
    CStack_Construct(&noCapacity, 0);
    for (CStack* made : {&stack, &fullStack, &failedStack, &destructedStack, &damagedStack}) {
        CStack_Push(made, pointerTo(0x10));
        CStack_Push(made, nullptr);
        CStack_Push(made, pointerTo(0x30));
    }
    failedStack.uiStatus = GCL_STACK_FULL;
    CStack_Destruct(&destructedStack);
    damagedStack.iTop = 4;
}

void makePools()
{
    for (CMemoryPool* made :
         {&freshPool, &pool, &strangePool, &usedUpPool, &destructedPool, &damagedPool}) {
        CMemoryPool_Construct(made, 10, 4);
    }
    void* block[4];
    for (CMemoryPool* made : {&pool, &strangePool, &usedUpPool}) {
        for (void*& taken : block) {
            CMemoryPool_Malloc(made, 10, &taken);
        }
        if (made == &pool) {
            CMemoryPool_Free(made, block[1]); // number 2, since the last one is handed out first
            CMemoryPool_Free(made, block[3]);
        } else if (made == &strangePool) {
            CMemoryPool_Free(made, block[0]);
            CMemoryPool_Free(made, block[0]);
            CMemoryPool_Free(made, pointerTo(0x20));
        }
    }
    CMemoryPool_Destruct(&destructedPool);
    damagedPool.freeBlocks.pEntries = static_cast<void**>(pointerTo(0xDEAD0000));
    std::memset(&freedPool, kFreedByte, sizeof freedPool);
}

void makeFifos()
{
    const uint32_t word = 0x01020304;
    CFifoBuffer_Construct(&words, sizeof word, 4, eTaskingModeSemaphore);
    for (uint32_t i = 0; i < 4; ++i) {
        const uint32_t element = word + i;
        CFifoBuffer_Put(&words, &element);
    }
    uint32_t taken = 0;
    CFifoBuffer_Get(&words, &taken);
    CFifoBuffer_Get(&words, &taken);
    CFifoBuffer_Put(&words, &word); // in the first slot: the ring has wrapped

    CFifoBuffer_Construct(&bytes, 1, 4, eTaskingModeNone);
    CFifoBuffer_Put(&bytes, "A");
    CFifoBuffer_Construct(&halves, 2, 4, eTaskingModeNone);
    const uint16_t half = 0xBEEF;
    CFifoBuffer_Put(&halves, &half);
    CFifoBuffer_Construct(&pairs, 8, 4, eTaskingModeNone);
    const uint64_t pair = 0x0102030405060708;
    CFifoBuffer_Put(&pairs, &pair);
    CFifoBuffer_Construct(&samples, sizeof(Sample), 4, eTaskingModeMutex);
    const Sample sample{1, 0xCAFE, 0x0203, 4, 5};
    CFifoBuffer_Put(&samples, &sample);

    CFifoBuffer_Construct(&waiting, sizeof word, 2, eTaskingModeSemaphore);
    std::thread([] {
        uint32_t element = 0;
        CFifoBuffer_Get(&waiting, &element);
    }).detach();
    // A reader that waits shows in the semaphore's count of those who do.
    volatile const uint32_t* const parts =
        reinterpret_cast<volatile const uint32_t*>(&waiting.getSemaphore);
    while (parts[sizeof(long) == 8 ? 1 : 3] == 0) {
        usleep(1000);
    }

    CFifoBuffer_Construct(&locked, sizeof word, 2, eTaskingModeMutex);
    pthread_mutex_lock(&locked.fifoMutex);
    CFifoBuffer_Construct(&unlocked, sizeof word, 2, eTaskingModeMutex);
    CFifoBuffer_Construct(&readEmpty, sizeof word, 2, eTaskingModeMutex);
    CFifoBuffer_Get(&readEmpty, &taken);
    CFifoBuffer_Construct(&oddMode, sizeof word, 2, static_cast<ETaskingMode>(7));
    CFifoBuffer_Construct(&destructedFifo, sizeof word, 2, eTaskingModeNone);
    CFifoBuffer_Put(&destructedFifo, &word);
    CFifoBuffer_Destruct(&destructedFifo);
    CFifoBuffer_Construct(&damagedFifo, sizeof word, 2, eTaskingModeNone);
    CFifoBuffer_Put(&damagedFifo, &word);
    damagedFifo.pBuffer = static_cast<unsigned char*>(pointerTo(0xDEAD0000));
}

void makeOthers()
{
    CTcpSocket_Construct(&openSocket, 7, 4680, 1024);
    openSocket.uiTimeout = 3;
    CTcpSocket_Construct(&closedSocket, -1, 0, 1);

    GCL_trace.threshold = 1;
    DSP_trace.threshold = 5;
    CAPH_trace.threshold = 0;

    static VorTrace trace("KIV.PROBE", VorTraceLevel1);
    freshClient = new Util::HijackApi(trace, 4680, 100, 0x434C4E54, 0x4E4F4445);
    failedClient = new Util::HijackApi(trace, 4680, 100, 1, 2);
    check(!failedClient->connectToServer("nobody"));
    client = new Util::HijackApi(trace, 4680, 100, 0x434C4E54, 0x4E4F4445);
    client->serverAddress.sin_addr.s_addr = inet_addr("192.0.2.7");
    client->socketFd = 5;
    client->txSequenceNumber = 12;
    client->rxSequenceNumber = 4294967295;
}

// Waits until a thread has the name: a worker takes its own when it begins to run.
void waitForThread(const std::string& name)
{
    for (;;) {
        for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
            std::string found;
            std::getline(std::ifstream(task.path() / "comm"), found);
            if (found == name) {
                return;
            }
        }
        usleep(1000);
    }
}

void makeTimers()
{
    const auto never = std::chrono::hours(1);
    const auto doNothing = [](void*) {};
    void* const argument = pointerTo(0x40);
    idleTimer = new CTimer(doNothing, argument, "idle", CTimer::NonCyclic);
    cyclicTimer = new CTimer(doNothing, argument, "poll", CTimer::Cyclic);
    check(cyclicTimer->start(never));
    waitForThread("poll");
    oneShotTimer = new CTimer(doNothing, nullptr, "once", CTimer::NonCyclic);
    check(oneShotTimer->start(never));
    refusedTimer = new CTimer(doNothing, nullptr, "", CTimer::Cyclic);
    static const unsigned char zeros[1024] = {};
    damagedTimer = brokenTimer(zeros);
    wildTimer = brokenTimer(pointerTo(0xDEAD0000));
    sem_init(&inCallback, 0, 0);
    stoppingTimer = new CTimer(
        [](void*) {
            sem_post(&inCallback);
            pause();
        },
        nullptr, "stopping", CTimer::Cyclic);
    check(stoppingTimer->start(std::chrono::milliseconds(1)));
    while (sem_wait(&inCallback) != 0) {
    }
    stoppingTimer->stop();
}

} // namespace

int main(int argc, char** argv)
{
    // A failure is reported, for who stops there, and written nowhere.
    setenv("VT_LEVELS", "*=0", 1);
    unsigned long item = 0;
    CListNode* position = nullptr;
    CList_GetNext(nullptr, &item, &position);
    makeLists();
    makeTables();
    makeStacks();
    makePools();
    makeTimers();
    makeFifos();
    makeOthers();
    checkpoint(&threeItems, &words);
    if (argc > 1 && std::string(argv[1]) == "abort") {
        std::abort();
    }
    _exit(0); // with all that still runs
}
