#include "Framework/VT/private/TimeStamp.h"

#include <ctime>

namespace {

static_assert(sizeof(time_t) == 8, "this file needs a 64-bit time_t: _TIME_BITS=64");

// Writes a number in so many digits, and what follows it; the place behind both.
char* put(char* to, long number, int digits, char next)
{
    for (int i = digits - 1; i >= 0; --i) {
        to[i] = static_cast<char>('0' + number % 10);
        number /= 10;
    }
    to[digits] = next;
    return to + digits + 1;
}

} // namespace

namespace vt {

// By hand: the C library's formatting would take longer than all the rest of a message.
size_t formatTimeStamp(char (&text)[kTimeStampSize])
{
    timespec now{};
    // Neither call can fail: the clock exists, and its years fit into an int.
    static_cast<void>(clock_gettime(CLOCK_REALTIME, &now));
    tm utc{};
    static_cast<void>(gmtime_r(&now.tv_sec, &utc));
    char* to = put(text, utc.tm_year + 1900, 4, '-'); // the clock ends in the year 2262
    to = put(to, utc.tm_mon + 1, 2, '-');
    to = put(to, utc.tm_mday, 2, 'T');
    to = put(to, utc.tm_hour, 2, ':');
    to = put(to, utc.tm_min, 2, ':');
    to = put(to, utc.tm_sec, 2, '.');
    to = put(to, static_cast<long>(now.tv_nsec / 1000), 6, 'Z');
    return static_cast<size_t>(to - text);
}

int64_t monotonicMs()
{
    timespec now{};
    static_cast<void>(clock_gettime(CLOCK_MONOTONIC, &now));
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

} // namespace vt
