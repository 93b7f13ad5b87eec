// Sockets against the kernel's own send queue, on a clock that is set meanwhile, and beyond 2038.
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "Framework/GCL/CTcpSocket.h"
#include "Framework/GCL/DefaultSleepApi.h"
#include "Framework/GCL/ResultCodes.h"
#include "Framework/GCL/testing/FaultInjection.h"
#include "Framework/GCL/testing/TraceCapture.h"
#include "tests/guest/WallClock.h"
#include "tests/support/Loopback.h"

using gcltest::Connection;
using gcltest::Count;
using gcltest::gclReport;
using gcltest::Hook;
using gcltest::OwnedFd;
using gcltest::Report;
using gcltest::takeReports;
using guest::kDay;
using guest::kLimit;
using guest::kMs;
using guest::kSecond;
using guest::monotonicNs;
namespace calls = gcltest::calls;

namespace {

using Reports = std::vector<Report>;

Report drainReport(const std::string& text, uint32_t code)
{
    return gclReport("CTcpSocket", "CTcpSocket_DrainSendBuffer", text, code);
}

Report bytesLeft(int bytes)
{
    return drainReport("Bytes left: " + std::to_string(bytes), 0x840);
}

// What the closing report of a drain says.
struct DrainEnd {
    bool completed = false;
    unsigned socket = 0;
    long long milliseconds = 0;
    int waits = 0;
};

DrainEnd endOf(const Reports& reports)
{
    DrainEnd end;
    if (reports.empty()) {
        ADD_FAILURE() << "the drain has told nothing";
        return end;
    }
    const char* const text = reports.back().text.c_str();
    end.completed =
        std::sscanf(text, "Buffer drain completed, %d waits, %lld mS. Closing socket %u",
                    &end.waits, &end.milliseconds, &end.socket) == 3;
    if (!end.completed) {
        EXPECT_EQ(
            std::sscanf(text,
                        "Buffer drain wait exahausted for socket %u waited %lld mS and %d times",
                        &end.socket, &end.milliseconds, &end.waits),
            3)
            << text;
    }
    return end;
}

int queueOf(int fd)
{
    int bytes = -1;
    EXPECT_EQ(ioctl(fd, SIOCOUTQ, &bytes), 0);
    return bytes;
}

// A connection whose peer has not read yet, with as much in its buffers as they take: the rest
// stands in the near end's send queue.
class FullConnection {
public:
    FullConnection() { fillUp(); }
    // With buffers and segments that are small, so that the peer is quick to read and to say so.
    explicit FullConnection(int bufferSize)
    {
        const gcltest::Listener listener;
        const int segmentSize = 1'000;
        EXPECT_EQ(setsockopt(listener.fd.get(), IPPROTO_TCP, TCP_MAXSEG, &segmentSize,
                             sizeof segmentSize),
                  0);
        EXPECT_EQ(
            setsockopt(listener.fd.get(), SOL_SOCKET, SO_RCVBUF, &bufferSize, sizeof bufferSize),
            0);
        connection.near = gcltest::connectTo(listener.port);
        connection.far = listener.accepted();
        EXPECT_EQ(setsockopt(connection.near.get(), SOL_SOCKET, SO_SNDBUF, &bufferSize,
                             sizeof bufferSize),
                  0);
        fillUp();
    }
    FullConnection(const FullConnection&) = delete;
    FullConnection& operator=(const FullConnection&) = delete;

