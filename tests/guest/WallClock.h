// The machine's own clock, set and read in 64 bits, and the refusal to set it outside the guest.
#ifndef TESTS_GUEST_WALLCLOCK_H
#define TESTS_GUEST_WALLCLOCK_H

#include <cstdint>
#include <string>

namespace guest {

constexpr int64_t kSecond = 1'000'000'000;
constexpr int64_t kMs = 1'000'000;
// 2038-01-19T03:14:08Z: the first second that 32 bits do not hold.
constexpr int64_t kLimit = 2'147'483'648 * kSecond;
constexpr int64_t kDay = 86'400 * kSecond;

// Nanoseconds since the epoch, of the kernel's clocks.
int64_t wallClockNs();
int64_t monotonicNs();
int64_t processorTimeNs(); // of this process
int64_t threadTimeNs();    // of the calling thread

void setWallClock(int64_t ns);
void stepWallClock(int64_t byNs);

// The moment `year`-`month`-`day`, 00:00:00Z.
int64_t dateNs(int year, int month, int day);

// A moment by a format of strftime(3), in UTC.
std::string utcText(int64_t ns, const char* format);

// While it lives, the clock may be set; in the end it is as if nobody had.
class ClockKeeper {
public:
    ClockKeeper() : difference(wallClockNs() - monotonicNs()) {}
    ~ClockKeeper() { setWallClock(monotonicNs() + difference); }
    ClockKeeper(const ClockKeeper&) = delete;
    ClockKeeper& operator=(const ClockKeeper&) = delete;

private:
    int64_t difference;
};

} // namespace guest

#endif // TESTS_GUEST_WALLCLOCK_H
