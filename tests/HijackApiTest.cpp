#include "Framework/GCL/HijackApi.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "Framework/GCL/testing/FaultInjection.h"
#include "Framework/GCL/testing/TraceCapture.h"
#include "Framework/VT/VorTrace.h"

using gcltest::Count;
using gcltest::Failure;
using gcltest::Fault;
using gcltest::Hook;
using gcltest::Report;
using gcltest::takeDiscarded;
using gcltest::takeReports;
using Util::HijackApi;
namespace calls = gcltest::calls;

namespace {

constexpr unsigned kTx = 0x12345678;
constexpr unsigned kRx = 0xCAFEBABE;
constexpr unsigned kPatient = 600'000;
constexpr unsigned kUntouched = 4711;
constexpr char kName[] = "KIV.NODE";

using Reports = std::vector<Report>;
using ReadCall = ssize_t(int, void*, size_t);

Report report(int level, const std::string& function, const std::string& text)
{
    return {kName, level, "Framework/GCL/private/HijackApi", function, text + "\n"};
}

std::string word(uint32_t value)
{
    std::string bytes;
    for (const unsigned shift : {24u, 16u, 8u, 0u}) {
        bytes += static_cast<char>(static_cast<unsigned char>(value >> shift));
    }
    return bytes;
}

std::string frame(uint32_t sequenceNumber, const std::string& payload)
{
    return word(kRx) + word(sequenceNumber) + word(static_cast<uint32_t>(payload.size())) + payload;
}

unsigned char* bytesOf(std::string& text)
{
    return reinterpret_cast<unsigned char*>(&text[0]);
}

// A client with a socket whose other end the test holds.
class Linked {
public:
    explicit Linked(VorTrace& trace, unsigned rxSyncId = kRx, unsigned maxSyncWaitMs = kPatient)
        : api(trace, 1, maxSyncWaitMs, kTx, rxSyncId)
    {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        api.socketFd = fd = ends[0];
        peer = ends[1];
    }
    ~Linked()
    {
        close(fd);
        closePeer();
    }
    Linked(const Linked&) = delete;
    Linked& operator=(const Linked&) = delete;

