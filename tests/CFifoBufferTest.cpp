#include "Framework/GCL/CFifoBuffer.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <deque>
#include <new>
#include <numeric>
#include <random>
#include <thread>
#include <vector>

#include "Framework/GCL/ResultCodes.h"
#include "Framework/GCL/testing/FaultInjection.h"
#include "Framework/GCL/testing/TraceCapture.h"
#include "tests/support/SignalJump.h"
#include "tests/support/Suppression.h"

using gcltest::Count;
using gcltest::expectReports;
using gcltest::Failure;
using gcltest::Fault;
using gcltest::gclReport;
using gcltest::Hook;
using gcltest::Report;
using gcltest::takeReports;
using gcltest::Threads;
namespace calls = gcltest::calls;

namespace {

constexpr ETaskingMode kModes[] = {eTaskingModeSemaphore, eTaskingModeNone, eTaskingModeMutex};
constexpr auto kUnknownMode = static_cast<ETaskingMode>(3);

// A FIFO that ends with the test. Its memory is not zero before it is constructed, so that a field
// which Construct leaves out is noticed.
class OwnedFifo {
public:
    OwnedFifo(uint32_t elementSize, uint32_t capacity, ETaskingMode mode)
    {
        std::memset(&fifo, 0xA5, sizeof fifo);
        CFifoBuffer_Construct(&fifo, elementSize, capacity, mode);
    }
    ~OwnedFifo()
    {
        // Destruct destroys the mutex in every mode. Valgrind's thread checkers count it as an
        // error if there never was one; the tests of Destruct do without this.
        if (fifo.eMode != eTaskingModeMutex) {
            calls::pthread_mutex_init.real(&fifo.fifoMutex, nullptr);
        }
        CFifoBuffer_Destruct(&fifo);
    }
    OwnedFifo(const OwnedFifo&) = delete;
    OwnedFifo& operator=(const OwnedFifo&) = delete;
    CFifoBuffer* operator&() { return &fifo; }
    CFifoBuffer* operator->() { return &fifo; }
    CFifoBuffer fifo;
};

// A FIFO of words.
class WordFifo : public OwnedFifo {
public:
    WordFifo(uint32_t capacity, ETaskingMode mode) : OwnedFifo(sizeof(uint32_t), capacity, mode) {}
    uint32_t put(uint32_t word) { return CFifoBuffer_Put(&fifo, &word); }
    // The word that a Get hands out, 0xDEAD if the Get fails.
    uint32_t get()
    {
        uint32_t word = 0;
        return CFifoBuffer_Get(&fifo, &word) == GCL_OK ? word : 0xDEAD;
    }
};

std::vector<Report> reportsOf(const std::string& function, const std::string& text, uint32_t code)
{
    return {gclReport("CFifoBuffer", function, text, code)};
}

// Suites with failures; their cases that fail nothing are plain ones.
class CFifoBufferConstruct : public gcltest::ReportsOrNot {};
class CFifoBufferUninitialised : public gcltest::ReportsOrNot {};
class CFifoBufferNone : public gcltest::ReportsOrNot {};
class CFifoBufferMutex : public gcltest::ReportsOrNot {};
class CFifoBufferUnknownMode : public gcltest::ReportsOrNot {};
class CFifoBufferSemaphorePut : public gcltest::ReportsOrNot {};
class CFifoBufferSemaphoreGet : public gcltest::ReportsOrNot {};
class CFifoBufferSemaphore : public gcltest::ReportsOrNot {};

GCLTEST_WITH_AND_WITHOUT_REPORTS(CFifoBufferConstruct);
GCLTEST_WITH_AND_WITHOUT_REPORTS(CFifoBufferUninitialised);
GCLTEST_WITH_AND_WITHOUT_REPORTS(CFifoBufferNone);
GCLTEST_WITH_AND_WITHOUT_REPORTS(CFifoBufferMutex);
GCLTEST_WITH_AND_WITHOUT_REPORTS(CFifoBufferUnknownMode);
GCLTEST_WITH_AND_WITHOUT_REPORTS(CFifoBufferSemaphorePut);
GCLTEST_WITH_AND_WITHOUT_REPORTS(CFifoBufferSemaphoreGet);
GCLTEST_WITH_AND_WITHOUT_REPORTS(CFifoBufferSemaphore);

void expectSilence()
{
    EXPECT_EQ(takeReports(), std::vector<Report>{});
}

int valueOf(sem_t& semaphore)
{
    int value = -1;
    EXPECT_EQ(sem_getvalue(&semaphore, &value), 0);
    return value;
}

void expectSemaphores(CFifoBuffer& fifo, int get, int put, int copy)
{
    EXPECT_EQ(valueOf(fifo.getSemaphore), get);
    EXPECT_EQ(valueOf(fifo.putSemaphore), put);
    EXPECT_EQ(valueOf(fifo.cpyMutex), copy);
}

void sleepMs(int ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

} // namespace

TEST(CFifoBufferLayout, HasTheFieldsInOrder)
{
    const size_t word = sizeof(void*);
    EXPECT_EQ(offsetof(CFifoBuffer, pBuffer), 0u);
    EXPECT_EQ(offsetof(CFifoBuffer, uiCurrentSize), word);
    EXPECT_EQ(offsetof(CFifoBuffer, uiElementSize), word + 4);
    EXPECT_EQ(offsetof(CFifoBuffer, uiCapacity), word + 8);
    EXPECT_EQ(offsetof(CFifoBuffer, uiWriteIndex), word + 12);
    EXPECT_EQ(offsetof(CFifoBuffer, uiReadIndex), word + 16);
    EXPECT_EQ(offsetof(CFifoBuffer, eMode), word + 20);
    EXPECT_EQ(offsetof(CFifoBuffer, getSemaphore), word + 24);
    EXPECT_EQ(offsetof(CFifoBuffer, putSemaphore), word + 24 + sizeof(sem_t));
    EXPECT_EQ(offsetof(CFifoBuffer, cpyMutex), word + 24 + 2 * sizeof(sem_t));
    EXPECT_EQ(offsetof(CFifoBuffer, fifoMutex), word + 24 + 3 * sizeof(sem_t));
    EXPECT_EQ(offsetof(CFifoBuffer, bInitialized),
              word + 24 + 3 * sizeof(sem_t) + sizeof(pthread_mutex_t));
    EXPECT_EQ(sizeof(ETaskingMode), 4u);
    EXPECT_EQ(static_cast<uint32_t>(eTaskingModeSemaphore), 0u);
    EXPECT_EQ(static_cast<uint32_t>(eTaskingModeNone), 1u);
    EXPECT_EQ(static_cast<uint32_t>(eTaskingModeMutex), 2u);
}

TEST_P(CFifoBufferConstruct, ReportsANullFifo)
{
    CFifoBuffer_Construct(nullptr, 4, 4, eTaskingModeNone);
    expectReports(reportsOf("CFifoBuffer_Construct",
                            "CFifoBuffer_Construct called with pThis = NULL", 0x8000));
}

TEST(CFifoBufferConstruct, FillsTheFieldsInEveryMode)
{
    for (const ETaskingMode mode :
         {eTaskingModeSemaphore, eTaskingModeNone, eTaskingModeMutex, kUnknownMode}) {
        OwnedFifo fifo(12, 5, mode);
        EXPECT_NE(fifo->pBuffer, nullptr);
        EXPECT_EQ(fifo->uiCurrentSize, 0u);
        EXPECT_EQ(fifo->uiElementSize, 12u);
        EXPECT_EQ(fifo->uiCapacity, 5u);
        EXPECT_EQ(fifo->uiWriteIndex, 0u);
        EXPECT_EQ(fifo->uiReadIndex, 0u);
        EXPECT_EQ(fifo->eMode, mode);
        EXPECT_EQ(fifo->bInitialized, 1u);
    }
    expectSilence();
}

TEST(CFifoBufferConstruct, TakesTheRingAsOneArray)
{
    size_t asked = 0;
    const Hook arrays(calls::newArray, [&asked](size_t size) {
        asked = size;
        return calls::newArray.real(size);
    });
    OwnedFifo fifo(12, 5, eTaskingModeNone);
    EXPECT_EQ(arrays.calls(), 1u);
    EXPECT_EQ(asked, 60u);
}

TEST(CFifoBufferConstruct, ComputesTheRingIn32Bits)
{
    size_t asked = 0;
    const Hook arrays(calls::newArray, [&asked](size_t size) {
        asked = size;
        return calls::newArray.real(size);
    });
    OwnedFifo fifo(0x10000, 0x10001, eTaskingModeNone);
    EXPECT_EQ(asked, 0x10000u);
}

TEST(CFifoBufferConstruct, MakesTheSemaphoresProcessPrivateInOrder)
{
    struct Made {
        sem_t* semaphore;
        int shared;
        unsigned value;
    };
    std::vector<Made> made;
    const Hook hook(calls::sem_init, [&made](sem_t* semaphore, int shared, unsigned value) {
        made.push_back({semaphore, shared, value});
        return calls::sem_init.real(semaphore, shared, value);
    });
    OwnedFifo fifo(4, 7, eTaskingModeSemaphore);
    ASSERT_EQ(made.size(), 3u);
    EXPECT_EQ(made[0].semaphore, &fifo->putSemaphore);
    EXPECT_EQ(made[1].semaphore, &fifo->getSemaphore);
    EXPECT_EQ(made[2].semaphore, &fifo->cpyMutex);
    for (const Made& one : made) {
        EXPECT_EQ(one.shared, 0);
    }
    expectSemaphores(fifo.fifo, 0, 7, 1);
}

TEST(CFifoBufferConstruct, MakesNoSynchronisationObjectThatItsModeHasNoUseFor)
{
    const Count semaphores(calls::sem_init);
    const Count mutexes(calls::pthread_mutex_init);
    {
        OwnedFifo fifo(4, 2, eTaskingModeNone);
        OwnedFifo unknown(4, 2, kUnknownMode);
    }
    EXPECT_EQ(semaphores.calls(), 0u);
    EXPECT_EQ(mutexes.calls(), 0u);
    OwnedFifo locked(4, 2, eTaskingModeMutex);
    EXPECT_EQ(semaphores.calls(), 0u);
    EXPECT_EQ(mutexes.calls(), 1u);
    OwnedFifo waiting(4, 2, eTaskingModeSemaphore);
    EXPECT_EQ(semaphores.calls(), 3u);
    EXPECT_EQ(mutexes.calls(), 1u);
}

TEST(CFifoBufferConstruct, MakesTheMutexWithDefaultAttributes)
{
    pthread_mutex_t* made = nullptr;
    const pthread_mutexattr_t* with = nullptr;
    const Hook hook(calls::pthread_mutex_init,
                    [&](pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
                        made = mutex;
                        with = attributes;
                        return calls::pthread_mutex_init.real(mutex, attributes);
                    });
    OwnedFifo fifo(4, 2, eTaskingModeMutex);
    EXPECT_EQ(made, &fifo->fifoMutex);
    EXPECT_EQ(with, nullptr);
}

TEST_P(CFifoBufferConstruct, StopsAtTheFirstSemaphoreThatFails)
{
    const char* const messages[] = {"Could not create semaphore (putSemaphore)",
                                    "Could not create semaphore (getSemaphore)",
                                    "Could not create semaphore (cpyMutex)"};
    for (unsigned nth = 1; nth <= 3; ++nth) {
        const Count destroyed(calls::sem_destroy);
        const Fault fault(calls::sem_init, {-1, ENOSYS, nth});
        OwnedFifo fifo(4, 2, eTaskingModeSemaphore);
        expectReports(reportsOf("CFifoBuffer_Construct", messages[nth - 1], 0x8000));
        EXPECT_EQ(fault.calls(), nth);
        EXPECT_EQ(destroyed.calls(), 0u);
        EXPECT_EQ(fifo->bInitialized, 0u);
        EXPECT_NE(fifo->pBuffer, nullptr);
        uint32_t word = 0;
        EXPECT_EQ(CFifoBuffer_Put(&fifo, &word), 0x8018u);
        EXPECT_EQ(CFifoBuffer_Get(&fifo, &word), 0x8018u);
        takeReports();
    }
}

TEST_P(CFifoBufferConstruct, ReportsACapacityThatNoSemaphoreCanCount)
{
    // The element size of 0 keeps the ring small.
    OwnedFifo fifo(0, 0x80000000, eTaskingModeSemaphore);
    expectReports(
        reportsOf("CFifoBuffer_Construct", "Could not create semaphore (putSemaphore)", 0x8000));
    EXPECT_EQ(fifo->bInitialized, 0u);
}

TEST_P(CFifoBufferConstruct, CarriesOnWithoutAMutex)
{
    const Fault fault(calls::pthread_mutex_init, {ENOMEM, 0});
    OwnedFifo fifo(4, 2, eTaskingModeMutex);
    expectReports(reportsOf("CFifoBuffer_Construct",
                            "CFifoBuffer_Construct: Could not initialize mutex (fifoMutex)",
                            0x1000));
    EXPECT_EQ(fifo->bInitialized, 1u);
    EXPECT_EQ(fifo->eMode, eTaskingModeMutex);
    EXPECT_EQ(CFifoBuffer_IsEmpty(&fifo), 1u);
    expectSilence();
}

TEST(CFifoBufferConstruct, LeavesAMutexThatWorksWhereItCouldNotMakeOne)
{
    const Fault fault(calls::pthread_mutex_init, {ENOMEM, 0});
    WordFifo fifo(2, eTaskingModeMutex); // on memory that is not clear
    takeReports();
    for (uint32_t word = 1; word <= 3; ++word) {
        EXPECT_EQ(fifo.put(word), GCL_OK);
    }
    EXPECT_EQ(fifo.get(), 2u);
    EXPECT_EQ(fifo.get(), 3u);
    // It does lock: nobody else gets it meanwhile.
    int triedMeanwhile = 0;
    const Hook hook(calls::pthread_mutex_unlock, [&triedMeanwhile](pthread_mutex_t* mutex) {
        triedMeanwhile = pthread_mutex_trylock(mutex);
        return calls::pthread_mutex_unlock.real(mutex);
    });
    EXPECT_EQ(fifo.put(4), GCL_OK);
    EXPECT_EQ(triedMeanwhile, EBUSY);
    expectSilence();
}

TEST(CFifoBufferConstruct, DoesNotClearTheRing)
{
    const Hook arrays(calls::newArray, [](size_t size) {
        void* const memory = calls::newArray.real(size);
        std::memset(memory, 0xA5, size);
        return memory;
    });
    for (const ETaskingMode mode : kModes) {
        OwnedFifo fifo(12, 5, mode);
        const std::vector<unsigned char> bytes(fifo->pBuffer, fifo->pBuffer + 60);
        EXPECT_EQ(bytes, std::vector<unsigned char>(60, 0xA5));
    }
}

TEST(CFifoBufferConstruct, LeavesAnUninitialisedFifoWithoutMemory)
{
    for (const ETaskingMode mode : kModes) {
        CFifoBuffer fifo;
        std::memset(&fifo, 0xA5, sizeof fifo);
        const Fault fault(calls::newArray, {0, 0});
        EXPECT_THROW(CFifoBuffer_Construct(&fifo, 4, 4, mode), std::bad_alloc);
        EXPECT_EQ(fifo.bInitialized, 0u);
        EXPECT_EQ(fifo.pBuffer, nullptr);
        CFifoBuffer_Destruct(&fifo);
    }
}

TEST(CFifoBufferDestruct, FreesTheRingAndLeavesTheRest)
{
    for (const ETaskingMode mode : kModes) {
        CFifoBuffer fifo{};
        CFifoBuffer_Construct(&fifo, 4, 3, mode);
        const Count semaphores(calls::sem_destroy);
        pthread_mutex_t* destroyed = nullptr;
        const Hook mutexes(calls::pthread_mutex_destroy, [&destroyed](pthread_mutex_t* mutex) {
            destroyed = mutex;
            return calls::pthread_mutex_destroy.real(mutex);
        });
        const void* const ring = fifo.pBuffer;
        {
            const gcltest::Frees frees;
            CFifoBuffer_Destruct(&fifo);
            EXPECT_EQ(frees.memory(), std::vector<const void*>{ring});
        }
        EXPECT_EQ(fifo.pBuffer, nullptr);
        EXPECT_EQ(fifo.bInitialized, 1u);
        EXPECT_EQ(fifo.uiCapacity, 3u);
        EXPECT_EQ(semaphores.calls(), 0u);
        EXPECT_EQ(mutexes.calls(), 1u);
        EXPECT_EQ(destroyed, &fifo.fifoMutex);
        CFifoBuffer_Destruct(&fifo); // nothing is left to free
    }
    expectSilence();
}

TEST(CFifoBufferDestruct, DestroysTheMutexWhetherOrNotThereEverWasOne)
{
    {
        CFifoBuffer fifo{}; // never constructed
        const Count destroyed(calls::pthread_mutex_destroy);
        CFifoBuffer_Destruct(&fifo);
        EXPECT_EQ(destroyed.calls(), 1u);
    }
    for (unsigned nth = 1; nth <= 3; ++nth) {
        CFifoBuffer fifo{};
        const Fault fault(calls::sem_init, {-1, ENOSYS, nth});
        CFifoBuffer_Construct(&fifo, 4, 2, eTaskingModeSemaphore);
        EXPECT_EQ(fifo.bInitialized, 0u);
        takeReports();
        const Count destroyed(calls::pthread_mutex_destroy);
        CFifoBuffer_Destruct(&fifo);
        EXPECT_EQ(destroyed.calls(), 1u);
        EXPECT_EQ(fifo.pBuffer, nullptr);
    }
}

TEST(CFifoBufferDestruct, IgnoresAMutexThatCannotBeDestroyed)
{
    CFifoBuffer fifo{};
    CFifoBuffer_Construct(&fifo, 4, 3, eTaskingModeNone);
    const Fault fault(calls::pthread_mutex_destroy, {EBUSY, 0});
    CFifoBuffer_Destruct(&fifo);
    EXPECT_EQ(fifo.pBuffer, nullptr);
    expectSilence();
}

TEST_P(CFifoBufferUninitialised, RefusesEveryCallWithAReport)
{
    CFifoBuffer fifo{};
    uint32_t word = 77;
    uint32_t size = 77;
    EXPECT_EQ(CFifoBuffer_Put(&fifo, &word), 0x8018u);
    expectReports(reportsOf("CFifoBuffer_Put", "Not initialized", 0x8018));
    EXPECT_EQ(CFifoBuffer_Get(&fifo, &word), 0x8018u);
    expectReports(reportsOf("CFifoBuffer_Get", "Not initialized", 0x8018));
    EXPECT_EQ(CFifoBuffer_IsEmpty(&fifo), 1u);
    expectReports(reportsOf("CFifoBuffer_IsEmpty", "Not initialized", 0x8018));
    EXPECT_EQ(CFifoBuffer_GetStatistics(&fifo, &size, &size, &size), 0x8018u);
    expectReports(reportsOf("CFifoBuffer_GetStatistics", "Not initialized", 0x8018));
    EXPECT_EQ(word, 77u);
    EXPECT_EQ(size, 77u);
}

TEST(CFifoBufferUninitialised, IsOnlyWhatTheValueZeroMeans)
{
    for (const uint32_t value : {2u, 0x80000000u, 0xFFFFFFFFu}) {
        WordFifo fifo(2, eTaskingModeNone);
        fifo->bInitialized = value;
        uint32_t size = 77;
        uint32_t elementSize = 77;
        uint32_t capacity = 77;
        EXPECT_EQ(fifo.put(5), GCL_OK);
        EXPECT_EQ(CFifoBuffer_IsEmpty(&fifo), 0u);
        EXPECT_EQ(CFifoBuffer_GetStatistics(&fifo, &size, &elementSize, &capacity), GCL_OK);
        EXPECT_EQ(size, 1u);
        EXPECT_EQ(fifo.get(), 5u);
    }
    expectSilence();
}

TEST(CFifoBufferGetStatistics, RefusesNullSilentlyAndBeforeAllElse)
{
    CFifoBuffer uninitialised{};
    uint32_t size = 77;
    EXPECT_EQ(CFifoBuffer_GetStatistics(nullptr, &size, &size, &size), 0x8008u);
    EXPECT_EQ(CFifoBuffer_GetStatistics(&uninitialised, nullptr, &size, &size), 0x8008u);
    EXPECT_EQ(CFifoBuffer_GetStatistics(&uninitialised, &size, nullptr, &size), 0x8008u);
    EXPECT_EQ(CFifoBuffer_GetStatistics(&uninitialised, &size, &size, nullptr), 0x8008u);
    EXPECT_EQ(size, 77u);
    expectSilence();
}

TEST(CFifoBufferGetStatistics, TellsSizeElementSizeAndCapacityInEveryMode)
{
    for (const ETaskingMode mode : kModes) {
        WordFifo fifo(3, mode);
        fifo.put(1);
        fifo.put(2);
        uint32_t size = 0;
        uint32_t elementSize = 0;
        uint32_t capacity = 0;
        EXPECT_EQ(CFifoBuffer_GetStatistics(&fifo, &size, &elementSize, &capacity), GCL_OK);
        EXPECT_EQ(size, 2u);
        EXPECT_EQ(elementSize, 4u);
        EXPECT_EQ(capacity, 3u);
    }
    expectSilence();
}

TEST(CFifoBufferIsEmpty, AnswersInEveryMode)
{
    for (const ETaskingMode mode : kModes) {
        WordFifo fifo(3, mode);
        EXPECT_EQ(CFifoBuffer_IsEmpty(&fifo), 1u);
        fifo.put(1);
        EXPECT_EQ(CFifoBuffer_IsEmpty(&fifo), 0u);
        fifo.put(2);
        EXPECT_EQ(CFifoBuffer_IsEmpty(&fifo), 0u);
        fifo.get();
        fifo.get();
        EXPECT_EQ(CFifoBuffer_IsEmpty(&fifo), 1u);
    }
    expectSilence();
}

TEST(CFifoBufferQueries, TakeNoLockInAnyMode)
{
    for (const ETaskingMode mode :
         {eTaskingModeSemaphore, eTaskingModeNone, eTaskingModeMutex, kUnknownMode}) {
        WordFifo fifo(2, mode);
        uint32_t figure = 0;
        const Count locks(calls::pthread_mutex_lock);
        const Count unlocks(calls::pthread_mutex_unlock);
        const Count waits(calls::sem_wait);
        const Count posts(calls::sem_post);
        EXPECT_EQ(CFifoBuffer_IsEmpty(&fifo), 1u);
        EXPECT_EQ(CFifoBuffer_GetStatistics(&fifo, &figure, &figure, &figure), GCL_OK);
        EXPECT_EQ(locks.calls() + unlocks.calls() + waits.calls() + posts.calls(), 0u);
    }
}

TEST(CFifoBufferRing, KeepsTheOrderAndWrapsInEveryMode)
{
    for (const ETaskingMode mode : kModes) {
        WordFifo fifo(3, mode);
        uint32_t next = 0;
        for (uint32_t round = 0; round < 10; ++round) {
            EXPECT_EQ(fifo.put(2 * round), GCL_OK);
            EXPECT_EQ(fifo->uiWriteIndex, (2 * round + 1) % 3);
            EXPECT_EQ(fifo.put(2 * round + 1), GCL_OK);
            EXPECT_EQ(fifo->uiWriteIndex, (2 * round + 2) % 3);
            EXPECT_EQ(fifo->uiCurrentSize, 2u);
            EXPECT_EQ(fifo.get(), next++);
            EXPECT_EQ(fifo.get(), next++);
            EXPECT_EQ(fifo->uiReadIndex, next % 3);
            EXPECT_EQ(fifo->uiCurrentSize, 0u);
        }
        if (mode == eTaskingModeSemaphore) {
            expectSemaphores(fifo.fifo, 0, 3, 1);
        }
    }
    expectSilence();
}

TEST(CFifoBufferRing, IsBackAtSlotZeroAfterCapacityPutsAndGets)
{
    for (const ETaskingMode mode : kModes) {
        WordFifo fifo(4, mode);
        for (uint32_t i = 0; i < 4; ++i) {
            EXPECT_EQ(fifo.put(i), GCL_OK);
        }
        EXPECT_EQ(fifo->uiWriteIndex, 0u);
        EXPECT_EQ(fifo->uiReadIndex, 0u);
        for (uint32_t i = 0; i < 4; ++i) {
            EXPECT_EQ(fifo.get(), i);
        }
        EXPECT_EQ(fifo->uiReadIndex, 0u);
    }
}

TEST(CFifoBufferRing, CopiesElementsOfEverySizeWhole)
{
    for (const uint32_t size :
         {1u, 2u, 3u, 4u, 5u, 7u, 8u, 9u, 12u, 15u, 16u, 17u, 32u, 63u, 64u, 65u, 1024u}) {
        OwnedFifo fifo(size, 2, eTaskingModeNone);
        for (int round = 0; round < 3; ++round) {
            std::vector<unsigned char> in(size);
            std::iota(in.begin(), in.end(), static_cast<unsigned char>(round * 50));
            std::vector<unsigned char> out(size + 1, 0xEE);
            ASSERT_EQ(CFifoBuffer_Put(&fifo, in.data()), GCL_OK);
            std::vector<unsigned char> copied = in;
            std::fill(in.begin(), in.end(), static_cast<unsigned char>(0)); // held by value
            ASSERT_EQ(CFifoBuffer_Get(&fifo, out.data()), GCL_OK);
            EXPECT_TRUE(std::equal(copied.begin(), copied.end(), out.begin())) << size;
            EXPECT_EQ(out[size], 0xEE);
        }
    }
}

TEST(CFifoBufferRing, HandsOverElementsOfNoBytes)
{
    for (const ETaskingMode mode : kModes) {
        OwnedFifo fifo(0, 2, mode);
        EXPECT_EQ(CFifoBuffer_Put(&fifo, nullptr), GCL_OK);
        EXPECT_EQ(fifo->uiCurrentSize, 1u);
        EXPECT_EQ(CFifoBuffer_Get(&fifo, nullptr), GCL_OK);
        EXPECT_EQ(fifo->uiCurrentSize, 0u);
    }
}

TEST(CFifoBufferRing, CountsMoreThan31BitsOfSlots)
{
    for (const ETaskingMode mode : {eTaskingModeNone, eTaskingModeMutex}) {
        for (const uint32_t capacity : {0x80000000u, 0xFFFFFFFFu}) {
            OwnedFifo fifo(0, capacity, mode); // slots of no bytes
            fifo->uiWriteIndex = capacity - 2;
            fifo->uiReadIndex = capacity - 2;
            for (const uint32_t next : {capacity - 1, 0u, 1u}) {
                EXPECT_EQ(CFifoBuffer_Put(&fifo, nullptr), GCL_OK);
                EXPECT_EQ(fifo->uiWriteIndex, next);
            }
            EXPECT_EQ(fifo->uiReadIndex, capacity - 2) << "nothing was dropped";
            EXPECT_EQ(fifo->uiCurrentSize, 3u);
            for (const uint32_t next : {capacity - 1, 0u, 1u}) {
                EXPECT_EQ(CFifoBuffer_Get(&fifo, nullptr), GCL_OK);
                EXPECT_EQ(fifo->uiReadIndex, next);
            }
            EXPECT_EQ(fifo->uiCurrentSize, 0u);
            fifo->uiCurrentSize = capacity - 1;
            EXPECT_EQ(CFifoBuffer_Put(&fifo, nullptr), GCL_OK);
            EXPECT_EQ(fifo->uiCurrentSize, capacity);
            EXPECT_EQ(CFifoBuffer_Put(&fifo, nullptr),
                      mode == eTaskingModeNone ? GCL_FIFO_FULL : GCL_OK);
            EXPECT_EQ(fifo->uiCurrentSize, capacity);
        }
    }
    expectSilence();
}

TEST(CFifoBufferRing, ReachesSlotsBehindTheFirstTwoGigabytes)
{
    if (sizeof(size_t) == 4) {
        GTEST_SKIP() << "no process has so much memory in one piece";
    }
    constexpr uint32_t kSlot = 0x10000;
    constexpr size_t kSpace = (size_t{0x10000} + 1) * kSlot;
    void* const space =
        mmap(nullptr, kSpace, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(space, MAP_FAILED);
    auto* const ring = static_cast<unsigned char*>(space);
    OwnedFifo fifo(kSlot, 0x10001, eTaskingModeNone);
    unsigned char* const own = fifo->pBuffer;
    fifo->pBuffer = ring;
    for (const uint32_t index : {0x7FFFu, 0x8000u, 0x10000u}) {
        unsigned char* const slot = ring + size_t{index} * kSlot;
        ASSERT_EQ(mprotect(slot, kSlot, PROT_READ | PROT_WRITE), 0);
        fifo->uiWriteIndex = index;
        fifo->uiReadIndex = index;
        const std::vector<unsigned char> in(kSlot, static_cast<unsigned char>(index % 251));
        std::vector<unsigned char> out(kSlot);
        EXPECT_EQ(CFifoBuffer_Put(&fifo, in.data()), GCL_OK);
        EXPECT_EQ(std::memcmp(slot, in.data(), kSlot), 0);
        EXPECT_EQ(CFifoBuffer_Get(&fifo, out.data()), GCL_OK);
        EXPECT_EQ(out, in);
    }
    fifo->pBuffer = own;
    munmap(space, kSpace);
}

TEST(CFifoBufferRing, AllocatesNothingAfterConstruct)
{
    for (const ETaskingMode mode : kModes) {
        WordFifo fifo(2, mode);
        const Count arrays(calls::newArray);
        const Count scalars(calls::newScalar);
        fifo.put(1);
        fifo.put(2);
        fifo.get();
        fifo.get();
        EXPECT_EQ(arrays.calls() + scalars.calls(), 0u);
    }
}

TEST_P(CFifoBufferNone, IsSilentWhenFullAndReportsWhenEmpty)
{
    WordFifo fifo(2, eTaskingModeNone);
    EXPECT_EQ(fifo.put(10), GCL_OK);
    EXPECT_EQ(fifo.put(20), GCL_OK);
    EXPECT_EQ(fifo.put(30), 0x8016u);
    EXPECT_EQ(fifo->uiCurrentSize, 2u);
    EXPECT_EQ(fifo->uiWriteIndex, 0u);
    expectSilence();
    EXPECT_EQ(fifo.get(), 10u);
    EXPECT_EQ(fifo.get(), 20u);
    expectSilence();
    uint32_t word = 77;
    EXPECT_EQ(CFifoBuffer_Get(&fifo, &word), 0x8017u);
    EXPECT_EQ(word, 77u);
    EXPECT_EQ(fifo->uiCurrentSize, 0u);
    EXPECT_EQ(fifo->uiReadIndex, 0u);
    expectReports(reportsOf("CFifoBuffer_Get", "Fifo buffer empty", 0x8017));
}

TEST_P(CFifoBufferNone, IsFullFromTheStartWithoutSlots)
{
    WordFifo fifo(0, eTaskingModeNone);
    EXPECT_EQ(fifo.put(1), 0x8016u);
    expectSilence();
    uint32_t word = 77;
    EXPECT_EQ(CFifoBuffer_Get(&fifo, &word), 0x8017u);
    EXPECT_EQ(word, 77u);
    expectReports(reportsOf("CFifoBuffer_Get", "Fifo buffer empty", 0x8017));
}

TEST(CFifoBufferNoSlots, HasNothingToWaitForInModeSemaphore)
{
    WordFifo fifo(0, eTaskingModeSemaphore);
    EXPECT_EQ(fifo->bInitialized, 1u);
    expectSemaphores(fifo.fifo, 0, 0, 1); // both sides would wait for ever
    expectSilence();
}

TEST(CFifoBufferNoSlotsDeathTest, DividesByZeroInModeMutexBeforeAnythingIsCopied)
{
    WordFifo fifo(0, eTaskingModeMutex);
    const auto operations = {+[](CFifoBuffer* pThis) { CFifoBuffer_Put(pThis, nullptr); },
                             +[](CFifoBuffer* pThis) { CFifoBuffer_Get(pThis, nullptr); }};
    for (const auto operation : operations) {
        EXPECT_EXIT(
            {
                signal(SIGFPE, SIG_DFL); // a sanitizer's handler would turn the signal into an exit
                operation(&fifo);
            },
            testing::KilledBySignal(SIGFPE), "");
    }
}

TEST(CFifoBufferNoSlots, KeepsItsMutexWhereAHandlerLeavesTheDivision)
{
    WordFifo fifo(0, eTaskingModeMutex);
    EXPECT_TRUE(gcltest::raises(SIGFPE, [&] { CFifoBuffer_Put(&fifo, nullptr); }));
    EXPECT_EQ(pthread_mutex_trylock(&fifo->fifoMutex), EBUSY);
    EXPECT_EQ(pthread_mutex_unlock(&fifo->fifoMutex), 0);
    expectSilence();
}

TEST(CFifoBufferNone, TakesNoLock)
{
    WordFifo fifo(2, eTaskingModeNone);
    const Count locks(calls::pthread_mutex_lock);
    const Count waits(calls::sem_wait);
    fifo.put(1);
    fifo.get();
    EXPECT_EQ(locks.calls() + waits.calls(), 0u);
}

// The count is a caller's to see: one beyond the capacity counts as full as well.
TEST(CFifoBufferNone, IsFullFromItsCapacityOn)
{
    WordFifo fifo(2, eTaskingModeNone);
    fifo->uiCurrentSize = 3;
    EXPECT_EQ(fifo.put(1), GCL_FIFO_FULL);
    EXPECT_EQ(fifo->uiCurrentSize, 3u);
    expectSilence();
}

TEST(CFifoBufferMutex, DropsTheOldestWhenFull)
{
    WordFifo fifo(3, eTaskingModeMutex);
    for (uint32_t word = 1; word <= 4; ++word) {
        EXPECT_EQ(fifo.put(word), GCL_OK);
    }
    EXPECT_EQ(fifo->uiCurrentSize, 3u);
    EXPECT_EQ(fifo->uiReadIndex, 1u);
    EXPECT_EQ(fifo->uiWriteIndex, 1u);
    EXPECT_EQ(fifo.get(), 2u);
    EXPECT_EQ(fifo.get(), 3u);
    EXPECT_EQ(fifo.get(), 4u);
    expectSilence();
}

TEST(CFifoBufferMutex, HandsOutTheSlotOfAnEmptyRing)
{
    WordFifo fifo(2, eTaskingModeMutex);
    fifo.put(11);
    fifo.put(22);
    fifo.get();
    fifo.get();
    EXPECT_EQ(fifo.get(), 11u);
    EXPECT_EQ(fifo->uiReadIndex, 1u);
    EXPECT_EQ(fifo->uiCurrentSize, 0xFFFFFFFFu);
    EXPECT_EQ(CFifoBuffer_IsEmpty(&fifo), 0u);
    // From then on it counts as full: each Put drops an element, and Get goes on without a look.
    EXPECT_EQ(fifo.put(33), GCL_OK);
    EXPECT_EQ(fifo->uiReadIndex, 0u);
    EXPECT_EQ(fifo->uiWriteIndex, 1u);
    EXPECT_EQ(fifo->uiCurrentSize, 0xFFFFFFFFu);
    EXPECT_EQ(fifo.get(), 33u);
    EXPECT_EQ(fifo.get(), 22u);
    EXPECT_EQ(fifo->uiReadIndex, 0u);
    EXPECT_EQ(fifo->uiCurrentSize, 0xFFFFFFFDu);
    EXPECT_EQ(fifo.put(44), GCL_OK);
    EXPECT_EQ(fifo->uiReadIndex, 1u);
    EXPECT_EQ(fifo->uiCurrentSize, 0xFFFFFFFDu);
    EXPECT_EQ(CFifoBuffer_IsEmpty(&fifo), 0u);
    expectSilence();
}

TEST(CFifoBufferMutex, LocksAndUnlocksItsOwnMutexOnce)
{
    WordFifo fifo(2, eTaskingModeMutex);
    std::vector<pthread_mutex_t*> locked;
    std::vector<pthread_mutex_t*> unlocked;
    uint32_t sizeAtUnlock = 0;
    const Hook locks(calls::pthread_mutex_lock, [&](pthread_mutex_t* mutex) {
        locked.push_back(mutex);
        EXPECT_EQ(fifo->uiCurrentSize, locked.size() - 1);
        return calls::pthread_mutex_lock.real(mutex);
    });
    const Hook unlocks(calls::pthread_mutex_unlock, [&](pthread_mutex_t* mutex) {
        unlocked.push_back(mutex);
        sizeAtUnlock = fifo->uiCurrentSize;
        return calls::pthread_mutex_unlock.real(mutex);
    });
    fifo.put(1);
    EXPECT_EQ(sizeAtUnlock, 1u);
    fifo.get();
    EXPECT_EQ(sizeAtUnlock, 0u);
    const std::vector<pthread_mutex_t*> own(2, &fifo->fifoMutex);
    EXPECT_EQ(locked, own);
    EXPECT_EQ(unlocked, own);
}

TEST_P(CFifoBufferMutex, DoesNothingWhenTheLockFails)
{
    WordFifo fifo(2, eTaskingModeMutex);
    fifo.put(1);
    uint32_t word = 77;
    const Count unlocks(calls::pthread_mutex_unlock);
    {
        const Fault fault(calls::pthread_mutex_lock, {EINVAL, 12});
        EXPECT_EQ(fifo.put(2), 0x801Au);
        expectReports(reportsOf("CFifoBuffer_Put",
                                "CFifoBuffer_Put: Failed to lock mutex (errno: 12)", 0x801A));
    }
    {
        const Fault fault(calls::pthread_mutex_lock, {EINVAL, 13});
        EXPECT_EQ(CFifoBuffer_Get(&fifo, &word), 0x801Au);
        expectReports(reportsOf("CFifoBuffer_Get",
                                "CFifoBuffer_Get: Failed to lock mutex (errno: 13)", 0x801A));
    }
    EXPECT_EQ(unlocks.calls(), 0u);
    EXPECT_EQ(word, 77u);
    EXPECT_EQ(fifo->uiCurrentSize, 1u);
    EXPECT_EQ(fifo.get(), 1u);
}

TEST_P(CFifoBufferMutex, KeepsTheCopyWhenTheReleaseFails)
{
    // The release is made, and told as a failure.
    const auto failingRelease = [](int error) {
        return [error](pthread_mutex_t* mutex) {
            calls::pthread_mutex_unlock.real(mutex);
            errno = error;
            return EPERM;
        };
    };
    WordFifo fifo(2, eTaskingModeMutex);
    {
        const Hook hook(calls::pthread_mutex_unlock, failingRelease(14));
        EXPECT_EQ(fifo.put(5), 0x801Au);
    }
    expectReports(reportsOf("CFifoBuffer_Put",
                            "CFifoBuffer_Put: Failed to release mutex (errno: 14)", 0x801A));
    EXPECT_EQ(fifo->uiCurrentSize, 1u);
    uint32_t word = 0;
    {
        const Hook hook(calls::pthread_mutex_unlock, failingRelease(15));
        EXPECT_EQ(CFifoBuffer_Get(&fifo, &word), 0x801Au);
    }
    expectReports(reportsOf("CFifoBuffer_Get",
                            "CFifoBuffer_Get: Failed to release mutex (errno: 15)", 0x801A));
    EXPECT_EQ(word, 5u);
    EXPECT_EQ(fifo->uiCurrentSize, 0u);
}

TEST_P(CFifoBufferUnknownMode, IsConstructedAskedAndRefused)
{
    for (const uint32_t value : {3u, 0xFFFFFFFFu}) {
        OwnedFifo fifo(4, 2, static_cast<ETaskingMode>(value));
        uint32_t word = 77;
        const std::string shown =
            "ETaskingMode not supported (eMode: " + std::to_string(value) + ")";
        EXPECT_EQ(CFifoBuffer_Put(&fifo, &word), 0x8000u);
        expectReports(reportsOf("CFifoBuffer_Put", "CFifoBuffer_Put: " + shown, 0x8000));
        EXPECT_EQ(CFifoBuffer_Get(&fifo, &word), 0x8000u);
        expectReports(reportsOf("CFifoBuffer_Get", "CFifoBuffer_Get: " + shown, 0x8000));
        EXPECT_EQ(word, 77u);
        EXPECT_EQ(CFifoBuffer_IsEmpty(&fifo), 1u);
        uint32_t size = 77;
        uint32_t elementSize = 77;
        uint32_t capacity = 77;
        EXPECT_EQ(CFifoBuffer_GetStatistics(&fifo, &size, &elementSize, &capacity), GCL_OK);
        EXPECT_EQ(size, 0u);
        EXPECT_EQ(elementSize, 4u);
        EXPECT_EQ(capacity, 2u);
        expectSilence();
    }
}

namespace {

// Notes the semaphore calls of one operation as words, in their order.
std::vector<std::string> semaphoreCalls(CFifoBuffer& fifo, const std::function<void()>& operation)
{
    std::vector<std::string> noted;
    const auto nameOf = [&fifo](const sem_t* semaphore) -> std::string {
        if (semaphore == &fifo.getSemaphore) {
            return "get";
        }
        if (semaphore == &fifo.putSemaphore) {
            return "put";
        }
        return semaphore == &fifo.cpyMutex ? "copy" : "another";
    };
    const Hook waits(calls::sem_wait, [&](sem_t* semaphore) {
        noted.push_back("wait " + nameOf(semaphore) + " " + std::to_string(fifo.uiCurrentSize));
        return calls::sem_wait.real(semaphore);
    });
    const Hook posts(calls::sem_post, [&](sem_t* semaphore) {
        noted.push_back("post " + nameOf(semaphore) + " " + std::to_string(fifo.uiCurrentSize));
        return calls::sem_post.real(semaphore);
    });
    operation();
    return noted;
}

} // namespace

TEST(CFifoBufferSemaphore, TakesAndGivesTheSemaphoresInTheirOrder)
{
    WordFifo fifo(2, eTaskingModeSemaphore);
    EXPECT_EQ(semaphoreCalls(fifo.fifo, [&fifo] { fifo.put(1); }),
              (std::vector<std::string>{"wait put 0", "wait copy 0", "post copy 1", "post get 1"}));
    EXPECT_EQ(semaphoreCalls(fifo.fifo, [&fifo] { fifo.get(); }),
              (std::vector<std::string>{"wait get 1", "wait copy 1", "post copy 0", "post put 0"}));
}

TEST_P(CFifoBufferSemaphorePut, FailsWhenTheWaitForASlotFails)
{
    WordFifo fifo(2, eTaskingModeSemaphore);
    const Fault fault(calls::sem_wait, {-1, EINTR});
    EXPECT_EQ(fifo.put(1), 0x8019u);
    EXPECT_EQ(fault.calls(), 1u); // not tried again
    expectReports(reportsOf("CFifoBuffer_Put",
                            "CFifoBuffer_Put: sem_wait failed waiting for putSemaphore (errno: " +
                                std::to_string(EINTR) + ")",
                            0x8019));
    EXPECT_EQ(fifo->uiCurrentSize, 0u);
    expectSemaphores(fifo.fifo, 0, 2, 1);
}

TEST_P(CFifoBufferSemaphoreGet, FailsWhenTheWaitForAnElementFails)
{
    WordFifo fifo(2, eTaskingModeSemaphore);
    fifo.put(1);
    uint32_t word = 77;
    const Fault fault(calls::sem_wait, {-1, EINVAL});
    EXPECT_EQ(CFifoBuffer_Get(&fifo, &word), 0x8019u);
    EXPECT_EQ(fault.calls(), 1u);
    expectReports(reportsOf("CFifoBuffer_Get",
                            "CFifoBuffer_Get: sem_wait failed waiting for getSemaphore (errno: " +
                                std::to_string(EINVAL) + ")",
                            0x8019));
    EXPECT_EQ(word, 77u);
    expectSemaphores(fifo.fifo, 1, 1, 1);
}

TEST_P(CFifoBufferSemaphorePut, GivesTheSlotBackBeforeItReportsWhenTheCopyLockFails)
{
    WordFifo fifo(2, eTaskingModeSemaphore);
    const Fault fault(calls::sem_wait, {-1, EINTR, 2});
    // The give-back sees no report yet, and its own errno does not reach the report.
    const Hook posts(calls::sem_post, [](sem_t* semaphore) {
        expectSilence();
        const int result = calls::sem_post.real(semaphore);
        errno = EOVERFLOW;
        return result;
    });
    EXPECT_EQ(fifo.put(1), 0x8019u);
    expectReports(reportsOf("CFifoBuffer_Put",
                            "CFifoBuffer_Put: sem_wait failed waiting for cpyMutex (errno: " +
                                std::to_string(EINTR) + ")",
                            0x8019));
    EXPECT_EQ(posts.calls(), 1u);
    EXPECT_EQ(fifo->uiCurrentSize, 0u);
    EXPECT_EQ(fifo->uiWriteIndex, 0u);
    expectSemaphores(fifo.fifo, 0, 2, 1);
}

TEST_P(CFifoBufferSemaphoreGet, GivesTheElementBackBeforeItReportsWhenTheCopyLockFails)
{
    WordFifo fifo(2, eTaskingModeSemaphore);
    fifo.put(1);
    uint32_t word = 77;
    {
        const Fault fault(calls::sem_wait, {-1, EINTR, 2});
        const Hook posts(calls::sem_post, [](sem_t* semaphore) {
            expectSilence();
            const int result = calls::sem_post.real(semaphore);
            errno = EOVERFLOW;
            return result;
        });
        EXPECT_EQ(CFifoBuffer_Get(&fifo, &word), 0x8019u);
        EXPECT_EQ(posts.calls(), 1u);
    }
    expectReports(reportsOf("CFifoBuffer_Get",
                            "CFifoBuffer_Get: sem_wait failed waiting for cpyMutex (errno: " +
                                std::to_string(EINTR) + ")",
                            0x8019));
    EXPECT_EQ(word, 77u);
    expectSemaphores(fifo.fifo, 1, 1, 1);
    ASSERT_FALSE(HasFailure());
    EXPECT_EQ(fifo.get(), 1u);
}

TEST_P(CFifoBufferSemaphorePut, SucceedsWhateverBecomesOfThePosts)
{
    const std::string error = " (errno: " + std::to_string(EOVERFLOW) + ")";
    const std::string copy = "CFifoBuffer_Put: sem_wait failed posting to cpyMutex" + error;
    const std::string get = "CFifoBuffer_Put: sem_wait failed posting to getSemaphore" + error;
    {
        WordFifo fifo(2, eTaskingModeSemaphore);
        const Fault fault(calls::sem_post, {-1, EOVERFLOW, 1});
        EXPECT_EQ(fifo.put(1), GCL_OK);
        expectReports(reportsOf("CFifoBuffer_Put", copy, 0x8019));
        EXPECT_EQ(fifo->uiCurrentSize, 1u);
        expectSemaphores(fifo.fifo, 1, 1, 0);
    }
    {
        WordFifo fifo(2, eTaskingModeSemaphore);
        const Fault fault(calls::sem_post, {-1, EOVERFLOW, 2});
        EXPECT_EQ(fifo.put(1), GCL_OK);
        expectReports(reportsOf("CFifoBuffer_Put", get, 0x8019));
        expectSemaphores(fifo.fifo, 0, 1, 1);
    }
    WordFifo fifo(2, eTaskingModeSemaphore);
    const Fault fault(calls::sem_post, {-1, EOVERFLOW, 1, 2});
    EXPECT_EQ(fifo.put(1), GCL_OK);
    expectReports({gclReport("CFifoBuffer", "CFifoBuffer_Put", copy, 0x8019),
                   gclReport("CFifoBuffer", "CFifoBuffer_Put", get, 0x8019)});
}

TEST_P(CFifoBufferSemaphoreGet, SucceedsWhateverBecomesOfThePosts)
{
    const std::string error = " (errno: " + std::to_string(EOVERFLOW) + ")";
    const std::string copy = "CFifoBuffer_Get: sem_wait failed posting to cpyMutex" + error;
    const std::string put = "CFifoBuffer_Get: sem_wait failed posting to putSemaphore" + error;
    {
        WordFifo fifo(2, eTaskingModeSemaphore);
        fifo.put(5);
        const Fault fault(calls::sem_post, {-1, EOVERFLOW, 1});
        EXPECT_EQ(fifo.get(), 5u);
        expectReports(reportsOf("CFifoBuffer_Get", copy, 0x8019));
        expectSemaphores(fifo.fifo, 0, 2, 0);
    }
    {
        WordFifo fifo(2, eTaskingModeSemaphore);
        fifo.put(5);
        const Fault fault(calls::sem_post, {-1, EOVERFLOW, 2});
        EXPECT_EQ(fifo.get(), 5u);
        expectReports(reportsOf("CFifoBuffer_Get", put, 0x8019));
        expectSemaphores(fifo.fifo, 0, 1, 1);
    }
    WordFifo fifo(2, eTaskingModeSemaphore);
    fifo.put(5);
    const Fault fault(calls::sem_post, {-1, EOVERFLOW, 1, 2});
    EXPECT_EQ(fifo.get(), 5u);
    expectReports({gclReport("CFifoBuffer", "CFifoBuffer_Get", copy, 0x8019),
                   gclReport("CFifoBuffer", "CFifoBuffer_Get", put, 0x8019)});
}

namespace {

// Starts a thread that puts or gets, cancels it once `waits` says that it waits, and expects that
// it ended there.
void cancelWaiting(CFifoBuffer& fifo, bool putting, const std::function<bool()>& waits)
{
    struct Call {
        CFifoBuffer& fifo;
        bool putting;
        std::atomic<bool> started;
    } call{fifo, putting, false};
    pthread_t thread;
    const auto body = [](void* argument) -> void* {
        auto& mine = *static_cast<Call*>(argument);
        uint32_t word = 0;
        mine.started = true;
        if (mine.putting) {
            CFifoBuffer_Put(&mine.fifo, &word);
        } else {
            CFifoBuffer_Get(&mine.fifo, &word);
        }
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, nullptr, body, &call), 0);
    while (!call.started || !waits()) {
        sleepMs(1);
    }
    sleepMs(20); // time enough, as a rule, to be inside the wait
    ASSERT_EQ(pthread_cancel(thread), 0);
    void* result = nullptr;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    expectSilence();
}

} // namespace

TEST(CFifoBufferSemaphore, ACancelledPutGivesItsSlotBack)
{
    WordFifo fifo(2, eTaskingModeSemaphore);
    fifo.put(1);
    ASSERT_EQ(sem_wait(&fifo->cpyMutex), 0);
    cancelWaiting(fifo.fifo, true, [&fifo] { return valueOf(fifo->putSemaphore) == 0; });
    expectSemaphores(fifo.fifo, 1, 1, 0);
    ASSERT_FALSE(HasFailure()); // a slot or element that is lost would be waited for
    ASSERT_EQ(sem_post(&fifo->cpyMutex), 0);
    EXPECT_EQ(fifo.put(2), GCL_OK);
    EXPECT_EQ(fifo.get(), 1u);
    EXPECT_EQ(fifo.get(), 2u);
    expectSemaphores(fifo.fifo, 0, 2, 1);
}

TEST(CFifoBufferSemaphore, ACancelledGetGivesItsElementBack)
{
    WordFifo fifo(2, eTaskingModeSemaphore);
    fifo.put(1);
    ASSERT_EQ(sem_wait(&fifo->cpyMutex), 0);
    cancelWaiting(fifo.fifo, false, [&fifo] { return valueOf(fifo->getSemaphore) == 0; });
    expectSemaphores(fifo.fifo, 1, 1, 0);
    ASSERT_FALSE(HasFailure()); // a slot or element that is lost would be waited for
    ASSERT_EQ(sem_post(&fifo->cpyMutex), 0);
    EXPECT_EQ(fifo.get(), 1u);
    expectSemaphores(fifo.fifo, 0, 2, 1);
}

TEST(CFifoBufferSemaphore, ACancelledWaitForASlotOrAnElementTakesNothing)
{
    WordFifo fifo(1, eTaskingModeSemaphore);
    cancelWaiting(fifo.fifo, false, [] { return true; });
    expectSemaphores(fifo.fifo, 0, 1, 1);
    fifo.put(1);
    cancelWaiting(fifo.fifo, true, [] { return true; });
    expectSemaphores(fifo.fifo, 1, 0, 1);
    EXPECT_EQ(fifo.get(), 1u);
}

TEST(CFifoBufferSemaphore, GetWaitsForAnElement)
{
    WordFifo fifo(2, eTaskingModeSemaphore);
    std::atomic<bool> put{false};
    std::thread producer([&] {
        sleepMs(100);
        put = true;
        EXPECT_EQ(fifo.put(9), GCL_OK);
    });
    EXPECT_EQ(fifo.get(), 9u);
    EXPECT_TRUE(put);
    producer.join();
    expectSilence();
}

TEST(CFifoBufferSemaphore, PutWaitsForASlot)
{
    WordFifo fifo(1, eTaskingModeSemaphore);
    ASSERT_EQ(fifo.put(1), GCL_OK);
    std::atomic<bool> got{false};
    std::thread consumer([&] {
        sleepMs(100);
        got = true;
        EXPECT_EQ(fifo.get(), 1u);
    });
    EXPECT_EQ(fifo.put(2), GCL_OK);
    EXPECT_TRUE(got);
    consumer.join();
    EXPECT_EQ(fifo.get(), 2u);
    expectSilence();
}

TEST_P(CFifoBufferSemaphore, ASignalEndsTheWaitOfItsThread)
{
    struct sigaction action {};
    action.sa_handler = [](int) {}; // without SA_RESTART
    struct sigaction before {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, &before), 0);
    for (const bool putting : {true, false}) {
        WordFifo fifo(1, eTaskingModeSemaphore);
        if (putting) {
            fifo.put(1);
        }
        std::atomic<bool> done{false};
        std::thread waiter([&] {
            uint32_t word = 0;
            EXPECT_EQ(putting ? fifo.put(2) : CFifoBuffer_Get(&fifo, &word), 0x8019u);
            done = true;
        });
        while (!done) {
            pthread_kill(waiter.native_handle(), SIGUSR1);
            sleepMs(5);
        }
        waiter.join();
        const std::string name = putting ? "CFifoBuffer_Put" : "CFifoBuffer_Get";
        expectReports(reportsOf(name,
                                name + ": sem_wait failed waiting for " +
                                    (putting ? "putSemaphore" : "getSemaphore") +
                                    " (errno: " + std::to_string(EINTR) + ")",
                                0x8019));
        expectSemaphores(fifo.fifo, putting ? 1 : 0, putting ? 0 : 1, 1);
    }
    sigaction(SIGUSR1, &before, nullptr);
}

