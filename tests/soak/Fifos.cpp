// Producers and consumers on FIFOs of all tasking modes.
#include <errno.h>
#include <pthread.h>
#include <signal.h>

#include <array>
#include <deque>
#include <mutex>

#include "Framework/GCL/CFifoBuffer.h"
#include "Framework/GCL/ResultCodes.h"
#include "tests/soak/Soak.h"

namespace soak {
namespace {

constexpr unsigned kProducers = 3;

Count interrupted{0};
Count foundEmpty{0};

struct Element {
    uint64_t producer;
    uint64_t number;
    uint64_t check;
};

constexpr uint64_t kLast = ~uint64_t{0}; // of a producer: sends a consumer home

Element elementOf(uint64_t producer, uint64_t number)
{
    return {producer, number, mixed(producer, number)};
}

size_t indexOf(const Element& element)
{
    return static_cast<size_t>(element.producer % kProducers);
}

// A FIFO, and the counts of what went in and came out.
class FifoLoad : public Load {
public:
    FifoLoad(const char* loadName, uint32_t slots, ETaskingMode mode,
             uint32_t bytes = sizeof(Element))
        : Load(Kind::elements, loadName), capacity(slots), elementSize(bytes)
    {
        CFifoBuffer_Construct(&fifo, elementSize, capacity, mode);
    }
    ~FifoLoad() override { CFifoBuffer_Destruct(&fifo); }

    void account(Table& table) const override
    {
        table.same(name + ": put, taken", putCount, takenCount + dropped);
        table.same(name + ": checksum of both", putSum & 0xFFFFFFFF,
                   (takenSum + droppedSum) & 0xFFFFFFFF);
    }

protected:
    Element next(unsigned producer) { return elementOf(producer, ++lastPut[producer]); }

    void notePut(const Element& element)
    {
        ++putCount;
        putSum += element.check;
        ++steps;
    }

    void noteTaken(const Element& element)
    {
        if (element.producer >= kProducers ||
            element.check != mixed(element.producer, element.number)) {
            complain("%s: an element that nobody has put", name.c_str());
        }
        ++takenCount;
        takenSum += element.check;
    }

    uint32_t held() const
    {
        uint32_t size = 0;
        uint32_t bytes = 0;
        uint32_t slots = 0;
        if (CFifoBuffer_GetStatistics(&fifo, &size, &bytes, &slots) != GCL_OK ||
            bytes != elementSize || slots != capacity) {
            complain("%s: wrong statistics", name.c_str());
        }
        return size;
    }

    void expectHeld(uint32_t expected) const
    {
        if (held() != expected || (CFifoBuffer_IsEmpty(&fifo) == 1) != (expected == 0)) {
            complain("%s: holds %u elements instead of %u", name.c_str(), held(), expected);
        }
    }

    CFifoBuffer fifo{};
    const uint32_t capacity;
    const uint32_t elementSize;
    std::array<Count, kProducers> lastPut{};
    Count putCount{0};
    Count putSum{0};
    Count takenCount{0};
    Count takenSum{0};
    Count dropped{0};
    Count droppedSum{0};
};

// --- Mode 0: blocking hand-over
// --------------------------------------------------------------------

class HandOverLoad : public FifoLoad {
public:
    // With large elements the copies take long: then many threads wait for the copy lock, and get
    // signals of their own to be interrupted there.
    HandOverLoad(const char* loadName, uint32_t slots, bool largeElements)
        : FifoLoad(loadName, slots, eTaskingModeSemaphore,
                   largeElements ? sizeof(Large) : sizeof(Element)),
          isLarge(largeElements)
    {
    }

protected:
    void beginRound() override
    {
        for (; left > 0; --left) {
            Element element{};
            take(element);
            noteTaken(element);
        }
        working = kProducers;
        places = 0;
        known = 0;
        for (unsigned producer = 0; producer < kProducers; ++producer) {
            employ([this, producer](Random& random) { produce(producer, random); });
        }
        for (unsigned i = 0; i < kConsumers; ++i) {
            employ([this](Random& random) { consume(random); });
        }
        if (isLarge) {
            employ([this](Random& random) { disturb(random); });
        }
    }

