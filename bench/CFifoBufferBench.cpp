// CFifoBuffer in its three modes, alone and between threads, beside its floor and the queues of
// GLib, ACE, APR and Boost.
#include "Framework/GCL/CFifoBuffer.h"

#include <ace/Message_Block.h>
#include <ace/Message_Queue_T.h>
#include <ace/Synch.h>
#include <apr_general.h>
#include <apr_queue.h>
#include <glib.h>

#include <boost/circular_buffer.hpp>
#include <boost/lockfree/queue.hpp>
#include <boost/thread/sync_bounded_queue.hpp>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "Framework/GCL/cxx/FifoBuffer.h"
#include "bench/floor/CFifoBufferFloor.h"
#include "bench/support/Bench.h"

constexpr std::size_t kCacheLine = 64;

// A copy's time depends on where in a cache line its ends lie; so the rings of all sides that ask
// for their memory here begin with one.
void* operator new[](std::size_t size)
{
    void* const memory = std::aligned_alloc(kCacheLine, (size + kCacheLine) & ~(kCacheLine - 1));
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

void operator delete[](void* memory) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory, std::size_t) noexcept
{
    std::free(memory);
}

namespace {

constexpr uint32_t kCapacity = 64;
constexpr uint32_t kLargest = 1024;
constexpr int kElementsOfThreads = 20000;
constexpr char kInlined[] = "inlined into its caller";
constexpr char kCxxLayer[] = "the C++ layer, which calls the same functions";

// The queues: each hands over one word of a pointer's width, or, where it copies elements, so many
// bytes that begin with that word.

class Ours {
public:
    Ours(ETaskingMode mode, uint32_t bytes) : fifo()
    {
        CFifoBuffer_Construct(&fifo, bytes, kCapacity, mode);
    }
    ~Ours() { CFifoBuffer_Destruct(&fifo); }
    Ours(const Ours&) = delete;
    Ours& operator=(const Ours&) = delete;

    void put(uintptr_t, const unsigned char* element) { CFifoBuffer_Put(&fifo, element); }
    void get(unsigned char* element) { CFifoBuffer_Get(&fifo, element); }

private:
    CFifoBuffer fifo;
};

template <uint32_t kBytes>
class Cxx {
public:
    explicit Cxx(ETaskingMode mode) : fifo(kCapacity, mode) {}

    void put(uintptr_t, const unsigned char* element)
    {
        static_cast<void>(fifo.put(*reinterpret_cast<const Element*>(element)));
    }
    void get(unsigned char* element)
    {
        static_cast<void>(fifo.get(*reinterpret_cast<Element*>(element)));
    }

private:
    struct Element {
        unsigned char bytes[kBytes];
    };
    gcl::FifoBuffer<Element> fifo;
};

template <uint32_t (*putFloor)(FloorFifo*, const void*), uint32_t (*getFloor)(FloorFifo*, void*)>
class Floor {
public:
    explicit Floor(uint32_t bytes) : fifo() { floorFifoConstruct(&fifo, bytes, kCapacity); }
    ~Floor() { floorFifoDestruct(&fifo); }
    Floor(const Floor&) = delete;
    Floor& operator=(const Floor&) = delete;

    void put(uintptr_t, const unsigned char* element) { putFloor(&fifo, element); }
    void get(unsigned char* element) { getFloor(&fifo, element); }

private:
    FloorFifo fifo;
};

using FloorWaiting = Floor<floorFifoPutWaiting, floorFifoGetWaiting>;
using FloorUnprotected = Floor<floorFifoPutUnprotected, floorFifoGetUnprotected>;
using FloorLocked = Floor<floorFifoPutLocked, floorFifoGetLocked>;

void giveWord(unsigned char* element, uintptr_t word)
{
    std::memcpy(element, &word, sizeof word);
}

class GlibQueue {
public:
    ~GlibQueue() { g_async_queue_unref(queue); }

    void put(uintptr_t word, const unsigned char*)
    {
        g_async_queue_push(queue, reinterpret_cast<void*>(word));
    }
    void get(unsigned char* element)
    {
        giveWord(element, reinterpret_cast<uintptr_t>(g_async_queue_pop(queue)));
    }

private:
    GAsyncQueue* queue = g_async_queue_new();
};

// One thread's: GLib's double-ended queue.
class GlibList {
public:
    ~GlibList() { g_queue_clear(&queue); }

    void put(uintptr_t word, const unsigned char*)
    {
        g_queue_push_tail(&queue, reinterpret_cast<void*>(word));
    }
    void get(unsigned char* element)
    {
        giveWord(element, reinterpret_cast<uintptr_t>(g_queue_pop_head(&queue)));
    }

private:
    GQueue queue = G_QUEUE_INIT;
};

// Its waits may end in vain when several threads are woken.
class AprQueue {
public:
    AprQueue()
    {
        apr_pool_create(&pool, nullptr);
        apr_queue_create(&queue, kCapacity, pool);
    }
    ~AprQueue() { apr_pool_destroy(pool); }
    AprQueue(const AprQueue&) = delete;
    AprQueue& operator=(const AprQueue&) = delete;