namespace {

struct Element {
    uint32_t producer;
    uint32_t number;
    uint32_t check;
};

// Hands over with several producers and consumers: every element once, each producer's in order.
void handOver(uint32_t producers, uint32_t consumers, uint32_t capacity)
{
    constexpr uint32_t kEach = 3000;
    OwnedFifo fifo(sizeof(Element), capacity, eTaskingModeSemaphore);
    std::vector<std::vector<Element>> got(consumers);
    std::vector<std::thread> getters;
    for (uint32_t i = 0; i < consumers; ++i) {
        getters.emplace_back([&fifo, &mine = got[i]] {
            for (;;) {
                Element element{};
                ASSERT_EQ(CFifoBuffer_Get(&fifo, &element), GCL_OK);
                if (element.number == UINT32_MAX) {
                    return;
                }
                mine.push_back(element);
            }
        });
    }
    std::vector<std::thread> putters;
    for (uint32_t producer = 0; producer < producers; ++producer) {
        putters.emplace_back([&fifo, producer] {
            for (uint32_t number = 0; number < kEach; ++number) {
                const Element element{producer, number, producer * 1000003u + number};
                ASSERT_EQ(CFifoBuffer_Put(&fifo, &element), GCL_OK);
            }
        });
    }
    for (std::thread& putter : putters) {
        putter.join();
    }
    for (uint32_t i = 0; i < consumers; ++i) {
        const Element last{0, UINT32_MAX, 0};
        EXPECT_EQ(CFifoBuffer_Put(&fifo, &last), GCL_OK);
    }
    for (std::thread& getter : getters) {
        getter.join();
    }

    std::vector<std::vector<uint32_t>> seen(producers, std::vector<uint32_t>(kEach, 0));
    for (const std::vector<Element>& mine : got) {
        std::vector<uint32_t> next(producers, 0);
        for (const Element& element : mine) {
            ASSERT_LT(element.producer, producers);
            ASSERT_LT(element.number, kEach);
            EXPECT_EQ(element.check, element.producer * 1000003u + element.number);
            // One consumer sees a producer's elements in the producer's order.
            EXPECT_GE(element.number, next[element.producer]);
            next[element.producer] = element.number + 1;
            ++seen[element.producer][element.number];
        }
    }
    for (const std::vector<uint32_t>& each : seen) {
        EXPECT_EQ(each, std::vector<uint32_t>(kEach, 1));
    }
    expectSemaphores(fifo.fifo, 0, static_cast<int>(capacity), 1);
    EXPECT_EQ(fifo->uiCurrentSize, 0u);
    expectSilence();
}

} // namespace