    // What stays in the ring between two rounds must be counted by the semaphores.
    void endRound() override
    {
        expectPermits(0);
        Random random(round.seed);
        left = random.below(capacity + 1);
        leftSum = 0;
        for (uint32_t i = 0; i < left; ++i) {
            const Element element = next(0);
            put(element);
            notePut(element);
            leftSum += element.check;
        }
        expectPermits(left);
    }

public:
    void account(Table& table) const override
    {
        table.same(name + ": put, taken or still held", putCount, takenCount + left);
        table.same(name + ": checksum of both", putSum & 0xFFFFFFFF,
                   (takenSum + leftSum) & 0xFFFFFFFF);
    }

private:
    static constexpr unsigned kConsumers = 3;

    // An element with its checksum at both ends.
    struct Large {
        Element element;
        std::array<unsigned char, 128 * 1024> between;
        uint64_t check;
    };

    // Signals to the threads of this load, which are joined when it has ended.
    void introduce()
    {
        threads[places++] = pthread_self();
        ++known;
    }
    void disturb(Random& random)
    {
        while (!over) {
            const unsigned count = known;
            if (count == threads.size()) {
                pthread_kill(threads[random.below(count)], SIGUSR1);
            }
            pauseUs(50);
        }
    }

    void produce(unsigned producer, Random& random)
    {
        introduce();
        while (!over) {
            const Element element = next(producer);
            put(element);
            notePut(element);
            if (random.oneIn(isLarge ? 4 : 64)) {
                pauseUs(random.below(2000));
            }
        }
        if (--working == 0) {
            for (unsigned i = 0; i < kConsumers; ++i) {
                put({kLast, 0, 0});
            }
        }
    }

    void consume(Random& random)
    {
        introduce();
        std::array<uint64_t, kProducers> lastTaken{};
        for (;;) {
            Element element{};
            take(element);
            if (element.producer == kLast) {
                return;
            }
            noteTaken(element);
            uint64_t& last = lastTaken[indexOf(element)];
            if (element.number <= last) {
                complain("%s: element %llu of a producer after %llu", name.c_str(),
                         static_cast<unsigned long long>(element.number),
                         static_cast<unsigned long long>(last));
            }
            last = element.number;
            if (held() > capacity) {
                complain("%s: holds more than it can", name.c_str());
            }
            if (random.oneIn(isLarge ? 4 : 64)) {
                pauseUs(random.below(2000));
            }
        }
    }

    template <typename Call>
    void repeat(Call call)
    {
        for (;;) {
            errno = 0;
            const uint32_t code = call();
            if (code == GCL_OK) {
                return;
            }
            if (code != GCL_SEMAPHORE_FAILED || errno != EINTR || round.restarting) {
                complain("%s: code %#x, errno %d", name.c_str(), code, errno);
                pauseUs(10000);
            }
            ++interrupted;
        }
    }
    void put(const Element& element)
    {
        if (!isLarge) {
            repeat([&] { return CFifoBuffer_Put(&fifo, &element); });
            return;
        }
        Large large;
        large.element = element;
        large.check = element.check;
        repeat([&] { return CFifoBuffer_Put(&fifo, &large); });
    }
    void take(Element& element)
    {
        if (!isLarge) {
            repeat([&] { return CFifoBuffer_Get(&fifo, &element); });
            return;
        }
        Large large;
        repeat([&] { return CFifoBuffer_Get(&fifo, &large); });
        element = large.element;
        if (large.check != element.check) {
            complain("%s: an element with the end of another one", name.c_str());
        }
    }

