// How a process with timers, threads and a FIFO ends when it is told to, by SIGTERM or SIGINT.
#include <pthread.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <thread>

#include "Framework/GCL/CFifoBuffer.h"
#include "Framework/GCL/CTimer.h"
#include "Framework/GCL/ResultCodes.h"

namespace {

constexpr int kEnd = -1;

// Takes samples until the one that means the end.
void consume(CFifoBuffer& samples, int& received)
{
    int sample = 0;
    while (CFifoBuffer_Get(&samples, &sample) == GCL_OK && sample != kEnd) {
        ++received;
    }
}

} // namespace

int main()
{
    // [signals]
    // Blocked before any thread starts, in all of them: none is interrupted, and the signals wait
    // until this thread asks for them.
    sigset_t endings;
    sigemptyset(&endings);
    sigaddset(&endings, SIGTERM);
    sigaddset(&endings, SIGINT);
    if (pthread_sigmask(SIG_BLOCK, &endings, nullptr) != 0) {
        return EXIT_FAILURE;
    }
    // [signals end]

    CFifoBuffer samples{};
    CFifoBuffer_Construct(&samples, sizeof(int), 8, eTaskingModeSemaphore);
    int received = 0;
    std::thread consumer([&] { consume(samples, received); });

    int taken = 0;
    const auto sample = [&](void*) {
        if (CFifoBuffer_Put(&samples, &taken) == GCL_OK && ++taken == 3) {
            kill(getpid(), SIGTERM); // whoever ends the process; here it does so itself
        }
    };
    auto sampling = std::make_unique<CTimer>(sample, nullptr, "sampling", CTimer::Cyclic);
    if (!sampling->start(std::chrono::milliseconds(10))) {
        std::fprintf(stderr, "the timer could not be started\n");
        kill(getpid(), SIGTERM);
    }

    // [end]
    int signalNumber = 0;
    sigwait(&endings, &signalNumber);
    // From the source to the sink: who produces goes first.
    sampling.reset(); // waits for a callback that is running
    const int end = kEnd;
    if (CFifoBuffer_Put(&samples, &end) != GCL_OK) {
        std::abort(); // the consumer would never end
    }
    consumer.join();
    CFifoBuffer_Destruct(&samples); // nobody uses it any more
    // [end end]

    std::printf("%s\n", received == taken ? "ended, no sample lost" : "samples were lost");
    return taken >= 3 && received == taken ? EXIT_SUCCESS : EXIT_FAILURE;
}
