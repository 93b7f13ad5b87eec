// CTcpSocket: the readiness waits, writing, reading and reading text.
#include "Framework/GCL/CTcpSocket.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstring>
#include <functional>
#include <limits>
#include <new>
#include <string>
#include <vector>

#include "Framework/GCL/ResultCodes.h"
#include "Framework/GCL/testing/FaultInjection.h"
#include "Framework/GCL/testing/TraceCapture.h"
#include "tests/support/Loopback.h"
#include "tests/support/Suppression.h"

using gcltest::Connection;
using gcltest::Count;
using gcltest::expectReports;
using gcltest::Failure;
using gcltest::Fault;
using gcltest::Hook;
using gcltest::Report;
using gcltest::takeReports;
namespace calls = gcltest::calls;

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

Report report(const std::string& function, const std::string& text, uint32_t code)
{
    return gcltest::gclReport("CTcpSocket", function, text, code);
}

// An object on one end of a connection; the other end is the test's.
class Endpoint {
public:
    explicit Endpoint(uint32_t maxMsgSize = 1000)
    {
        CTcpSocket_Construct(&object, connection.near.get(), 1, maxMsgSize);
    }
    CTcpSocket* operator&() { return &object; }
    CTcpSocket* operator->() { return &object; }
    int peer() const { return connection.far.get(); }
    void closePeer() { connection.far.reset(); }

    // Sends from the peer and waits until the bytes have arrived.
    void receive(const std::string& data)
    {
        ASSERT_EQ(write(peer(), data.data(), data.size()), static_cast<ssize_t>(data.size()));
        std::string seen(data.size(), '\0');
        ASSERT_EQ(recv(object.iSocketHandle, &seen[0], seen.size(), MSG_PEEK | MSG_WAITALL),
                  static_cast<ssize_t>(data.size()));
    }

private:
    Connection connection;
    CTcpSocket object;
};

// What one select call does.
enum class Answer { ready, notInSet, timeOut, interrupted, error };

// Stands in for select: gives the answers in turn, checks what it is asked, and fails the test
// where more is asked of it.
class ScriptedSelect {
public:
    ScriptedSelect(const CTcpSocket& waiting, bool forWriting, std::vector<Answer> script)
        : socket(waiting),
          writing(forWriting),
          answers(std::move(script)),
          hook(calls::select, [this](int count, fd_set* readable, fd_set* writable,
                                     fd_set* exceptional, timeval* limit) {
              return answer(count, readable, writable, exceptional, limit);
          })
    {
    }
    ~ScriptedSelect() { EXPECT_EQ(next, answers.size()) << "waits"; }

    std::function<void()> onWait = [] {};

private:
    int answer(int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* limit)
    {
        fd_set* const set = writing ? writable : readable;
        EXPECT_EQ(count, socket.iSocketHandle + 1);
        EXPECT_EQ(writing ? readable : writable, nullptr);
        EXPECT_EQ(exceptional, nullptr);
        for (int fd = 0; fd < FD_SETSIZE; ++fd) {
            EXPECT_EQ(FD_ISSET(fd, set) != 0, fd == socket.iSocketHandle) << fd;
        }
        EXPECT_EQ(limit->tv_sec, static_cast<time_t>(socket.uiTimeout));
        EXPECT_EQ(limit->tv_usec, 0);
        limit->tv_sec = 0; // as the platform may do; the next wait must have the whole limit
        if (next == answers.size()) {
            ADD_FAILURE() << "one wait too many";
            return 0;
        }
        const Answer given = answers[next++];
        onWait();
        switch (given) {
        case Answer::ready:
            return 1;
        case Answer::notInSet:
            FD_CLR(socket.iSocketHandle, set);
            return 1;
        case Answer::timeOut:
            FD_CLR(socket.iSocketHandle, set);
            return 0;
        case Answer::interrupted:
            errno = EINTR;
            return -1;
        case Answer::error:
            errno = ENOMEM;
            return -1;
        }
        return 0;
    }

    const CTcpSocket& socket;
    bool writing;
    std::vector<Answer> answers;
    size_t next = 0;
    Hook<int(int, fd_set*, fd_set*, fd_set*, timeval*)> hook;
};

// Refuses every transfer: for calls that must not come so far.
class NoTransfer {
public:
    ~NoTransfer()
    {
        EXPECT_EQ(sends.calls(), 0u);
        EXPECT_EQ(receives.calls(), 0u);
    }

private:
    Hook<ssize_t(int, const void*, size_t, int)> sends{
        calls::send, [](int, const void*, size_t, int) -> ssize_t { return -1; }};
    Hook<ssize_t(int, void*, size_t, int)> receives{
        calls::recv, [](int, void*, size_t, int) -> ssize_t { return -1; }};
};

// Failures that look as if the call could be repeated. This library repeats none of them.
const int kPassing[] = {EINTR, EAGAIN, ECONNABORTED};

// A wait script with the code that Write or Read must return for it and the transfers made.
struct WaitRow {
    const char* name;
    std::vector<Answer> answers;
    uint32_t code;
    unsigned transfers;
};

