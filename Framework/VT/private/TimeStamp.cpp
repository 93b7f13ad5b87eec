#include "Framework/VT/private/TimeStamp.h"

#include <cstdio>
#include <ctime>

namespace {

static_assert(sizeof(time_t) == 8, "this file needs a 64-bit time_t: _TIME_BITS=64");

} // namespace

namespace vt {

void formatTimeStamp(char* text, size_t size)
{
    timespec now{};
    // Neither call can fail: the clock exists, and its years fit into an int.
    static_cast<void>(clock_gettime(CLOCK_REALTIME, &now));
    tm utc{};
    static_cast<void>(gmtime_r(&now.tv_sec, &utc));
    static_cast<void>(snprintf(text, size, "%04d-%02d-%02dT%02d:%02d:%02d.%06ldZ",
                               utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday, utc.tm_hour,
                               utc.tm_min, utc.tm_sec, static_cast<long>(now.tv_nsec / 1000)));
}

int64_t monotonicMs()
{
    timespec now{};
    static_cast<void>(clock_gettime(CLOCK_MONOTONIC, &now));
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

} // namespace vt
