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

struct Date {
    long year;
    long month; // 1 to 12
    long day;   // 1 to 31
};

// The date of a day, counted from 1970-01-01, which the clock cannot be set before; it ends in the
// year 2262.
Date dateOfDay(long day)
{
    constexpr long kDaysOfFourYears = 4 * 365 + 1;
    // 1 March of the years that have no leap day although they are multiples of four.
    constexpr long kMarch2100 = 47'541;
    constexpr long kMarch2200 = 84'065;
    // Counted from 1 March 1968, with a leap day at the end of every fourth year.
    day += 671 + (day >= kMarch2100 ? 1 : 0) + (day >= kMarch2200 ? 1 : 0);
    long year = 1968 + day / kDaysOfFourYears * 4;
    day %= kDaysOfFourYears;
    const long yearOfFour = day == kDaysOfFourYears - 1 ? 3 : day / 365;
    year += yearOfFour;
    day -= yearOfFour * 365;
    // From March on the months have 31, 30, 31, 30 and 31 days, over and over. January is the 13th.
    long month = 3;
    for (; day >= 153; day -= 153) {
        month += 5;
    }
    for (long length = 31; day >= length; length = 61 - length) {
        day -= length;
        ++month;
    }
    return month <= 12 ? Date{year, month, day + 1} : Date{year + 1, month - 12, day + 1};
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
    constexpr long kSecondsOfDay = 24 * 60 * 60;
    const Date date = dateOfDay(static_cast<long>(now.tv_sec / kSecondsOfDay));
    const auto second = static_cast<long>(now.tv_sec % kSecondsOfDay);
    char* to = put(text, date.year, 4, '-');
    to = put(to, date.month, 2, '-');
    to = put(to, date.day, 2, 'T');
    to = put(to, second / 3600, 2, ':');
    to = put(to, second / 60 % 60, 2, ':');
    to = put(to, second % 60, 2, '.');
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
