// What is written with a time: the lines of the stand-alone sink and the records of the system log,
// beyond 2038.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <iterator>
#include <string>

#include "Framework/GCL/CList.h"
#include "Framework/GCL/CSysLogHandler.h"
#include "Framework/VT/VorTrace.h"
#include "tests/guest/WallClock.h"
#include "tests/support/Loopback.h"

using guest::dateNs;
using guest::kLimit;
using guest::kMs;
using guest::kSecond;
using guest::setWallClock;
using guest::utcText;
using guest::wallClockNs;

namespace {

// The last day of 32 bits and the first day beyond, leap days that are and one that is not, the end
// of unsigned 32 bits, and a late year. Half a minute later is still the same day.
const int64_t kMoments[] = {
    dateNs(2026, 11, 21),
    kLimit - 3 * 3'600 * kSecond,
    kLimit + 20 * 3'600 * kSecond,
    dateNs(2040, 2, 29),
    dateNs(2100, 3, 1) - 12 * 3'600 * kSecond,
    dateNs(2106, 2, 8),
    dateNs(2231, 12, 31),
};

class WrittenTime : public testing::TestWithParam<int> {
protected:
    WrittenTime() { setWallClock(moment); }
    const int64_t moment = kMoments[GetParam()];
    const guest::ClockKeeper keeper;
};

std::string nameOf(const testing::TestParamInfo<int>& info)
{
    return utcText(kMoments[info.param], "%Y%m%dT%H");
}

INSTANTIATE_TEST_SUITE_P(Guest, WrittenTime,
                         testing::Range(0, static_cast<int>(std::size(kMoments))), nameOf);

std::string standardErrorOf(void (*body)())
{
    testing::internal::CaptureStderr();
    body();
    return testing::internal::GetCapturedStderr();
}

void reportFailure()
{
    unsigned long item = 0;
    static_cast<void>(CList_GetNext(nullptr, &item, nullptr));
}

// The moment, to the microsecond, that a line of the sink begins with; as text, since it is in
// order.
std::string stampOf(const std::string& line)
{
    return line.substr(0, line.find(' '));
}

std::string stampText(int64_t ns)
{
    char micro[16];
    static_cast<void>(
        std::snprintf(micro, sizeof micro, ".%06ldZ", static_cast<long>(ns % kSecond / 1'000)));
    return utcText(ns, "%Y-%m-%dT%H:%M:%S") + micro;
}

TEST_P(WrittenTime, OfTheSinkIsTheClocks)
{
    const std::string before = stampText(wallClockNs());
    const std::string line = standardErrorOf(reportFailure);
    const std::string after = stampText(wallClockNs());
    EXPECT_EQ(before.substr(0, 10), utcText(moment, "%Y-%m-%d"));
    EXPECT_EQ(stampOf(line).size(), before.size()) << line;
    EXPECT_GE(stampOf(line), before);
    EXPECT_LE(stampOf(line), after);
    EXPECT_NE(line.find(" KIV.GCL 1 Framework/GCL/private/CList:"), std::string::npos) << line;
}

TEST_P(WrittenTime, OfATraceObjectIsTheClocks)
{
    VorTrace trace("GUEST", VorTraceLevel3);
    static const VorTraceHeader header = {"tests/guest/SinkGuestTest", 1, "test"};
    testing::internal::CaptureStderr();
    const std::string before = stampText(wallClockNs());
    trace.beginLogMsg(VorTraceLevel1, header);
    trace.stream() << "text" << std::flush;
    const std::string line = testing::internal::GetCapturedStderr();
    EXPECT_GE(stampOf(line), before);
    EXPECT_LE(stampOf(line), stampText(wallClockNs()));
}

// The system's log: the socket that syslog(3) writes to, which nobody else has in the guest.
class SystemLog {
public:
    SystemLog() : fd(socket(AF_UNIX, SOCK_DGRAM, 0))
    {
        unlink("/dev/log");
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, "/dev/log");
        EXPECT_EQ(bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0)
            << std::strerror(errno);
    }
    ~SystemLog()
    {
        closelog();
        unlink("/dev/log");
    }
    SystemLog(const SystemLog&) = delete;
    SystemLog& operator=(const SystemLog&) = delete;

    std::string record() const
    {
        char text[1024];
        const ssize_t count = recv(fd.get(), text, sizeof text, MSG_DONTWAIT);
        return count < 0 ? "" : std::string(text, static_cast<size_t>(count));
    }

private:
    gcltest::OwnedFd fd;
};

TEST_P(WrittenTime, OfASystemLogRecordIsTheClocks)
{
    const SystemLog log;
    const int64_t before = wallClockNs();
    CSysLogHandler_Log("GCL", "Framework/GCL/private/CList", 161, 0x8008, "cycle in %s", "list");
    const int64_t after = wallClockNs();
    const std::string record = log.record();
    // LOG_USER and LOG_ERR; a time without the year; the name of the program.
    EXPECT_EQ(record.substr(0, 4), "<11>") << record;
    const std::string time = record.substr(4, 15);
    bool between = false;
    for (int64_t second = before / kSecond; second <= after / kSecond; ++second) {
        between = between || time == utcText(second * kSecond, "%b %e %H:%M:%S");
    }
    EXPECT_TRUE(between) << record;
    const std::string rest = record.substr(record.find(": ") + 2);
    EXPECT_EQ(rest.substr(0, 46), "GCL: CList (161): cycle in list, code: 8008\n") << record;
}

TEST(WrittenTimeAtTheLimit, GoesOnInTheSink)
{
    const guest::ClockKeeper keeper;
    setWallClock(kLimit - 300 * kMs);
    std::string last;
    std::string first;
    while (wallClockNs() < kLimit + 100 * kMs) {
        const bool isBefore = wallClockNs() < kLimit - 20 * kMs;
        const std::string stamp = stampOf(standardErrorOf(reportFailure));
        (isBefore ? last : first) = stamp;
    }
    // Only the order matters where the machine is slow: one line at least is beyond.
    EXPECT_EQ(first.substr(0, 17), "2038-01-19T03:14:");
    EXPECT_GE(first, "2038-01-19T03:14:08");
    if (!last.empty()) {
        EXPECT_EQ(last.substr(0, 17), "2038-01-19T03:14:");
        EXPECT_GE(last, "2038-01-19T03:14:07");
    }
}

} // namespace