// Suites with failures.
class CTcpSocketWrite : public gcltest::ReportsOrNot {};
class CTcpSocketRead : public gcltest::ReportsOrNot {};
class CTcpSocketReadZT : public gcltest::ReportsOrNot {};

GCLTEST_WITH_AND_WITHOUT_REPORTS(CTcpSocketWrite);
GCLTEST_WITH_AND_WITHOUT_REPORTS(CTcpSocketRead);
GCLTEST_WITH_AND_WITHOUT_REPORTS(CTcpSocketReadZT);

} // namespace

// Write

TEST_P(CTcpSocketWrite, RefusesInvalidArgumentsInOrder)
{
    const NoTransfer none;
    int32_t length = 0;
    CTcpSocket closed{-1, 1, 2, 0};
    EXPECT_EQ(CTcpSocket_Write(nullptr, nullptr, &length), 0x8008u);
    expectReports({report("CTcpSocket_Write", "Invalid object", 0x8008)});
    EXPECT_EQ(CTcpSocket_Write(&closed, nullptr, &length), 0x8008u);
    expectReports({report("CTcpSocket_Write", "Socket is closed", 0x8008)});
    CTcpSocket open{3, 1, 2, 0};
    // The length is not looked at: NULL must not be followed.
    EXPECT_EQ(CTcpSocket_Write(&open, nullptr, nullptr), 0x8008u);
    expectReports({report("CTcpSocket_Write", "No data to write", 0x8008)});
    for (const int32_t bad : {0, -1, INT32_MIN}) {
        length = bad;
        EXPECT_EQ(CTcpSocket_Write(&open, "x", &length), 0x8008u);
        EXPECT_EQ(length, bad);
        expectReports({report("CTcpSocket_Write", "No data to write", 0x8008)});
    }
    EXPECT_EQ(open.iSocketHandle, 3);
}

TEST_P(CTcpSocketWrite, SendsEverything)
{
    Endpoint socket(1); // the limit of Read does not matter here
    const Count waits(calls::select);
    int32_t length = 5;
    EXPECT_EQ(CTcpSocket_Write(&socket, "hello", &length), GCL_OK);
    EXPECT_EQ(length, 5);
    EXPECT_EQ(gcltest::receiveAll(socket.peer(), 5), "hello");
    length = 1;
    EXPECT_EQ(CTcpSocket_Write(&socket, "!", &length), GCL_OK);
    EXPECT_EQ(gcltest::receiveAll(socket.peer(), 1), "!");
    EXPECT_EQ(waits.calls(), 0u);
    expectReports({});
}

TEST_P(CTcpSocketWrite, GoesOnBehindWhatWasSent)
{
    CTcpSocket socket{7, 1, 2, 0};
    const std::string data = "0123456789";
    struct Sent {
        size_t offset;
        size_t length;
    };
    std::vector<Sent> sends;
    const std::vector<ssize_t> results = {3, 0, 1, 6};
    const Hook hook(calls::send, [&](int fd, const void* at, size_t length, int flags) {
        EXPECT_EQ(fd, 7);
        EXPECT_EQ(flags, 0);
        sends.push_back({static_cast<size_t>(static_cast<const char*>(at) - data.data()), length});
        return results.at(sends.size() - 1);
    });
    int32_t length = 10;
    EXPECT_EQ(CTcpSocket_Write(&socket, data.data(), &length), GCL_OK);
    EXPECT_EQ(length, 10);
    ASSERT_EQ(sends.size(), 4u);
    const size_t offsets[] = {0, 3, 3, 4};
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(sends[i].offset, offsets[i]);
        EXPECT_EQ(sends[i].length, 10 - offsets[i]);
    }
    expectReports({});
}

TEST_P(CTcpSocketWrite, TellsWhatWasSentBeforeAFailure)
{
    // Once: a second attempt would succeed.
    for (const int error : {EPIPE, kPassing[0], kPassing[1], kPassing[2]}) {
        for (unsigned nth = 1; nth <= 4; ++nth) {
            CTcpSocket socket{7, 1, 2, 0};
            unsigned number = 0;
            const Hook hook(calls::send, [&](int, const void*, size_t, int) -> ssize_t {
                errno = error;
                return ++number == nth ? -1 : 2;
            });
            int32_t length = 10;
            const auto sent = static_cast<int32_t>(2 * (nth - 1));
            const gcltest::BeginHook begin(
                [&](const Report&) { EXPECT_EQ(length, sent) << "it is stored, then told"; });
            EXPECT_EQ(CTcpSocket_Write(&socket, "0123456789", &length), 0x800Au);
            EXPECT_EQ(length, sent);
            EXPECT_EQ(number, nth);
            EXPECT_EQ(socket.iSocketHandle, 7);
            expectReports({report("CTcpSocket_Write", "send() failed", 0x800A)});
        }
    }
}

TEST_P(CTcpSocketWrite, FailsAtOnceWhereASendBehindAWaitFails)
{
    for (const int error : kPassing) {
        CTcpSocket socket{7, 1, 2, 3};
        const ScriptedSelect waits(socket, true, {Answer::ready});
        const Hook sends(calls::send, [&](int, const void*, size_t, int) -> ssize_t {
            errno = error;
            return -1;
        });
        int32_t length = 10;
        EXPECT_EQ(CTcpSocket_Write(&socket, "0123456789", &length), 0x800Au);
        EXPECT_EQ(length, 0);
        EXPECT_EQ(sends.calls(), 1u);
        expectReports({report("CTcpSocket_Write", "send() failed", 0x800A)});
    }
}