    void send(const std::string& bytes) const
    {
        ASSERT_EQ(::send(peer, bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    // What has arrived at the peer, or is left for the client.
    static std::string waiting(int end)
    {
        std::string bytes(65536, '\0');
        const ssize_t count = recv(end, &bytes[0], bytes.size(), MSG_DONTWAIT);
        bytes.resize(count < 0 ? 0 : static_cast<size_t>(count));
        return bytes;
    }
    std::string arrived() const { return waiting(peer); }
    std::string left() const { return waiting(fd); }
    void closePeer()
    {
        if (peer != -1) {
            close(peer);
        }
        peer = -1;
    }

    HijackApi api;
    int fd;
    int peer;
};

// A TCP server socket on the loopback interface.
class Server {
public:
    explicit Server(bool listening = true) : fd(socket(AF_INET, SOCK_STREAM, 0))
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        auto* const generic = reinterpret_cast<sockaddr*>(&address);
        EXPECT_EQ(bind(fd, generic, length), 0);
        EXPECT_EQ(getsockname(fd, generic, &length), 0);
        if (listening) {
            EXPECT_EQ(listen(fd, 64), 0);
        }
        port = ntohs(address.sin_port);
    }
    ~Server() { close(fd); }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    int fd;
    uint16_t port;
};

// Runs a scenario at every level of its trace object, and with an object without an
// implementation: the admitted messages are written, in order, and the others' texts discarded.
void expectMessages(const Reports& expected, const std::function<void(VorTrace&)>& scenario)
{
    for (int level = 7; level >= -1; --level) {
        SCOPED_TRACE("level " + std::to_string(level));
        gcltest::setTraceLevel(kName, level);
        VorTrace trace(kName, VorTraceLevel1);
        takeReports();
        takeDiscarded();
        gcltest::takeCalls();
        scenario(trace);
        Reports admitted;
        std::vector<std::string> discarded;
        std::vector<std::string> frameworkCalls;
        for (const Report& message : expected) {
            if (message.level <= level) {
                admitted.push_back(message);
                frameworkCalls.push_back(std::string("begin ") + kName + " " +
                                         std::to_string(message.level));
                frameworkCalls.push_back(std::string("end ") + kName);
            } else {
                discarded.push_back(message.text);
            }
        }
        EXPECT_EQ(takeReports(), admitted);
        EXPECT_EQ(takeDiscarded(), discarded);
        EXPECT_EQ(gcltest::takeCalls(), frameworkCalls);
    }
    gcltest::setTraceLevel(kName, 7);
    gcltest::buildTracesWithoutImpl(true);
    VorTrace trace(kName, VorTraceLevel7);
    gcltest::buildTracesWithoutImpl(false);
    scenario(trace);
    std::vector<std::string> texts;
    for (const Report& message : expected) {
        texts.push_back(message.text);
    }
    EXPECT_EQ(takeReports(), Reports{});
    EXPECT_EQ(takeDiscarded(), texts);
}

// One trace object at the most verbose level.
class HijackApiTest : public testing::Test {
protected:
    HijackApiTest()
    {
        gcltest::setTraceLevel(kName, 7);
        takeReports();
        takeDiscarded();
    }
    VorTrace trace{kName, VorTraceLevel7};
};

using HijackApiConstruct = HijackApiTest;
using HijackApiConnect = HijackApiTest;
using HijackApiWrite = HijackApiTest;
using HijackApiSafeRead = HijackApiTest;
using HijackApiSync = HijackApiTest;
using HijackApiRead = HijackApiTest;
using HijackApiTrace = HijackApiTest;

size_t offsetOf(const HijackApi& api, const void* field)
{
    return static_cast<size_t>(static_cast<const char*>(field) -
                               reinterpret_cast<const char*>(&api));
}

const Report kConnecting = report(4, "connectToServer", "Connect to server");
const Report kWriteNotOpen = report(1, "writeToNet", "HijackApi::writeToNet(), socket not open");
const Report kReadNotOpen = report(1, "safeRead", "HijackApi::safeRead(), socket not open");
const Report kAgain = report(
    4, "safeRead", "HijackApi::safeRead(), socket read() returned EAGAIN, read would be blocked");
const Report kNoSync = report(1, "readFromNet", "HijackApi::read(), syncId not found ");
const Report kNoSequence =
    report(1, "readFromNet",
           "HijackApi::read(), safeRead() return wrong number of bytes for sequenceNumber");
const Report kNoSize = report(
    1, "readFromNet", "HijackApi::read(), safeRead() return wrong number of bytes for msgSize");
const Report kNoPayload =
    report(1, "readFromNet", "HijackApi::read(), safeRead() return wrong  number of bytes for msg");
const Report kReadOk = report(6, "readFromNet", "HijackApi::read() message OK");

Report readFailed(const std::string& reason)
{
    return report(1, "safeRead",
                  "HijackApi::safeRead(), socket read() returned -1, Error: " + reason);
}

Report announced(const std::string& size)
{
    return report(6, "readFromNet", "HijackApi::read, message legth: " + size);
}

Report outOfSequence(const std::string& received, const std::string& old)
{
    return report(2, "readFromNet",
                  "HijackApi::read(), Sequence number " + received + " not in sequence with old " +
                      old);
}

Report tooLong(const std::string& size, const std::string& limit)
{
    return report(1, "readFromNet",
                  "HijackApi::read(), Message length " + size + " exceeds max buffer length " +
                      limit);
}

} // namespace

TEST_F(HijackApiConstruct, StoresItsArgumentsAndDoesNoInputOrOutput)
{
    Count<int(int, int, int)> sockets(calls::socket);
    alignas(HijackApi) unsigned char storage[sizeof(HijackApi)];
    std::memset(storage, 0xA5, sizeof storage);
    auto* const api = new (storage) HijackApi(trace, 0x1234, 77, 0x80000001, 0xFFFFFFFE);
    EXPECT_EQ(api->txSyncId, 0x80000001u);
    EXPECT_EQ(api->rxSyncId, 0xFFFFFFFEu);
    EXPECT_EQ(api->txSequenceNumber, 0u);
    EXPECT_EQ(api->rxSequenceNumber, 0u);
    EXPECT_EQ(api->socketFd, 0);
    EXPECT_EQ(&api->trace, &trace);
    EXPECT_EQ(api->maxSyncWaitMs, 77u);
    EXPECT_EQ(api->port, 0x1234);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(0x1234);
    EXPECT_EQ(std::memcmp(&api->serverAddress, &address, sizeof address), 0);
    api->~HijackApi();
    EXPECT_EQ(sockets.calls(), 0u);
    EXPECT_EQ(takeReports(), Reports{});
    EXPECT_EQ(takeDiscarded(), std::vector<std::string>{});
}

TEST_F(HijackApiConstruct, HasTheFieldsInOrder)
{
    HijackApi api(trace, 1, 2, 3, 4);
    const size_t behindTrace = sizeof(void*) == 8 ? 32 : 24;
    EXPECT_EQ(offsetOf(api, &api.txSyncId), 0u);
    EXPECT_EQ(offsetOf(api, &api.rxSyncId), 4u);
    EXPECT_EQ(offsetOf(api, &api.txSequenceNumber), 8u);
    EXPECT_EQ(offsetOf(api, &api.rxSequenceNumber), 12u);
    EXPECT_EQ(offsetOf(api, &api.socketFd), 16u);
    VorTrace* kept = nullptr;
    std::memcpy(&kept, reinterpret_cast<const char*>(&api) + behindTrace - sizeof kept,
                sizeof kept);
    EXPECT_EQ(kept, &trace);
    EXPECT_EQ(offsetOf(api, &api.maxSyncWaitMs), behindTrace);
    EXPECT_EQ(offsetOf(api, &api.port), behindTrace + 4);
    EXPECT_EQ(offsetOf(api, &api.serverAddress), behindTrace + 8);
    EXPECT_EQ(sizeof api, behindTrace + 24);
    EXPECT_FALSE(std::is_polymorphic_v<HijackApi>);
}

TEST_F(HijackApiConstruct, LeavesTheSocketOpenAtTheEnd)
{
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    {
        HijackApi api(trace, 1, 2, 3, 4);
        api.socketFd = ends[0];
    }
    EXPECT_EQ(send(ends[0], "x", 1, MSG_NOSIGNAL), 1);
    EXPECT_EQ(Linked::waiting(ends[1]), "x");
    close(ends[0]);
    close(ends[1]);
}

TEST_F(HijackApiConnect, ConnectsWithAReceiveTimeout)
{
    Server server;
    HijackApi api(trace, server.port, kPatient, kTx, kRx);
    api.txSequenceNumber = 5;
    api.rxSequenceNumber = 6;
    ASSERT_TRUE(api.connectToServer("127.0.0.1"));
    EXPECT_EQ(takeReports(), Reports{kConnecting});
    const int accepted = accept(server.fd, nullptr, nullptr);
    ASSERT_GE(accepted, 0);

    sockaddr_in address{};
    socklen_t length = sizeof address;
    EXPECT_EQ(getpeername(api.socketFd, reinterpret_cast<sockaddr*>(&address), &length), 0);
    EXPECT_EQ(ntohs(address.sin_port), server.port);
    EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    EXPECT_EQ(api.serverAddress.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    timeval timeout{};
    length = sizeof timeout;
    EXPECT_EQ(getsockopt(api.socketFd, SOL_SOCKET, SO_RCVTIMEO, &timeout, &length), 0);
    EXPECT_EQ(timeout.tv_sec, 100);
    EXPECT_EQ(timeout.tv_usec, 0);
    EXPECT_EQ(api.txSequenceNumber, 5u);
    EXPECT_EQ(api.rxSequenceNumber, 6u);
    close(accepted);
    close(api.socketFd);
}

TEST_F(HijackApiConnect, AsksForAnIpv4StreamSocketAndGivesASixteenByteAddress)
{
    Hook sockets(calls::socket, [](int domain, int type, int protocol) {
        EXPECT_EQ(domain, AF_INET);
        EXPECT_EQ(type, SOCK_STREAM);
        EXPECT_EQ(protocol, 0);
        return 777;
    });
    Hook connects(calls::connect, [](int fd, const sockaddr* address, socklen_t length) {
        EXPECT_EQ(fd, 777);
        EXPECT_EQ(length, 16u);
        sockaddr_in server{};
        std::memcpy(&server, address, sizeof server);
        EXPECT_EQ(server.sin_family, AF_INET);
        EXPECT_EQ(server.sin_port, htons(0xABCD));
        EXPECT_EQ(server.sin_addr.s_addr, htonl(0x0A01FE02));
        return 0;
    });
    Hook options(calls::setsockopt,
                 [](int fd, int level, int name, const void* value, socklen_t length) {
                     EXPECT_EQ(fd, 777);
                     EXPECT_EQ(level, SOL_SOCKET);
                     EXPECT_EQ(name, SO_RCVTIMEO);
                     timeval timeout{};
                     EXPECT_EQ(length, sizeof timeout);
                     std::memcpy(&timeout, value, sizeof timeout);
                     EXPECT_EQ(timeout.tv_sec, 100);
                     EXPECT_EQ(timeout.tv_usec, 0);
                     return 0;
                 });
    HijackApi api(trace, 0xABCD, kPatient, kTx, kRx);
    EXPECT_TRUE(api.connectToServer("10.1.254.2"));
    EXPECT_EQ(api.socketFd, 777);
    EXPECT_EQ(options.calls(), 1u);
    EXPECT_EQ(connects.calls(), 1u);
}

TEST_F(HijackApiConnect, IgnoresThatTheTimeoutCannotBeSet)
{
    Server server;
    expectMessages({kConnecting}, [&server](VorTrace& own) {
        HijackApi api(own, server.port, kPatient, kTx, kRx);
        Fault fault(calls::setsockopt, {-1, EDOM});
        EXPECT_TRUE(api.connectToServer("127.0.0.1"));
        EXPECT_EQ(fault.failures(), 1u);
        close(api.socketFd);
    });
}

TEST_F(HijackApiConnect, TellsWhySocketFailedAndKeepsItsResult)
{
    const Report failed =
        report(4, "connectToServer", std::string("Error in socket: ") + std::strerror(EMFILE));
    for (const int result : {-1, -7}) {
        expectMessages({kConnecting, failed}, [result](VorTrace& own) {
            HijackApi api(own, 1, kPatient, kTx, kRx);
            Fault fault(calls::socket, {result, EMFILE});
            Count<int(int)> closes(calls::close);
            EXPECT_FALSE(api.connectToServer("127.0.0.1"));
            EXPECT_EQ(api.socketFd, result);
            EXPECT_EQ(closes.calls(), 0u);
        });
    }
}

TEST_F(HijackApiConnect, AcceptsDescriptorZero)
{
    Fault sockets(calls::socket, {0, 0});
    Fault connects(calls::connect, {0, 0});
    Fault options(calls::setsockopt, {0, 0});
    HijackApi api(trace, 1, kPatient, kTx, kRx);
    EXPECT_TRUE(api.connectToServer("127.0.0.1"));
    EXPECT_EQ(api.socketFd, 0);
    EXPECT_EQ(options.failures(), 1u);
}

TEST_F(HijackApiConnect, RefusesAnAddressThatIsNotNumericAndClosesTheSocket)
{
    const Report failed =
        report(4, "connectToServer", std::string("Error in inet_aton: ") + std::strerror(EDOM));
    expectMessages({kConnecting, failed}, [](VorTrace& own) {
        HijackApi api(own, 1, kPatient, kTx, kRx);
        Count<int(int, const sockaddr*, socklen_t)> connects(calls::connect);
        Hook convert(calls::inet_aton, [](const char* text, in_addr* address) {
            const int result = calls::inet_aton.real(text, address);
            errno = EDOM;
            return result;
        });
        // The text describes the failed call, whatever closing does to errno.
        Hook closing(calls::close, [&api](int fd) {
            EXPECT_EQ(fd, api.socketFd);
            const int result = calls::close.real(fd);
            errno = EIO;
            return result;
        });
        EXPECT_FALSE(api.connectToServer("localhost"));
        EXPECT_EQ(api.socketFd, -1);
        EXPECT_EQ(closing.calls(), 1u);
        EXPECT_EQ(connects.calls(), 0u);
    });
}

TEST_F(HijackApiConnect, LooksNoNamesUp)
{
    HijackApi api(trace, 1, kPatient, kTx, kRx);
    for (const char* const name : {"localhost", "", "::1", "256.0.0.1", "127.0.0.1x"}) {
        EXPECT_FALSE(api.connectToServer(name)) << name;
        EXPECT_EQ(api.socketFd, -1);
        const Reports reports = takeReports();
        ASSERT_EQ(reports.size(), 2u);
        EXPECT_EQ(reports[0], kConnecting);
        EXPECT_EQ(reports[1].text.rfind("Error in inet_aton: ", 0), 0u) << reports[1];
    }
    std::string payload = "x";
    EXPECT_FALSE(api.writeToNet(bytesOf(payload), 1, nullptr));
    EXPECT_EQ(takeReports(), Reports{kWriteNotOpen});
}

TEST_F(HijackApiConnect, TellsWhyConnectFailedAndClosesTheSocket)
{
    Server bound(false);
    const Report failed = report(4, "connectToServer",
                                 std::string("Error in connect: ") + std::strerror(ECONNREFUSED));
    expectMessages({kConnecting, failed}, [&bound](VorTrace& own) {
        HijackApi api(own, bound.port, kPatient, kTx, kRx);
        Hook closing(calls::close, [&api](int fd) {
            EXPECT_EQ(fd, api.socketFd);
            const int result = calls::close.real(fd);
            errno = EIO;
            return result;
        });
        Count<int(int, int, int, const void*, socklen_t)> options(calls::setsockopt);
        EXPECT_FALSE(api.connectToServer("127.0.0.1"));
        EXPECT_EQ(api.socketFd, -1);
        EXPECT_EQ(closing.calls(), 1u);
        EXPECT_EQ(options.calls(), 0u);
    });
}

TEST_F(HijackApiConnect, TellsEachStepInItsPlace)
{
    Server bound(false);
    HijackApi api(trace, bound.port, kPatient, kTx, kRx);
    const Hook sockets(calls::socket, [](int domain, int type, int protocol) {
        EXPECT_EQ(takeReports(), Reports{kConnecting});
        return calls::socket.real(domain, type, protocol);
    });
    const Hook closes(calls::close, [](int fd) {
        EXPECT_EQ(takeReports(), Reports{}) << "the failure is told when the socket is gone";
        return calls::close.real(fd);
    });
    const gcltest::BeginHook failures([&api, &closes, messages = 0](const Report&) mutable {
        if (++messages % 2 == 0) {
            EXPECT_EQ(closes.calls(), static_cast<unsigned>(messages) / 2);
            EXPECT_EQ(api.socketFd, -1);
        }
    });
    EXPECT_FALSE(api.connectToServer("localhost"));
    EXPECT_EQ(takeReports().size(), 1u);
    EXPECT_FALSE(api.connectToServer("127.0.0.1"));
    EXPECT_EQ(takeReports().size(), 1u);
    EXPECT_EQ(closes.calls(), 2u);
}

// Failures that look as if the call could be repeated. None is; a second attempt would succeed.
TEST_F(HijackApiConnect, NeverRepeatsAConnectOrACloseThatFails)
{
    for (const int error : {EINTR, EAGAIN, ECONNABORTED}) {
        const Report failed =
            report(4, "connectToServer", std::string("Error in connect: ") + std::strerror(error));
        Server server;
        HijackApi api(trace, server.port, kPatient, kTx, kRx);
        const Fault connects(calls::connect, {-1, error});
        const Hook closing(calls::close, [error](int fd) {
            // The descriptor is gone all the same.
            EXPECT_EQ(calls::close.real(fd), 0);
            errno = error;
            return -1;
        });
        EXPECT_FALSE(api.connectToServer("127.0.0.1"));
        EXPECT_EQ(api.socketFd, -1);
        EXPECT_EQ(connects.calls(), 1u);
        EXPECT_EQ(closing.calls(), 1u);
        EXPECT_EQ(takeReports(), (Reports{kConnecting, failed}));
    }
}

TEST_F(HijackApiConnect, UsesThePortOfItsConstruction)
{
    Server server;
    HijackApi api(trace, server.port, kPatient, kTx, kRx);
    api.port = 1;
    ASSERT_TRUE(api.connectToServer("127.0.0.1"));
    EXPECT_EQ(api.serverAddress.sin_port, htons(server.port));
    EXPECT_EQ(api.port, 1);
    close(api.socketFd);
}

TEST_F(HijackApiConnect, ConnectsAgainAfterAFailure)
{
    Server server;
    HijackApi api(trace, server.port, kPatient, kTx, kRx);
    EXPECT_FALSE(api.connectToServer("nowhere"));
    ASSERT_TRUE(api.connectToServer("127.0.0.1"));
    EXPECT_GT(api.socketFd, 0);
    close(api.socketFd);
}

TEST_F(HijackApiConnect, OverwritesAnOlderSocketWithoutClosingIt)
{
    Server server;
    HijackApi api(trace, server.port, kPatient, kTx, kRx);
    ASSERT_TRUE(api.connectToServer("127.0.0.1"));
    const int older = api.socketFd;
    Count<int(int)> closes(calls::close);
    ASSERT_TRUE(api.connectToServer("127.0.0.1"));
    EXPECT_NE(api.socketFd, older);
    EXPECT_EQ(closes.calls(), 0u);
    EXPECT_EQ(close(older), 0);
    EXPECT_EQ(close(api.socketFd), 0);
}

TEST_F(HijackApiWrite, PutsHeaderAndPayloadOnTheWire)
{
    Linked link(trace);
    std::string payload("he\0lo", 5);
    unsigned written = 0;
    ASSERT_TRUE(link.api.writeToNet(bytesOf(payload), 5, &written));
    EXPECT_EQ(written, 17u);
    EXPECT_EQ(link.arrived(), std::string("\x12\x34\x56\x78\0\0\0\0\0\0\0\5he\0lo", 17));
    EXPECT_EQ(link.api.txSequenceNumber, 1u);

    ASSERT_TRUE(link.api.writeToNet(nullptr, 0, &written));
    EXPECT_EQ(written, 12u);
    EXPECT_EQ(link.arrived(), word(kTx) + word(1) + word(0));

    std::string large(0x1234, 'x');
    ASSERT_TRUE(link.api.writeToNet(bytesOf(large), 0x1234, nullptr));
    EXPECT_EQ(link.arrived(), word(kTx) + word(2) + word(0x1234) + large);
    EXPECT_EQ(takeReports(), Reports{});
}

TEST_F(HijackApiWrite, WrapsItsSequenceNumber)
{
    Linked link(trace);
    link.api.txSequenceNumber = 0xFFFFFFFF;
    ASSERT_TRUE(link.api.writeToNet(nullptr, 0, nullptr));
    EXPECT_EQ(link.arrived(), word(kTx) + word(0xFFFFFFFF) + word(0));
    EXPECT_EQ(link.api.txSequenceNumber, 0u);
}

TEST_F(HijackApiWrite, GathersFourPiecesInOneCall)
{
    Linked link(trace);
    std::string payload = "payload";
    Hook hook(calls::writev, [&](int fd, const iovec* pieces, int count) -> ssize_t {
        EXPECT_EQ(fd, link.fd);
        EXPECT_EQ(count, 4);
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(pieces[i].iov_len, 4u);
        }
        EXPECT_EQ(pieces[3].iov_base, payload.data()) << "the payload is not copied";
        EXPECT_EQ(pieces[3].iov_len, 7u);
        return calls::writev.real(fd, pieces, count);
    });
    EXPECT_TRUE(link.api.writeToNet(bytesOf(payload), 7, nullptr));
    EXPECT_EQ(hook.calls(), 1u);
}

TEST_F(HijackApiWrite, RefusesWithoutASocket)
{
    expectMessages({kWriteNotOpen}, [](VorTrace& own) {
        HijackApi api(own, 1, kPatient, kTx, kRx);
        api.socketFd = -1;
        std::string payload = "x";
        unsigned written = kUntouched;
        Count<ssize_t(int, const iovec*, int)> writes(calls::writev);
        EXPECT_FALSE(api.writeToNet(bytesOf(payload), 1, &written));
        EXPECT_EQ(writes.calls(), 0u);
        EXPECT_EQ(written, kUntouched);
        EXPECT_EQ(api.txSequenceNumber, 0u);
    });
}

// The result of writev(2) and what becomes of it.
TEST_F(HijackApiWrite, TellsWhatWentWrongAndNeverRepeats)
{
    struct Row {
        int result;
        int error;
        Report message;
    };
    const std::string failed = "Socket writev() returned -1, error: ";
    const Row rows[] = {
        {-1, EPIPE, report(1, "writeToNet", failed + std::strerror(EPIPE))},
        {-1, EINTR, report(1, "writeToNet", failed + std::strerror(EINTR))},
        {-1, EAGAIN, report(1, "writeToNet", failed + std::strerror(EAGAIN))},
        {0, 0, report(1, "writeToNet", "Socket writev() returned 0, socket is likely closed")},
        {1, 0, report(3, "writeToNet", "Socket writev() returned 1 expecting 17")},
        {16, 0, report(3, "writeToNet", "Socket writev() returned 16 expecting 17")},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.message.text);
        expectMessages({row.message}, [&row](VorTrace& own) {
            Linked link(own);
            link.api.txSequenceNumber = 9;
            std::string payload = "hello";
            unsigned written = kUntouched;
            {
                Fault fault(calls::writev, {row.result, row.error});
                EXPECT_FALSE(link.api.writeToNet(bytesOf(payload), 5, &written));
                EXPECT_EQ(fault.calls(), 1u);
            }
            EXPECT_EQ(written, kUntouched);
            EXPECT_EQ(link.api.txSequenceNumber, 9u);
            // The next frame carries the same number.
            EXPECT_TRUE(link.api.writeToNet(bytesOf(payload), 5, &written));
            EXPECT_EQ(link.arrived(), word(kTx) + word(9) + word(5) + "hello");
        });
    }
}

TEST_F(HijackApiWrite, TellsAShortWriteOfAFullSocket)
{
    Linked link(trace);
    ASSERT_EQ(fcntl(link.fd, F_SETFL, O_NONBLOCK), 0);
    std::string payload(8u << 20, 'p');
    const auto length = static_cast<unsigned>(payload.size());
    unsigned written = kUntouched;
    EXPECT_FALSE(link.api.writeToNet(bytesOf(payload), length, &written));
    size_t sent = 0;
    for (std::string bytes = link.arrived(); !bytes.empty(); bytes = link.arrived()) {
        sent += bytes.size();
    }
    EXPECT_GT(sent, 12u);
    EXPECT_LT(sent, payload.size());
    EXPECT_EQ(takeReports(), Reports{report(3, "writeToNet",
                                            "Socket writev() returned " + std::to_string(sent) +
                                                " expecting " + std::to_string(length + 12))});
    EXPECT_EQ(written, kUntouched);
    EXPECT_EQ(link.api.txSequenceNumber, 0u);
}

TEST_F(HijackApiWrite, ComparesTheSumAsASignedNumber)
{
    Linked link(trace);
    unsigned char byte = 0;
    unsigned written = kUntouched;
    {
        Fault fault(calls::writev, {100, 0});
        EXPECT_FALSE(link.api.writeToNet(&byte, 0x7FFFFFF3, &written));
        EXPECT_EQ(takeReports(), Reports{report(3, "writeToNet",
                                                "Socket writev() returned 100 expecting "
                                                "2147483647")});
        EXPECT_EQ(written, kUntouched);
    }
    for (const unsigned length : {0x7FFFFFF4u, 0x80000000u, 0xFFFFFFF3u, 0xFFFFFFFFu}) {
        Fault fault(calls::writev, {100, 0});
        written = kUntouched;
        EXPECT_TRUE(link.api.writeToNet(&byte, length, &written)) << length;
        EXPECT_EQ(written, 100u);
    }
    EXPECT_EQ(link.api.txSequenceNumber, 4u);
    EXPECT_EQ(takeReports(), Reports{});
}

TEST_F(HijackApiWrite, ReportsAPeerThatIsGone)
{
    const auto previous = std::signal(SIGPIPE, SIG_IGN);
    Linked link(trace);
    link.closePeer();
    EXPECT_FALSE(link.api.writeToNet(nullptr, 0, nullptr));
    EXPECT_EQ(takeReports(), Reports{report(1, "writeToNet",
                                            std::string("Socket writev() returned -1, error: ") +
                                                std::strerror(EPIPE))});
    std::signal(SIGPIPE, previous);
}

// Before the first connectToServer a client acts on descriptor 0.
TEST_F(HijackApiConstruct, ActsOnDescriptorZeroUntilItConnects)
{
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    const int saved = dup(0);
    ASSERT_EQ(dup2(ends[0], 0), 0);
    close(ends[0]);
    const std::string incoming = frame(1, "in");
    EXPECT_EQ(send(ends[1], incoming.data(), incoming.size(), 0), 14);

    HijackApi api(trace, 1, kPatient, kTx, kRx);
    std::string payload = "out";
    EXPECT_TRUE(api.writeToNet(bytesOf(payload), 3, nullptr));
    std::string buffer(2, '-');
    unsigned length = 0;
    EXPECT_TRUE(api.readFromNet(bytesOf(buffer), 2, &length));
    EXPECT_EQ(buffer, "in");
    EXPECT_EQ(Linked::waiting(ends[1]), word(kTx) + word(0) + word(3) + "out");

    if (saved == -1) {
        close(0);
    } else {
        EXPECT_EQ(dup2(saved, 0), 0);
        close(saved);
    }
    close(ends[1]);
}

// Only -1 counts as no socket; what else is none is for the platform to say.
TEST_F(HijackApiConnect, LeavesOtherNegativeDescriptorsToThePlatform)
{
    HijackApi api(trace, 1, kPatient, kTx, kRx);
    api.socketFd = -7;
    const std::string reason = std::strerror(EBADF);
    unsigned char byte = 0;
    EXPECT_FALSE(api.writeToNet(&byte, 1, nullptr));
    EXPECT_EQ(takeReports(),
              Reports{report(1, "writeToNet", "Socket writev() returned -1, error: " + reason)});
    EXPECT_EQ(api.safeRead(&byte, 1), -1);
    EXPECT_EQ(takeReports(), Reports{readFailed(reason)});
}

TEST_F(HijackApiSafeRead, GathersWhatComesInPieces)
{
    Linked link(trace);
    std::string buffer(6, '-');
    std::string source = "abcde";
    std::vector<std::pair<size_t, size_t>> asked; // offset, length
    Hook<ReadCall> hook(calls::read, [&](int fd, void* data, size_t length) -> ssize_t {
        EXPECT_EQ(fd, link.fd);
        asked.emplace_back(static_cast<char*>(data) - buffer.data(), length);
        const size_t piece = asked.size() == 2 ? 3 : 1;
        std::memcpy(data, source.data(), piece);
        source.erase(0, piece);
        return static_cast<ssize_t>(piece);
    });
    EXPECT_EQ(link.api.safeRead(bytesOf(buffer), 5), 5);
    EXPECT_EQ(buffer, "abcde-");
    EXPECT_EQ(asked, (std::vector<std::pair<size_t, size_t>>{{0, 5}, {1, 4}, {4, 1}}));
    EXPECT_EQ(takeReports(), Reports{});
}

TEST_F(HijackApiSafeRead, MakesOneReadOfNothing)
{
    Linked link(trace);
    link.send("x");
    Hook<ReadCall> hook(calls::read, [](int fd, void* data, size_t length) -> ssize_t {
        EXPECT_EQ(length, 0u);
        return calls::read.real(fd, data, length);
    });
    EXPECT_EQ(link.api.safeRead(nullptr, 0), 0);
    EXPECT_EQ(hook.calls(), 1u);
    EXPECT_EQ(link.left(), "x");
    EXPECT_EQ(takeReports(), Reports{});
}

TEST_F(HijackApiSafeRead, RepeatsAReadOfNothingAsWell)
{
    for (const int error : {EINTR, EAGAIN}) {
        expectMessages(error == EINTR ? Reports{} : Reports{kAgain}, [error](VorTrace& own) {
            Linked link(own);
            const Fault fault(calls::read, {-1, error});
            EXPECT_EQ(link.api.safeRead(nullptr, 0), 0);
            EXPECT_EQ(fault.calls(), 2u);
        });
    }
}

TEST_F(HijackApiSafeRead, RefusesWithoutASocket)
{
    expectMessages({kReadNotOpen}, [](VorTrace& own) {
        HijackApi api(own, 1, kPatient, kTx, kRx);
        api.socketFd = -1;
        unsigned char byte = 7;
        Count<ReadCall> reads(calls::read);
        EXPECT_EQ(api.safeRead(&byte, 1), -1);
        EXPECT_EQ(reads.calls(), 0u);
        EXPECT_EQ(byte, 7);
    });
}

TEST_F(HijackApiSafeRead, RepeatsAnInterruptedReadSilently)
{
    expectMessages({}, [](VorTrace& own) {
        Linked link(own);
        link.send("ab");
        std::string buffer(2, '-');
        Fault fault(calls::read, {-1, EINTR, 1, 3});
        Count<int()> yields(calls::sched_yield);
        EXPECT_EQ(link.api.safeRead(bytesOf(buffer), 2), 2);
        EXPECT_EQ(fault.calls(), 4u);
        EXPECT_EQ(yields.calls(), 0u);
        EXPECT_EQ(buffer, "ab");
    });
}

TEST_F(HijackApiSafeRead, TellsEachReceiveTimeoutYieldsAndRepeats)
{
    expectMessages({kAgain, kAgain}, [](VorTrace& own) {
        Linked link(own);
        link.send("ab");
        std::string buffer(2, '-');
        Fault fault(calls::read, {-1, EAGAIN, 1, 2});
        Count<int()> yields(calls::sched_yield);
        EXPECT_EQ(link.api.safeRead(bytesOf(buffer), 2), 2);
        EXPECT_EQ(fault.calls(), 3u);
        EXPECT_EQ(yields.calls(), 2u);
        EXPECT_EQ(buffer, "ab");
    });
}

TEST_F(HijackApiSafeRead, TellsATimeoutBeforeItYields)
{
    Linked link(trace);
    link.send("a");
    unsigned char byte = 0;
    const Fault fault(calls::read, {-1, EAGAIN});
    const Hook yields(calls::sched_yield, [] {
        EXPECT_EQ(takeReports(), Reports{kAgain});
        return 0;
    });
    EXPECT_EQ(link.api.safeRead(&byte, 1), 1);
    EXPECT_EQ(yields.calls(), 1u);
    EXPECT_EQ(takeReports(), Reports{});
}

TEST_F(HijackApiSafeRead, SurvivesARealReceiveTimeout)
{
    Linked link(trace);
    timeval timeout{};
    timeout.tv_usec = 20'000;
    ASSERT_EQ(setsockopt(link.fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout), 0);
    // The byte comes once a time-out has been told, however slow the machine is.
    Reports first;
    std::thread sender([&link, &first] {
        const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(40);
        while (first.empty() && std::chrono::steady_clock::now() < limit) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            first = takeReports();
        }
        link.send("z");
    });
    unsigned char byte = 0;
    EXPECT_EQ(link.api.safeRead(&byte, 1), 1);
    sender.join();
    EXPECT_EQ(byte, 'z');
    EXPECT_GE(first.size(), 1u);
    EXPECT_EQ(first, Reports(first.size(), kAgain));
    const Reports later = takeReports();
    EXPECT_EQ(later, Reports(later.size(), kAgain));
}

