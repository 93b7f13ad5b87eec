// CFifoBuffer: a bounded first-in-first-out queue of elements of one size, copied by value into a
// ring that is allocated once.
//
// The structure is the caller's; a tasking mode, chosen at construction, says how it may be used
// between threads (see ETaskingMode). CFifoBuffer_IsEmpty and CFifoBuffer_GetStatistics take no
// lock in any mode and tell how things stood at one moment. While CFifoBuffer_Construct or
// CFifoBuffer_Destruct runs, no other thread may use the object. A child process made by fork(2)
// must not use a FIFO that another thread was using at that moment: a lock that was held stays held
// in the child. No operation may be called from a signal handler. A constructed FIFO must be
// neither copied nor moved: its semaphores and its mutex work only where they were made, and both
// copies would own the ring. Results are codes of ResultCodes.h; failures are reported on GCL_trace
// unless they are marked as silent. Where a comment does not mention a check for NULL, there is
// none, and a NULL pointer is the caller's error.
#ifndef GCL_CFIFOBUFFER_H
#define GCL_CFIFOBUFFER_H

#include <pthread.h>
#include <semaphore.h>
#include <stdint.h>

#include "Framework/GCL/Api.h"

GCL_C_BEGIN

// How a FIFO is protected and what it does when it is full or empty. Any other 32-bit value can be
// stored and passed as well: such a FIFO can be constructed, asked and destructed, but
// CFifoBuffer_Put and CFifoBuffer_Get refuse it.
#ifdef __cplusplus
enum ETaskingMode : uint32_t {
#else
typedef uint32_t ETaskingMode;
enum {
#endif
    // Blocking hand-over between any number of producer and consumer threads, by POSIX semaphores:
    // Put waits while the ring is full, Get waits while it is empty, both without a time limit, in
    // sem_wait(3), and each wakes the other side with sem_post(3). A signal whose handler was
    // installed without SA_RESTART ends such a wait with GCL_SEMAPHORE_FAILED; the caller may call
    // again. A thread that is cancelled in such a wait leaves the FIFO as it was. The capacity is
    // limited to SEM_VALUE_MAX.
    eTaskingModeSemaphore = 0,
    // No protection, for one thread or under the caller's lock: Put on a full ring and Get on an
    // empty one fail at once.
    eTaskingModeNone = 1,
    // A POSIX mutex around each Put and Get, taken with pthread_mutex_lock(3) and given back with
    // pthread_mutex_unlock(3), for any number of writers and ONE reader. The writer never waits for
    // space: Put on a full ring drops the oldest element. Get does not look whether the ring is
    // empty: the reader asks CFifoBuffer_IsEmpty first. With a second reader, that one may take the
    // last element between the two calls; several readers need a lock of their own around both.
    // After one Get on an empty ring the size has wrapped: the FIFO counts as full and never as
    // empty until it is constructed anew. Each Put then drops what would be the oldest element,
    // and Get hands out slots whether or not they hold one.
    eTaskingModeMutex = 2
};

// A FIFO. Clear it (all bytes zero) before use, so that calls before CFifoBuffer_Construct are
// refused; the fields may be read, but are the FIFO's to write.
typedef struct CFifoBuffer {
    unsigned char* pBuffer;    // the ring: uiCapacity slots of uiElementSize bytes; owned
    uint32_t uiCurrentSize;    // number of elements held
    uint32_t uiElementSize;    // size of an element in bytes
    uint32_t uiCapacity;       // number of slots
    uint32_t uiWriteIndex;     // slot that the next Put fills, 0 to uiCapacity - 1
    uint32_t uiReadIndex;      // slot that the next Get empties, 0 to uiCapacity - 1
    ETaskingMode eMode;        // tasking mode, as given to Construct
    sem_t getSemaphore;        // eTaskingModeSemaphore: counts the filled slots
    sem_t putSemaphore;        // eTaskingModeSemaphore: counts the free slots
    sem_t cpyMutex;            // eTaskingModeSemaphore: held around a copy; a semaphore of one
    pthread_mutex_t fifoMutex; // eTaskingModeMutex: held around a copy
    uint32_t bInitialized;     // 1 once constructed; 0 makes every call but Destruct fail
} CFifoBuffer;

// CFifoBuffer_Construct makes pThis an empty FIFO of uiCapacity elements of uiElementSize bytes
// each and allocates its ring, which is not cleared. What the structure held before is forgotten,
// not freed. The ring has uiCapacity * uiElementSize bytes, computed in 32 bits: a product of 2^32
// or more wraps and makes a ring that is too small, which is not noticed. A capacity of 0 is not
// supported: CFifoBuffer_Put and CFifoBuffer_Get then wait for ever in eTaskingModeSemaphore, and
// raise SIGFPE in eTaskingModeMutex with fifoMutex locked; where that signal does not end the
// process, they abort it (abort(3)). It returns nothing; a failure is reported, and a FIFO that
// could not be constructed answers later calls with GCL_FIFO_NOT_INITIALIZED:
//   GCL_FAILURE            pThis is NULL, or sem_init(3) failed for one of the semaphores of
//                          eTaskingModeSemaphore, as it does for a uiCapacity above SEM_VALUE_MAX
//                          (0x7FFFFFFF on Linux); the ring stays allocated until
//                          CFifoBuffer_Destruct, and semaphores made before are not destroyed
//   GCL_MUTEX_INIT_FAILED  pthread_mutex_init(3) failed (eTaskingModeMutex); the FIFO counts as
//                          constructed all the same, and uses a mutex like one that was made by
//                          PTHREAD_MUTEX_INITIALIZER
// Where the allocation fails, std::bad_alloc passes through the call and the FIFO stays without a
// ring and not initialised; a C caller on ARM must be compiled with -fexceptions for that.
GCL_API void CFifoBuffer_Construct(CFifoBuffer* pThis, uint32_t uiElementSize, uint32_t uiCapacity,
                                   ETaskingMode eMode);

// CFifoBuffer_Destruct frees the ring. It is final: bInitialized stays as it is, and the FIFO must
// be constructed anew before any other call. It destroys the mutex in every mode, whether or not it
// was ever made, with pthread_mutex_destroy(3), whose failure it ignores, and never the semaphores,
// which hold no resource. On memory that was neither constructed nor cleared it frees what pBuffer
// happens to be.
GCL_API void CFifoBuffer_Destruct(CFifoBuffer* pThis);

// CFifoBuffer_Put copies the element at pElement, uiElementSize bytes, into the ring.
//   GCL_OK                     the element is in the ring; also if a semaphore could not be posted
//                              afterwards (reported with GCL_SEMAPHORE_FAILED), after which
//                              the FIFO may block its users
//   GCL_FIFO_NOT_INITIALIZED   the FIFO was not constructed (reported)
//   GCL_SEMAPHORE_FAILED       eTaskingModeSemaphore: sem_wait(3) failed or was interrupted by a
//                              signal; nothing was stored (reported)
//   GCL_FIFO_FULL              eTaskingModeNone: the ring is full; nothing was stored (silent)
//   GCL_MUTEX_FAILED           eTaskingModeMutex: locking the mutex failed and nothing was stored,
//                              or releasing it failed and the element is in the ring (reported)
//   GCL_FAILURE                eMode is not a tasking mode (reported)
GCL_API uint32_t CFifoBuffer_Put(CFifoBuffer* pThis, const void* pElement);

// CFifoBuffer_Get takes the oldest element out of the ring and copies it to pElement, uiElementSize
// bytes. In eTaskingModeMutex it does so on an empty ring as well: it hands out what the slot last
// held, or memory never written, and leaves uiCurrentSize at 0xFFFFFFFF (see eTaskingModeMutex).
//   GCL_OK                     the element is at pElement; also if a semaphore could not be posted
//                              afterwards (reported with GCL_SEMAPHORE_FAILED), after which
//                              the FIFO may block its users
//   GCL_FIFO_NOT_INITIALIZED   the FIFO was not constructed (reported)
//   GCL_SEMAPHORE_FAILED       eTaskingModeSemaphore: sem_wait(3) failed or was interrupted by a
//                              signal; nothing was taken (reported)
//   GCL_FIFO_EMPTY             eTaskingModeNone: the ring is empty; pElement untouched (reported)
//   GCL_MUTEX_FAILED           eTaskingModeMutex: locking the mutex failed and nothing was taken,
//                              or releasing it failed and the element has been taken (reported)
//   GCL_FAILURE                eMode is not a tasking mode (reported)
GCL_API uint32_t CFifoBuffer_Get(CFifoBuffer* pThis, void* pElement);

// CFifoBuffer_IsEmpty returns 1 if no element is held, else 0. It returns 1 for a FIFO that was not
// constructed (reported with GCL_FIFO_NOT_INITIALIZED).
GCL_API uint32_t CFifoBuffer_IsEmpty(const CFifoBuffer* pThis);

// CFifoBuffer_GetStatistics stores the number of elements held, the size of an element in bytes and
// the number of slots.
//   GCL_OK                     stored
//   GCL_INVALID_ARGUMENT       a pointer is NULL; nothing was stored (silent)
//   GCL_FIFO_NOT_INITIALIZED   the FIFO was not constructed; nothing was stored (reported)
GCL_API uint32_t CFifoBuffer_GetStatistics(const CFifoBuffer* pThis, uint32_t* puiCurrentSize,
                                           uint32_t* puiElementSize, uint32_t* puiCapacity);

GCL_C_END

#endif // GCL_CFIFOBUFFER_H