TEST_P(CTcpSocketWrite, LeavesOtherNegativeDescriptorsToThePlatform)
{
    CTcpSocket socket{-2, 1, 2, 0};
    int32_t length = 1;
    EXPECT_EQ(CTcpSocket_Write(&socket, "x", &length), 0x800Au);
    EXPECT_EQ(length, 0);
    expectReports({report("CTcpSocket_Write", "send() failed", 0x800A)});
}

TEST_P(CTcpSocketWrite, ReadsTheLengthAgainOnEachPass)
{
    CTcpSocket socket{7, 1, 2, 0};
    int32_t length = 10;
    size_t asked = 0;
    const Hook hook(calls::send, [&](int, const void*, size_t size, int) -> ssize_t {
        asked = size;
        length = 4;
        return 4;
    });
    EXPECT_EQ(CTcpSocket_Write(&socket, "0123456789", &length), GCL_OK);
    EXPECT_EQ(asked, 10u);
    EXPECT_EQ(hook.calls(), 1u);
    EXPECT_EQ(length, 4);
}

TEST_P(CTcpSocketWrite, SendsWhatRemainsOfTheFirstLength)
{
    // A length that grows makes further passes; the amount to send was fixed by the first look.
    CTcpSocket socket{7, 1, 2, 0};
    int32_t length = 6;
    std::vector<size_t> asked;
    const Hook hook(calls::send, [&](int, const void*, size_t size, int) -> ssize_t {
        asked.push_back(size);
        length = asked.size() == 1 ? 10 : 6;
        return asked.size() == 1 ? 2 : 4;
    });
    EXPECT_EQ(CTcpSocket_Write(&socket, "0123456789", &length), GCL_OK);
    EXPECT_EQ(asked, (std::vector<size_t>{6, 4}));
    EXPECT_EQ(length, 6);
}

TEST_P(CTcpSocketWrite, FollowsTheAnswersOfItsWaits)
{
    using A = Answer;
    const WaitRow rows[] = {
        {"ready", {A::ready}, 0, 1},
        {"time-out", {A::timeOut}, 0x8015, 0},
        {"another descriptor", {A::notInSet, A::notInSet, A::ready}, 0, 1},
        {"another descriptor, time-out", {A::notInSet, A::timeOut}, 0x8015, 0},
        {"interrupted", {A::interrupted}, 0, 1},
        {"error, then ready ones that do not count",
         {A::error, A::ready, A::ready, A::notInSet, A::timeOut},
         0x8015,
         0},
        {"error, then time-out", {A::error, A::timeOut}, 0x8015, 0},
        {"errors, then interrupted", {A::error, A::error, A::error, A::interrupted}, 0, 1},
        {"error, ready, interrupted", {A::error, A::ready, A::interrupted}, 0, 1},
    };
    for (const WaitRow& row : rows) {
        SCOPED_TRACE(row.name);
        CTcpSocket socket{7, 1, 2, 3};
        const ScriptedSelect waits(socket, true, row.answers);
        const Hook sends(calls::send, [](int, const void*, size_t size, int) {
            return static_cast<ssize_t>(size);
        });
        int32_t length = 10;
        EXPECT_EQ(CTcpSocket_Write(&socket, "0123456789", &length), row.code);
        EXPECT_EQ(length, 10);
        EXPECT_EQ(sends.calls(), row.transfers);
        expectReports({});
    }
}

TEST_P(CTcpSocketWrite, WaitsBeforeEachSend)
{
    CTcpSocket socket{7, 1, 2, 3};
    using A = Answer;
    const ScriptedSelect waits(socket, true, {A::ready, A::interrupted, A::ready, A::timeOut});
    const Hook sends(calls::send, [](int, const void*, size_t, int) -> ssize_t { return 2; });
    int32_t length = 10;
    EXPECT_EQ(CTcpSocket_Write(&socket, "0123456789", &length), 0x8015u);
    EXPECT_EQ(length, 10) << "not updated, although 6 bytes are sent";
    EXPECT_EQ(sends.calls(), 3u);
    expectReports({});
}

TEST_P(CTcpSocketWrite, ReadsTheTimeoutAgainBeforeEachWait)
{
    CTcpSocket socket{7, 1, 2, 3};
    ScriptedSelect waits(socket, true, {Answer::notInSet, Answer::notInSet});
    int wait = 0;
    waits.onWait = [&] { socket.uiTimeout = ++wait == 1 ? 9 : 0; };
    const Hook sends(calls::send,
                     [](int, const void*, size_t size, int) { return static_cast<ssize_t>(size); });
    int32_t length = 10;
    EXPECT_EQ(CTcpSocket_Write(&socket, "0123456789", &length), GCL_OK);
    EXPECT_EQ(sends.calls(), 1u);
}

