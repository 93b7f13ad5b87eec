#include "Framework/GCL/cxx/TcpSocket.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <climits>
#include <cstring>
#include <new>
#include <string>
#include <system_error>
#include <thread>
#include <type_traits>
#include <vector>

#include "Framework/GCL/testing/FaultInjection.h"
#include "Framework/GCL/testing/TraceCapture.h"
#include "tests/support/Loopback.h"

using gcl::TcpSocket;
using gcltest::Connection;
using gcltest::connectTo;
using gcltest::Fault;
using gcltest::freePort;
using gcltest::gclReport;
using gcltest::Hook;
using gcltest::Listener;
using gcltest::OwnedFd;
using gcltest::Report;
using gcltest::takeReports;
namespace calls = gcltest::calls;

namespace {

// A socket and the descriptor of its peer.
struct Pair {
    Pair()
    {
        Connection connection;
        socket = TcpSocket(connection.near.release(), 4711, 100);
        peer.reset(connection.far.release());
    }
    ~Pair()
    {
        peer.reset(); // so that closing the socket does not wait
        socket.destruct();
        takeReports();
    }
    Pair(const Pair&) = delete;
    Pair& operator=(const Pair&) = delete;

    void send(const std::string& text) const
    {
        EXPECT_EQ(::send(peer.get(), text.data(), text.size(), 0),
                  static_cast<ssize_t>(text.size()));
    }

    TcpSocket socket;
    OwnedFd peer;
};

bool isOpen(int fd)
{
    return fcntl(fd, F_GETFD) != -1;
}

void expectReport(const char* function, const std::string& text, uint32_t code)
{
    EXPECT_EQ(takeReports(), std::vector<Report>{gclReport(
                                 "CTcpSocket", std::string("CTcpSocket_") + function, text, code)});
}

constexpr size_t kTooLong = size_t{INT32_MAX} + 1;

} // namespace

TEST(TcpSocketProperties, MovesOnlyAndThrowsNothingInMoves)
{
    static_assert(!std::is_copy_constructible_v<TcpSocket>);
    static_assert(!std::is_copy_assignable_v<TcpSocket>);
    static_assert(std::is_nothrow_move_constructible_v<TcpSocket>);
    static_assert(std::is_nothrow_move_assignable_v<TcpSocket>);
    static_assert(sizeof(TcpSocket) == sizeof(CTcpSocket));
}

TEST(TcpSocketConstruct, OwnsTheDescriptorThatItIsGiven)
{
    int fd = -1;
    {
        Connection connection;
        fd = connection.near.release();
        TcpSocket socket(fd, 4711, 100);
        EXPECT_EQ(socket.getSocketHandle(), fd);
        EXPECT_EQ(socket.native().iPort, 4711);
        EXPECT_EQ(socket.native().uiMaxMsgSize, 100u);
        EXPECT_EQ(socket.native().uiTimeout, 0u);
        EXPECT_TRUE(isOpen(fd));
        connection.far.reset();
    }
    EXPECT_FALSE(isOpen(fd));
    takeReports();
}

TEST(TcpSocketConstruct, ClosesTheConnectionThatWasThere)
{
    Pair pair;
    const int first = pair.socket.getSocketHandle();
    pair.peer.reset();
    Connection connection;
    const int second = connection.near.release();
    ASSERT_EQ(pair.socket.construct(second, 1, INT32_MAX), GCL_OK);
    EXPECT_FALSE(isOpen(first));
    EXPECT_EQ(pair.socket.getSocketHandle(), second);
    connection.far.reset();
}

TEST(TcpSocketConstruct, RefusesALargestSizeThatDoesNotFit)
{
    Pair pair;
    const int fd = pair.socket.getSocketHandle();
    EXPECT_EQ(pair.socket.construct(99, 1, kTooLong), GCL_INVALID_ARGUMENT);
    EXPECT_EQ(pair.socket.create("127.0.0.1", 1, kTooLong), GCL_INVALID_ARGUMENT);
    EXPECT_EQ(pair.socket.waitForConnection(1, kTooLong), GCL_INVALID_ARGUMENT);
    EXPECT_EQ(pair.socket.getSocketHandle(), fd);
    EXPECT_TRUE(isOpen(fd));
    try {
        const TcpSocket socket(99, 1, kTooLong);
        FAIL() << "nothing was thrown";
    } catch (const std::system_error& failure) {
        EXPECT_EQ(failure.code(), GCL_INVALID_ARGUMENT);
    }
    EXPECT_EQ(takeReports(), std::vector<Report>{});
}

