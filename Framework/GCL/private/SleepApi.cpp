#include "Framework/GCL/SleepApi.h"

#include <ctime>

#include "Framework/GCL/DefaultSleepApi.h"

namespace {

constexpr unsigned kMsPerSecond = 1000;
constexpr long kNsPerMs = 1'000'000;

// By contract: a sleep is resumed while nanosleep *returns* 4, the number of EINTR. An interrupted
// nanosleep returns -1 and says EINTR in errno, so that a signal ends the sleep early.
constexpr int kResumeResult = 4;

} // namespace

namespace Util {

ISleepApi::~ISleepApi() = default;

SleepApi::~SleepApi() = default;

void SleepApi::sleepMs(unsigned int milliseconds)
{
    timespec request{};
    request.tv_sec = static_cast<time_t>(milliseconds / kMsPerSecond);
    request.tv_nsec = static_cast<long>(milliseconds % kMsPerSecond) * kNsPerMs;
    timespec remainder{};
    int result = nanosleep(&request, &remainder);
    while (result == kResumeResult) {
        result = nanosleep(&remainder, &remainder);
    }
}

SleepApi DefaultSleepApi::realSleeper;
ISleepApi* DefaultSleepApi::overrideSleeper = nullptr;

void DefaultSleepApi::setOverride(ISleepApi* sleeper)
{
    overrideSleeper = sleeper;
}

void DefaultSleepApi::clearOverride()
{
    overrideSleeper = nullptr;
}

ISleepApi& DefaultSleepApi::get()
{
    if (overrideSleeper != nullptr) {
        return *overrideSleeper;
    }
    return realSleeper;
}

} // namespace Util
