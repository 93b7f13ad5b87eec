// The clock unit, compiled into the test: what it asks of the platform, and what it makes of it.
#include "Framework/GCL/private/Clock.h"

#include <gtest/gtest.h>

#include <ctime>
#include <vector>

#include "Framework/GCL/testing/FaultInjection.h"

using gcltest::Hook;
using gcltest::Timespec64;
namespace calls = gcltest::calls;

namespace {

constexpr int64_t kSecond = 1'000'000'000;
// The first second that 32 bits cannot count.
constexpr int64_t kYear2038 = int64_t{1} << 31;

struct Due {
    int64_t seconds;
    int64_t nanoseconds;

    bool operator==(const Due& other) const
    {
        return seconds == other.seconds && nanoseconds == other.nanoseconds;
    }
};

class Clock : public testing::Test {
protected:
    // The times that one wait asks for; the platform answers with `result`.
    std::vector<Due> waitFor(int64_t dueNs, int result)
    {
        std::vector<Due> asked;
        const Hook hook(calls::pthread_cond_timedwait64,
                        [&](pthread_cond_t* waited, pthread_mutex_t* held, const Timespec64* due) {
                            EXPECT_EQ(waited, &condition);
                            EXPECT_EQ(held, &mutex);
                            asked.push_back({due->tv_sec, due->tv_nsec});
                            return result;
                        });
        gcl::waitUntilNs(&condition, &mutex, dueNs);
        return asked;
    }

    pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
};

} // namespace

TEST_F(Clock, TellsTheRealTimeInNanoseconds)
{
    for (const int64_t second : {int64_t{0}, int64_t{1'700'000'000}, kYear2038, 2 * kYear2038}) {
        const Hook hook(calls::clock_gettime64, [second](clockid_t clock, Timespec64* time) {
            EXPECT_EQ(clock, CLOCK_REALTIME);
            time->tv_sec = second;
            time->tv_nsec = 123'456'789;
            return 0;
        });
        EXPECT_EQ(gcl::wallClockNs(), second * kSecond + 123'456'789);
        EXPECT_EQ(hook.calls(), 1u);
    }
}

TEST_F(Clock, WaitsForSecondsAndNanosecondsWhateverEndsTheWait)
{
    for (const int result : {0, ETIMEDOUT, EINVAL}) {
        EXPECT_EQ(waitFor(1'700'000'000 * kSecond + 5, result),
                  (std::vector<Due>{{1'700'000'000, 5}}));
        EXPECT_EQ(waitFor(kYear2038 * kSecond + 999'999'999, result),
                  (std::vector<Due>{{kYear2038, 999'999'999}}));
        EXPECT_EQ(waitFor(INT64_MAX, result), (std::vector<Due>{{9'223'372'036, 854'775'807}}));
        EXPECT_EQ(waitFor(-3 * kSecond - 7, result), (std::vector<Due>{{-3, -7}}));
    }
}

TEST_F(Clock, WaitsAsLongAsItCanWhereTheKernelCannotCountSoFar)
{
    EXPECT_EQ(waitFor(kYear2038 * kSecond + 5, EOVERFLOW),
              (std::vector<Due>{{kYear2038, 5}, {INT32_MAX, 0}}));
}

TEST_F(Clock, AgreesWithTheSystemsClockAndReturnsOnTime)
{
    const int64_t before = gcl::wallClockNs();
    EXPECT_LE(std::abs(before / kSecond - static_cast<int64_t>(std::time(nullptr))), 2);
    pthread_mutex_lock(&mutex);
    gcl::waitUntilNs(&condition, &mutex, before + kSecond / 20);
    EXPECT_EQ(pthread_mutex_unlock(&mutex), 0);
    EXPECT_GE(gcl::wallClockNs() - before, kSecond / 20);
}
