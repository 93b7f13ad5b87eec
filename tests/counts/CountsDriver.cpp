// CountsDriver: calls every operation between two marks, for scripts/counts.
//
// Each case is called some rounds, each round between marks of its own; an empty round tells what
// the marks themselves cost. Standard output gets a line for each case: its name and the fewest
// allocations of a round; then one for the size of each public type. The counts of instructions and
// system calls come from the emulator.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <new>
#include <string>

#include "Framework/GCL/CFifoBuffer.h"
#include "Framework/GCL/CHashTable.h"
#include "Framework/GCL/CHyxTraceHandler.h"
#include "Framework/GCL/CList.h"
#include "Framework/GCL/CMemoryPool.h"
#include "Framework/GCL/CStack.h"
#include "Framework/GCL/CSysLogHandler.h"
#include "Framework/GCL/CTcpSocket.h"
#include "Framework/GCL/CTimer.h"
#include "Framework/GCL/DefaultSleepApi.h"
#include "Framework/GCL/HijackApi.h"
#include "Framework/GCL/ResultCodes.h"
#include "Framework/GCL/TraceChannels.h"
#include "Framework/VT/VorTrace.h"
#include "tests/counts/Mark.h"

namespace {

constexpr int kRounds = 20;

size_t allocations = 0;

void mark()
{
    static_cast<void>(close(KIVGCL_COUNTS_MARK));
}

void nothing() {}

void mustBe(bool right, const char* name)
{
    if (!right) {
        std::fprintf(stderr, "CountsDriver: %s did not do what is to be counted\n", name);
        std::exit(1);
    }
}

// Runs `call` between marks; it tells whether it did its work. `prepare` and `tidy` run outside.
template <typename Prepare, typename Call, typename Tidy>
void count(const char* name, const Prepare& prepare, const Call& call, const Tidy& tidy)
{
    size_t fewest = SIZE_MAX;
    for (int round = 0; round < kRounds; ++round) {
        prepare();
        const size_t before = allocations;
        mark();
        const bool right = call();
        mark();
        fewest = std::min(fewest, allocations - before);
        mustBe(right, name);
        tidy();
    }
    std::printf("call %s %zu\n", name, fewest);
}

template <typename Call>
void count(const char* name, const Call& call)
{
    count(name, nothing, call, nothing);
}

bool ok(uint32_t code)
{
    return code == GCL_OK;
}

uint32_t equalItems(unsigned long item, unsigned long key)
{
    return item == key ? 1 : 0;
}

// Lists of eight items, 1 to 8; what is searched for is the last one.
void countList()
{
    CList list;
    const CListMatcher matcher = {equalItems};
    unsigned long item = 0;
    CListNode* position = nullptr;
    const auto fill = [&] {
        CList_Construct(&list);
        for (unsigned long i = 1; i <= 8; ++i) {
            CList_PushTail(&list, i);
        }
        CList_StartIterationFromHead(&list, &position);
    };
    const auto empty = [&] { CList_Destruct(&list); };
    const auto on = [&](const char* name, const auto& call) { count(name, fill, call, empty); };
    on("CList_Construct", [&] {
        CList other;
        CList_Construct(&other);
        return other.uiSize == 0;
    });
    count(
        "CList_Destruct/8", fill, [&] { return CList_Destruct(&list), true; }, nothing);
    on("CList_IsEmpty", [&] { return CList_IsEmpty(&list) == 0; });
    on("CList_CurrentSize", [&] { return CList_CurrentSize(&list) == 8; });
    on("CList_PushHead", [&] { return ok(CList_PushHead(&list, 9)); });
    on("CList_PushTail", [&] { return ok(CList_PushTail(&list, 9)); });
    on("CList_GetHead", [&] { return ok(CList_GetHead(&list, &item)); });
    on("CList_GetTail", [&] { return ok(CList_GetTail(&list, &item)); });
    on("CList_PopHead", [&] { return ok(CList_PopHead(&list, &item)); });
    on("CList_PopTail/8", [&] { return ok(CList_PopTail(&list, &item)); });
    on("CList_StartIterationFromHead",
       [&] { return ok(CList_StartIterationFromHead(&list, &position)); });
    on("CList_GetNext", [&] { return ok(CList_GetNext(&list, &item, &position)); });
    on("CList_InsertAfter", [&] { return ok(CList_InsertAfter(&list, 9, position)); });
    on("CList_InsertAt/4", [&] { return ok(CList_InsertAt(&list, 4, 9)); });
    on("CList_GetAt/7", [&] { return ok(CList_GetAt(&list, 7, &item)); });
    on("CList_RemoveAt/4", [&] { return ok(CList_RemoveAt(&list, 4)); });
    on("CList_Remove/8", [&] { return ok(CList_Remove(&list, 8)); });
    on("CList_ItemExists/8", [&] { return CList_ItemExists(&list, 8) == 1; });
    on("CList_Find/8", [&] { return CList_Find(&list, 8, &matcher, &position) == 1; });
    on("CList_FindNext/7", [&] { return CList_FindNext(&list, 8, &matcher, &position) == 1; });
    on("CList_FindAndRetrieve/8",
       [&] { return CList_FindAndRetrieve(&list, 8, &matcher, &item) == 1; });
}

// Keys with an alignment of their own: the C library's comparisons take their time by it.
struct alignas(16) Key {
    char text[16];
};
constexpr Key kKeys[] = {{"alpha"}, {"beta"}, {"gamma"}, {"delta"}};
constexpr Key kNewKey = {"epsilon"};

void countHashTable()
{
    const char* const known = kKeys[2].text;
    CHashTable table;
    CList values;
    unsigned long value = 0;
    const auto fill = [&] {
        CHashTable_Construct(&table, 16);
        for (const Key& key : kKeys) {
            CHashTable_Set(&table, key.text, 1);
        }
        CList_Construct(&values);
    };
    const auto empty = [&] {
        CHashTable_Destruct(&table);
        CList_Destruct(&values);
    };
    const auto on = [&](const char* name, const auto& call) { count(name, fill, call, empty); };
    count(
        "CHashTable_Construct/16", nothing,
        [&] { return CHashTable_Construct(&table, 16), table.uiBucketCount == 16; },
        [&] { CHashTable_Destruct(&table); });
    count(
        "CHashTable_Destruct/4", fill, [&] { return CHashTable_Destruct(&table), true; }, nothing);
    on("CHashTable_Set, new", [&] { return ok(CHashTable_Set(&table, kNewKey.text, 5)); });
    on("CHashTable_Set, known", [&] { return ok(CHashTable_Set(&table, known, 5)); });
    on("CHashTable_Get", [&] { return ok(CHashTable_Get(&table, known, &value)); });
    on("CHashTable_Exists", [&] { return CHashTable_Exists(&table, known) == 1; });
    on("CHashTable_Unset", [&] { return ok(CHashTable_Unset(&table, known, &value)); });
    on("CHashTable_Count", [&] { return CHashTable_Count(&table) == 4; });
    on("CHashTable_ToList/4", [&] { return ok(CHashTable_ToList(&table, &values)); });
}

void countStackAndPool()
{
    CStack stack;
    int entry = 0;
    void* popped = nullptr;
    count(
        "CStack_Construct", nothing,
        [&] { return CStack_Construct(&stack, 8), stack.pEntries != nullptr; },
        [&] { CStack_Destruct(&stack); });
    CStack_Construct(&stack, 8);
    count(
        "CStack_Push", nothing, [&] { return ok(CStack_Push(&stack, &entry)); },
        [&] { CStack_Pop(&stack, &popped); });
    count(
        "CStack_Pop", [&] { CStack_Push(&stack, &entry); },
        [&] { return ok(CStack_Pop(&stack, &popped)); }, nothing);
    count("CStack_IsEmpty", [&] { return CStack_IsEmpty(&stack) == 1; });
    count("CStack_GetCurrentSize", [&] { return CStack_GetCurrentSize(&stack) == 0; });
    count(
        "CStack_Destruct", nothing, [&] { return CStack_Destruct(&stack), true; },
        [&] { CStack_Construct(&stack, 8); });
    CStack_Destruct(&stack);

    CMemoryPool pool;
    void* block = nullptr;
    uint32_t numbers[3];
    count(
        "CMemoryPool_Construct/8", nothing,
        [&] { return CMemoryPool_Construct(&pool, 64, 8), true; },
        [&] { CMemoryPool_Destruct(&pool); });
    CMemoryPool_Construct(&pool, 64, 8);
    count(
        "CMemoryPool_Malloc", nothing, [&] { return ok(CMemoryPool_Malloc(&pool, 64, &block)); },
        [&] { CMemoryPool_Free(&pool, block); });
    count(
        "CMemoryPool_Free", [&] { CMemoryPool_Malloc(&pool, 64, &block); },
        [&] { return ok(CMemoryPool_Free(&pool, block)); }, nothing);
    count("CMemoryPool_Statistics",
          [&] { return ok(CMemoryPool_Statistics(&pool, &numbers[0], &numbers[1], &numbers[2])); });
    count(
        "CMemoryPool_Destruct", nothing, [&] { return CMemoryPool_Destruct(&pool), true; },
        [&] { CMemoryPool_Construct(&pool, 64, 8); });
    CMemoryPool_Destruct(&pool);
}

// One element in, one out, in elements of 8 and of 128 bytes.
void countFifo(ETaskingMode mode, uint32_t bytes, const char* put, const char* get)
{
    CFifoBuffer fifo = {};
    unsigned char element[128] = {};
    CFifoBuffer_Construct(&fifo, bytes, 8, mode);
    count(
        put, nothing, [&] { return ok(CFifoBuffer_Put(&fifo, element)); },
        [&] { CFifoBuffer_Get(&fifo, element); });
    count(
        get, [&] { CFifoBuffer_Put(&fifo, element); },
        [&] { return ok(CFifoBuffer_Get(&fifo, element)); }, nothing);
    CFifoBuffer_Destruct(&fifo);
}

void countFifos()
{
    countFifo(eTaskingModeSemaphore, 8, "CFifoBuffer_Put, mode 0/8", "CFifoBuffer_Get, mode 0/8");
    countFifo(eTaskingModeSemaphore, 128, "CFifoBuffer_Put, mode 0/128",
              "CFifoBuffer_Get, mode 0/128");
    countFifo(eTaskingModeNone, 8, "CFifoBuffer_Put, mode 1/8", "CFifoBuffer_Get, mode 1/8");
    countFifo(eTaskingModeNone, 128, "CFifoBuffer_Put, mode 1/128", "CFifoBuffer_Get, mode 1/128");
    countFifo(eTaskingModeMutex, 8, "CFifoBuffer_Put, mode 2/8", "CFifoBuffer_Get, mode 2/8");
    CFifoBuffer fifo = {};
    uint32_t numbers[3];
    count(
        "CFifoBuffer_Construct", nothing,
        [&] {
            CFifoBuffer_Construct(&fifo, 8, 8, eTaskingModeSemaphore);
            return fifo.bInitialized == 1;
        },
        [&] { CFifoBuffer_Destruct(&fifo); });
    CFifoBuffer_Construct(&fifo, 8, 8, eTaskingModeSemaphore);
    count("CFifoBuffer_IsEmpty", [&] { return CFifoBuffer_IsEmpty(&fifo) == 1; });
    count("CFifoBuffer_GetStatistics", [&] {
        return ok(CFifoBuffer_GetStatistics(&fifo, &numbers[0], &numbers[1], &numbers[2]));
    });
    count(
        "CFifoBuffer_Destruct", nothing, [&] { return CFifoBuffer_Destruct(&fifo), true; },
        [&] { CFifoBuffer_Construct(&fifo, 8, 8, eTaskingModeSemaphore); });
    CFifoBuffer_Destruct(&fifo);
}

void countSocket()
{
    int ends[2];
    mustBe(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "socketpair");
    CTcpSocket ours;
    CTcpSocket theirs;
    char data[64] = "text";
    int32_t length = 0;
    const auto all = [&] { length = sizeof data; };
    const auto fill = [&] {
        length = sizeof data;
        CTcpSocket_Write(&ours, data, &length);
    };
    const auto drain = [&] {
        length = sizeof data;
        CTcpSocket_Read(&theirs, data, &length);
    };
    count("CTcpSocket_Construct",
          [&] { return CTcpSocket_Construct(&ours, ends[0], 1, sizeof data), true; });
    CTcpSocket_Construct(&theirs, ends[1], 1, sizeof data);
    count(
        "CTcpSocket_Write", all, [&] { return ok(CTcpSocket_Write(&ours, data, &length)); }, drain);
    count(
        "CTcpSocket_Read", fill, [&] { return ok(CTcpSocket_Read(&theirs, data, &length)); },
        nothing);
    count(
        "CTcpSocket_ReadZT", fill, [&] { return ok(CTcpSocket_ReadZT(&theirs, data, &length)); },
        nothing);
    count("CTcpSocket_SetTimeout",
          [&] { return ok(CTcpSocket_SetTimeout(&ours, 1) | CTcpSocket_SetTimeout(&theirs, 1)); });
    count(
        "CTcpSocket_Write, time-out", all,
        [&] { return ok(CTcpSocket_Write(&ours, data, &length)); }, drain);
    count(
        "CTcpSocket_Read, time-out", fill,
        [&] { return ok(CTcpSocket_Read(&theirs, data, &length)); }, nothing);
    count("CTcpSocket_GetSocketHandle",
          [&] { return CTcpSocket_GetSocketHandle(&ours) == ends[0]; });
    close(ends[0]);
    close(ends[1]);
}

void countFrames()
{
    int ends[2];
    mustBe(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "socketpair");
    VorTrace trace("COUNTS", VorTraceLevel1);
    Util::HijackApi writer(trace, 0, 1000, 0x12345678, 0x12345678);
    Util::HijackApi reader(trace, 0, 1000, 0x12345678, 0x12345678);
    writer.socketFd = ends[0];
    writer.txSequenceNumber = 1; // what the reader expects first
    reader.socketFd = ends[1];
    unsigned char payload[64] = {};
    unsigned written = 0;
    unsigned got = 0;
    const auto take = [&] { reader.readFromNet(payload, sizeof payload, &got); };
    const auto give = [&] { writer.writeToNet(payload, sizeof payload, &written); };
    count(
        "HijackApi::writeToNet", nothing,
        [&] { return writer.writeToNet(payload, sizeof payload, &written); }, take);
    count(
        "HijackApi::readFromNet", give,
        [&] { return reader.readFromNet(payload, sizeof payload, &got); }, nothing);
    close(ends[0]);
    close(ends[1]);
}

bool otherThreadsSleep()
{
    const pid_t self = gettid();
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream file(task.path() / "stat");
        std::string stat;
        std::getline(file, stat);
        const size_t state = stat.rfind(')') + 2;
        if (std::stol(stat) != self && state < stat.size() && stat[state] != 'S') {
            return false;
        }
    }
    return true;
}