TEST_P(CTcpSocketWrite, ReturnsTheStatusOnceEverythingIsSent)
{
    // Without further waits the failed one is never cleared.
    CTcpSocket socket{7, 1, 2, 3};
    ScriptedSelect waits(socket, true, {Answer::error});
    waits.onWait = [&] { socket.uiTimeout = 0; };
    const Hook sends(calls::send,
                     [](int, const void*, size_t size, int) { return static_cast<ssize_t>(size); });
    int32_t length = 10;
    EXPECT_EQ(CTcpSocket_Write(&socket, "0123456789", &length), 0x800Au);
    EXPECT_EQ(length, 10);
    EXPECT_EQ(sends.calls(), 1u);
    expectReports({});
}

TEST(CTcpSocketWrite, TimesOutWhenThePeerReadsNothing)
{
    Endpoint socket;
    ASSERT_EQ(CTcpSocket_SetTimeout(&socket, 1), GCL_OK);
    const std::string data(32 * 1024 * 1024, 'x');
    int32_t length = static_cast<int32_t>(data.size());
    const auto start = Clock::now();
    EXPECT_EQ(CTcpSocket_Write(&socket, data.data(), &length), 0x8015u);
    EXPECT_GE(Clock::now() - start, milliseconds(1000));
    EXPECT_EQ(length, static_cast<int32_t>(data.size()));
    expectReports({});
}

TEST_P(CTcpSocketWrite, FailsOnAConnectionThatIsShutDown)
{
    Endpoint socket;
    ASSERT_EQ(shutdown(socket->iSocketHandle, SHUT_WR), 0);
    // The platform's signal, which the library leaves to the process.
    struct sigaction ignore {};
    struct sigaction before {};
    ignore.sa_handler = SIG_IGN;
    ASSERT_EQ(sigaction(SIGPIPE, &ignore, &before), 0);
    int32_t length = 3;
    EXPECT_EQ(CTcpSocket_Write(&socket, "abc", &length), 0x800Au);
    ASSERT_EQ(sigaction(SIGPIPE, &before, nullptr), 0);
    EXPECT_EQ(length, 0);
    expectReports({report("CTcpSocket_Write", "send() failed", 0x800A)});
}

TEST_P(CTcpSocketWrite, LetsTheBrokenPipeSignalThrough)
{
    static volatile sig_atomic_t raised;
    raised = 0;
    Endpoint socket;
    ASSERT_EQ(shutdown(socket->iSocketHandle, SHUT_WR), 0);
    struct sigaction note {};
    struct sigaction before {};
    note.sa_handler = [](int) { raised = 1; };
    ASSERT_EQ(sigaction(SIGPIPE, &note, &before), 0);
    int32_t length = 3;
    EXPECT_EQ(CTcpSocket_Write(&socket, "abc", &length), 0x800Au);
    ASSERT_EQ(sigaction(SIGPIPE, &before, nullptr), 0);
    EXPECT_EQ(raised, 1);
    static_cast<void>(takeReports());
}

// Read

TEST_P(CTcpSocketRead, RefusesInvalidArgumentsInOrder)
{
    const NoTransfer none;
    char buffer[8];
    int32_t length = 0;
    CTcpSocket closed{-1, 1, 5, 0};
    CTcpSocket open{3, 1, 5, 0};
    EXPECT_EQ(CTcpSocket_Read(nullptr, nullptr, nullptr), 0x8008u);
    expectReports({report("CTcpSocket_Read", "Invalid argument: null object", 0x8008)});
    EXPECT_EQ(CTcpSocket_Read(&closed, nullptr, nullptr), 0x8008u);
    expectReports({report("CTcpSocket_Read", "Invalid argument: Socket is closed", 0x8008)});
    EXPECT_EQ(CTcpSocket_Read(&open, nullptr, nullptr), 0x8008u);
    expectReports({report("CTcpSocket_Read", "Invalid argument: receive buffer is NULL", 0x8008)});
    EXPECT_EQ(CTcpSocket_Read(&open, buffer, nullptr), 0x8008u);
    expectReports({report("CTcpSocket_Read", "Invalid argument: piDataLen is NULL", 0x8008)});
    open.uiMaxMsgSize = 0xFFFFFFFF; // -1: a length of 0 would also be too large
    EXPECT_EQ(CTcpSocket_Read(&open, buffer, &length), 0x8008u);
    expectReports(
        {report("CTcpSocket_Read", "Invalid argument: buffer size is 0 (*piDataLen)", 0x8008)});
    open.uiMaxMsgSize = 5;
    length = 6;
    EXPECT_EQ(CTcpSocket_Read(&open, buffer, &length), 0x8008u);
    EXPECT_EQ(length, 6);
    expectReports({report("CTcpSocket_Read",
                          "*piDataLen: Message too large (must be less than 5 bytes)", 0x8008)});
    EXPECT_EQ(open.iSocketHandle, 3);
}

