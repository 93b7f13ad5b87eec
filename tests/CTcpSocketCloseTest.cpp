// CTcpSocket: the end of a connection, with the drain of its send queue.
#include "Framework/GCL/CTcpSocket.h"

#include <gtest/gtest.h>

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cstdio>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "Framework/GCL/ResultCodes.h"
#include "Framework/GCL/testing/FaultInjection.h"
#include "Framework/GCL/testing/TraceCapture.h"
#include "tests/support/Loopback.h"
#include "tests/support/Suppression.h"

using gcltest::Connection;
using gcltest::Count;
using gcltest::expectReports;
using gcltest::Fault;
using gcltest::Hook;
using gcltest::Report;
using gcltest::takeReports;
using gcltest::whereAdmitted;
namespace calls = gcltest::calls;

namespace {

using Reports = std::vector<Report>;

Report report(const std::string& function, const std::string& text, uint32_t code)
{
    return gcltest::gclReport("CTcpSocket", function, text, code);
}

Report drainReport(const std::string& text, uint32_t code)
{
    return report("CTcpSocket_DrainSendBuffer", text, code);
}

Report bytesLeft(int bytes)
{
    return drainReport("Bytes left: " + std::to_string(bytes), 0x840);
}

Report completed(int waits, long long milliseconds, int fd)
{
    return drainReport("Buffer drain completed, " + std::to_string(waits) + " waits, " +
                           std::to_string(milliseconds) + " mS. Closing socket " +
                           std::to_string(fd),
                       0x840);
}

Report exhausted(const std::string& fd, long long milliseconds, int waits)
{
    return drainReport("Buffer drain wait exahausted for socket " + fd + " waited " +
                           std::to_string(milliseconds) + " mS and " + std::to_string(waits) +
                           " times",
                       0x100);
}

// A platform on which the send queue, the sleeps and the wall clock do what a test says. Time
// stands still but for what the test adds.
class ScriptedDrain {
public:
    ScriptedDrain()
        : ioctlHook(calls::ioctl,
                    [this](int fd, unsigned long request, void* argument) {
                        steps += 'i';
                        EXPECT_EQ(fd, descriptor);
                        EXPECT_EQ(request, 0x5411u);
                        auto& bytes = *static_cast<int*>(argument);
                        EXPECT_EQ(bytes, 0) << "set to 0 before each query";
                        nowNs += queryNs;
                        return query(bytes);
                    }),
          sleepHook(calls::nanosleep,
                    [this](const timespec* request, timespec*) {
                        steps += 'n';
                        EXPECT_EQ(request->tv_sec, 0);
                        EXPECT_EQ(request->tv_nsec, 2000000);
                        nowNs += sleepNs;
                        if (sleepFails) {
                            errno = EINTR;
                            return -1;
                        }
                        return 0;
                    }),
          clockHook(calls::clock_gettime64,
                    [this](clockid_t clock, gcltest::Timespec64* time) {
                        EXPECT_EQ(clock, CLOCK_REALTIME);
                        time->tv_sec = static_cast<decltype(time->tv_sec)>(nowNs / 1000000000);
                        time->tv_nsec = static_cast<decltype(time->tv_nsec)>(nowNs % 1000000000);
                        return 0;
                    }),
          shutdownHook(calls::shutdown,
                       [this](int fd, int how) {
                           steps += 's';
                           EXPECT_EQ(fd, descriptor);
                           EXPECT_EQ(how, SHUT_RDWR);
                           errno = ENOTCONN;
                           return -1; // which must not matter
                       }),
          closeHook(calls::close, [this](int fd) {
              steps += 'c';
              EXPECT_EQ(fd, descriptor);
              EXPECT_EQ(socket.iSocketHandle, descriptor) << "the object closes behind it";
              EXPECT_EQ(socket.iPort, 2);
              errno = std::exchange(closeError, 0);
              return errno == 0 ? 0 : -1;
          })
    {
    }

    // Closes an object with the descriptor; returns what was reported.
    Reports close()
    {
        socket = {descriptor, 2, 3, 4};
        EXPECT_EQ(CTcpSocket_Close(&socket), GCL_OK);
        EXPECT_EQ(socket.iSocketHandle, -1);
        EXPECT_EQ(socket.iPort, 0);
        EXPECT_EQ(socket.uiMaxMsgSize, 3u);
        EXPECT_EQ(socket.uiTimeout, 4u);
        return takeReports();
    }