// Until the worker waits: only then does a call find it as every call does in the long run.
void letTheWorkerSettle()
{
    do {
        usleep(1000);
    } while (!otherThreadsSleep());
}

void countTimer()
{
    constexpr std::chrono::hours kFar(1);
    CTimer timer([](void*) {}, nullptr, "counts", CTimer::NonCyclic);
    const auto stopped = [&] {
        timer.stop();
        letTheWorkerSettle();
    };
    const auto started = [&] {
        timer.start(kFar);
        letTheWorkerSettle();
    };
    letTheWorkerSettle();
    count(
        "CTimer::start", letTheWorkerSettle, [&] { return timer.start(kFar); },
        [&] {
            letTheWorkerSettle();
            stopped();
        });
    count(
        "CTimer::stop", started, [&] { return timer.stop(), true; },
        [&] {
            mustBe(!timer.isRunning(), "CTimer::stop");
            letTheWorkerSettle();
        });
    count("CTimer::isRunning", [&] { return !timer.isRunning(); });
    count("CTimer::stop, idle", [&] { return timer.stop(), true; });
}

void countReports()
{
    unsigned long item = 0;
    uint32_t level = 0;
    const Util::ISleepApi* const sleeper = &Util::DefaultSleepApi::get();
    GCL_trace.threshold = 0;
    const auto failingCall = [&] {
        return CList_GetNext(nullptr, &item, nullptr) == GCL_INVALID_ARGUMENT;
    };
    count("report, suppressed", failingCall);
    GCL_trace.threshold = 1;
    count("report, to the sink", failingCall);
    GCL_trace.threshold = 0;
    count("CHyxTraceHandler_DmLevel2VtLevel",
          [&] { return CHyxTraceHandler_DmLevel2VtLevel(GCL_DRAIN_PROGRESS) == 7; });
    count("CSysLogHandler_SetLogLevel", [&] { return CSysLogHandler_SetLogLevel(0x1000), true; });
    count("CSysLogHandler_GetLogLevel",
          [&] { return CSysLogHandler_GetLogLevel(&level), level == 0x1000; });
    count("CSysLogHandler_Log, filtered", [&] {
        return CSysLogHandler_Log("GCL", "a/file", 1, GCL_DRAIN_PROGRESS, "%d", 1), true;
    });
    count("Util::DefaultSleepApi::get", [&] { return &Util::DefaultSleepApi::get() == sleeper; });
}