TEST_P(CTcpSocketRead, ComparesTheSizesAsSignedNumbers)
{
    struct Row {
        uint32_t maximum;
        int32_t length;
        bool accepted;
    };
    const Row rows[] = {{0, 1, false},
                        {0, -1, true},
                        {5, 5, true},
                        {5, INT32_MAX, false},
                        {0x7FFFFFFFu, INT32_MAX, true},
                        {0x80000000u, 1, false},
                        {0x80000000u, INT32_MIN, true},
                        {0xFFFFFFFFu, 1, false},
                        {0xFFFFFFFFu, -1, true},
                        {0xFFFFFFFEu, -1, false}};
    for (const Row& row : rows) {
        CTcpSocket socket{7, 1, row.maximum, 0};
        size_t asked = 0;
        const Hook hook(calls::recv, [&asked](int fd, void*, size_t size, int flags) -> ssize_t {
            EXPECT_EQ(fd, 7);
            EXPECT_EQ(flags, 0);
            asked = size;
            return 1;
        });
        char byte = 0;
        int32_t length = row.length;
        EXPECT_EQ(CTcpSocket_Read(&socket, &byte, &length), row.accepted ? 0u : 0x8008u);
        EXPECT_EQ(hook.calls(), row.accepted ? 1u : 0u) << row.maximum << ' ' << row.length;
        if (row.accepted) {
            // By contract: a negative length reaches the platform as the size that it converts to.
            EXPECT_EQ(asked, static_cast<size_t>(row.length));
            EXPECT_EQ(length, 1);
            expectReports({});
        } else {
            EXPECT_EQ(length, row.length);
            expectReports({report("CTcpSocket_Read",
                                  "*piDataLen: Message too large (must be less than " +
                                      std::to_string(row.maximum) + " bytes)",
                                  0x8008)});
        }
    }
}

TEST_P(CTcpSocketRead, TakesWhatOneReceiveYields)
{
    Endpoint socket(5);
    socket.receive("abcdefg");
    const Count waits(calls::select);
    const Count receives(calls::recv);
    char buffer[6] = "-----";
    int32_t length = 5;
    EXPECT_EQ(CTcpSocket_Read(&socket, buffer, &length), GCL_OK);
    EXPECT_EQ(length, 5);
    EXPECT_STREQ(buffer, "abcde");
    length = 5;
    EXPECT_EQ(CTcpSocket_Read(&socket, buffer, &length), GCL_OK);
    EXPECT_EQ(length, 2);
    EXPECT_STREQ(buffer, "fgcde");
    EXPECT_EQ(receives.calls(), 2u);
    EXPECT_EQ(waits.calls(), 0u);
    expectReports({});
}

TEST_P(CTcpSocketRead, TellsThatThePeerClosed)
{
    Endpoint socket;
    socket.closePeer();
    char buffer[4];
    for (const uint32_t timeout : {0u, 5u}) {
        ASSERT_EQ(CTcpSocket_SetTimeout(&socket, timeout), GCL_OK);
        int32_t length = 4;
        EXPECT_EQ(CTcpSocket_Read(&socket, buffer, &length), 0x800Du);
        EXPECT_EQ(length, 0);
    }
    EXPECT_GE(socket->iSocketHandle, 0);
    expectReports({});
}

TEST_P(CTcpSocketRead, ReportsAReceiveThatFails)
{
    // Once: a second attempt would succeed.
    for (const int error : {ECONNRESET, kPassing[0], kPassing[1], kPassing[2]}) {
        for (const uint32_t timeout : {0u, 5u}) {
            Endpoint socket;
            socket.receive("abc");
            ASSERT_EQ(CTcpSocket_SetTimeout(&socket, timeout), GCL_OK);
            const Fault fault(calls::recv, {-1, error});
            char buffer[4];
            int32_t length = 4;
            EXPECT_EQ(CTcpSocket_Read(&socket, buffer, &length), 0x800Au);
            EXPECT_EQ(length, -1);
            EXPECT_EQ(fault.calls(), 1u);
            expectReports({report("CTcpSocket_Read", "recv() failed", 0x800A)});
        }
    }
}

TEST_P(CTcpSocketRead, LeavesOtherNegativeDescriptorsToThePlatform)
{
    CTcpSocket socket{-2, 1, 10, 0};
    char byte = 0;
    int32_t length = 1;
    EXPECT_EQ(CTcpSocket_Read(&socket, &byte, &length), 0x800Au);
    EXPECT_EQ(length, -1);
    expectReports({report("CTcpSocket_Read", "recv() failed", 0x800A)});
}

TEST_P(CTcpSocketRead, ReportsAConnectionThatThePeerReset)
{
    Endpoint socket;
    const linger abort = {1, 0};
    ASSERT_EQ(setsockopt(socket.peer(), SOL_SOCKET, SO_LINGER, &abort, sizeof abort), 0);
    socket.closePeer();
    char buffer[4];
    int32_t length = 4;
    EXPECT_EQ(CTcpSocket_Read(&socket, buffer, &length), 0x800Au);
    EXPECT_EQ(length, -1);
    expectReports({report("CTcpSocket_Read", "recv() failed", 0x800A)});
}