TEST(CFifoBufferHandOver, LosesAndDoublesNothingBetweenOneAndOne)
{
    handOver(1, 1, 1);
    handOver(1, 1, 16);
}

TEST(CFifoBufferHandOver, LosesAndDoublesNothingBetweenManyAndMany)
{
    handOver(3, 3, 2);
    handOver(4, 2, 7);
    handOver(2, 4, 16);
}

TEST(CFifoBufferHandOver, CanBeAskedAtAnyTime)
{
    constexpr uint32_t kElements = 20000;
    constexpr uint32_t kCapacity = 5;
    for (const ETaskingMode mode : {eTaskingModeSemaphore, eTaskingModeMutex}) {
        WordFifo fifo(kCapacity, mode);
        std::atomic<bool> working{true};
        std::thread worker([&] {
            for (uint32_t word = 0; word < kElements; ++word) {
                EXPECT_EQ(fifo.put(word), GCL_OK);
                EXPECT_EQ(fifo.get(), word);
            }
            working = false;
        });
        while (working) {
            uint32_t size = 0;
            uint32_t elementSize = 0;
            uint32_t capacity = 0;
            EXPECT_EQ(CFifoBuffer_GetStatistics(&fifo, &size, &elementSize, &capacity), GCL_OK);
            EXPECT_LE(size, 1u);
            EXPECT_LE(CFifoBuffer_IsEmpty(&fifo), 1u);
        }
        worker.join();
    }
    expectSilence();
}

