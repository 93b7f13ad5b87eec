#include "Framework/VT/private/TimeStamp.h"

#include <ctime>

namespace {

static_assert(sizeof(time_t) == 8, "this file needs a 64-bit time_t: _TIME_BITS=64");

// Writes a number in so many digits, and what follows it; the place behind both.
char* put(char* to, uint32_t number, int digits, char next)
{
    for (int i = digits - 1; i >= 0; --i) {
        to[i] = static_cast<char>('0' + number % 10);
        number /= 10;
    }
    to[digits] = next;
    return to + digits + 1;
}

// Writes the date of a day, counted from 1970-01-01, which the clock cannot be set before; it ends
// in the year 2262. The place behind what is written.
char* putDate(char* to, uint32_t day)
{
    constexpr uint32_t kDaysOfFourYears = 4 * 365 + 1;
    // 1 March of the years that have no leap day although they are multiples of four.
    constexpr uint32_t kMarch2100 = 47'541;
    constexpr uint32_t kMarch2200 = 84'065;
    // Counted from 1 March 1968, with a leap day at the end of every fourth year.
    day += 671 + (day >= kMarch2100 ? 1 : 0) + (day >= kMarch2200 ? 1 : 0);
    uint32_t year = 1968 + day / kDaysOfFourYears * 4;
    day %= kDaysOfFourYears;
    const uint32_t yearOfFour = day == kDaysOfFourYears - 1 ? 3 : day / 365;
    year += yearOfFour;
    day -= yearOfFour * 365;
    // The months from March on begin with the days 0, 31, 61, 92, 122, 153 and so on.
    uint32_t month = (5 * day + 2) / 153;
    day -= (153 * month + 2) / 5;
    month += 3;
    if (month > 12) {
        month -= 12;
        ++year;
    }
    to = put(to, year, 4, '-');
    to = put(to, month, 2, '-');
    return put(to, day + 1, 2, 'T');
}

} // namespace

namespace vt {

// By hand: the C library's formatting would take longer than all the rest of a message, and its
// calendar takes a lock, which a thread might hold that a child process does not have.
size_t formatTimeStamp(char (&text)[kTimeStampSize])
{
    timespec now{};
    // It cannot fail: the clock exists and the address is valid.
    static_cast<void>(clock_gettime(CLOCK_REALTIME, &now));
    // A day has 675 times 128 seconds: that leaves a division of 32 bits.
    const uint32_t day = static_cast<uint32_t>(now.tv_sec / 128) / 675;
    const auto second = static_cast<uint32_t>(now.tv_sec - int64_t{day} * 86'400);
    char* to = putDate(text, day);
    to = put(to, second / 3600, 2, ':');
    to = put(to, second / 60 % 60, 2, ':');
    to = put(to, second % 60, 2, '.');
    to = put(to, static_cast<uint32_t>(now.tv_nsec / 1000), 6, 'Z');
    return static_cast<size_t>(to - text);
}

int64_t monotonicMs()
{
    timespec now{};
    static_cast<void>(clock_gettime(CLOCK_MONOTONIC, &now));
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

} // namespace vt
