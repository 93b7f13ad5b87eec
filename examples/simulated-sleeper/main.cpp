// How code that sleeps is tested without waiting: it takes its sleeper from DefaultSleepApi, and
// the test installs a SimulatedSleeper.
#include <chrono>
#include <cstdio>

#include "Framework/GCL/DefaultSleepApi.h"
#include "Framework/GCL/SimulatedSleeper.h"

namespace {

// The code under test: tries again with twice the pause each time, 100 ms first.
template <typename Attempt>
bool retryWithBackOff(Attempt attempt, int attempts)
{
    unsigned pauseMs = 100;
    for (int i = 0; i < attempts; ++i) {
        if (attempt()) {
            return true;
        }
        Util::DefaultSleepApi::get().sleepMs(pauseMs);
        pauseMs *= 2;
    }
    return false;
}

} // namespace

int main()
{
    int calls = 0;
    const auto succeedsAtTheTwelfthCall = [&] { return ++calls == 12; };

    Util::SimulatedSleeper sleeper;
    bool succeeded = false;
    {
        const Util::SimulatedSleeper::Installation installed(sleeper);
        succeeded = retryWithBackOff(succeedsAtTheTwelfthCall, 20);
    }

    for (const unsigned pauseMs : sleeper.sleeps()) {
        std::printf("slept %u ms\n", pauseMs);
    }
    std::printf("%lld ms in all, none of them real\n",
                static_cast<long long>(sleeper.elapsed().count()));

    const bool right = succeeded && sleeper.sleeps().size() == 11 &&
                       sleeper.elapsed() == std::chrono::milliseconds(204700);
    return right ? 0 : 1;
}
