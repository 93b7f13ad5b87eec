#include "examples/unitmonitor/Monitor.h"

#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Framework/GCL/CFifoBuffer.h"
#include "Framework/GCL/CTimer.h"
#include "Framework/GCL/ResultCodes.h"
#include "examples/unitmonitor/Console.h"
#include "examples/unitmonitor/Link.h"
#include "examples/unitmonitor/SamplePool.h"
#include "examples/unitmonitor/Sampler.h"
#include "examples/unitmonitor/Store.h"

namespace unitmonitor {
namespace {

constexpr uint32_t kBlocks = 32;     // samples on their way at a time
constexpr uint32_t kQueued = 16;     // of them, in the hand-over
constexpr uint32_t kLastSamples = 8; // that the store keeps
constexpr std::chrono::seconds kAskLimit{20};

// The hand-over from the timer's thread to the consumer's: addresses of samples.
class HandOver {
public:
    HandOver() { CFifoBuffer_Construct(&fifo, sizeof(void*), kQueued, eTaskingModeSemaphore); }
    ~HandOver() { CFifoBuffer_Destruct(&fifo); }
    HandOver(const HandOver&) = delete;
    HandOver& operator=(const HandOver&) = delete;

    CFifoBuffer fifo{};
};

// Lets one thread wait until another one says so.
class Gate {
public:
    void open()
    {
        const std::lock_guard<std::mutex> lock(mutex);
        isOpen = true;
        changed.notify_all();
    }
    void wait()
    {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [this] { return isOpen; });
    }

private:
    std::mutex mutex;
    std::condition_variable changed;
    bool isOpen = false;
};

// Takes samples out of the hand-over until a NULL comes.
void consume(HandOver& handOver, SamplePool& pool, Store& store, Link& link)
{
    for (;;) {
        Sample* sample = nullptr;
        if (CFifoBuffer_Get(&handOver.fifo, &sample) != GCL_OK) {
            continue; // interrupted by a signal
        }
        if (sample == nullptr) {
            return;
        }
        store.add(*sample);
        static_cast<void>(link.exchange(*sample));
        pool.giveBack(sample);
    }
}

} // namespace

bool runMonitor(const MonitorOptions& options)
{
    SamplePool pool(kBlocks);
    HandOver handOver;
    Store store(kLastSamples);
    Link link;
    const int consolePort = options.consolePort != 0 ? options.consolePort : freePort();
    Console console(consolePort, store, pool);
    Sampler sampler(pool, handOver.fifo);
    std::thread consumer([&] { consume(handOver, pool, store, link); });

    // A callback that throws is traced, and its timer goes on.
    uint32_t rounds = 0;
    const auto round = [&](void*) {
        sampler.sample();
        if (++rounds == 2) {
            throw std::runtime_error("thrown on purpose in round 2");
        }
    };
    auto sampling = std::make_unique<CTimer>(round, nullptr, "sampling", CTimer::Cyclic);
    Gate end;
    CTimer ending([&end](void*) { end.open(); }, nullptr, "ending", CTimer::NonCyclic);

    std::printf("sampling every %lld ms for %lld ms; ask with: nc 127.0.0.1 %d\n",
                static_cast<long long>(options.period.count()),
                static_cast<long long>(options.duration.count()), consolePort);
    std::fflush(stdout);
    if (!sampling->start(options.period) || !ending.start(options.duration)) {
        std::fprintf(stderr, "unit-monitor: a timer could not be started\n");
    } else {
        end.wait();
    }
    // stop() does not wait for a callback that is running; the end of the timer does.
    sampling.reset();
    Sample* last = nullptr;
    while (CFifoBuffer_Put(&handOver.fifo, &last) != GCL_OK) {
        // interrupted by a signal
    }
    consumer.join();

    std::printf("%u rounds of samples; the peer node echoed %u samples\n", rounds,
                link.exchanged());
    const std::vector<std::string> commands = {"stats", "get memory.available.kB", "last"};
    std::vector<std::string> answers;
    if (console.hasFailed()) {
        // Somebody else may listen there: that one is not asked.
        std::fprintf(stderr, "unit-monitor: the console could not serve port %d\n", consolePort);
    } else {
        answers = console.askLast(commands, kAskLimit);
    }
    for (size_t i = 0; i < answers.size(); ++i) {
        std::printf("console> %s\n%s", commands[i].c_str(), answers[i].c_str());
    }
    std::printf("%u of %u blocks are free again\n", pool.free(), kBlocks);
    return rounds > 2 && link.exchanged() > 0 && answers.size() == commands.size() &&
           pool.free() == kBlocks;
}

} // namespace unitmonitor