TEST(TcpSocketCreate, ConnectsAndGivesTheMemoryBack)
{
    Pair pair;
    const int former = pair.socket.getSocketHandle();
    pair.peer.reset();
    const Listener listener;
    const gcltest::Frees frees;
    ASSERT_EQ(pair.socket.create("127.0.0.1", listener.port, 50), GCL_OK);
    EXPECT_EQ(frees.memory().size(), 1u);
    EXPECT_FALSE(isOpen(former));
    EXPECT_EQ(pair.socket.native().iPort, listener.port);
    EXPECT_EQ(pair.socket.native().uiMaxMsgSize, 50u);
    pair.peer = listener.accepted();
    pair.send("hello");
    char buffer[50];
    size_t received = 0;
    ASSERT_EQ(pair.socket.readFully(buffer, 5, received), GCL_OK);
    EXPECT_EQ(std::string(buffer, received), "hello");
}

TEST(TcpSocketCreate, LeavesTheSocketAsItWasOnFailure)
{
    Pair pair;
    const int fd = pair.socket.getSocketHandle();
    EXPECT_EQ(pair.socket.create("127.0.0.1", freePort(), 50), GCL_CONNECT_FAILED);
    expectReport("Create", "Client failed to connect", 0x800B);
    EXPECT_EQ(pair.socket.create("no.such.host.invalid.", 1, 50), GCL_SOCKET_FAILED);
    expectReport("Create", "Failed to connect to 'no.such.host.invalid.' at port '1'", 0x800A);
    const Listener listener;
    {
        const Fault fault(calls::newArray, {0, 0, 1, gcltest::Failure::kForGood});
        EXPECT_THROW(static_cast<void>(pair.socket.create("127.0.0.1", listener.port, 50)),
                     std::bad_alloc);
    }
    EXPECT_EQ(pair.socket.getSocketHandle(), fd);
    EXPECT_TRUE(isOpen(fd));
}