    int descriptor = 77;
    CTcpSocket socket{77, 2, 3, 4};
    int64_t nowNs = 4102444800123456789; // in the year 2100
    int64_t sleepNs = 0;
    int64_t queryNs = 0; // that each query takes
    bool sleepFails = false;
    int closeError = 0; // of the first close
    std::function<int(int&)> query = [](int&) { return 0; };
    std::string steps; // shutdown, ioctl, nanosleep, close

private:
    Hook<int(int, unsigned long, void*)> ioctlHook;
    Hook<int(const timespec*, timespec*)> sleepHook;
    Hook<int(clockid_t, gcltest::Timespec64*)> clockHook;
    Hook<int(int, int)> shutdownHook;
    Hook<int(int)> closeHook;
};

// A query that gives the numbers in turn and then 0.
std::function<int(int&)> queue(std::vector<int> sizes)
{
    return [sizes, next = size_t{0}](int& bytes) mutable {
        bytes = next < sizes.size() ? sizes[next] : 0;
        ++next;
        return 0;
    };
}

std::string repeated(const std::string& text, int times)
{
    std::string all;
    for (int i = 0; i < times; ++i) {
        all += text;
    }
    return all;
}

// A suite with failures; its cases that look into the reports are plain ones.
class CTcpSocketClose : public gcltest::ReportsOrNot {};

GCLTEST_WITH_AND_WITHOUT_REPORTS(CTcpSocketClose);

} // namespace

TEST_P(CTcpSocketClose, ReportsNull)
{
    EXPECT_EQ(CTcpSocket_Close(nullptr), 0x8008u);
    expectReports({report("CTcpSocket_Close", "Invalid object", 0x8008)});
}

TEST_P(CTcpSocketClose, ReportsAClosedObject)
{
    CTcpSocket socket{-1, 2, 3, 4};
    const Count closes(calls::close);
    const Count shutdowns(calls::shutdown);
    EXPECT_EQ(CTcpSocket_Close(&socket), 0x800Au);
    expectReports({report("CTcpSocket_Close", "Socket already closed", 0x800A)});
    EXPECT_EQ(closes.calls() + shutdowns.calls(), 0u);
    EXPECT_EQ(socket.iPort, 2);
    EXPECT_EQ(socket.uiTimeout, 4u);
}

TEST_P(CTcpSocketClose, FindsAnEmptyQueueAtOnce)
{
    ScriptedDrain drain;
    EXPECT_EQ(drain.close(), whereAdmitted({bytesLeft(0), completed(0, 0, 77)}));
    EXPECT_EQ(drain.steps, "sic");
}

// A descriptor whose close failed is gone all the same, and may be somebody else's by now.
TEST_P(CTcpSocketClose, NeverRepeatsACloseThatFails)
{
    for (const int error : {EINTR, EAGAIN, EIO}) {
        ScriptedDrain drain;
        drain.closeError = error;
        EXPECT_EQ(drain.close(), whereAdmitted({bytesLeft(0), completed(0, 0, 77)}));
        EXPECT_EQ(drain.steps, "sic");
    }
}

TEST_P(CTcpSocketClose, LeavesOtherNegativeDescriptorsToThePlatform)
{
    ScriptedDrain drain;
    drain.descriptor = -2;
    EXPECT_EQ(drain.close(), whereAdmitted({bytesLeft(0), completed(0, 0, -2)}));
    EXPECT_EQ(drain.steps, "sic");
}

TEST_P(CTcpSocketClose, ReportsTheQueueOnlyWhenItChanges)
{
    ScriptedDrain drain;
    drain.query = queue({9, 9, 9, 4, 4, 9});
    drain.sleepNs = 2500000;
    EXPECT_EQ(drain.close(), whereAdmitted({bytesLeft(9), bytesLeft(4), bytesLeft(9), bytesLeft(0),
                                            completed(6, 15, 77)}));
    EXPECT_EQ(drain.steps, "s" + repeated("in", 6) + "ic");
}

TEST_P(CTcpSocketClose, TakesAFailedQueryForAnEmptyQueue)
{
    ScriptedDrain drain;
    drain.query = [](int&) {
        errno = ENOTTY;
        return -1;
    };
    EXPECT_EQ(drain.close(), whereAdmitted({drainReport("ioctl returned error", 0x100),
                                            bytesLeft(0), completed(0, 0, 77)}));
}

TEST_P(CTcpSocketClose, SetsTheQueueToZeroBeforeAQueryThatFails)
{
    ScriptedDrain drain;
    drain.query = [number = 0](int& bytes) mutable {
        bytes = 5;
        if (++number == 2) {
            bytes = 0;
            return -1;
        }
        return 0;
    };
    EXPECT_EQ(drain.close(),
              whereAdmitted({bytesLeft(5), drainReport("ioctl returned error", 0x100), bytesLeft(0),
                             completed(1, 0, 77)}));
}

