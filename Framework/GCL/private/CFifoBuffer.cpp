#include "Framework/GCL/CFifoBuffer.h"

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "Framework/GCL/ResultCodes.h"
#include "Framework/GCL/private/DivideByZero.h"
#include "Framework/GCL/private/Report.h"

namespace {

static_assert(sizeof(ETaskingMode) == 4);
static_assert(offsetof(CFifoBuffer, pBuffer) == 0);
static_assert(offsetof(CFifoBuffer, uiCurrentSize) == sizeof(void*));
static_assert(offsetof(CFifoBuffer, uiElementSize) == sizeof(void*) + 4);
static_assert(offsetof(CFifoBuffer, uiCapacity) == sizeof(void*) + 8);
static_assert(offsetof(CFifoBuffer, uiWriteIndex) == sizeof(void*) + 12);
static_assert(offsetof(CFifoBuffer, uiReadIndex) == sizeof(void*) + 16);
static_assert(offsetof(CFifoBuffer, eMode) == sizeof(void*) + 20);
static_assert(offsetof(CFifoBuffer, getSemaphore) == sizeof(void*) + 24);
static_assert(offsetof(CFifoBuffer, putSemaphore) == sizeof(void*) + 24 + sizeof(sem_t));
static_assert(offsetof(CFifoBuffer, cpyMutex) == sizeof(void*) + 24 + 2 * sizeof(sem_t));
static_assert(offsetof(CFifoBuffer, fifoMutex) == sizeof(void*) + 24 + 3 * sizeof(sem_t));
static_assert(offsetof(CFifoBuffer, bInitialized) ==
              offsetof(CFifoBuffer, fifoMutex) + sizeof(pthread_mutex_t));

constexpr char kSource[] = "Framework/GCL/private/CFifoBuffer";
constexpr char kPut[] = "CFifoBuffer_Put";
constexpr char kGet[] = "CFifoBuffer_Get";

unsigned lastError()
{
    return static_cast<unsigned>(errno);
}

// The number of elements is read without a lock by CFifoBuffer_IsEmpty and
// CFifoBuffer_GetStatistics, so every access is atomic. It orders nothing and costs a plain load or
// store; among those who change the number, a semaphore, the mutex or the caller keeps order.
uint32_t currentSize(const CFifoBuffer& fifo)
{
    return __atomic_load_n(&fifo.uiCurrentSize, __ATOMIC_RELAXED);
}

void setCurrentSize(CFifoBuffer& fifo, uint32_t size)
{
    __atomic_store_n(&fifo.uiCurrentSize, size, __ATOMIC_RELAXED);
}

// (index + 1) modulo uiCapacity, without a division: an index is always below the capacity, unless
// that is 0.
uint32_t nextIndex(const CFifoBuffer& fifo, uint32_t index)
{
    const uint32_t next = index + 1;
    if (next < fifo.uiCapacity) {
        return next;
    }
    if (fifo.uiCapacity == 0) {
        gcl::divideByZero();
    }
    return 0;
}

unsigned char* slot(const CFifoBuffer& fifo, uint32_t index)
{
    const size_t offset = size_t{index} * fifo.uiElementSize;
    return fifo.pBuffer + offset;
}

// Copies of the commonest sizes are a few instructions each; none is made of no bytes, for which
// the caller may have no memory at all.
[[gnu::always_inline]] inline void copyElement(void* to, const void* from, uint32_t size)
{
    switch (size) {
    case 0:
        break;
    case 4:
        std::memcpy(to, from, 4);
        break;
    case 8:
        std::memcpy(to, from, 8);
        break;
    case 16:
        std::memcpy(to, from, 16);
        break;
    case 64:
        std::memcpy(to, from, 64);
        break;
    default:
        std::memcpy(to, from, size);
    }
}

// Both are put into each mode's own function, so that between its two calls there is nothing but
// the copy. No ring without slots comes here: it is always full and always empty; getLocked, which
// does not look, says so itself.
[[gnu::always_inline]] inline void storeElement(CFifoBuffer& fifo, const void* element)
{
    copyElement(slot(fifo, fifo.uiWriteIndex), element, fifo.uiElementSize);
    fifo.uiWriteIndex = nextIndex(fifo, fifo.uiWriteIndex);
    setCurrentSize(fifo, currentSize(fifo) + 1);
}

[[gnu::always_inline]] inline void takeElement(CFifoBuffer& fifo, void* element)
{
    copyElement(element, slot(fifo, fifo.uiReadIndex), fifo.uiElementSize);
    fifo.uiReadIndex = nextIndex(fifo, fifo.uiReadIndex);
    setCurrentSize(fifo, currentSize(fifo) - 1);
}

void dropOldest(CFifoBuffer& fifo)
{
    fifo.uiReadIndex = nextIndex(fifo, fifo.uiReadIndex);
    setCurrentSize(fifo, currentSize(fifo) - 1);
}

// Waits for cpyMutex on behalf of a call that has taken `counted`, a free slot or an element. That
// is given back where the lock cannot be had: the wait failed, with `error` the errno that it left,
// or the thread was cancelled in it, which unwinds the stack from here.
bool waitForCopyLock(CFifoBuffer& fifo, sem_t& counted, unsigned& error)
{
    struct GiveBack {
        sem_t* semaphore;
        ~GiveBack()
        {
            if (semaphore != nullptr) {
                static_cast<void>(sem_post(semaphore)); // nothing is left to do if even that fails
            }
        }
    } giveBack{&counted};
    if (sem_wait(&fifo.cpyMutex) != 0) {
        error = lastError();
        return false;
    }
    giveBack.semaphore = nullptr;
    return true;
}

// Each mode is a function of its own, which Put and Get jump to without a frame.
// The counting semaphore is always taken before cpyMutex, and cpyMutex is given back before the
// other side is told: who is woken finds the lock free.
[[gnu::noinline]] uint32_t putWaiting(CFifoBuffer& fifo, const void* element)
{
    if (sem_wait(&fifo.putSemaphore) != 0) {
        return GCL_REPORT_AS(kPut, GCL_SEMAPHORE_FAILED,
                             "%s: sem_wait failed waiting for putSemaphore (errno: %u)", kPut,
                             lastError());
    }
    unsigned error = 0;
    if (!waitForCopyLock(fifo, fifo.putSemaphore, error)) {
        return GCL_REPORT_AS(kPut, GCL_SEMAPHORE_FAILED,
                             "%s: sem_wait failed waiting for cpyMutex (errno: %u)", kPut, error);
    }
    storeElement(fifo, element);
    // By contract: the element is in the ring, so the call succeeds whatever becomes of the posts,
    // and their failures are reported as those of waits.
    if (sem_post(&fifo.cpyMutex) != 0) {
        static_cast<void>(GCL_REPORT_AS(kPut, GCL_SEMAPHORE_FAILED,
                                        "%s: sem_wait failed posting to cpyMutex (errno: %u)", kPut,
                                        lastError()));
    }
    if (sem_post(&fifo.getSemaphore) != 0) {
        static_cast<void>(GCL_REPORT_AS(kPut, GCL_SEMAPHORE_FAILED,
                                        "%s: sem_wait failed posting to getSemaphore (errno: %u)",
                                        kPut, lastError()));
    }
    return GCL_OK;
}

[[gnu::noinline]] uint32_t getWaiting(CFifoBuffer& fifo, void* element)
{
    if (sem_wait(&fifo.getSemaphore) != 0) {
        return GCL_REPORT_AS(kGet, GCL_SEMAPHORE_FAILED,
                             "%s: sem_wait failed waiting for getSemaphore (errno: %u)", kGet,
                             lastError());
    }
    unsigned error = 0;
    if (!waitForCopyLock(fifo, fifo.getSemaphore, error)) {
        return GCL_REPORT_AS(kGet, GCL_SEMAPHORE_FAILED,
                             "%s: sem_wait failed waiting for cpyMutex (errno: %u)", kGet, error);
    }
    takeElement(fifo, element);
    // By contract: the element has been taken, so the call succeeds whatever becomes of the posts,
    // and their failures are reported as those of waits.
    if (sem_post(&fifo.cpyMutex) != 0) {
        static_cast<void>(GCL_REPORT_AS(kGet, GCL_SEMAPHORE_FAILED,
                                        "%s: sem_wait failed posting to cpyMutex (errno: %u)", kGet,
                                        lastError()));
    }
    if (sem_post(&fifo.putSemaphore) != 0) {
        static_cast<void>(GCL_REPORT_AS(kGet, GCL_SEMAPHORE_FAILED,
                                        "%s: sem_wait failed posting to putSemaphore (errno: %u)",
                                        kGet, lastError()));
    }
    return GCL_OK;
}

[[gnu::noinline]] uint32_t putUnprotected(CFifoBuffer& fifo, const void* element)
{
    // By contract: a full ring is silent, while an empty one is reported.
    if (currentSize(fifo) >= fifo.uiCapacity) {
        return GCL_FIFO_FULL;
    }
    storeElement(fifo, element);
    return GCL_OK;
}

[[gnu::noinline]] uint32_t getUnprotected(CFifoBuffer& fifo, void* element)
{
    if (currentSize(fifo) == 0) {
        return GCL_REPORT_AS(kGet, GCL_FIFO_EMPTY, "Fifo buffer empty");
    }
    takeElement(fifo, element);
    return GCL_OK;
}

// By contract: a failure of the mutex is told by errno, which the mutex calls leave as it was; what
// they return says only that they failed.
[[gnu::noinline]] uint32_t putLocked(CFifoBuffer& fifo, const void* element)
{
    if (pthread_mutex_lock(&fifo.fifoMutex) != 0) {
        return GCL_REPORT_AS(kPut, GCL_MUTEX_FAILED, "%s: Failed to lock mutex (errno: %u)", kPut,
                             lastError());
    }
    if (currentSize(fifo) >= fifo.uiCapacity) {
        dropOldest(fifo);
    }
    storeElement(fifo, element);
    if (pthread_mutex_unlock(&fifo.fifoMutex) != 0) {
        return GCL_REPORT_AS(kPut, GCL_MUTEX_FAILED, "%s: Failed to release mutex (errno: %u)",
                             kPut, lastError());
    }
    return GCL_OK;
}

[[gnu::noinline]] uint32_t getLocked(CFifoBuffer& fifo, void* element)
{
    if (pthread_mutex_lock(&fifo.fifoMutex) != 0) {
        return GCL_REPORT_AS(kGet, GCL_MUTEX_FAILED, "%s: Failed to lock mutex (errno: %u)", kGet,
                             lastError());
    }
    // By contract: an empty ring is not looked for; its reader asks CFifoBuffer_IsEmpty first.
    if (fifo.uiCapacity == 0) {
        gcl::divideByZero(); // before anything is copied
    }
    takeElement(fifo, element);
    if (pthread_mutex_unlock(&fifo.fifoMutex) != 0) {
        return GCL_REPORT_AS(kGet, GCL_MUTEX_FAILED, "%s: Failed to release mutex (errno: %u)",
                             kGet, lastError());
    }
    return GCL_OK;
}

[[gnu::cold, gnu::noinline]] uint32_t putUninitialized()
{
    return GCL_REPORT_AS(kPut, GCL_FIFO_NOT_INITIALIZED, "Not initialized");
}

[[gnu::cold, gnu::noinline]] uint32_t getUninitialized()
{
    return GCL_REPORT_AS(kGet, GCL_FIFO_NOT_INITIALIZED, "Not initialized");
}

[[gnu::cold, gnu::noinline]] uint32_t refusePut(const CFifoBuffer& fifo)
{
    return GCL_REPORT_AS(kPut, GCL_FAILURE, "%s: ETaskingMode not supported (eMode: %lu)", kPut,
                         static_cast<unsigned long>(fifo.eMode));
}

[[gnu::cold, gnu::noinline]] uint32_t refuseGet(const CFifoBuffer& fifo)
{
    return GCL_REPORT_AS(kGet, GCL_FAILURE, "%s: ETaskingMode not supported (eMode: %lu)", kGet,
                         static_cast<unsigned long>(fifo.eMode));
}

} // namespace

