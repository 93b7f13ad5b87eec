// The sleep service: code that waits asks for the process's sleeper, so that others can decide what
// waiting means.
#include <cstdio>
#include <cstdlib>

#include "Framework/GCL/DefaultSleepApi.h"
#include "Framework/GCL/ISleepApi.h"

namespace {

// [sleep]
// Waits until the amplifier is warm, looking every 50 ms; false if that takes too long.
template <typename IsWarm>
bool waitUntilWarm(IsWarm isWarm)
{
    for (int i = 0; i < 100; ++i) {
        if (isWarm()) {
            return true;
        }
        Util::DefaultSleepApi::get().sleepMs(50);
    }
    return false;
}
// [sleep end]

// [override]
// A sleeper of this program's own: it tells what it does, and takes a tenth of the time.
class HastySleeper final : public Util::ISleepApi {
public:
    void sleepMs(unsigned int milliseconds) override
    {
        std::printf("asked to sleep %u ms\n", milliseconds);
        real.sleepMs(milliseconds / 10);
    }

private:
    Util::SleepApi real;
};
// [override end]

} // namespace

int main()
{
    int looks = 0;
    const auto warmAtTheThirdLook = [&looks] { return ++looks == 3; };

    HastySleeper sleeper;
    Util::DefaultSleepApi::setOverride(&sleeper); // before the threads that sleep are started
    const bool warm = waitUntilWarm(warmAtTheThirdLook);
    Util::DefaultSleepApi::clearOverride(); // before the sleeper goes
    if (!warm) {
        return EXIT_FAILURE;
    }

    looks = 0;
    if (!waitUntilWarm(warmAtTheThirdLook)) { // with the real sleeper again: 100 ms
        return EXIT_FAILURE;
    }
    std::printf("warm at look %d\n", looks);
    return EXIT_SUCCESS;
}
