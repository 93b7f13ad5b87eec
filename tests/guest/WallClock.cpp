// Compiled with a 64-bit time_t: no <chrono> or <thread> here.
#include "tests/guest/WallClock.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>

namespace {

static_assert(sizeof(time_t) == 8, "this file needs a 64-bit time_t");

// These tests set the clock of the machine. They run where its kernel was started for them.
class InGuestOnly : public testing::Environment {
    void SetUp() override
    {
        std::ifstream file("/proc/cmdline");
        std::string line;
        std::getline(file, line);
        ASSERT_NE(line.find("kivgcl.guest"), std::string::npos)
            << "these tests run in the guest only: scripts/guest";
    }
};

const auto* const inGuestOnly = testing::AddGlobalTestEnvironment(new InGuestOnly);

int64_t read(clockid_t clock)
{
    timespec now{};
    EXPECT_EQ(clock_gettime(clock, &now), 0) << std::strerror(errno);
    return now.tv_sec * guest::kSecond + now.tv_nsec;
}

} // namespace

namespace guest {

int64_t wallClockNs()
{
    return read(CLOCK_REALTIME);
}

int64_t monotonicNs()
{
    return read(CLOCK_MONOTONIC);
}

int64_t processorTimeNs()
{
    return read(CLOCK_PROCESS_CPUTIME_ID);
}

int64_t threadTimeNs()
{
    return read(CLOCK_THREAD_CPUTIME_ID);
}

void setWallClock(int64_t ns)
{
    timespec time{};
    time.tv_sec = ns / kSecond;
    time.tv_nsec = static_cast<decltype(time.tv_nsec)>(ns % kSecond);
    ASSERT_EQ(clock_settime(CLOCK_REALTIME, &time), 0) << std::strerror(errno);
}

void stepWallClock(int64_t byNs)
{
    setWallClock(wallClockNs() + byNs);
}

int64_t dateNs(int year, int month, int day)
{
    tm date{};
    date.tm_year = year - 1900;
    date.tm_mon = month - 1;
    date.tm_mday = day;
    return timegm(&date) * kSecond;
}

std::string utcText(int64_t ns, const char* format)
{
    const time_t seconds = ns / kSecond;
    tm utc{};
    EXPECT_NE(gmtime_r(&seconds, &utc), nullptr);
    char text[64];
    return std::string(text, strftime(text, sizeof text, format, &utc));
}

} // namespace guest