TEST_F(HijackApiSafeRead, FailsOnAnyOtherError)
{
    for (int error = 1; error <= EHWPOISON; ++error) {
        if (error == EINTR || error == EAGAIN) {
            continue;
        }
        expectMessages({readFailed(std::strerror(error))}, [error](VorTrace& own) {
            Linked link(own);
            link.send("abc");
            std::string buffer(3, '-');
            Hook<ReadCall> hook(calls::read, [error, &hook](int fd, void* data, size_t) -> ssize_t {
                // Once: a second attempt would succeed.
                if (hook.calls() != 2) {
                    return calls::read.real(fd, data, 1);
                }
                errno = error;
                return -1;
            });
            EXPECT_EQ(link.api.safeRead(bytesOf(buffer), 3), -1);
            EXPECT_EQ(hook.calls(), 2u);
            EXPECT_EQ(link.left(), "bc");
        });
    }
}

TEST_F(HijackApiSafeRead, ReadsOnAtTheEndOfTheStream)
{
    constexpr unsigned kEnds = 1000;
    Linked link(trace);
    link.send("a");
    ASSERT_EQ(shutdown(link.peer, SHUT_WR), 0);
    std::string buffer(2, '-');
    Hook<ReadCall> hook(calls::read, [&hook](int fd, void* data, size_t length) -> ssize_t {
        if (hook.calls() > kEnds) {
            std::memcpy(data, "b", 1);
            return 1;
        }
        const ssize_t result = calls::read.real(fd, data, length);
        EXPECT_EQ(result, hook.calls() == 1 ? 1 : 0);
        return result;
    });
    EXPECT_EQ(link.api.safeRead(bytesOf(buffer), 2), 2);
    EXPECT_EQ(hook.calls(), kEnds + 1);
    EXPECT_EQ(buffer, "ab");
    EXPECT_EQ(takeReports(), Reports{});
}