TEST(CFifoBufferHandOver, SurvivesSignalsThatInterruptEveryWait)
{
    struct sigaction action {};
    action.sa_handler = [](int) {};
    struct sigaction before {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, &before), 0);
    constexpr uint32_t kElements = 2000;
    WordFifo fifo(3, eTaskingModeSemaphore);
    std::atomic<int> running{2};
    std::thread producer([&] {
        for (uint32_t word = 0; word < kElements;) {
            word += fifo.put(word) == GCL_OK ? 1 : 0;
        }
        --running;
        while (running > 0) { // stays there to be signalled
            sleepMs(1);
        }
    });
    std::thread consumer([&] {
        for (uint32_t word = 0; word < kElements;) {
            uint32_t got = 0;
            if (CFifoBuffer_Get(&fifo, &got) == GCL_OK) {
                EXPECT_EQ(got, word);
                ++word;
            }
        }
        --running;
        while (running > 0) {
            sleepMs(1);
        }
    });
    while (running > 0) {
        pthread_kill(producer.native_handle(), SIGUSR1);
        pthread_kill(consumer.native_handle(), SIGUSR1);
        std::this_thread::yield();
    }
    producer.join();
    consumer.join();
    expectSemaphores(fifo.fifo, 0, 3, 1);
    takeReports();
    sigaction(SIGUSR1, &before, nullptr);
}