template <typename Type>
void size(const char* name)
{
    std::printf("bytes %s %zu\n", name, sizeof(Type));
}

void printSizes()
{
    size<CList>("CList");
    size<CListNode>("CListNode");
    size<CHashTable>("CHashTable");
    size<CHashTableBucket>("CHashTableBucket");
    size<CHashTablePair>("CHashTablePair");
    size<CStack>("CStack");
    size<CMemoryPool>("CMemoryPool");
    size<CFifoBuffer>("CFifoBuffer");
    size<CTcpSocket>("CTcpSocket");
    size<CTimer>("CTimer");
    size<Util::HijackApi>("Util::HijackApi");
    size<Util::SleepApi>("Util::SleepApi");
    size<TraceChannel>("TraceChannel");
    size<VorTraceHeader>("VorTraceHeader");
    size<VorTrace>("VorTrace");
}

} // namespace

// Every allocation of the libraries goes through these.
void* operator new(size_t size)
{
    ++allocations;
    void* const memory = std::malloc(size);
    return memory != nullptr ? memory : throw std::bad_alloc();
}

void* operator new[](size_t size)
{
    return operator new(size);
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, size_t) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory, size_t) noexcept
{
    std::free(memory);
}

int main()
{
    count("", [] { return true; });
    GCL_trace.threshold = 0;
    countList();
    countHashTable();
    countStackAndPool();
    countFifos();
    countSocket();
    countFrames();
    countReports();
    countTimer(); // the last, because from here on the process has had threads
    printSizes();
    return 0;
}