TEST_F(HijackApiSafeRead, TakesTheDescriptorAnewBeforeEachRead)
{
    Linked first(trace);
    Linked second(trace);
    first.send("a");
    second.send("b");
    std::string buffer(2, '-');
    Hook<ReadCall> hook(calls::read, [&](int fd, void* data, size_t length) -> ssize_t {
        first.api.socketFd = second.fd;
        return calls::read.real(fd, data, length);
    });
    EXPECT_EQ(first.api.safeRead(bytesOf(buffer), 2), 2);
    EXPECT_EQ(buffer, "ab");
}

TEST_F(HijackApiSafeRead, RefusesANegativeLength)
{
    for (const int length : {-1, INT32_MIN}) {
        expectMessages({readFailed(std::strerror(EINVAL))}, [length](VorTrace& own) {
            Linked link(own);
            link.send("abc");
            unsigned char byte = 7;
            EXPECT_EQ(link.api.safeRead(&byte, length), -1);
            EXPECT_EQ(byte, 7);
            EXPECT_EQ(link.left(), "abc");
        });
    }
}

TEST_F(HijackApiSync, FindsTheWordWhereverItStands)
{
    struct Row {
        uint32_t syncId;
        std::string before; // bytes up to and with the last one of the sync id
    };
    const Row rows[] = {
        {kRx, word(kRx)},
        {kRx, "garbage" + word(kRx)},
        {kRx, word(kRx).substr(0, 3) + word(kRx)},
        {kRx, word(kRx).substr(0, 1) + word(kRx).substr(0, 2) + word(kRx)},
        {kRx, word(kRx).substr(1) + word(kRx)},
        {0xAAAAAABB, "\xAA\xAA\xAA\xAA\xAA\xBB"},
        {0xAAAAAABB, "\xBB\xAA\xAA\xBB\xAA\xAA\xAA\xBB"},
        {0xABABABAC, "\xAB\xAB\xAB\xAB\xAB\xAC"},
        {0xABCDABCE, "\xAB\xCD\xAB\xCD\xAB\xCE"},
        {0xFFFFFFFF, std::string("\xFF\xFF\xFF\x7F\xFF\xFF\xFF\xFF", 8)},
        {0xFFFFFF80, std::string("\x80\xFF\xFF\xFF\x80", 5)},
        {0x000000AB, "\xAB"},
        {0x000000AB, std::string("\x01\0\0\xAC\0\0\0\xAB", 8)},
        {0x0000ABCD, "\xAB\xCD"},
        {0x00ABCDEF, "\xAB\xCD\xEF"},
        {0x00ABCDEF, std::string("\x01\xAB\xCD\xEF\0\xAB\xCD\xEF", 8)},
        {0x00000000, std::string("\0", 1)},
        {0x00000000, std::string("\x01\0\0\0\0", 5)},
        {0xAB000000, std::string("\xAB\0\0\x01\xAB\0\0\0", 8)},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.before));
        Linked link(trace, row.syncId);
        link.send(row.before + "rest");
        EXPECT_TRUE(link.api.safeReadSyncId());
        EXPECT_EQ(link.left(), "rest");
    }
    EXPECT_EQ(takeReports(), Reports{});
}