void CFifoBuffer_Construct(CFifoBuffer* pThis, uint32_t uiElementSize, uint32_t uiCapacity,
                           ETaskingMode eMode)
{
    if (pThis == nullptr) {
        static_cast<void>(
            GCL_REPORT(GCL_FAILURE, "CFifoBuffer_Construct called with pThis = NULL"));
        return;
    }
    pThis->uiElementSize = uiElementSize;
    pThis->uiCapacity = uiCapacity;
    pThis->bInitialized = 0;
    setCurrentSize(*pThis, 0);
    pThis->uiWriteIndex = 0;
    pThis->uiReadIndex = 0;
    pThis->pBuffer = nullptr; // so that Destruct is safe if there is no memory
    // By contract: the size of the ring is computed in 32 bits and may wrap.
    const uint32_t ringSize = uiCapacity * uiElementSize;
    pThis->pBuffer = new unsigned char[ringSize];
    pThis->eMode = eMode;
    if (eMode == eTaskingModeSemaphore) {
        // By contract: the first semaphore that cannot be made ends the construction; nothing that
        // was made before is taken back.
        if (sem_init(&pThis->putSemaphore, 0, uiCapacity) != 0) {
            static_cast<void>(GCL_REPORT(GCL_FAILURE, "Could not create semaphore (putSemaphore)"));
            return;
        }
        if (sem_init(&pThis->getSemaphore, 0, 0) != 0) {
            static_cast<void>(GCL_REPORT(GCL_FAILURE, "Could not create semaphore (getSemaphore)"));
            return;
        }
        if (sem_init(&pThis->cpyMutex, 0, 1) != 0) {
            static_cast<void>(GCL_REPORT(GCL_FAILURE, "Could not create semaphore (cpyMutex)"));
            return;
        }
    } else if (eMode == eTaskingModeMutex) {
        // By contract: a mutex that cannot be made is a warning; the construction carries on. Put
        // and Get will lock the mutex all the same, so it gets the value of a static one.
        if (pthread_mutex_init(&pThis->fifoMutex, nullptr) != 0) {
            constexpr pthread_mutex_t kStaticMutex = PTHREAD_MUTEX_INITIALIZER;
            pThis->fifoMutex = kStaticMutex;
            static_cast<void>(GCL_REPORT(GCL_MUTEX_INIT_FAILED,
                                         "%s: Could not initialize mutex (fifoMutex)", __func__));
        }
    }
    pThis->bInitialized = 1;
}

