// The C++ layer on one page: every class of Framework/GCL/cxx at its work, a small exchange of
// samples between a producer, a consumer and a peer.
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <system_error>
#include <thread>
#include <utility>

#include "Framework/GCL/TraceChannels.h"
#include "Framework/GCL/cxx/Error.h"
#include "Framework/GCL/cxx/FifoBuffer.h"
#include "Framework/GCL/cxx/HashTable.h"
#include "Framework/GCL/cxx/List.h"
#include "Framework/GCL/cxx/MemoryPool.h"
#include "Framework/GCL/cxx/SigpipeGuard.h"
#include "Framework/GCL/cxx/Stack.h"
#include "Framework/GCL/cxx/TcpSocket.h"

namespace {

struct Sample {
    uint32_t number;
    int32_t celsius;
};

void showList(int limit)
{
    // [items]
    gcl::List<int> temperatures;
    for (const int celsius : {21, -4, 35}) {
        gcl::throwIfFailed(temperatures.pushTail(celsius));
    }
    for (const int celsius : temperatures) {
        std::printf("%d C\n", celsius);
    }
    // [items end]

    // [search]
    int found = 0;
    if (temperatures.findAndRetrieveIf([limit](int celsius) { return celsius > limit; }, found)) {
        std::printf("%d C is above %d C\n", found, limit);
    }
    // [search end]

    const gcl::List<int> elsewhere = std::move(temperatures);
    std::printf("moved: %u items\n", elsewhere.currentSize());
}

void showHashTable()
{
    gcl::HashTable<int> limits(16);
    gcl::throwIfFailed(limits.set("amplifier", 80));
    int limit = 0;
    if (limits.get("amplifier", limit) == GCL_OK) {
        std::printf("amplifier: %d C\n", limit);
    }
    const std::error_code error = limits.get("fan", limit);
    std::printf("fan: %s\n", error.message().c_str());
    for (const int value : limits.toList()) {
        std::printf("a limit: %d C\n", value);
    }
}

void showStackAndPool()
{
    gcl::MemoryPool pool(sizeof(Sample), 2);
    gcl::Stack<void*> inUse(2);
    void* block = nullptr;
    while (!pool.malloc(sizeof(Sample), block).failed()) {
        gcl::throwIfFailed(inUse.push(block));
    }
    std::printf("%u blocks in use\n", inUse.getCurrentSize());
    while (!inUse.pop(block).failed()) {
        gcl::throwIfFailed(pool.free(block));
    }

    // [too-large]
    // 2^16 blocks of 2^16 bytes: the plain function computes in 32 bits.
    const gcl::Result result = pool.construct(0x10000, 0x10000);
    std::printf("too much: %s\n", result.message().c_str());
    // [too-large end]
}

std::atomic<int> interruptions{0};

// A consumer that waits although signals come in.
void showFifo()
{
    struct sigaction action {};
    action.sa_handler = [](int) { ++interruptions; }; // without SA_RESTART
    sigaction(SIGUSR1, &action, nullptr);

    gcl::FifoBuffer<Sample> fifo(4, eTaskingModeSemaphore);
    std::thread consumer([&fifo] {
        Sample sample{};
        // [signals]
        gcl::throwIfFailed(fifo.getThroughSignals(sample));
        // [signals end]
        std::printf("sample %u: %d C\n", sample.number, sample.celsius);
    });
    while (interruptions == 0) {
        pthread_kill(consumer.native_handle(), SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    gcl::throwIfFailed(fifo.put({1, -4}));
    consumer.join();
}

// The peer sends three bytes and goes.
void serve(gcl::TcpSocket& server, int32_t port)
{
    gcl::throwIfFailed(server.waitForConnection(port, 100));
    gcl::throwIfFailed(server.write("abc", 3));
    gcl::throwIfFailed(server.close());
}

void connectTo(gcl::TcpSocket& client, int32_t port)
{
    for (int attempt = 0; client.create("127.0.0.1", port, 100).failed(); ++attempt) {
        if (attempt == 100) {
            gcl::throwIfFailed(GCL_CONNECT_FAILED);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

void showSocket(int32_t port)
{
    gcl::TcpSocket server;
    std::thread peer([&] { serve(server, port); });
    gcl::TcpSocket client;
    connectTo(client, port);
    gcl::throwIfFailed(client.setTimeout(5));

    char text[10] = {};
    size_t received = 0;
    // [fully]
    const gcl::Result result = client.readFully(text, sizeof text, received);
    if (result == GCL_PEER_CLOSED) {
        std::printf("the connection ended after \"%s\"\n", text);
    }
    // [fully end]
    peer.join();

    {
        // [guard]
        const gcl::SigpipeGuard guard;
        gcl::Result written = GCL_OK;
        while (!written.failed()) {
            written = client.write("x", 1);
        }
        // [guard end]
        std::printf("nobody reads: %s\n", written.message().c_str());
    }
}

void showErrors()
{
    // [error]
    const std::error_code error = gcl::Stack<int>().push(1);
    if (error == gcl::Severity::Error && error == GCL_STACK_FULL) {
        std::printf("%s %#x: %s\n", error.category().name(), static_cast<unsigned>(error.value()),
                    error.message().c_str());
    }
    // [error end]
    try {
        const gcl::FifoBuffer<Sample> fifo(0, eTaskingModeNone);
    } catch (const std::system_error& failure) {
        std::printf("no FIFO: %s\n", failure.what());
    }
}

} // namespace

int main()
{
    GCL_trace.threshold = 0; // what fails here is told by the results
    try {
        showList(30);
        showHashTable();
        showStackAndPool();
        showFifo();
        showSocket(20000 + getpid() % 10000); // a port that no other run uses
        showErrors();
    } catch (const std::exception& failure) {
        std::printf("failed: %s\n", failure.what());
        return 1;
    }
    return 0;
}