TEST_P(CTcpSocketClose, GoesOnWithWhatAFailedQueryLeft)
{
    ScriptedDrain drain;
    drain.query = [number = 0](int& bytes) mutable {
        if (++number == 1) {
            bytes = 6;
            return -1;
        }
        return 0;
    };
    EXPECT_EQ(drain.close(), whereAdmitted({drainReport("ioctl returned error", 0x100),
                                            bytesLeft(6), bytesLeft(0), completed(1, 0, 77)}));
}

TEST_P(CTcpSocketClose, CarriesOnAfterASleepThatFails)
{
    ScriptedDrain drain;
    drain.query = queue({3, 3});
    drain.sleepFails = true;
    const Report failed = drainReport("nanosleep returned error", 0x100);
    EXPECT_EQ(drain.close(),
              whereAdmitted({bytesLeft(3), failed, failed, bytesLeft(0), completed(2, 0, 77)}));
}

TEST_P(CTcpSocketClose, GivesUpAfter101Milliseconds)
{
    struct Row {
        int64_t sleepNs;
        int waits;
        long long milliseconds;
    };
    // The time is taken before the sleep and truncated: with 1 ns less a sleep more is needed.
    const Row rows[] = {{101000000, 2, 101},  {100999999, 3, 201}, {2000000, 52, 102},
                        {50500000, 3, 101},   {50499999, 4, 151},  {100000000, 3, 200},
                        {1000000000, 2, 1000}};
    for (const Row& row : rows) {
        ScriptedDrain drain;
        drain.query = [](int& bytes) {
            bytes = 12;
            return 0;
        };
        drain.sleepNs = row.sleepNs;
        EXPECT_EQ(drain.close(),
                  whereAdmitted({bytesLeft(12), exhausted("77", row.milliseconds, row.waits)}));
        EXPECT_EQ(drain.steps, "s" + repeated("in", row.waits) + "c");
    }
}

TEST_P(CTcpSocketClose, CountsTheTimeOfItsQueriesToo)
{
    ScriptedDrain drain;
    drain.queryNs = 7000000;
    EXPECT_EQ(drain.close(), whereAdmitted({bytesLeft(0), completed(0, 7, 77)}));
    drain.query = queue(std::vector<int>(1000, 12));
    drain.queryNs = 101000000;
    EXPECT_EQ(drain.close(), whereAdmitted({bytesLeft(12), exhausted("77", 101, 1)}));
}

TEST_P(CTcpSocketClose, GivesUpAfter501Sleeps)
{
    for (const int64_t sleepNs : {int64_t{0}, int64_t{-1000000}, int64_t{-1999999}}) {
        ScriptedDrain drain;
        drain.query = queue(std::vector<int>(1000, 12));
        drain.sleepNs = sleepNs; // at most 0: the clock stands still, or is set back all the time
        // Also below 0 the milliseconds are truncated: 500 sleeps came before the time was taken.
        EXPECT_EQ(drain.close(),
                  whereAdmitted({bytesLeft(12), exhausted("77", sleepNs * 500 / 1000000, 501)}));
        EXPECT_EQ(drain.steps, "s" + repeated("in", 501) + "c");
    }
}

TEST_P(CTcpSocketClose, CompletesInsteadOfGivingUpWhenTheQueueIsEmpty)
{
    ScriptedDrain drain;
    drain.query = queue({1});
    drain.sleepNs = 500000000;
    EXPECT_EQ(drain.close(), whereAdmitted({bytesLeft(1), bytesLeft(0), completed(1, 500, 77)}));
}

TEST_P(CTcpSocketClose, NamesAnOddDescriptorAsSignedAndUnsigned)
{
    ScriptedDrain drain;
    drain.descriptor = -2;
    EXPECT_EQ(drain.close(), whereAdmitted({bytesLeft(0), completed(0, 0, -2)}));
    drain.query = queue(std::vector<int>(1000, 1));
    EXPECT_EQ(drain.close(), whereAdmitted({bytesLeft(1), exhausted("4294967294", 0, 501)}));
}

TEST_P(CTcpSocketClose, CountsANegativeQueueAsNotEmpty)
{
    ScriptedDrain drain;
    drain.query = queue({-1});
    // -1 is also what stands for no previous size, so that it is no change.
    EXPECT_EQ(drain.close(), whereAdmitted({bytesLeft(0), completed(1, 0, 77)}));
}