    Connection connection;
    CTcpSocket near{};
    size_t sent = 0;

private:
    void fillUp()
    {
        near = CTcpSocket{connection.near.release(), 1, 100, 0};
        EXPECT_EQ(CTcpSocket_SetTimeout(&near, 1), GCL_OK);
        const std::string block(16 * 1024, 'x');
        for (;;) {
            const ssize_t count =
                send(near.iSocketHandle, block.data(), block.size(), MSG_DONTWAIT);
            if (count < 0) {
                break;
            }
            sent += static_cast<size_t>(count);
        }
        EXPECT_GT(queueOf(near.iSocketHandle), 0);
    }
};

class SocketClock : public testing::Test {
protected:
    const guest::ClockKeeper keeper;
};

// --- The drain -----------------------------------------------------------------------------------

TEST_F(SocketClock, DrainGivesUpOnAPeerThatDoesNotRead)
{
    FullConnection full;
    const int fd = full.near.iSocketHandle;
    const int queued = queueOf(fd);
    const int64_t begin = monotonicNs();
    EXPECT_EQ(CTcpSocket_Close(&full.near), GCL_OK);
    const int64_t elapsedMs = (monotonicNs() - begin) / kMs;

    const Reports reports = takeReports();
    // The end of the stream may count as one more byte.
    ASSERT_GE(reports.size(), 2u);
    EXPECT_TRUE(reports[0] == bytesLeft(queued) || reports[0] == bytesLeft(queued + 1))
        << reports[0] << ", but " << queued << " are queued";
    const DrainEnd end = endOf(reports);
    EXPECT_FALSE(end.completed);
    EXPECT_EQ(reports.back().level, 4);
    EXPECT_EQ(end.socket, static_cast<unsigned>(fd));
    EXPECT_GE(end.milliseconds, 101);
    EXPECT_LE(end.milliseconds, elapsedMs);
    EXPECT_GE(end.waits, 2);
    EXPECT_LE(end.waits, 52) << "each sleep lasts 2 ms at least";
    EXPECT_EQ(full.near.iSocketHandle, -1);
    EXPECT_EQ(full.near.iPort, 0);
}

// What the drain leaves is the kernel's: a peer that reads after the close still gets all of it.
TEST_F(SocketClock, DrainThatGaveUpLosesNothingForAPeerThatReadsAfterwards)
{
    FullConnection full;
    EXPECT_EQ(CTcpSocket_Close(&full.near), GCL_OK);
    EXPECT_FALSE(endOf(takeReports()).completed);
    EXPECT_EQ(gcltest::receiveAll(full.connection.far.get(), full.sent + 1).size(), full.sent);
}

TEST_F(SocketClock, DrainCompletesForAPeerThatReadsLate)
{
    // The emulated machine may be too slow for the 101 ms now and then.
    bool completed = false;
    for (int attempt = 0; attempt < 20 && !completed; ++attempt) {
        FullConnection full(8'192);
        const int fd = full.near.iSocketHandle;
        size_t received = 0;
        std::thread peer;
        // The peer begins to read when the drain sleeps for the third time.
        unsigned sleeps = 0;
        const Hook sleep(calls::nanosleep, [&](const timespec* request, timespec* remainder) {
            if (++sleeps == 3) {
                peer = std::thread([&] {
                    received = gcltest::receiveAll(full.connection.far.get(), full.sent + 1).size();
                });
            }
            return calls::nanosleep.real(request, remainder);
        });
        EXPECT_EQ(CTcpSocket_Close(&full.near), GCL_OK);
        ASSERT_TRUE(peer.joinable());
        peer.join();
        EXPECT_EQ(received, full.sent);

        const Reports reports = takeReports();
        const DrainEnd end = endOf(reports);
        completed = end.completed;
        if (!completed) {
            EXPECT_GE(end.milliseconds, 101);
            continue;
        }
        EXPECT_EQ(end.socket, static_cast<unsigned>(fd));
        EXPECT_GE(end.waits, 3);
        EXPECT_EQ(end.waits, static_cast<int>(sleeps));
        ASSERT_GE(reports.size(), 3u);
        EXPECT_EQ(reports[reports.size() - 2], bytesLeft(0));
        EXPECT_NE(reports[0], bytesLeft(0));
        EXPECT_EQ(reports.back().level, 7);
    }
    EXPECT_TRUE(completed);
}

// Whether or not it completes in its time: the queue shrinks as the peer reads, and each size is
// told.
TEST_F(SocketClock, DrainTellsEachSizeOfTheQueueThatShrinks)
{
    FullConnection full;
    std::vector<int> sizes;
    // Before each sleep the peer takes what it can get.
    const Hook sleep(calls::nanosleep, [&](const timespec* request, timespec* remainder) {
        char block[64 * 1024];
        static_cast<void>(recv(full.connection.far.get(), block, sizeof block, MSG_DONTWAIT));
        return calls::nanosleep.real(request, remainder);
    });
    const Hook query(calls::ioctl, [&](int fd, unsigned long request, void* argument) {
        const int result = calls::ioctl.real(fd, request, argument);
        const int bytes = *static_cast<int*>(argument);
        if (sizes.empty() || sizes.back() != bytes) {
            sizes.push_back(bytes);
        }
        return result;
    });
    EXPECT_EQ(CTcpSocket_Close(&full.near), GCL_OK);
    Reports reports = takeReports();
    const DrainEnd end = endOf(reports);
    reports.pop_back();
    Reports wanted;
    for (const int size : sizes) {
        wanted.push_back(bytesLeft(size));
    }
    EXPECT_EQ(reports, wanted);
    EXPECT_GE(sizes.size(), 2u) << "the queue did not shrink";
    EXPECT_EQ(end.completed, sizes.back() == 0);
}

TEST_F(SocketClock, DrainEndsEarlyWhereTheClockIsSetForward)
{
    FullConnection full;
    unsigned sleeps = 0;
    const Hook sleep(calls::nanosleep, [&](const timespec* request, timespec* remainder) {
        if (++sleeps == 2) {
            guest::stepWallClock(kDay);
        }
        return calls::nanosleep.real(request, remainder);
    });
    EXPECT_EQ(CTcpSocket_Close(&full.near), GCL_OK);
    const DrainEnd end = endOf(takeReports());
    EXPECT_FALSE(end.completed);
    EXPECT_GE(end.milliseconds, kDay / kMs);
    EXPECT_LT(end.milliseconds, (kDay + 20 * kSecond) / kMs);
    EXPECT_EQ(end.waits, 3); // it looks at the clock before the next sleep
}

TEST_F(SocketClock, DrainIsBoundedByItsSleepsWhereTheClockIsSetBack)
{
    FullConnection full;
    unsigned sleeps = 0;
    const Hook sleep(calls::nanosleep, [&](const timespec* request, timespec* remainder) {
        if (++sleeps == 1) {
            guest::stepWallClock(-kDay);
        }
        return calls::nanosleep.real(request, remainder);
    });
    const int64_t begin = monotonicNs();
    EXPECT_EQ(CTcpSocket_Close(&full.near), GCL_OK);
    const int64_t elapsedMs = (monotonicNs() - begin) / kMs;
    const DrainEnd end = endOf(takeReports());
    EXPECT_FALSE(end.completed);
    EXPECT_EQ(end.waits, 501);
    EXPECT_EQ(sleeps, 501u);
    EXPECT_GE(elapsedMs, 501 * 2);
    EXPECT_GE(end.milliseconds, -kDay / kMs);
    EXPECT_LT(end.milliseconds, -kDay / kMs + 120'000);
}

TEST_F(SocketClock, DrainTakesItsTimeAcrossTheLimitOf32Bits)
{
    FullConnection full;
    guest::setWallClock(kLimit - 50 * kMs);
    const int64_t begin = monotonicNs();
    EXPECT_EQ(CTcpSocket_Close(&full.near), GCL_OK);
    const int64_t elapsedMs = (monotonicNs() - begin) / kMs;
    EXPECT_GT(guest::wallClockNs(), kLimit);
    const DrainEnd end = endOf(takeReports());
    EXPECT_FALSE(end.completed);
    EXPECT_GE(end.milliseconds, 101);
    EXPECT_LE(end.milliseconds, elapsedMs);
    EXPECT_LE(end.waits, 52);
}

// --- Time-outs -----------------------------------------------------------------------------------

class SocketYear : public testing::TestWithParam<int> {
protected:
    SocketYear() { guest::setWallClock(guest::dateNs(GetParam(), 2, 7)); }
    const guest::ClockKeeper keeper;
};

INSTANTIATE_TEST_SUITE_P(Guest, SocketYear, testing::Values(2037, 2039, 2107),
                         testing::PrintToStringParamName());

TEST_P(SocketYear, DrainTakesItsTime)
{
    FullConnection full;
    const int64_t begin = monotonicNs();
    EXPECT_EQ(CTcpSocket_Close(&full.near), GCL_OK);
    const int64_t elapsedMs = (monotonicNs() - begin) / kMs;
    const DrainEnd end = endOf(takeReports());
    EXPECT_FALSE(end.completed);
    EXPECT_GE(end.milliseconds, 101);
    EXPECT_LE(end.milliseconds, elapsedMs);
    EXPECT_LE(end.waits, 52);
}

TEST_P(SocketYear, ReadTimesOutOnTimeAndNotBefore)
{
    Connection connection;
    CTcpSocket socket{connection.near.release(), 1, 100, 0};
    ASSERT_EQ(CTcpSocket_SetTimeout(&socket, 1), GCL_OK);
    char buffer[8] = "";
    int32_t length = 8;
    const Count waits(calls::select);
    const int64_t begin = monotonicNs();
    EXPECT_EQ(CTcpSocket_Read(&socket, buffer, &length), 0x8015u);
    EXPECT_GE(monotonicNs() - begin, 999 * kMs);
    EXPECT_LT(monotonicNs() - begin, 20 * kSecond);
    EXPECT_EQ(waits.calls(), 1u);

    ASSERT_EQ(write(connection.far.get(), "pong", 4), 4);
    EXPECT_EQ(CTcpSocket_Read(&socket, buffer, &length), GCL_OK);
    EXPECT_STREQ(buffer, "pong");
    EXPECT_EQ(takeReports(), Reports{});
    CTcpSocket_Destruct(&socket);
    static_cast<void>(takeReports());
}

TEST_P(SocketYear, WriteTimesOutOnTimeAndNotBefore)
{
    FullConnection full;
    int32_t length = 4;
    const int64_t begin = monotonicNs();
    EXPECT_EQ(CTcpSocket_Write(&full.near, "ping", &length), 0x8015u);
    EXPECT_GE(monotonicNs() - begin, 999 * kMs);
    EXPECT_LT(monotonicNs() - begin, 20 * kSecond);
    EXPECT_EQ(takeReports(), Reports{});
    CTcpSocket_Destruct(&full.near);
    static_cast<void>(takeReports());
}

// The time-outs run on the monotonic clock.
TEST_F(SocketClock, SetByADayMovesNoTimeout)
{
    for (const int64_t step : {kDay, -kDay}) {
        Connection connection;
        CTcpSocket socket{connection.near.release(), 1, 100, 0};
        ASSERT_EQ(CTcpSocket_SetTimeout(&socket, 2), GCL_OK);
        const int64_t begin = monotonicNs();
        std::thread stepper([step] {
            poll(nullptr, 0, 500);
            guest::stepWallClock(step);
        });
        char buffer[8] = "";
        int32_t length = 8;
        EXPECT_EQ(CTcpSocket_Read(&socket, buffer, &length), 0x8015u);
        EXPECT_GE(monotonicNs() - begin, 1'999 * kMs);
        EXPECT_LT(monotonicNs() - begin, 20 * kSecond);
        stepper.join();
        CTcpSocket_Destruct(&socket);
        static_cast<void>(takeReports());
    }
}

TEST_P(SocketYear, SleepsAsLongAsAsked)
{
    const int64_t begin = monotonicNs();
    Util::DefaultSleepApi::get().sleepMs(300);
    EXPECT_GE(monotonicNs() - begin, 299 * kMs);
    EXPECT_LT(monotonicNs() - begin, 20 * kSecond);
}

} // namespace
