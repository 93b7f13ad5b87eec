// gcl::FifoBuffer: the owner of a CFifoBuffer whose elements are values of one type.
//
// It destructs its FIFO and can be neither copied nor moved: threads wait at the address of its
// semaphores and its mutex. A function can return one that it builds in the return statement; who
// needs to pass one on keeps it in a std::unique_ptr. put, get, isEmpty and getStatistics are one
// call of the plain function of the same name each, whose comment in CFifoBuffer.h is its manual;
// what differs stands here. All that CFifoBuffer.h says of the tasking modes, allocation failure
// and reports holds.
//
// T is any type that can be copied by its bytes.
//
// A FIFO that was built without a capacity, could not be constructed or was destructed refuses
// every call with GCL_FIFO_NOT_INITIALIZED and counts as empty.
#ifndef GCL_CXX_FIFOBUFFER_H
#define GCL_CXX_FIFOBUFFER_H

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <type_traits>

#include "Framework/GCL/CFifoBuffer.h"
#include "Framework/GCL/ResultCodes.h"
#include "Framework/GCL/cxx/Error.h"
#include "Framework/GCL/cxx/Length.h"

namespace gcl {

template <typename T>
class FifoBuffer {
    static_assert(std::is_same_v<T, std::remove_cv_t<std::remove_reference_t<T>>>,
                  "gcl: T must be neither const nor volatile nor a reference");
    static_assert(std::is_trivially_copyable_v<T>,
                  "gcl: T must be trivially copyable: the FIFO copies its bytes");
    static_assert(detail::fits<std::uint32_t>(sizeof(T)), "gcl: T must be smaller than 4 GiB");

public:
    struct Statistics {
        std::uint32_t currentSize; // elements held
        std::uint32_t elementSize; // bytes of an element
        std::uint32_t capacity;    // elements that fit
    };

    FifoBuffer() noexcept = default;

    // As construct, but a failure is thrown as a std::system_error.
    FifoBuffer(std::size_t capacity, ETaskingMode mode) : FifoBuffer()
    {
        throwIfFailed(construct(capacity, mode));
    }
    ~FifoBuffer() { CFifoBuffer_Destruct(&fifo); }
    FifoBuffer(const FifoBuffer&) = delete;
    FifoBuffer& operator=(const FifoBuffer&) = delete;

    // native is the plain structure, for plain calls. The FIFO goes on owning its ring.
    CFifoBuffer& native() noexcept { return fifo; }
    const CFifoBuffer& native() const noexcept { return fifo; }

    // construct frees what the FIFO held and makes it an empty one for `capacity` elements.
    //   GCL_OK                constructed; also if its mutex could not be initialised (reported
    //                         with GCL_MUTEX_INIT_FAILED), without which it works as well
    //   GCL_INVALID_ARGUMENT  capacity is 0, or the ring would have 2^32 bytes or more; the FIFO is
    //                         as it was (silent)
    //   GCL_FAILURE           a semaphore could not be made (reported)
    Result construct(std::size_t capacity, ETaskingMode mode)
    {
        if (capacity == 0 || capacity > std::numeric_limits<std::uint32_t>::max() / sizeof(T)) {
            return GCL_INVALID_ARGUMENT;
        }
        destruct();
        CFifoBuffer_Construct(&fifo, sizeof(T), static_cast<std::uint32_t>(capacity), mode);
        if (fifo.bInitialized == 0) {
            destruct();
            return GCL_FAILURE;
        }
        return GCL_OK;
    }

    void destruct()
    {
        CFifoBuffer_Destruct(&fifo);
        fifo = CFifoBuffer{}; // refuses what comes, and can be destructed again
    }

    Result put(const T& element) { return Result(CFifoBuffer_Put(&fifo, std::addressof(element))); }
    Result get(T& element) { return Result(CFifoBuffer_Get(&fifo, std::addressof(element))); }

    // putThroughSignals and getThroughSignals call put and get again while a signal's handler has
    // interrupted their wait (eTaskingModeSemaphore) and `goOn` returns true. Each interruption is
    // reported on GCL_trace. A signal that is meant to end the thread goes unnoticed in them unless
    // goOn tells: it is called on the waiting thread, after the handler.
    //   GCL_SEMAPHORE_FAILED  goOn returned false, or the wait failed for another reason
    //   otherwise             as put and get
    template <typename Condition>
    Result putThroughSignals(const T& element, Condition&& goOn)
    {
        return throughSignals([&] { return put(element); }, goOn);
    }
    template <typename Condition>
    Result getThroughSignals(T& element, Condition&& goOn)
    {
        return throughSignals([&] { return get(element); }, goOn);
    }
    Result putThroughSignals(const T& element)
    {
        return putThroughSignals(element, [] { return true; });
    }
    Result getThroughSignals(T& element)
    {
        return getThroughSignals(element, [] { return true; });
    }

    bool isEmpty() const { return CFifoBuffer_IsEmpty(&fifo) != 0; }

    // getStatistics stores the figures on success and leaves them alone otherwise.
    Result getStatistics(Statistics& figures) const
    {
        return Result(CFifoBuffer_GetStatistics(&fifo, &figures.currentSize, &figures.elementSize,
                                                &figures.capacity));
    }

private:
    // The report of a failed wait may have changed errno. What sem_wait(3) can fail with beside
    // EINTR is EINVAL, so that is what stops; another number was left by the trace framework.
    template <typename Call, typename Condition>
    static Result throughSignals(Call call, Condition& goOn)
    {
        while (true) {
            const Result result = call();
            if (result != GCL_SEMAPHORE_FAILED || errno == EINVAL || !goOn()) {
                return result;
            }
        }
    }

    CFifoBuffer fifo = {}; // not initialised
};

} // namespace gcl

#endif // GCL_CXX_FIFOBUFFER_H