void CFifoBuffer_Destruct(CFifoBuffer* pThis)
{
    // By contract: the mutex is destroyed in every mode, even if it was never made; the semaphores
    // never are, and bInitialized stays.
    static_cast<void>(pthread_mutex_destroy(&pThis->fifoMutex));
    delete[] pThis->pBuffer;
    pThis->pBuffer = nullptr;
}

uint32_t CFifoBuffer_Put(CFifoBuffer* pThis, const void* pElement)
{
    if (pThis->bInitialized == 0) {
        return putUninitialized();
    }
    switch (pThis->eMode) {
    case eTaskingModeSemaphore:
        return putWaiting(*pThis, pElement);
    case eTaskingModeNone:
        return putUnprotected(*pThis, pElement);
    case eTaskingModeMutex:
        return putLocked(*pThis, pElement);
    default:
        return refusePut(*pThis);
    }
}

uint32_t CFifoBuffer_Get(CFifoBuffer* pThis, void* pElement)
{
    if (pThis->bInitialized == 0) {
        return getUninitialized();
    }
    switch (pThis->eMode) {
    case eTaskingModeSemaphore:
        return getWaiting(*pThis, pElement);
    case eTaskingModeNone:
        return getUnprotected(*pThis, pElement);
    case eTaskingModeMutex:
        return getLocked(*pThis, pElement);
    default:
        return refuseGet(*pThis);
    }
}

uint32_t CFifoBuffer_IsEmpty(const CFifoBuffer* pThis)
{
    if (pThis->bInitialized == 0) {
        static_cast<void>(GCL_REPORT(GCL_FIFO_NOT_INITIALIZED, "Not initialized"));
        return 1;
    }
    return currentSize(*pThis) == 0 ? 1 : 0;
}

uint32_t CFifoBuffer_GetStatistics(const CFifoBuffer* pThis, uint32_t* puiCurrentSize,
                                   uint32_t* puiElementSize, uint32_t* puiCapacity)
{
    if (pThis == nullptr || puiCurrentSize == nullptr || puiElementSize == nullptr ||
        puiCapacity == nullptr) {
        return GCL_INVALID_ARGUMENT;
    }
    if (pThis->bInitialized == 0) {
        return GCL_REPORT(GCL_FIFO_NOT_INITIALIZED, "Not initialized");
    }
    *puiCurrentSize = currentSize(*pThis);
    *puiElementSize = pThis->uiElementSize;
    *puiCapacity = pThis->uiCapacity;
    return GCL_OK;
}