    void expectPermits(uint32_t elements)
    {
        expectHeld(elements);
        int filled = -1;
        int free = -1;
        int lock = -1;
        sem_getvalue(&fifo.getSemaphore, &filled);
        sem_getvalue(&fifo.putSemaphore, &free);
        sem_getvalue(&fifo.cpyMutex, &lock);
        if (filled != static_cast<int>(elements) || free != static_cast<int>(capacity - elements) ||
            lock != 1) {
            complain("%s: %u of %u places are used, but the semaphores say %d used, %d free, "
                     "lock %d",
                     name.c_str(), elements, capacity, filled, free, lock);
        }
    }

    const bool isLarge;
    std::array<std::atomic<pthread_t>, kProducers + kConsumers> threads{};
    std::atomic<unsigned> places{0}; // in `threads` that are taken
    std::atomic<unsigned> known{0};  // that are filled
    uint32_t left = 0;               // elements in the ring between two rounds
    uint64_t leftSum = 0;
    std::atomic<unsigned> working{0};
};

// --- Mode 2: any number of writers, one reader, the newest elements
// --------------------------------

class NewestLoad : public FifoLoad {
public:
    // `mayDrop`: the writers do not care whether there is room.
    NewestLoad(const char* loadName, uint32_t slots, bool writersMayDrop)
        : FifoLoad(loadName, slots, eTaskingModeMutex), mayDrop(writersMayDrop)
    {
    }

    void account(Table& table) const override
    {
        FifoLoad::account(table);
        if (mayDrop) {
            table.note(name + ": of these dropped", dropped);
        } else {
            table.same(name + ": dropped", dropped, 0);
        }
    }

protected:
    void beginRound() override
    {
        working = kProducers;
        writing = kProducers;
        for (unsigned producer = 0; producer < kProducers; ++producer) {
            employ([this, producer](Random& random) { write(producer, random); });
        }
        employ([this](Random& random) { read(random); });
    }

    void endRound() override { expectHeld(0); }

private:
    void write(unsigned producer, Random& random)
    {
        while (!over) {
            put(producer);
            if (random.oneIn(32)) {
                pauseUs(random.below(2000));
            }
        }
        // The last elements of all writers: the ring has room for them, so that none is dropped.
        --working;
        while (working != 0) {
            pauseUs(100);
        }
        put(producer);
        --writing;
    }

    void put(unsigned producer)
    {
        while (!mayDrop && !takePlace()) {
            pauseUs(100);
        }
        const Element element = next(producer);
        if (CFifoBuffer_Put(&fifo, &element) != GCL_OK) {
            complain("%s: a put failed", name.c_str());
        }
        notePut(element);
    }

    void read(Random& random)
    {
        bool wereWriting = true;
        drained = {};
        do {
            wereWriting = writing != 0;
            while (CFifoBuffer_IsEmpty(&fifo) == 0) {
                readOne(wereWriting);
                if (random.oneIn(mayDrop ? 4 : 64)) {
                    pauseUs(random.below(1000));
                }
            }
            pauseUs(100);
        } while (wereWriting);
        for (unsigned producer = 0; producer < kProducers; ++producer) {
            if (lastRead[producer] != lastPut[producer]) {
                complain("%s: the newest element of a writer is lost", name.c_str());
            }
        }
    }

    void readOne(bool wereWriting)
    {
        Element element{};
        if (CFifoBuffer_Get(&fifo, &element) != GCL_OK) {
            complain("%s: a get failed", name.c_str());
            return;
        }
        noteTaken(element);
        --used;
        uint64_t& last = lastRead[indexOf(element)];
        bool& ended = drained[indexOf(element)];
        if (element.number <= last || (ended && element.number != last + 1)) {
            complain("%s: element %llu of a writer after %llu", name.c_str(),
                     static_cast<unsigned long long>(element.number),
                     static_cast<unsigned long long>(last));
        }
        ended = !wereWriting;
        for (uint64_t number = last + 1; number < element.number; ++number) {
            ++dropped;
            droppedSum += mixed(element.producer, number);
        }
        last = element.number;
    }