TEST_F(HijackApiSync, AgreesWithASimpleModel)
{
    std::mt19937 random(20261121);
    std::uniform_int_distribution<unsigned> letter(0, 2);
    const unsigned char letters[] = {0x00, 0xFF, 0x80};
    for (int round = 0; round < 300; ++round) {
        uint32_t syncId = 0;
        for (int i = 0; i < 4; ++i) {
            syncId = syncId << 8 | letters[letter(random)];
        }
        std::string stream;
        for (int i = 0; i < 200; ++i) {
            stream += static_cast<char>(letters[letter(random)]);
        }
        stream += word(syncId);
        // Searched in the stream with three zeros in front, which count as read already.
        const size_t end = (std::string(3, '\0') + stream).find(word(syncId)) + 1;
        Linked link(trace, syncId);
        link.send(stream);
        ASSERT_TRUE(link.api.safeReadSyncId());
        ASSERT_EQ(link.left(), stream.substr(end)) << std::hex << syncId;
    }
}

TEST_F(HijackApiSync, ReadsOneByteAtATimeAndNoFurther)
{
    Linked link(trace);
    link.send("ab" + word(kRx) + "next");
    Hook<ReadCall> hook(calls::read, [](int fd, void* data, size_t length) -> ssize_t {
        EXPECT_EQ(length, 1u);
        return calls::read.real(fd, data, length);
    });
    EXPECT_TRUE(link.api.safeReadSyncId());
    EXPECT_EQ(hook.calls(), 6u);
}