TEST(CFifoBufferMutex, KeepsTheNewestBetweenAWriterAndAReader)
{
    constexpr uint32_t kElements = 20000;
    WordFifo fifo(8, eTaskingModeMutex);
    std::atomic<bool> writing{true};
    std::thread writer([&] {
        for (uint32_t word = 1; word <= kElements; ++word) {
            EXPECT_EQ(fifo.put(word), GCL_OK);
        }
        writing = false;
    });
    uint32_t last = 0;
    for (bool more = true; more;) {
        more = writing;
        while (CFifoBuffer_IsEmpty(&fifo) == 0) {
            const uint32_t word = fifo.get();
            EXPECT_GT(word, last);
            last = word;
        }
    }
    writer.join();
    EXPECT_EQ(last, kElements);
    EXPECT_EQ(fifo->uiCurrentSize, 0u);
    expectSilence();
}

TEST(CFifoBufferModel, AgreesWithAModelOverRandomOperations)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    for (const ETaskingMode mode : kModes) {
        for (int run = 0; run < 50 && !HasFailure(); ++run) {
            const auto capacity = static_cast<uint32_t>(1 + random() % 9);
            WordFifo fifo(capacity, mode);
            std::deque<uint32_t> model;
            for (int step = 0; step < 200; ++step) {
                const auto word = static_cast<uint32_t>(random());
                const bool full = model.size() == capacity;
                if (random() % 2 == 0) {
                    if (full && mode == eTaskingModeSemaphore) {
                        continue; // would wait
                    }
                    EXPECT_EQ(fifo.put(word),
                              full && mode == eTaskingModeNone ? GCL_FIFO_FULL : GCL_OK);
                    if (full && mode == eTaskingModeMutex) {
                        model.pop_front();
                    }
                    if (!full || mode == eTaskingModeMutex) {
                        model.push_back(word);
                    }
                } else if (!model.empty()) {
                    EXPECT_EQ(fifo.get(), model.front());
                    model.pop_front();
                }
                EXPECT_EQ(fifo->uiCurrentSize, model.size());
                EXPECT_EQ(CFifoBuffer_IsEmpty(&fifo), model.empty() ? 1u : 0u);
                EXPECT_EQ((fifo->uiReadIndex + fifo->uiCurrentSize) % capacity, fifo->uiWriteIndex);
            }
        }
    }
    expectSilence();
}