TEST_P(CTcpSocketRead, FollowsTheAnswersOfItsWaits)
{
    using A = Answer;
    const WaitRow rows[] = {
        {"ready", {A::ready}, 0, 1},
        {"time-out", {A::timeOut}, 0x8015, 0},
        {"another descriptor", {A::notInSet, A::notInSet, A::ready}, 0, 1},
        {"another descriptor, time-out", {A::notInSet, A::timeOut}, 0x8015, 0},
        {"interrupted", {A::interrupted}, 0, 1},
        {"error", {A::error}, 0x800A, 0},
        {"another descriptor, error", {A::notInSet, A::error}, 0x800A, 0},
    };
    for (const WaitRow& row : rows) {
        SCOPED_TRACE(row.name);
        CTcpSocket socket{7, 1, 10, 3};
        const ScriptedSelect waits(socket, false, row.answers);
        const Hook receives(
            calls::recv, [](int, void*, size_t size, int) { return static_cast<ssize_t>(size); });
        char buffer[10];
        int32_t length = 10;
        EXPECT_EQ(CTcpSocket_Read(&socket, buffer, &length), row.code);
        EXPECT_EQ(length, 10);
        EXPECT_EQ(receives.calls(), row.transfers);
        expectReports({});
    }
}

TEST_P(CTcpSocketRead, ReadsTheTimeoutAgainBeforeEachWait)
{
    CTcpSocket socket{7, 1, 10, 3};
    ScriptedSelect waits(socket, false, {Answer::notInSet, Answer::notInSet});
    int wait = 0;
    waits.onWait = [&] { socket.uiTimeout = ++wait == 1 ? 9 : 0; };
    const Fault fault(calls::recv, {1, 0});
    char buffer[10];
    int32_t length = 10;
    EXPECT_EQ(CTcpSocket_Read(&socket, buffer, &length), GCL_OK);
    EXPECT_EQ(fault.calls(), 1u);
}

