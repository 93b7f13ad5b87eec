// No <thread>, <condition_variable> or <chrono> here: this file is compiled with another time_t
// than the rest of the library, and inline functions of theirs must not be mixed.
#include "Framework/GCL/private/Clock.h"

#include <cerrno>
#include <ctime>

namespace {

static_assert(sizeof(time_t) == 8, "this file needs a 64-bit time_t: _TIME_BITS=64");

constexpr int64_t kNsPerSecond = 1'000'000'000;

} // namespace

namespace gcl {

int64_t wallClockNs()
{
    timespec now{};
    // It cannot fail: the clock exists and the address is valid.
    static_cast<void>(clock_gettime(CLOCK_REALTIME, &now));
    return now.tv_sec * kNsPerSecond + now.tv_nsec;
}

void waitUntilNs(pthread_cond_t* condition, pthread_mutex_t* mutex, int64_t dueNs)
{
    timespec due{};
    due.tv_sec = dueNs / kNsPerSecond;
    due.tv_nsec = static_cast<decltype(due.tv_nsec)>(dueNs % kNsPerSecond);
    // Time-out, wake-up and refusal of a time before the epoch are all the same to the callers,
    // who look at the clock and at their state anyway. An old kernel on a 32-bit processor refuses
    // times that do not fit into 32 bits; until 2038 the wait is as long as it can be then. After
    // that such a kernel has no wait that lasts: this returns at once, and callers who wait on
    // spin.
    if (pthread_cond_timedwait(condition, mutex, &due) == EOVERFLOW) {
        due.tv_sec = INT32_MAX;
        due.tv_nsec = 0;
        static_cast<void>(pthread_cond_timedwait(condition, mutex, &due));
    }
}

} // namespace gcl