TEST_F(HijackApiSync, StartsAnewInEachCall)
{
    Linked link(trace);
    link.send(word(kRx).substr(0, 2));
    {
        Fault fault(calls::read, {-1, EIO, 3});
        EXPECT_FALSE(link.api.safeReadSyncId());
    }
    EXPECT_EQ(takeReports(), Reports{readFailed(std::strerror(EIO))});
    link.send(word(kRx).substr(2) + word(kRx) + "rest");
    EXPECT_TRUE(link.api.safeReadSyncId());
    EXPECT_EQ(link.left(), "rest");
}

TEST_F(HijackApiRead, TakesAFrame)
{
    expectMessages({announced("5"), kReadOk}, [](VorTrace& own) {
        Linked link(own);
        link.send(frame(1, "hello") + "rest");
        std::string buffer(8, '-');
        unsigned length = kUntouched;
        EXPECT_TRUE(link.api.readFromNet(bytesOf(buffer), 8, &length));
        EXPECT_EQ(length, 5u);
        EXPECT_EQ(buffer, "hello---");
        EXPECT_EQ(link.api.rxSequenceNumber, 1u);
        EXPECT_EQ(link.left(), "rest");
    });
}

TEST_F(HijackApiRead, ReadsTheWordsMostSignificantByteFirst)
{
    Linked link(trace);
    link.api.rxSequenceNumber = 0x81828382;
    const std::string payload(0x0102, 'q');
    link.send(frame(0x81828383, payload));
    std::string buffer(0x0102, '-');
    unsigned length = 0;
    EXPECT_TRUE(link.api.readFromNet(bytesOf(buffer), 0x0102, &length));
    EXPECT_EQ(length, 0x0102u);
    EXPECT_EQ(buffer, payload);
    EXPECT_EQ(link.api.rxSequenceNumber, 0x81828383u);
    EXPECT_EQ(takeReports(), (Reports{announced("258"), kReadOk}));
}

TEST_F(HijackApiRead, StoresTheLengthBeforeItReadsThePayload)
{
    Linked link(trace);
    link.send(frame(1, "hello"));
    std::string buffer(8, '-');
    unsigned length = kUntouched;
    const Hook<ReadCall> hook(calls::read, [&](int fd, void* data, size_t count) -> ssize_t {
        EXPECT_EQ(length, data == buffer.data() ? 5u : kUntouched);
        return calls::read.real(fd, data, count);
    });
    EXPECT_TRUE(link.api.readFromNet(bytesOf(buffer), 8, &length));
    EXPECT_EQ(hook.calls(), 7u);
}

TEST_F(HijackApiRead, AcceptsNoPlaceForTheLength)
{
    Linked link(trace);
    link.send(frame(1, "ab") + frame(2, "abc"));
    std::string buffer(2, '-');
    EXPECT_TRUE(link.api.readFromNet(bytesOf(buffer), 2, nullptr));
    EXPECT_EQ(buffer, "ab");
    EXPECT_FALSE(link.api.readFromNet(bytesOf(buffer), 2, nullptr));
}

TEST_F(HijackApiRead, JudgesTheLengthByTheBuffer)
{
    struct Row {
        uint32_t size;
        unsigned bufferLength;
        bool accepted;
    };
    const Row rows[] = {{0, 0, true}, {0, 8, true},  {7, 8, true},
                        {8, 8, true}, {8, 7, false}, {1, 0, false}};
    for (const Row& row : rows) {
        const std::string payload = std::string("12345678").substr(0, row.size);
        const std::string size = std::to_string(row.size);
        Reports expected{announced(size), kReadOk};
        if (!row.accepted) {
            expected = {tooLong(size, std::to_string(row.bufferLength))};
        }
        expectMessages(expected, [&](VorTrace& own) {
            Linked link(own);
            link.send(frame(1, payload));
            std::string buffer(8, '-');
            unsigned length = kUntouched;
            EXPECT_EQ(link.api.readFromNet(bytesOf(buffer), row.bufferLength, &length),
                      row.accepted);
            EXPECT_EQ(length, row.accepted ? row.size : 0);
            EXPECT_EQ(buffer, row.accepted ? payload + std::string(8 - row.size, '-') : "--------");
            EXPECT_EQ(link.left(), row.accepted ? "" : payload);
            EXPECT_EQ(link.api.rxSequenceNumber, 1u);
        });
    }
}

TEST_F(HijackApiRead, ComparesLengthAndBufferUnsigned)
{
    Linked link(trace);
    unsigned char byte = 0;
    unsigned length = kUntouched;
    link.send(word(kRx) + word(1) + word(0xFFFFFFFF) + word(kRx) + word(2) + word(0x80000000));
    EXPECT_FALSE(link.api.readFromNet(&byte, 0x7FFFFFFF, &length));
    EXPECT_EQ(length, 0u);
    EXPECT_FALSE(link.api.readFromNet(&byte, 1, &length));
    EXPECT_EQ(takeReports(),
              (Reports{tooLong("4294967295", "2147483647"), tooLong("2147483648", "1")}));
}