    void put(uintptr_t word, const unsigned char*)
    {
        while (apr_queue_push(queue, reinterpret_cast<void*>(word)) == APR_EINTR) {
        }
    }
    void get(unsigned char* element)
    {
        void* word = nullptr;
        while (apr_queue_pop(queue, &word) == APR_EINTR) {
        }
        giveWord(element, reinterpret_cast<uintptr_t>(word));
    }

private:
    apr_pool_t* pool = nullptr;
    apr_queue_t* queue = nullptr;
};

// A message block for each element, as its interface wants it; it holds up to 64 of them.
class AceQueue {
public:
    void put(uintptr_t word, const unsigned char*)
    {
        auto* const block = new ACE_Message_Block(sizeof word);
        block->copy(reinterpret_cast<const char*>(&word), sizeof word);
        queue.enqueue_tail(block);
    }
    void get(unsigned char* element)
    {
        ACE_Message_Block* block = nullptr;
        queue.dequeue_head(block);
        std::memcpy(element, block->rd_ptr(), sizeof(uintptr_t));
        block->release();
    }

private:
    ACE_Message_Queue<ACE_MT_SYNCH> queue{kCapacity * sizeof(uintptr_t),
                                          kCapacity * sizeof(uintptr_t)};
};

class BoostBounded {
public:
    void put(uintptr_t word, const unsigned char*) { queue.push_back(word); }
    void get(unsigned char* element) { giveWord(element, queue.pull_front()); }

private:
    boost::sync_bounded_queue<uintptr_t> queue{kCapacity};
};

// A full and an empty queue are waited for by yielding.
class BoostLockFree {
public:
    void put(uintptr_t word, const unsigned char*)
    {
        while (!queue.bounded_push(word)) {
            std::this_thread::yield();
        }
    }
    void get(unsigned char* element)
    {
        uintptr_t word = 0;
        while (!queue.pop(word)) {
            std::this_thread::yield();
        }
        giveWord(element, word);
    }

private:
    boost::lockfree::queue<uintptr_t> queue{kCapacity};
};

class BoostRing {
public:
    void put(uintptr_t word, const unsigned char*) { ring.push_back(word); }
    void get(unsigned char* element)
    {
        giveWord(element, ring.front());
        ring.pop_front();
    }

private:
    boost::circular_buffer<uintptr_t> ring{kCapacity};
};

class BoostRingWithMutex : public BoostRing {
public:
    void put(uintptr_t word, const unsigned char* element)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        BoostRing::put(word, element);
    }
    void get(unsigned char* element)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        BoostRing::get(element);
    }

private:
    std::mutex mutex;
};

// A round puts one element and gets it back, all on one thread, so that nothing blocks.
template <typename Queue>
void alone(benchmark::State& state, Queue& queue, uint32_t bytes)
{
    alignas(kCacheLine) unsigned char in[kLargest] = {};
    alignas(kCacheLine) unsigned char out[kLargest] = {};
    bench::require(state, bytes <= kLargest, "no such large element is measured");
    uintptr_t word = 0;
    bool lost = false;
    for (auto _ : state) {
        ++word;
        giveWord(in, word);
        queue.put(word, in);
        queue.get(out);
        uintptr_t got = 0;
        std::memcpy(&got, out, sizeof got);
        lost = lost || got != word;
    }
    bench::require(state, !lost, "an element was lost");
    bench::setOperations(state, 2);
}

template <typename Queue, typename... Arguments>
bench::Side aloneOn(uint32_t bytes, Arguments... arguments)
{
    return [=](benchmark::State& state) {
        Queue queue(arguments...);
        alone(state, queue, bytes);
    };
}

// Some producers hand elements to as many consumers; the time is that until the last has arrived.
template <typename Queue>
void between(benchmark::State& state, Queue& queue, int threads)
{
    const int share = kElementsOfThreads / threads;
    uintptr_t expected = 0;
    for (int i = 0; i < share; ++i) {
        expected += static_cast<uintptr_t>(i + 1) * static_cast<uintptr_t>(threads);
    }
    bool lost = false;
    for (auto _ : state) {
        std::vector<uintptr_t> sums(static_cast<size_t>(threads));
        std::vector<std::thread> running;
        state.SetIterationTime(bench::secondsOf([&] {
            for (int thread = 0; thread < threads; ++thread) {
                running.emplace_back([&] {
                    unsigned char element[sizeof(uintptr_t)];
                    for (int i = 0; i < share; ++i) {
                        const auto word = static_cast<uintptr_t>(i + 1);
                        giveWord(element, word);
                        queue.put(word, element);
                    }
                });
                running.emplace_back([&, thread] {
                    unsigned char element[sizeof(uintptr_t)];
                    uintptr_t sum = 0;
                    for (int i = 0; i < share; ++i) {
                        queue.get(element);
                        uintptr_t word = 0;
                        std::memcpy(&word, element, sizeof word);
                        sum += word;
                    }
                    sums[static_cast<size_t>(thread)] = sum;
                });
            }
            for (std::thread& thread : running) {
                thread.join();
            }
        }));
        uintptr_t sum = 0;
        for (const uintptr_t part : sums) {
            sum += part;
        }
        lost = lost || sum != expected;
    }
    bench::require(state, !lost, "an element was lost");
    bench::setOperations(state, static_cast<double>(share) * threads);
}