TEST_P(CTcpSocketClose, IsQuietSecondTimeInDestructOnly)
{
    ScriptedDrain drain;
    CTcpSocket& socket = drain.socket;
    EXPECT_EQ(CTcpSocket_Close(&socket), GCL_OK);
    static_cast<void>(takeReports());
    EXPECT_EQ(CTcpSocket_Close(&socket), 0x800Au);
    expectReports({report("CTcpSocket_Close", "Socket already closed", 0x800A)});
    socket.iPort = 9;
    CTcpSocket_Destruct(&socket);
    EXPECT_EQ(takeReports(), Reports{});
    EXPECT_EQ(socket.iSocketHandle, -1);
    EXPECT_EQ(socket.iPort, 0);
    EXPECT_EQ(socket.uiMaxMsgSize, 3u);
    EXPECT_EQ(socket.uiTimeout, 0u);
    EXPECT_EQ(drain.steps, "sic");
}

TEST(CTcpSocketDestruct, ClosesAnOpenObject)
{
    ScriptedDrain drain;
    CTcpSocket& socket = drain.socket;
    CTcpSocket_Destruct(&socket);
    EXPECT_EQ(takeReports(), (Reports{bytesLeft(0), completed(0, 0, 77)}));
    EXPECT_EQ(socket.iSocketHandle, -1);
    EXPECT_EQ(socket.iPort, 0);
    EXPECT_EQ(socket.uiMaxMsgSize, 3u);
    EXPECT_EQ(socket.uiTimeout, 0u);
    EXPECT_EQ(drain.steps, "sic");
}

TEST(CTcpSocketDestruct, AcceptsNull)
{
    CTcpSocket_Destruct(nullptr);
    EXPECT_EQ(takeReports(), Reports{});
}

// A connection whose peer has read everything; the peer sees the end after the data.
TEST(CTcpSocketClose, DeliversWhatWasWritten)
{
    Connection connection;
    const int fd = connection.near.release();
    CTcpSocket socket{fd, 1, 100, 0};
    int32_t length = 5;
    ASSERT_EQ(CTcpSocket_Write(&socket, "hello", &length), GCL_OK);
    ASSERT_EQ(gcltest::receiveAll(connection.far.get(), 5), "hello");
    EXPECT_EQ(CTcpSocket_Close(&socket), GCL_OK);
    char byte = 0;
    EXPECT_EQ(read(connection.far.get(), &byte, 1), 0);
    // The unacknowledged end of the stream may count as a byte for a while.
    const Reports reports = takeReports();
    ASSERT_GE(reports.size(), 2u);
    const std::string done = "Buffer drain completed, ";
    EXPECT_EQ(reports[reports.size() - 2], bytesLeft(0));
    EXPECT_EQ(reports.back().text.substr(0, done.size()), done);
    EXPECT_EQ(reports.back().function, "CTcpSocket_DrainSendBuffer");
}

// A peer that reads nothing: its window fills up, and the rest stays in the send queue.
TEST(CTcpSocketClose, GivesUpOnAPeerThatReadsNothing)
{
    Connection connection;
    const int fd = connection.near.release();
    CTcpSocket socket{fd, 1, 100, 0};
    ASSERT_EQ(CTcpSocket_SetTimeout(&socket, 1), GCL_OK);
    const std::string data(32 * 1024 * 1024, 'x');
    int32_t length = static_cast<int32_t>(data.size());
    ASSERT_EQ(CTcpSocket_Write(&socket, data.data(), &length), 0x8015u);
    const Count sleeps(calls::nanosleep);
    EXPECT_EQ(CTcpSocket_Close(&socket), GCL_OK);
    EXPECT_EQ(socket.iSocketHandle, -1);

    const Reports reports = takeReports();
    ASSERT_GE(reports.size(), 2u);
    unsigned named = 0;
    long long milliseconds = 0;
    int waits = 0;
    ASSERT_EQ(std::sscanf(reports.back().text.c_str(),
                          "Buffer drain wait exahausted for socket %u waited %lld mS and %d times",
                          &named, &milliseconds, &waits),
              3)
        << reports.back();
    EXPECT_EQ(named, static_cast<unsigned>(fd));
    EXPECT_GE(milliseconds, 101);
    EXPECT_LT(milliseconds, 2000);
    EXPECT_EQ(waits, static_cast<int>(sleeps.calls()));
    EXPECT_LE(waits, 52) << "each sleep lasts 2 ms at least";
    EXPECT_EQ(reports.back().level, 4);
}