TEST_F(HijackApiRead, PassesALengthBeyondTheSignedNumbersWithNothingRead)
{
    for (const uint32_t size : {0x80000000u, 0xFFFFFFFFu}) {
        expectMessages(
            {announced(std::to_string(size)), readFailed(std::strerror(EINVAL)), kReadOk},
            [size](VorTrace& own) {
                Linked link(own);
                link.send(word(kRx) + word(1) + word(size) + "payload");
                unsigned char byte = 7;
                unsigned length = kUntouched;
                EXPECT_TRUE(link.api.readFromNet(&byte, 0xFFFFFFFF, &length));
                EXPECT_EQ(length, size);
                EXPECT_EQ(byte, 7);
                EXPECT_EQ(link.left(), "payload");
            });
    }
}

TEST_F(HijackApiRead, HuntsThroughThePayloadThatItRefused)
{
    Linked link(trace);
    link.send(frame(1, std::string(40, 'x')) + frame(2, "fits"));
    std::string buffer(4, '-');
    unsigned length = kUntouched;
    EXPECT_FALSE(link.api.readFromNet(bytesOf(buffer), 4, &length));
    EXPECT_TRUE(link.api.readFromNet(bytesOf(buffer), 4, &length));
    EXPECT_EQ(buffer, "fits");
    EXPECT_EQ(takeReports(), (Reports{tooLong("40", "4"), announced("4"), kReadOk}));
}

TEST_F(HijackApiRead, ReportsAndAcceptsEveryOtherSequenceNumber)
{
    struct Row {
        uint32_t old;
        uint32_t received;
        bool reported;
    };
    const Row rows[] = {
        {0, 1, false},
        {0, 0, true},
        {0, 2, true},
        {5, 6, false},
        {5, 5, true},
        {5, 7, true},
        {5, 1, true},
        {0xFFFFFFFF, 0, false},
        {0xFFFFFFFF, 1, true},
        {0, 0xFFFFFFFF, true},
        {0x7FFFFFFF, 0x80000000, false},
    };
    for (const Row& row : rows) {
        Reports expected{announced("2"), kReadOk};
        if (row.reported) {
            expected.insert(expected.begin(),
                            outOfSequence(std::to_string(row.received), std::to_string(row.old)));
        }
        expectMessages(expected, [&row](VorTrace& own) {
            Linked link(own);
            link.api.rxSequenceNumber = row.old;
            link.send(frame(row.received, "ok") + frame(row.received + 1, "on"));
            std::string buffer(2, '-');
            unsigned length = 0;
            EXPECT_TRUE(link.api.readFromNet(bytesOf(buffer), 2, &length));
            EXPECT_EQ(buffer, "ok");
            EXPECT_EQ(link.api.rxSequenceNumber, row.received);
        });
    }
}

TEST_F(HijackApiRead, ExpectsTheNumberBehindAnAcceptedOne)
{
    Linked link(trace);
    link.send(frame(0, "") + frame(1, "") + frame(9, "") + frame(10, ""));
    for (int i = 0; i < 4; ++i) {
        EXPECT_TRUE(link.api.readFromNet(nullptr, 0, nullptr));
    }
    EXPECT_EQ(takeReports(),
              (Reports{outOfSequence("0", "0"), announced("0"), kReadOk, announced("0"), kReadOk,
                       outOfSequence("9", "1"), announced("0"), kReadOk, announced("0"), kReadOk}));
}

TEST_F(HijackApiRead, GoesOnNumberingOverAReconnect)
{
    Server server;
    HijackApi api(trace, server.port, kPatient, kTx, kRx);
    for (uint32_t round = 0; round < 2; ++round) {
        ASSERT_TRUE(api.connectToServer("127.0.0.1"));
        const int accepted = accept(server.fd, nullptr, nullptr);
        const std::string incoming = frame(round + 1, "");
        EXPECT_EQ(send(accepted, incoming.data(), incoming.size(), 0), 12);
        EXPECT_TRUE(api.writeToNet(nullptr, 0, nullptr));
        EXPECT_TRUE(api.readFromNet(nullptr, 0, nullptr));
        EXPECT_EQ(takeReports(), (Reports{kConnecting, announced("0"), kReadOk}));
        char outgoing[12];
        EXPECT_EQ(recv(accepted, outgoing, sizeof outgoing, MSG_WAITALL), 12);
        EXPECT_EQ(std::string(outgoing, 12), word(kTx) + word(round) + word(0));
        close(accepted);
        close(api.socketFd);
    }
}

// The n-th read of a frame of 3 bytes fails; reads 1 to 4 are the sync id's.
TEST_F(HijackApiRead, TellsWhichReadFailed)
{
    const Report failed = readFailed(std::strerror(EIO));
    struct Row {
        unsigned nth;
        Reports messages;
        uint32_t sequenceNumber;
        unsigned length;
    };
    std::vector<Row> rows;
    for (unsigned nth = 1; nth <= 4; ++nth) {
        rows.push_back({nth, {failed, kNoSync}, 0, kUntouched});
    }
    rows.push_back({5, {failed, kNoSequence}, 0, kUntouched});
    rows.push_back({6, {failed, kNoSize}, 1, kUntouched});
    rows.push_back({7, {announced("3"), failed, kNoPayload}, 1, 0});
    for (const Row& row : rows) {
        SCOPED_TRACE(row.nth);
        expectMessages(row.messages, [&row](VorTrace& own) {
            Linked link(own);
            link.send(frame(1, "abc"));
            std::string buffer(3, '-');
            unsigned length = kUntouched;
            Fault fault(calls::read, {-1, EIO, row.nth});
            EXPECT_FALSE(link.api.readFromNet(bytesOf(buffer), 3, &length));
            EXPECT_EQ(fault.calls(), row.nth);
            EXPECT_EQ(length, row.length);
            EXPECT_EQ(link.api.rxSequenceNumber, row.sequenceNumber);
            EXPECT_EQ(buffer, "---");
        });
    }
    // Of an empty frame, too, the payload is read, with 0 bytes.
    expectMessages({announced("0"), failed, kNoPayload}, [](VorTrace& own) {
        Linked link(own);
        link.send(frame(1, ""));
        std::string buffer(3, '-');
        unsigned length = kUntouched;
        Fault fault(calls::read, {-1, EIO, 7});
        EXPECT_FALSE(link.api.readFromNet(bytesOf(buffer), 3, &length));
        EXPECT_EQ(fault.failures(), 1u);
        EXPECT_EQ(length, 0u);
    });
    Linked link(trace);
    link.send(frame(1, "abc"));
    std::string buffer(3, '-');
    Fault fault(calls::read, {-1, EIO, 8});
    EXPECT_TRUE(link.api.readFromNet(bytesOf(buffer), 3, nullptr));
    EXPECT_EQ(fault.failures(), 0u);
}

// Interruptions and time-outs at each read, none of which ends the call.
TEST_F(HijackApiRead, SurvivesInterruptionsAndTimeoutsAtEachRead)
{
    for (unsigned nth = 1; nth <= 7; ++nth) {
        Reports timedOut{announced("3"), kReadOk};
        timedOut.insert(nth < 7 ? timedOut.begin() : timedOut.begin() + 1, kAgain);
        for (const int error : {EINTR, EAGAIN}) {
            expectMessages(error == EAGAIN ? timedOut : Reports{announced("3"), kReadOk},
                           [nth, error](VorTrace& own) {
                               Linked link(own);
                               link.send(frame(1, "abc"));
                               std::string buffer(3, '-');
                               Fault fault(calls::read, {-1, error, nth});
                               EXPECT_TRUE(link.api.readFromNet(bytesOf(buffer), 3, nullptr));
                               EXPECT_EQ(buffer, "abc");
                           });
        }
    }
}

TEST_F(HijackApiRead, RefusesWithoutASocket)
{
    expectMessages({kReadNotOpen, kNoSync}, [](VorTrace& own) {
        HijackApi api(own, 1, kPatient, kTx, kRx);
        api.socketFd = -1;
        unsigned length = kUntouched;
        EXPECT_FALSE(api.readFromNet(nullptr, 0, &length));
        EXPECT_EQ(length, kUntouched);
    });
}