TEST(TcpSocketWaitForConnection, ServesAClient)
{
    const int port = freePort();
    OwnedFd client;
    std::thread connector([&] {
        while (client.get() < 0) {
            client = connectTo(port);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
    TcpSocket socket;
    ASSERT_EQ(socket.waitForConnection(port, 50), GCL_OK);
    connector.join();
    EXPECT_EQ(socket.native().iPort, port);
    ASSERT_EQ(socket.write("hi", 2), GCL_OK);
    EXPECT_EQ(gcltest::receiveAll(client.get(), 2), "hi");
    client.reset();
    socket.destruct();
    takeReports();
}

TEST(TcpSocketWaitForConnection, LeavesTheSocketAsItWasOnFailure)
{
    Pair pair;
    const int fd = pair.socket.getSocketHandle();
    const int port = freePort();
    const Fault fault(calls::listen, {-1, EADDRINUSE});
    EXPECT_EQ(pair.socket.waitForConnection(port, 50), GCL_SOCKET_FAILED);
    expectReport("WaitForConnection", "listen() failed", 0x800A);
    EXPECT_EQ(pair.socket.getSocketHandle(), fd);
}

TEST(TcpSocketWrite, SendsEveryByte)
{
    Pair pair;
    size_t sent = 77;
    ASSERT_EQ(pair.socket.write("abc", 3, sent), GCL_OK);
    EXPECT_EQ(sent, 3u);
    EXPECT_EQ(gcltest::receiveAll(pair.peer.get(), 3), "abc");
}

TEST(TcpSocketWrite, RefusesWhatIsNoDataAndWhatDoesNotFit)
{
    Pair pair;
    size_t sent = 77;
    EXPECT_EQ(pair.socket.write("abc", 0), GCL_INVALID_ARGUMENT);
    expectReport("Write", "No data to write", 0x8008);
    EXPECT_EQ(pair.socket.write(nullptr, 3), GCL_INVALID_ARGUMENT);
    expectReport("Write", "No data to write", 0x8008);
    // It would be negative if it were cut, and this one 1.
    EXPECT_EQ(pair.socket.write("abc", kTooLong, sent), GCL_INVALID_ARGUMENT);
    if constexpr (sizeof(size_t) > 4) {
        EXPECT_EQ(pair.socket.write("abc", (size_t{1} << 32) + 1, sent), GCL_INVALID_ARGUMENT);
    }
    EXPECT_EQ(sent, 77u);
    EXPECT_EQ(takeReports(), std::vector<Report>{});
}

TEST(TcpSocketWrite, TellsHowMuchWentBeforeTheFailure)
{
    Pair pair;
    unsigned number = 0;
    const Hook hook(calls::send, [&](int, const void*, size_t, int) -> ssize_t {
        errno = ECONNRESET;
        return ++number == 1 ? 2 : -1;
    });
    size_t sent = 77;
    EXPECT_EQ(pair.socket.write("abcde", 5, sent), GCL_SOCKET_FAILED);
    EXPECT_EQ(sent, 2u);
    expectReport("Write", "send() failed", 0x800A);
}

TEST(TcpSocketWrite, TimesOut)
{
    Pair pair;
    ASSERT_EQ(pair.socket.setTimeout(1), GCL_OK);
    const Fault fault(calls::select, {0, 0});
    EXPECT_EQ(pair.socket.write("abc", 3), GCL_TIMED_OUT);
    EXPECT_EQ(takeReports(), std::vector<Report>{});
}

TEST(TcpSocketRead, ReceivesWhatIsThere)
{
    Pair pair;
    pair.send("hello");
    char buffer[100] = {};
    size_t received = 77;
    ASSERT_EQ(pair.socket.read(buffer, sizeof buffer, received), GCL_OK);
    EXPECT_EQ(std::string(buffer, received), "hello");
}

TEST(TcpSocketRead, ReceivesNothingWithAnyFailure)
{
    Pair pair;
    char buffer[200] = {};
    size_t received = 77;
    EXPECT_EQ(pair.socket.read(buffer, 0, received), GCL_INVALID_ARGUMENT);
    EXPECT_EQ(received, 0u);
    received = 77;
    EXPECT_EQ(pair.socket.read(nullptr, 1, received), GCL_INVALID_ARGUMENT);
    EXPECT_EQ(received, 0u);
    received = 77;
    EXPECT_EQ(pair.socket.read(buffer, 101, received), GCL_INVALID_ARGUMENT);
    EXPECT_EQ(received, 0u);
    EXPECT_EQ(takeReports().size(), 3u);
    // The plain function would hand this one to recv as a huge size.
    received = 77;
    EXPECT_EQ(pair.socket.read(buffer, kTooLong, received), GCL_INVALID_ARGUMENT);
    EXPECT_EQ(received, 0u);
    EXPECT_EQ(takeReports(), std::vector<Report>{});

    {
        const Fault fault(calls::recv, {-1, ECONNRESET});
        received = 77;
        EXPECT_EQ(pair.socket.read(buffer, 100, received), GCL_SOCKET_FAILED);
        EXPECT_EQ(received, 0u);
        expectReport("Read", "recv() failed", 0x800A);
    }
    ASSERT_EQ(pair.socket.setTimeout(1), GCL_OK);
    {
        const Fault fault(calls::select, {0, 0});
        received = 77;
        EXPECT_EQ(pair.socket.read(buffer, 100, received), GCL_TIMED_OUT);
        EXPECT_EQ(received, 0u);
    }
    pair.peer.reset();
    received = 77;
    const gcl::Result ended = pair.socket.read(buffer, 100, received);
    EXPECT_EQ(ended, GCL_PEER_CLOSED);
    EXPECT_TRUE(ended.failed());
    EXPECT_EQ(received, 0u);
    EXPECT_EQ(takeReports(), std::vector<Report>{});
}

TEST(TcpSocketReadZT, ReceivesText)
{
    Pair pair;
    const char sent[] = {'a', 'b', '\0', 'c'};
    pair.send(std::string(sent, sizeof sent));
    char buffer[8];
    std::memset(buffer, 'x', sizeof buffer);
    size_t received = 77;
    ASSERT_EQ(pair.socket.readZT(buffer, 7, received), GCL_OK);
    EXPECT_EQ(received, 4u);
    EXPECT_EQ(std::string(buffer, 8), std::string("ab\0\0xxxx", 8));
    received = 77;
    EXPECT_EQ(pair.socket.readZT(buffer, kTooLong, received), GCL_INVALID_ARGUMENT);
    EXPECT_EQ(received, 0u);
    EXPECT_EQ(takeReports(), std::vector<Report>{});
    pair.peer.reset();
    received = 77;
    EXPECT_EQ(pair.socket.readZT(buffer, 7, received), GCL_PEER_CLOSED);
    EXPECT_EQ(received, 0u);
}

TEST(TcpSocketReadFully, GathersPiecesAndMessagesAboveTheLargestSize)
{
    Pair pair;
    const std::string text(1000, 'y');
    std::thread sender([&] {
        for (size_t at = 0; at < text.size(); at += 50) {
            pair.send(text.substr(at, 50));
        }
    });
    std::string buffer(text.size(), '\0');
    size_t received = 0;
    ASSERT_EQ(pair.socket.readFully(buffer.data(), buffer.size(), received), GCL_OK);
    sender.join();
    EXPECT_EQ(received, text.size());
    EXPECT_EQ(buffer, text);
    EXPECT_EQ(pair.socket.readFully(nullptr, 0, received), GCL_OK);
    EXPECT_EQ(received, 0u);
}

TEST(TcpSocketReadFully, AsksForNoMoreThanIsMissing)
{
    Pair pair;
    std::vector<size_t> asked;
    const Hook hook(calls::recv, [&](int, void*, size_t size, int) -> ssize_t {
        asked.push_back(size);
        return asked.size() == 1 ? 30 : static_cast<ssize_t>(size);
    });
    std::string buffer(250, '\0');
    size_t received = 0;
    ASSERT_EQ(pair.socket.readFully(buffer.data(), buffer.size(), received), GCL_OK);
    EXPECT_EQ(asked, (std::vector<size_t>{100, 100, 100, 20}));
    EXPECT_EQ(received, 250u);
}

TEST(TcpSocketReadFully, TakesAnEndedConnectionForAnErrorAndKeepsTheCount)
{
    Pair pair;
    pair.send("half");
    pair.peer.reset();
    char buffer[10] = {};
    size_t received = 77;
    EXPECT_EQ(pair.socket.readFully(buffer, sizeof buffer, received), GCL_PEER_CLOSED);
    EXPECT_EQ(std::string(buffer, received), "half");
    EXPECT_EQ(pair.socket.readFully(buffer, sizeof buffer, received), GCL_PEER_CLOSED);
    EXPECT_EQ(received, 0u);
}

TEST(TcpSocketReadFully, EndsWithTheFailureOfAnyRead)
{
    Pair pair;
    char buffer[10] = {};
    size_t received = 77;
    ASSERT_EQ(pair.socket.setTimeout(1), GCL_OK);
    pair.send("half");
    {
        const Fault fault(calls::select, {0, 0, 2});
        EXPECT_EQ(pair.socket.readFully(buffer, sizeof buffer, received), GCL_TIMED_OUT);
        EXPECT_EQ(received, 4u);
    }
    EXPECT_EQ(TcpSocket().readFully(buffer, sizeof buffer, received), GCL_INVALID_ARGUMENT);
    EXPECT_EQ(received, 0u);
    EXPECT_EQ(takeReports().size(), 1u);
}

TEST(TcpSocketSetTimeout, SwitchesTheDescriptor)
{
    Pair pair;
    ASSERT_EQ(pair.socket.setTimeout(5), GCL_OK);
    EXPECT_EQ(pair.socket.native().uiTimeout, 5u);
    EXPECT_NE(fcntl(pair.socket.getSocketHandle(), F_GETFL) & O_NONBLOCK, 0);
    ASSERT_EQ(pair.socket.setTimeout(0), GCL_OK);
    EXPECT_EQ(fcntl(pair.socket.getSocketHandle(), F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(TcpSocket().setTimeout(5), GCL_INCONSISTENT);
    expectReport("SetTimeout", "CTcpSocket_SetTimeout call to fcntl failed", 0x800C);
}

TEST(TcpSocketClose, ClosesOnce)
{
    Pair pair;
    const int fd = pair.socket.getSocketHandle();
    pair.peer.reset();
    EXPECT_EQ(pair.socket.close(), GCL_OK);
    EXPECT_FALSE(isOpen(fd));
    EXPECT_EQ(pair.socket.getSocketHandle(), -1);
    takeReports();
    EXPECT_EQ(pair.socket.close(), GCL_SOCKET_FAILED);
    expectReport("Close", "Socket already closed", 0x800A);
    char buffer[4];
    size_t received = 0;
    EXPECT_EQ(pair.socket.write("a", 1), GCL_INVALID_ARGUMENT);
    expectReport("Write", "Socket is closed", 0x8008);
    EXPECT_EQ(pair.socket.read(buffer, 4, received), GCL_INVALID_ARGUMENT);
    expectReport("Read", "Invalid argument: Socket is closed", 0x8008);
}

TEST(TcpSocketMove, HandsTheConnectionOnAndLeavesAClosedSocket)
{
    Pair first;
    Pair second;
    const int fd = first.socket.getSocketHandle();
    const int other = second.socket.getSocketHandle();
    TcpSocket moved(std::move(first.socket));
    EXPECT_EQ(moved.getSocketHandle(), fd);
    EXPECT_EQ(moved.native().iPort, 4711);
    // NOLINTBEGIN(bugprone-use-after-move): that is what the test is about
    EXPECT_EQ(first.socket.getSocketHandle(), -1);
    EXPECT_EQ(first.socket.close(), GCL_SOCKET_FAILED);
    second.peer.reset();
    second.socket = std::move(moved);
    EXPECT_FALSE(isOpen(other));
    EXPECT_EQ(second.socket.getSocketHandle(), fd);
    EXPECT_EQ(moved.getSocketHandle(), -1);
    // NOLINTEND(bugprone-use-after-move)
    TcpSocket& same = second.socket;
    second.socket = std::move(same);
    EXPECT_TRUE(isOpen(fd));
    first.peer.reset();
}