TEST(CTcpSocketRead, TimesOutAfterWholeSeconds)
{
    Endpoint socket;
    for (const int seconds : {1, 2}) {
        ASSERT_EQ(CTcpSocket_SetTimeout(&socket, static_cast<uint32_t>(seconds)), GCL_OK);
        char buffer[4] = "abc";
        int32_t length = 3;
        const auto start = Clock::now();
        EXPECT_EQ(CTcpSocket_Read(&socket, buffer, &length), 0x8015u);
        const auto lasted = Clock::now() - start;
        EXPECT_GE(lasted, milliseconds(1000 * seconds));
        EXPECT_LT(lasted, milliseconds(1000 * seconds + 30'000));
        EXPECT_EQ(length, 3);
        EXPECT_STREQ(buffer, "abc");
    }
    expectReports({});
}

TEST_P(CTcpSocketRead, ReadsWithATimeoutOnceDataIsThere)
{
    Endpoint socket;
    ASSERT_EQ(CTcpSocket_SetTimeout(&socket, 30), GCL_OK);
    socket.receive("abc");
    char buffer[4] = "";
    int32_t length = 4;
    EXPECT_EQ(CTcpSocket_Read(&socket, buffer, &length), GCL_OK);
    EXPECT_EQ(length, 3);
    EXPECT_STREQ(buffer, "abc");
    expectReports({});
}

// The waits as such

TEST(CTcpSocketWait, TakesTheLongestLimitThatThePlatformCanHold)
{
    CTcpSocket socket{7, 1, 10, 0xFFFFFFFFu};
    int64_t seconds = 0;
    const Hook hook(calls::select, [&seconds](int, fd_set*, fd_set*, fd_set*, timeval* limit) {
        seconds = limit->tv_sec;
        return 0;
    });
    char buffer[4];
    int32_t length = 4;
    EXPECT_EQ(CTcpSocket_Read(&socket, buffer, &length), 0x8015u);
    EXPECT_EQ(seconds, std::min<int64_t>(0xFFFFFFFFll,
                                         std::numeric_limits<decltype(timeval::tv_sec)>::max()));
}

TEST(CTcpSocketWait, RefusesANegativeDescriptorThatIsNotTheClosedOne)
{
    CTcpSocket socket{-2, 1, 10, 1};
    char buffer[4];
    int32_t length = 4;
    EXPECT_EQ(CTcpSocket_Read(&socket, buffer, &length), 0x800Au);
    EXPECT_EQ(length, 4);
    expectReports({});
}

// Whatever the platform leaves in the set.
TEST(CTcpSocketWait, FindsNoNegativeDescriptorInTheSet)
{
    CTcpSocket socket{-2, 1, 10, 1};
    const NoTransfer none;
    unsigned waits = 0;
    const Hook hook(calls::select, [&waits](int count, fd_set* set, fd_set*, fd_set*, timeval*) {
        EXPECT_EQ(count, -1);
        for (int fd = 0; fd < FD_SETSIZE; ++fd) {
            EXPECT_FALSE(FD_ISSET(fd, set)) << fd;
            FD_SET(fd, set);
        }
        return ++waits == 1 ? 1 : 0;
    });
    char buffer[4];
    int32_t length = 4;
    EXPECT_EQ(CTcpSocket_Read(&socket, buffer, &length), 0x8015u);
    EXPECT_EQ(waits, 2u);
    expectReports({});
}

TEST(CTcpSocketWait, FindsDescriptorZeroInTheSet)
{
    CTcpSocket socket{0, 1, 10, 3};
    const ScriptedSelect waits(socket, false, {Answer::notInSet, Answer::ready});
    const Fault receives(calls::recv, {1, 0});
    char buffer[4];
    int32_t length = 4;
    EXPECT_EQ(CTcpSocket_Read(&socket, buffer, &length), GCL_OK);
    EXPECT_EQ(receives.calls(), 1u);
    expectReports({});
}

TEST(CTcpSocketWait, AllocatesNothingBelow1024)
{
    CTcpSocket socket{1023, 1, 10, 1};
    const Count allocations(calls::newArray);
    const Hook hook(calls::select, [](int count, fd_set* set, fd_set*, fd_set*, timeval*) {
        EXPECT_EQ(count, 1024);
        EXPECT_NE(FD_ISSET(1023, set), 0);
        return 0;
    });
    char buffer[4];
    int32_t length = 4;
    EXPECT_EQ(CTcpSocket_Read(&socket, buffer, &length), 0x8015u);
    EXPECT_EQ(allocations.calls(), 0u);
}

TEST(CTcpSocketWait, SizesTheSetForHighDescriptors)
{
    constexpr size_t kWordBits = sizeof(unsigned long) * CHAR_BIT;
    for (const int fd : {1024, 1025, 2000, 4095, 4096, 65536}) {
        CTcpSocket socket{fd, 1, 10, 1};
        const size_t words = static_cast<size_t>(fd) / kWordBits + 1;
        size_t allocated = 0;
        const Hook memory(calls::newArray, [&allocated](size_t size) {
            allocated = size;
            return calls::newArray.real(size);
        });
        const Hook hook(calls::select, [&](int count, fd_set* set, fd_set*, fd_set*, timeval*) {
            EXPECT_EQ(count, fd + 1);
            const auto* const bits = reinterpret_cast<const unsigned long*>(set);
            for (size_t i = 0; i < words; ++i) {
                EXPECT_EQ(bits[i],
                          i + 1 < words ? 0ul : 1ul << static_cast<size_t>(fd) % kWordBits);
            }
            return 1;
        });
        const Fault fault(calls::recv, {3, 0});
        char buffer[4];
        int32_t length = 4;
        EXPECT_EQ(CTcpSocket_Read(&socket, buffer, &length), GCL_OK);
        EXPECT_EQ(fault.calls(), 1u);
        EXPECT_EQ(allocated, words * sizeof(unsigned long));
    }
}

TEST(CTcpSocketWait, PassesAnAllocationFailureOn)
{
    CTcpSocket socket{1024, 1, 10, 1};
    const Fault fault(calls::newArray, {0, 0});
    char buffer[4];
    int32_t length = 4;
    EXPECT_THROW(CTcpSocket_Read(&socket, buffer, &length), std::bad_alloc);
    EXPECT_EQ(length, 4);
}

// ReadZT

TEST_P(CTcpSocketReadZT, CopiesTheTextWithoutATerminator)
{
    Endpoint socket;
    socket.receive("hello");
    char text[11] = "----------";
    int32_t length = 9;
    EXPECT_EQ(CTcpSocket_ReadZT(&socket, text, &length), GCL_OK);
    EXPECT_EQ(length, 5);
    EXPECT_STREQ(text, "hello-----");
    expectReports({});
}

TEST_P(CTcpSocketReadZT, FillsWithZerosBehindTheFirstZero)
{
    Endpoint socket;
    socket.receive(std::string("ab\0cd", 5));
    char text[8] = "-------";
    int32_t length = 7;
    EXPECT_EQ(CTcpSocket_ReadZT(&socket, text, &length), GCL_OK);
    EXPECT_EQ(length, 5);
    EXPECT_EQ(std::string(text, 8), std::string("ab\0\0\0--\0", 8));
}

TEST_P(CTcpSocketReadZT, AsksForTheWholeLength)
{
    Endpoint socket(4);
    socket.receive("abcdef");
    char text[8] = "-------";
    int32_t length = 4; // exactly the maximum
    EXPECT_EQ(CTcpSocket_ReadZT(&socket, text, &length), GCL_OK);
    EXPECT_EQ(length, 4);
    EXPECT_STREQ(text, "abcd---");
}

TEST_P(CTcpSocketReadZT, WritesZerosWhereReadRefusesTheSize)
{
    for (const uint32_t maximum :
         {0u, 1u, 5u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFEu, 0xFFFFFFFFu}) {
        for (const int32_t asked : {1, 6, 30}) {
            CTcpSocket socket{7, 1, maximum, 0};
            if (asked <= static_cast<int32_t>(maximum)) {
                continue; // not refused
            }
            const NoTransfer none;
            std::string text(32, '-');
            int32_t length = asked;
            EXPECT_EQ(CTcpSocket_ReadZT(&socket, &text[0], &length), 0x8008u);
            EXPECT_EQ(length, asked);
            const auto zeros = static_cast<size_t>(asked);
            EXPECT_EQ(text, std::string(zeros, '\0') + std::string(32 - zeros, '-'));
            expectReports({report("CTcpSocket_Read",
                                  "*piDataLen: Message too large (must be less than " +
                                      std::to_string(maximum) + " bytes)",
                                  0x8008)});
        }
    }
}

TEST_P(CTcpSocketReadZT, WritesNothingForALengthOfZero)
{
    for (const uint32_t maximum : {5u, 0xFFFFFFFFu}) {
        CTcpSocket socket{7, 1, maximum, 0};
        char text[4] = "---";
        int32_t length = 0;
        EXPECT_EQ(CTcpSocket_ReadZT(&socket, text, &length), 0x8008u);
        EXPECT_STREQ(text, "---");
        expectReports(
            {report("CTcpSocket_Read", "Invalid argument: buffer size is 0 (*piDataLen)", 0x8008)});
    }
}

TEST_P(CTcpSocketReadZT, RefusesANegativeLength)
{
    const NoTransfer none;
    for (const int32_t negative : {-1, INT32_MIN}) {
        CTcpSocket socket{7, 1, 5, 0};
        char text[4] = "---";
        int32_t length = negative;
        EXPECT_EQ(CTcpSocket_ReadZT(&socket, text, &length), 0x8008u);
        EXPECT_EQ(length, negative);
        EXPECT_STREQ(text, "---");
        expectReports({report("CTcpSocket_ReadZT",
                              "Invalid argument: buffer size is negative (*piDataLen)", 0x8008)});
    }
}

TEST_P(CTcpSocketReadZT, RefusesANullLengthAsReadDoes)
{
    CTcpSocket socket{7, 1, 5, 0};
    char text[4] = "---";
    EXPECT_EQ(CTcpSocket_ReadZT(&socket, text, nullptr), 0x8008u);
    EXPECT_STREQ(text, "---");
    expectReports({report("CTcpSocket_Read", "Invalid argument: piDataLen is NULL", 0x8008)});
}

TEST_P(CTcpSocketReadZT, WritesZerosWhereNothingWasReceived)
{
    // A closed object and a time-out: the length is as it was, and so many zeros are copied.
    CTcpSocket closed{-1, 1, 5, 0};
    char text[6] = "-----";
    int32_t length = 3;
    EXPECT_EQ(CTcpSocket_ReadZT(&closed, text, &length), 0x8008u);
    EXPECT_EQ(std::string(text, 6), std::string("\0\0\0--\0", 6));
    expectReports({report("CTcpSocket_Read", "Invalid argument: Socket is closed", 0x8008)});

    CTcpSocket silent{7, 1, 5, 1};
    const ScriptedSelect waits(silent, false, {Answer::timeOut});
    std::strcpy(text, "-----");
    length = 4;
    EXPECT_EQ(CTcpSocket_ReadZT(&silent, text, &length), 0x8015u);
    EXPECT_EQ(length, 4);
    EXPECT_EQ(std::string(text, 6), std::string("\0\0\0\0-\0", 6));
    expectReports({});
}

TEST_P(CTcpSocketReadZT, WritesZerosWhereTheWaitFailed)
{
    CTcpSocket socket{7, 1, 5, 1};
    const ScriptedSelect waits(socket, false, {Answer::error});
    char text[6] = "-----";
    int32_t length = 4;
    EXPECT_EQ(CTcpSocket_ReadZT(&socket, text, &length), 0x800Au);
    EXPECT_EQ(length, 4);
    EXPECT_EQ(std::string(text, 6), std::string("\0\0\0\0-\0", 6));
    expectReports({});
}

TEST_P(CTcpSocketReadZT, CopiesNothingAfterAReceiveThatFails)
{
    CTcpSocket socket{7, 1, 5, 0};
    const Fault fault(calls::recv, {-1, EIO});
    char text[6] = "-----";
    int32_t length = 4;
    EXPECT_EQ(CTcpSocket_ReadZT(&socket, text, &length), 0x800Au);
    EXPECT_EQ(length, -1);
    EXPECT_STREQ(text, "-----");
    expectReports({report("CTcpSocket_Read", "recv() failed", 0x800A)});
}

TEST_P(CTcpSocketReadZT, CopiesNothingWhenThePeerClosed)
{
    Endpoint socket;
    socket.closePeer();
    char text[6] = "-----";
    int32_t length = 4;
    EXPECT_EQ(CTcpSocket_ReadZT(&socket, text, &length), 0x800Du);
    EXPECT_EQ(length, 0);
    EXPECT_STREQ(text, "-----");
    expectReports({});
}

TEST_P(CTcpSocketReadZT, ReadsIntoAZeroFilledBufferOfItsOwn)
{
    CTcpSocket socket{7, 1, 500, 0};
    char text[400];
    std::memset(text, '-', sizeof text);
    const Hook hook(calls::recv, [&text](int, void* buffer, size_t size, int) -> ssize_t {
        EXPECT_NE(buffer, text);
        EXPECT_EQ(size, 400u);
        const std::string before(static_cast<const char*>(buffer), size);
        EXPECT_EQ(before, std::string(400, '\0'));
        std::memset(buffer, 'x', size); // as dirt for the next call, too
        return static_cast<ssize_t>(size);
    });
    for (int i = 0; i < 3; ++i) {
        int32_t length = 400;
        EXPECT_EQ(CTcpSocket_ReadZT(&socket, text, &length), GCL_OK);
        EXPECT_EQ(std::string(text, 400), std::string(400, 'x'));
    }
    EXPECT_EQ(hook.calls(), 3u);
}