TEST_F(HijackApiRead, ReadsOnWhenThePeerHasClosedUntilTheSocketFails)
{
    // In the middle of a read -1 is a descriptor like any other.
    for (const int taken : {-1, -2}) {
        Linked link(trace);
        link.send(frame(1, "abc").substr(0, 13));
        link.closePeer();
        unsigned ends = 0;
        Hook<ReadCall> hook(calls::read, [&](int fd, void* data, size_t length) -> ssize_t {
            const ssize_t result = calls::read.real(fd, data, length);
            if (result == 0 && ++ends == 1000) {
                link.api.socketFd = taken; // the owner takes the socket away
            }
            return result;
        });
        std::string buffer(3, '-');
        unsigned length = kUntouched;
        EXPECT_FALSE(link.api.readFromNet(bytesOf(buffer), 3, &length));
        EXPECT_EQ(ends, 1000u);
        EXPECT_EQ(length, 0u);
        EXPECT_EQ(takeReports(),
                  (Reports{announced("3"), readFailed(std::strerror(EBADF)), kNoPayload}));
    }
}

TEST_F(HijackApiRead, TakesBytesThatComeOneByOne)
{
    Linked link(trace);
    const std::string bytes = "noise" + frame(1, "slow");
    std::thread sender([&] {
        for (const char byte : bytes) {
            link.send(std::string(1, byte));
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    std::string buffer(4, '-');
    unsigned length = 0;
    EXPECT_TRUE(link.api.readFromNet(bytesOf(buffer), 4, &length));
    sender.join();
    EXPECT_EQ(buffer, "slow");
    EXPECT_EQ(takeReports(), (Reports{announced("4"), kReadOk}));
}

namespace {

// A search of which each byte takes a while.
Reports slowRead(VorTrace& trace, unsigned maxSyncWaitMs, const std::string& bytes)
{
    Linked link(trace, kRx, maxSyncWaitMs);
    link.send(bytes);
    Hook<ReadCall> hook(calls::read, [](int fd, void* data, size_t length) -> ssize_t {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        return calls::read.real(fd, data, length);
    });
    EXPECT_TRUE(link.api.readFromNet(nullptr, 0, nullptr));
    return takeReports();
}

} // namespace

TEST_F(HijackApiRead, WarnsOfALongSearch)
{
    // Garbage, and a link that was merely quiet.
    for (const std::string& before : {std::string(), std::string("garbage")}) {
        const Reports reports = slowRead(trace, 3, before + frame(1, ""));
        ASSERT_EQ(reports.size(), 3u);
        const std::string start = "HijackApi::read(), safeReadSyncId() wait more than 3ms (";
        const std::string end = ")s for message from node\n";
        const std::string& text = reports[0].text;
        ASSERT_EQ(text.substr(0, start.size()), start);
        ASSERT_GT(text.size(), start.size() + end.size());
        EXPECT_EQ(text.substr(text.size() - end.size()), end);
        size_t digits = 0;
        const long elapsed = std::stol(text.substr(start.size()), &digits);
        EXPECT_EQ(text.size(), start.size() + digits + end.size());
        EXPECT_GE(elapsed, before.empty() ? 20 : 55);
        EXPECT_LT(elapsed, 30'000);
        EXPECT_EQ(reports[0].level, 5);
        EXPECT_EQ(reports[0].function, "readFromNet");
        EXPECT_EQ(reports[1], announced("0"));
    }
}

TEST_F(HijackApiRead, DoesNotWarnOfAPatientSearch)
{
    for (const unsigned maxSyncWaitMs : {600'000u, 0x80000000u, 0xFFFFFFFFu}) {
        EXPECT_EQ(slowRead(trace, maxSyncWaitMs, frame(1, "")), (Reports{announced("0"), kReadOk}));
    }
}

// Where the C++ library's steady clock reads the call that can be interposed.
TEST_F(HijackApiRead, WarnsWhenWholeMillisecondsExceedTheLimit)
{
    if (sizeof(void*) == 4) {
        GTEST_SKIP() << "the steady clock of 32-bit platforms cannot be interposed";
    }
    constexpr int64_t kMs = 1'000'000;
    struct Row {
        unsigned maxSyncWaitMs;
        int64_t elapsedNs;
        std::string warning; // empty: none
    };
    const Row rows[] = {
        {50, 0, ""},
        {50, 50 * kMs, ""},
        {50, 51 * kMs - 1, ""},
        {50, 51 * kMs, "50ms (51)"},
        {0, kMs - 1, ""},
        {0, kMs, "0ms (1)"},
        {0xFFFFFFFF, 0xFFFFFFFF * kMs, ""},
        {0xFFFFFFFF, 0x100000000 * kMs, "4294967295ms (4294967296)"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.elapsedNs);
        Reports expected{announced("0"), kReadOk};
        if (!row.warning.empty()) {
            expected.insert(expected.begin(),
                            report(5, "readFromNet",
                                   "HijackApi::read(), safeReadSyncId() wait more than " +
                                       row.warning + "s for message from node"));
        }
        expectMessages(expected, [&row](VorTrace& own) {
            Linked link(own, kRx, row.maxSyncWaitMs);
            link.send(frame(1, ""));
            Count<ReadCall> reads(calls::read);
            Hook<int(clockid_t, gcltest::Timespec64*)> clock(
                calls::clock_gettime64, [&](clockid_t id, gcltest::Timespec64* time) {
                    EXPECT_EQ(id, CLOCK_MONOTONIC);
                    // The first look comes before the first byte, the second behind the last.
                    EXPECT_EQ(reads.calls(), clock.calls() == 1 ? 0u : 4u);
                    const int64_t now = 77 * kMs + (clock.calls() == 1 ? 0 : row.elapsedNs);
                    time->tv_sec = static_cast<decltype(time->tv_sec)>(now / (1000 * kMs));
                    time->tv_nsec = static_cast<decltype(time->tv_nsec)>(now % (1000 * kMs));
                    return 0;
                });
            EXPECT_TRUE(link.api.readFromNet(nullptr, 0, nullptr));
            EXPECT_EQ(clock.calls(), 2u);
        });
    }
}

TEST_F(HijackApiTrace, LeavesABadStreamWhereAnErrorHasNoText)
{
    Linked link(trace);
    Hook texts(calls::strerror, [](int error) -> char* {
        EXPECT_EQ(error, EPIPE);
        return nullptr;
    });
    Fault fault(calls::writev, {-1, EPIPE});
    EXPECT_FALSE(link.api.writeToNet(nullptr, 0, nullptr));
    EXPECT_EQ(texts.calls(), 1u);
    EXPECT_TRUE(trace.stream().bad());
    // The message's own pieces went in; a platform that mends its stream sees them.
    trace.stream().clear();
    trace.stream().flush();
    EXPECT_EQ(takeReports(), (Reports{{kName, 1, "Framework/GCL/private/HijackApi", "writeToNet",
                                       "Socket writev() returned -1, error: "}}));
}

TEST_F(HijackApiTrace, GivesEachSiteALineOfItsOwn)
{
    std::set<int> lines;
    size_t messages = 0;
    const auto note = [&] {
        messages += takeReports().size();
        for (const int line : gcltest::takenLines()) {
            EXPECT_GT(line, 0);
            lines.insert(line);
        }
    };
    HijackApi api(trace, 1, kPatient, kTx, kRx);
    EXPECT_FALSE(api.connectToServer("nowhere"));
    EXPECT_FALSE(api.writeToNet(nullptr, 0, nullptr));
    EXPECT_FALSE(api.readFromNet(nullptr, 0, nullptr));
    Linked link(trace);
    link.send(frame(2, "") + frame(3, "long"));
    EXPECT_TRUE(link.api.readFromNet(nullptr, 0, nullptr));
    note();
    EXPECT_EQ(messages, 8u);
    EXPECT_EQ(lines.size(), messages);
}