    // A place in the ring that this writer will fill.
    bool takePlace()
    {
        if (++used <= capacity) {
            return true;
        }
        --used;
        return false;
    }

    const bool mayDrop;
    std::array<uint64_t, kProducers> lastRead{};
    // Of which writers an element was read after all had ended: from then on nothing is dropped.
    std::array<bool, kProducers> drained{};
    std::atomic<uint32_t> used{0};
    std::atomic<unsigned> working{0};
    std::atomic<unsigned> writing{0}; // the last elements included
};

// --- Mode 1: one thread, or the caller's lock
// ------------------------------------------------------

class UnprotectedLoad : public FifoLoad {
public:
    UnprotectedLoad(const char* loadName, uint32_t slots, unsigned threadCount)
        : FifoLoad(loadName, slots, eTaskingModeNone), threads(threadCount)
    {
    }

protected:
    void beginRound() override
    {
        for (unsigned i = 0; i < threads; ++i) {
            employ([this](Random& random) {
                while (!over) {
                    step(random);
                    if (random.oneIn(64)) {
                        pauseUs(random.below(2000));
                    }
                }
            });
        }
    }

    void endRound() override
    {
        while (!model.empty()) {
            take();
        }
        expectHeld(0);
        model.shrink_to_fit();
    }

private:
    void step(Random& random)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (random.oneIn(2)) {
            put();
        } else if (!model.empty() || random.oneIn(16)) {
            take();
        }
        expectHeld(static_cast<uint32_t>(model.size()));
    }

    void put()
    {
        const Element element = next(0);
        const uint32_t code = CFifoBuffer_Put(&fifo, &element);
        if (code != (model.size() < capacity ? GCL_OK : GCL_FIFO_FULL)) {
            complain("%s: put gives %#x with %zu elements", name.c_str(), code, model.size());
        }
        if (code == GCL_OK) {
            model.push_back(element.number);
            notePut(element);
        }
    }

    void take()
    {
        Element element{};
        const uint32_t code = CFifoBuffer_Get(&fifo, &element);
        if (code != (model.empty() ? GCL_FIFO_EMPTY : GCL_OK)) {
            complain("%s: get gives %#x with %zu elements", name.c_str(), code, model.size());
        }
        if (code == GCL_FIFO_EMPTY) {
            ++foundEmpty;
        } else if (code == GCL_OK) {
            noteTaken(element);
            if (model.empty() || element.number != model.front()) {
                complain("%s: a wrong element", name.c_str());
            }
            model.pop_front();
        }
    }

    const unsigned threads;
    std::mutex mutex;
    std::deque<uint64_t> model;
};

} // namespace

void addFifos(Loads& loads, Expectations& expectations)
{
    expectations.expect("KIV.GCL", "sem_wait failed waiting for cpyMutex", &interrupted,
                        "sem_wait failed waiting for ");
    expectations.expect("KIV.GCL", "Fifo buffer empty", &foundEmpty);
    loads.push_back(std::make_unique<HandOverLoad>("FIFO mode 0, 1 place", 1, false));
    loads.push_back(std::make_unique<HandOverLoad>("FIFO mode 0, 7 places", 7, false));
    loads.push_back(std::make_unique<HandOverLoad>("FIFO mode 0, 64 places", 64, false));
    loads.push_back(std::make_unique<HandOverLoad>("FIFO mode 0, large elements", 12, true));
    loads.push_back(std::make_unique<UnprotectedLoad>("FIFO mode 1, one thread", 5, 1));
    loads.push_back(std::make_unique<UnprotectedLoad>("FIFO mode 1, under a lock", 16, 3));
    loads.push_back(std::make_unique<NewestLoad>("FIFO mode 2, room for all", 64, false));
    loads.push_back(std::make_unique<NewestLoad>("FIFO mode 2, the newest", 16, true));
}

} // namespace soak
