// SimulatedSleeper: a sleeper for tests, which moves a clock of its own forward instead of
// sleeping. Code that waits hours with Util::DefaultSleepApi::get() is tested in an instant:
//
//     Util::SimulatedSleeper sleeper;
//     {
//         Util::SimulatedSleeper::Installation installed(sleeper);
//         retryWithBackOff();
//     }
//     // sleeper.sleeps() is {100, 200, 400}, sleeper.elapsed() 700 ms
//
// It is all in this header and no part of the library. Its operations may be called by any thread
// at any time; the sleeps of several threads add up on the one clock.
#ifndef GCL_SIMULATEDSLEEPER_H
#define GCL_SIMULATEDSLEEPER_H

#include <chrono>
#include <mutex>
#include <vector>

#include "Framework/GCL/DefaultSleepApi.h"
#include "Framework/GCL/ISleepApi.h"

namespace Util {

class SimulatedSleeper : public ISleepApi {
public:
    // Makes a sleeper the process's sleeper from its construction to its destruction, after which
    // the real one is in place again: installations do not nest. Like the override that it sets, it
    // is built before the threads that sleep start and destroyed after they have ended.
    class Installation {
    public:
        // `sleeper` stays the caller's and must outlive the installation.
        explicit Installation(SimulatedSleeper& sleeper) { DefaultSleepApi::setOverride(&sleeper); }

        // Makes the real sleeper the process's sleeper again.
        ~Installation() { DefaultSleepApi::clearOverride(); }

        // Each installation is ended once.
        Installation(const Installation&) = delete;
        Installation& operator=(const Installation&) = delete;
    };

    // The clock starts at zero and no sleep is recorded.
    SimulatedSleeper() : clock(0) {}

    // There is one clock; whoever looks at it refers to its sleeper.
    SimulatedSleeper(const SimulatedSleeper&) = delete;
    SimulatedSleeper& operator=(const SimulatedSleeper&) = delete;

    // sleepMs returns at once; it records the sleep and moves the clock forward by it.
    void sleepMs(unsigned int milliseconds) override
    {
        const std::lock_guard<std::mutex> lock(mutex);
        recorded.push_back(milliseconds);
        clock += std::chrono::milliseconds(milliseconds);
    }

    // advance moves the clock without a sleep: time that passes while the code under test works.
    void advance(std::chrono::milliseconds duration)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        clock += duration;
    }

    // elapsed is the time on the clock: all sleeps and advances since construction or reset.
    std::chrono::milliseconds elapsed() const
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return clock;
    }

    // sleeps returns the recorded sleeps in milliseconds, oldest first.
    std::vector<unsigned int> sleeps() const
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return recorded;
    }

    // reset forgets the sleeps and sets the clock back to zero.
    void reset()
    {
        const std::lock_guard<std::mutex> lock(mutex);
        recorded.clear();
        clock = std::chrono::milliseconds(0);
    }

private:
    mutable std::mutex mutex; // guards the two below
    std::chrono::milliseconds clock;
    std::vector<unsigned int> recorded;
};

} // namespace Util

#endif // GCL_SIMULATEDSLEEPER_H