template <typename Queue, typename... Arguments>
bench::Side betweenOn(int threads, Arguments... arguments)
{
    return [=](benchmark::State& state) {
        Queue queue(arguments...);
        between(state, queue, threads);
    };
}

template <uint32_t kBytes>
void addAlone()
{
    bench::Case waiting("FIFO mode 0, Put or Get", {1.05, 0});
    waiting.at("bytes", kBytes)
        .ours(aloneOn<Ours>(kBytes, eTaskingModeSemaphore, kBytes))
        .floor(aloneOn<FloorWaiting>(kBytes, kBytes))
        .shown("gcl::FifoBuffer", kCxxLayer, aloneOn<Cxx<kBytes>>(kBytes, eTaskingModeSemaphore));
    bench::Case unprotected("FIFO mode 1, Put or Get", {1.05, 0});
    unprotected.at("bytes", kBytes)
        .ours(aloneOn<Ours>(kBytes, eTaskingModeNone, kBytes))
        .floor(aloneOn<FloorUnprotected>(kBytes, kBytes))
        .shown("gcl::FifoBuffer", kCxxLayer, aloneOn<Cxx<kBytes>>(kBytes, eTaskingModeNone));
    bench::Case locked("FIFO mode 2, Put or Get", {1.05, 1.1});
    locked.at("bytes", kBytes)
        .ours(aloneOn<Ours>(kBytes, eTaskingModeMutex, kBytes))
        .floor(aloneOn<FloorLocked>(kBytes, kBytes))
        .shown("gcl::FifoBuffer", kCxxLayer, aloneOn<Cxx<kBytes>>(kBytes, eTaskingModeMutex));
    if (kBytes > sizeof(uintptr_t)) {
        return; // the peers hand over pointers
    }
    waiting.peer("GAsyncQueue", 0.6, aloneOn<GlibQueue>(kBytes))
        .peer("ACE_Message_Queue", 0.3, aloneOn<AceQueue>(kBytes))
        .peer("apr_queue", 1.0, aloneOn<AprQueue>(kBytes))
        .shown("boost::sync_bounded_queue", kInlined, aloneOn<BoostBounded>(kBytes))
        .shown("boost::lockfree::queue", "lock-free, does not block",
               aloneOn<BoostLockFree>(kBytes));
    unprotected.shown("GQueue", "allocates, has no bound", aloneOn<GlibList>(kBytes))
        .shown("boost::circular_buffer", kInlined, aloneOn<BoostRing>(kBytes));
    locked.peer("mutex and ring", aloneOn<BoostRingWithMutex>(kBytes));
}

void addBetween()
{
    for (const int threads : {1, 2, 4}) {
        bench::Case("FIFO mode 0, between threads", {1.05, 0})
            .at("producers and consumers", threads)
            .manualTime()
            .rounds(1)
            .ours(betweenOn<Ours>(threads, eTaskingModeSemaphore, uint32_t{sizeof(uintptr_t)}))
            .floor(betweenOn<FloorWaiting>(threads, uint32_t{sizeof(uintptr_t)}))
            .shown("gcl::FifoBuffer", kCxxLayer,
                   betweenOn<Cxx<sizeof(uintptr_t)>>(threads, eTaskingModeSemaphore))
            .peer("ACE_Message_Queue", betweenOn<AceQueue>(threads))
            .peer("apr_queue", betweenOn<AprQueue>(threads))
            .shown("GAsyncQueue", "has no bound", betweenOn<GlibQueue>(threads))
            .shown("boost::sync_bounded_queue", kInlined, betweenOn<BoostBounded>(threads))
            .shown("boost::lockfree::queue", "lock-free, does not block",
                   betweenOn<BoostLockFree>(threads));
    }
}

} // namespace

void bench::addCases()
{
    // The C library spares a process of one thread some of the cost of locks.
    std::thread([] {}).join();
    apr_initialize();
    addAlone<8>();
    addAlone<64>();
    addAlone<256>();
    addAlone<1024>();
    addBetween();
}
