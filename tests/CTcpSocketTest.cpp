// Construction, connecting, accepting, the time-out and the descriptor. Writing and reading are
// tested in CTcpSocketTransferTest, the end of a connection in CTcpSocketCloseTest.
#include "Framework/GCL/CTcpSocket.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <netdb.h>

#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <type_traits>
#include <vector>

#include "Framework/GCL/ResultCodes.h"
#include "Framework/GCL/private/AddressList.h"
#include "Framework/GCL/private/Descriptor.h"
#include "Framework/GCL/testing/FaultInjection.h"
#include "Framework/GCL/testing/TraceCapture.h"
#include "tests/support/Loopback.h"
#include "tests/support/Suppression.h"

using gcltest::Connection;
using gcltest::connectTo;
using gcltest::Count;
using gcltest::expectReports;
using gcltest::Failure;
using gcltest::Fault;
using gcltest::freePort;
using gcltest::Hook;
using gcltest::Listener;
using gcltest::LoopbackAddress;
using gcltest::OwnedFd;
using gcltest::Report;
using gcltest::takeReports;
namespace calls = gcltest::calls;

namespace {

using Lines = std::vector<std::string>;

Report report(const std::string& function, const std::string& text, uint32_t code)
{
    return gcltest::gclReport("CTcpSocket", function, text, code);
}

// An object as a caller holds it: what the call stored, freed in the array form.
class Handed {
public:
    ~Handed()
    {
        if (object != marker()) {
            CTcpSocket_Destruct(object);
            static_cast<void>(takeReports());
            delete[] object;
        }
    }
    CTcpSocket** operator&() { return &object; }
    CTcpSocket* operator->() const { return object; }
    bool isUntouched() const { return object == marker(); }

private:
    // No object: the calls must neither look at it nor change it when they fail.
    static CTcpSocket* marker() { return reinterpret_cast<CTcpSocket*>(8); }
    CTcpSocket* object = marker();
};

// Stands in for getaddrinfo with a list of its own, of which freeaddrinfo must get the head back.
class ScriptedAddresses {
public:
    explicit ScriptedAddresses(std::vector<LoopbackAddress> list, int resultOfCall = 0)
        : addresses(std::move(list)),
          entries(addresses.size()),
          resolve(calls::getaddrinfo,
                  [this, resultOfCall](const char* host, const char* service, const addrinfo* hints,
                                       addrinfo** made) {
                      askedHost = host == nullptr ? "<null>" : host;
                      askedService = service;
                      askedHints = *hints;
                      if (!entries.empty()) {
                          *made = entries.data();
                      }
                      return resultOfCall;
                  }),
          free(calls::freeaddrinfo, [this](addrinfo* freed) {
              EXPECT_EQ(freed, entries.data());
              ++frees;
          })
    {
        for (size_t i = 0; i < entries.size(); ++i) {
            entries[i].ai_family = addresses[i].storage.ss_family;
            entries[i].ai_socktype = SOCK_STREAM;
            entries[i].ai_protocol = IPPROTO_TCP;
            entries[i].ai_addr = addresses[i].get();
            entries[i].ai_addrlen = addresses[i].length;
            entries[i].ai_next = i + 1 < entries.size() ? &entries[i + 1] : nullptr;
        }
    }
    addrinfo& operator[](size_t i) { return entries[i]; }

    std::string askedHost;
    std::string askedService;
    addrinfo askedHints{};
    int frees = 0;

private:
    std::vector<LoopbackAddress> addresses;
    std::vector<addrinfo> entries;
    Hook<int(const char*, const char*, const addrinfo*, addrinfo**)> resolve;
    Hook<void(addrinfo*)> free;
};

// Writes down what the library does, its reports included, in order: descriptors as s1, s2 ... in
// the order in which socket made them and a1 for the accepted one. Each call can be made to fail.
class Journal {
public:
    struct When {
        unsigned nth;
        unsigned times = 1;
        int error = ENOBUFS;
    };

    Journal()
        : socketHook(calls::socket,
                     [this](int domain, int type, int protocol) {
                         const int fd =
                             fails("socket") ? -1 : calls::socket.real(domain, type, protocol);
                         if (fd >= 0) {
                             labels[fd] = "s" + std::to_string(++sockets);
                         }
                         note("socket " + (fd < 0 ? std::string("failed") : labels[fd]));
                         return fd;
                     }),
          setsockoptHook(calls::setsockopt,
                         [this](int fd, int level, int name, const void* value, socklen_t size) {
                             EXPECT_EQ(size, sizeof(int));
                             note("setsockopt " + labels[fd] + " " + std::to_string(level) + " " +
                                  std::to_string(name) + " " +
                                  std::to_string(*static_cast<const int*>(value)));
                             return fails("setsockopt")
                                        ? -1
                                        : calls::setsockopt.real(fd, level, name, value, size);
                         }),
          bindHook(calls::bind,
                   [this](int fd, const sockaddr* address, socklen_t size) {
                       note("bind " + labels[fd]);
                       return fails("bind") ? -1 : calls::bind.real(fd, address, size);
                   }),
          listenHook(calls::listen,
                     [this](int fd, int backlog) {
                         note("listen " + labels[fd] + " " + std::to_string(backlog));
                         return fails("listen") ? -1 : calls::listen.real(fd, backlog);
                     }),
          acceptHook(calls::accept,
                     [this](int fd, sockaddr* address, socklen_t* size) {
                         note("accept " + labels[fd] + " " + std::to_string(*size));
                         for (socklen_t i = 0; i < *size; ++i) {
                             EXPECT_EQ(reinterpret_cast<const char*>(address)[i], 0);
                         }
                         if (fails("accept")) {
                             return -1;
                         }
                         // The backlog lets the client connect before anybody accepts.
                         const LoopbackAddress server(gcltest::portOf(fd));
                         client.reset(calls::socket.real(AF_INET, SOCK_STREAM, 0));
                         EXPECT_EQ(calls::connect.real(client.get(), server.get(), server.length),
                                   0);
                         const int accepted = calls::accept.real(fd, address, size);
                         labels[accepted] = "a1";
                         return accepted;
                     }),
          connectHook(calls::connect,
                      [this](int fd, const sockaddr* address, socklen_t size) {
                          note("connect " + labels[fd]);
                          return fails("connect") ? -1 : calls::connect.real(fd, address, size);
                      }),
          shutdownHook(calls::shutdown,
                       [this](int fd, int how) {
                           note("shutdown " + labels[fd] + " " + std::to_string(how));
                           return calls::shutdown.real(fd, how);
                       }),
          closeHook(calls::close,
                    [this](int fd) {
                        note("close " + labels[fd]);
                        const int result = calls::close.real(fd);
                        // As on Linux: the descriptor is gone also where the call says it failed.
                        return fails("close") ? -1 : result;
                    }),
          perrorHook(calls::perror,
                     [this](const char* text) {
                         // What it would say depends on the error still being that of the failed
                         // call.
                         note(std::string("perror ") + text + " " + std::to_string(errno));
                     }),
          freeHook(calls::freeaddrinfo,
                   [this](addrinfo* list) {
                       note("free");
                       calls::freeaddrinfo.real(list);
                   }),
          newHook(calls::newArray, [this](size_t size) -> void* {
              note("new " + std::to_string(size));
              if (fails("new")) {
                  throw std::bad_alloc();
              }
              return calls::newArray.real(size);
          })
    {
    }

    void fail(const std::string& call, When when) { failures[call] = when; }
    void fail(const std::string& call) { failures[call] = {1, UINT_MAX, ENOBUFS}; }

    Lines lines()
    {
        noteReports();
        return noted;
    }

    OwnedFd client;

private:
    void noteReports()
    {
        for (const Report& written : takeReports()) {
            EXPECT_EQ(written.level, 1);
            noted.push_back("report " + written.function + ": " +
                            written.text.substr(0, written.text.find("      code")) + " " +
                            written.text.substr(written.text.find("0x"), 6));
        }
    }

    void note(const std::string& line)
    {
        noteReports();
        noted.push_back(line);
    }

    bool fails(const std::string& call)
    {
        const unsigned number = ++counts[call];
        const auto found = failures.find(call);
        if (found == failures.end() || number < found->second.nth ||
            number - found->second.nth >= found->second.times) {
            return false;
        }
        errno = found->second.error;
        return true;
    }

    Lines noted;
    std::map<int, std::string> labels;
    std::map<std::string, unsigned> counts;
    std::map<std::string, When> failures;
    int sockets = 0;
    Hook<int(int, int, int)> socketHook;
    Hook<int(int, int, int, const void*, socklen_t)> setsockoptHook;
    Hook<int(int, const sockaddr*, socklen_t)> bindHook;
    Hook<int(int, int)> listenHook;
    Hook<int(int, sockaddr*, socklen_t*)> acceptHook;
    Hook<int(int, const sockaddr*, socklen_t)> connectHook;
    Hook<int(int, int)> shutdownHook;
    Hook<int(int)> closeHook;
    Hook<void(const char*)> perrorHook;
    Hook<void(addrinfo*)> freeHook;
    Hook<void*(size_t)> newHook;
};

// Failures that look as if the call could be repeated. This library repeats none of them.
const int kPassing[] = {EINTR, EAGAIN, ECONNABORTED, ENOBUFS};
const std::string kReuse = std::to_string(SOL_SOCKET) + " " + std::to_string(SO_REUSEADDR) + " 1";
const std::string kError = std::to_string(ENOBUFS);
const std::string kServer = "report CTcpSocket_WaitForConnection: ";

// What a journal must hold: the reports among the lines only where they are admitted.
Lines journalOf(Lines lines)
{
    if (GCL_trace.threshold <= 0) {
        lines.erase(std::remove_if(lines.begin(), lines.end(),
                                   [](const std::string& line) { return line[0] == 'r'; }),
                    lines.end());
    }
    return lines;
}

// The journal of a call of WaitForConnection with two addresses and the given failures.
Lines serve(const std::function<void(Journal&)>& prepare, uint32_t expectedCode)
{
    const int port = freePort();
    // The list is the C library's own: AddressList must give it back to freeaddrinfo.
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* second = nullptr;
    Hook resolve(calls::getaddrinfo,
                 [&](const char*, const char* service, const addrinfo*, addrinfo** made) {
                     EXPECT_EQ(calls::getaddrinfo.real("127.0.0.1", service, &hints, made), 0);
                     EXPECT_EQ(calls::getaddrinfo.real("127.0.0.1", service, &hints, &second), 0);
                     (*made)->ai_next = second;
                     return 0;
                 });
    Handed handed;
    Journal journal;
    prepare(journal);
    EXPECT_EQ(CTcpSocket_WaitForConnection(&handed, port, 100), expectedCode);
    EXPECT_EQ(handed.isUntouched(), expectedCode != GCL_OK);
    return journal.lines();
}

// Suites with failures.
class CTcpSocketGetSocketHandle : public gcltest::ReportsOrNot {};
class CTcpSocketCreate : public gcltest::ReportsOrNot {};
class CTcpSocketWaitForConnection : public gcltest::ReportsOrNot {};
class CTcpSocketSetTimeout : public gcltest::ReportsOrNot {};

GCLTEST_WITH_AND_WITHOUT_REPORTS(CTcpSocketGetSocketHandle);
GCLTEST_WITH_AND_WITHOUT_REPORTS(CTcpSocketCreate);
GCLTEST_WITH_AND_WITHOUT_REPORTS(CTcpSocketWaitForConnection);
GCLTEST_WITH_AND_WITHOUT_REPORTS(CTcpSocketSetTimeout);

} // namespace

TEST(CTcpSocketLayout, HasFourWordsInOrder)
{
    EXPECT_EQ(offsetof(CTcpSocket, iSocketHandle), 0u);
    EXPECT_EQ(offsetof(CTcpSocket, iPort), 4u);
    EXPECT_EQ(offsetof(CTcpSocket, uiMaxMsgSize), 8u);
    EXPECT_EQ(offsetof(CTcpSocket, uiTimeout), 12u);
    EXPECT_EQ(sizeof(CTcpSocket), 16u);
}

// Each frees what it owns, once.
TEST(CTcpSocketOwners, HaveNoCopies)
{
    EXPECT_FALSE(std::is_copy_constructible_v<gcl::AddressList>);
    EXPECT_FALSE(std::is_copy_assignable_v<gcl::AddressList>);
    EXPECT_FALSE(std::is_copy_constructible_v<gcl::Descriptor>);
    EXPECT_FALSE(std::is_copy_assignable_v<gcl::Descriptor>);
}

TEST(CTcpSocketConstruct, StoresTheValuesAndNoTimeout)
{
    CTcpSocket socket{1, 2, 3, 4};
    CTcpSocket_Construct(&socket, 5, -6, 0xFFFFFFFFu);
    EXPECT_EQ(socket.iSocketHandle, 5);
    EXPECT_EQ(socket.iPort, -6);
    EXPECT_EQ(socket.uiMaxMsgSize, 0xFFFFFFFFu);
    EXPECT_EQ(socket.uiTimeout, 0u);
    expectReports({});
}

TEST(CTcpSocketConstruct, AcceptsNull)
{
    CTcpSocket_Construct(nullptr, 5, 6, 7);
    expectReports({});
}

TEST_P(CTcpSocketGetSocketHandle, ReturnsTheDescriptorOrMinusOne)
{
    CTcpSocket socket{42, 0, 0, 0};
    EXPECT_EQ(CTcpSocket_GetSocketHandle(&socket), 42);
    socket.iSocketHandle = -1;
    EXPECT_EQ(CTcpSocket_GetSocketHandle(&socket), -1);
    expectReports({});
}

TEST_P(CTcpSocketGetSocketHandle, ReportsNull)
{
    EXPECT_EQ(CTcpSocket_GetSocketHandle(nullptr), -1);
    expectReports({report("CTcpSocket_GetSocketHandle", "Invalid object", 0x8008)});
}

TEST_P(CTcpSocketCreate, ReportsANullResultPointer)
{
    const Count resolved(calls::getaddrinfo);
    EXPECT_EQ(CTcpSocket_Create(nullptr, "127.0.0.1", 1, 1), 0x8008u);
    expectReports({report("CTcpSocket_Create", "Invalid object", 0x8008)});
    EXPECT_EQ(resolved.calls(), 0u);
}

TEST_P(CTcpSocketCreate, ConnectsToAnIpv4Server)
{
    const Listener listener;
    const Count options(calls::setsockopt);
    const Count resolved(calls::getaddrinfo);
    const Count freed(calls::freeaddrinfo);
    const Count allocated(calls::newArray);
    Handed handed;
    ASSERT_EQ(CTcpSocket_Create(&handed, "127.0.0.1", listener.port, 77), GCL_OK);
    EXPECT_EQ(handed->iPort, listener.port);
    EXPECT_EQ(handed->uiMaxMsgSize, 77u);
    EXPECT_EQ(handed->uiTimeout, 0u);
    EXPECT_EQ(options.calls(), 0u);
    EXPECT_EQ(resolved.calls(), 1u);
    EXPECT_EQ(freed.calls(), 1u);
    EXPECT_EQ(allocated.calls(), 1u);
    const OwnedFd peer = listener.accepted();
    ASSERT_EQ(write(peer.get(), "x", 1), 1);
    char byte = 0;
    EXPECT_EQ(read(handed->iSocketHandle, &byte, 1), 1);
    EXPECT_EQ(byte, 'x');
    expectReports({});
}

TEST_P(CTcpSocketCreate, ConnectsToAnIpv6Server)
{
    if (!gcltest::hostHasIpv6()) {
        GTEST_SKIP() << "this host has no IPv6 loopback address";
    }
    const Listener listener(AF_INET6);
    Handed byAddress;
    EXPECT_EQ(CTcpSocket_Create(&byAddress, "::1", listener.port, 1), GCL_OK);
    const OwnedFd peer = listener.accepted();
    EXPECT_GE(peer.get(), 0);
    expectReports({});
}

TEST_P(CTcpSocketCreate, ConnectsByName)
{
    const Listener listener;
    Handed handed;
    EXPECT_EQ(CTcpSocket_Create(&handed, "localhost", listener.port, 1), GCL_OK);
    expectReports({});
}

TEST_P(CTcpSocketCreate, AsksForStreamsOfAnyFamily)
{
    ScriptedAddresses addresses({}, -2);
    Handed handed;
    EXPECT_EQ(CTcpSocket_Create(&handed, "radio.example", -2147483647 - 1, 1), 0x800Au);
    EXPECT_EQ(addresses.askedHost, "radio.example");
    EXPECT_EQ(addresses.askedService, "-2147483648");
    EXPECT_EQ(addresses.askedHints.ai_socktype, SOCK_STREAM);
    EXPECT_EQ(addresses.askedHints.ai_family, AF_UNSPEC);
    EXPECT_EQ(addresses.askedHints.ai_flags, 0);
    EXPECT_EQ(addresses.askedHints.ai_protocol, 0);
    EXPECT_EQ(addresses.askedHints.ai_addrlen, 0u);
    EXPECT_EQ(addresses.askedHints.ai_addr, nullptr);
    EXPECT_EQ(addresses.askedHints.ai_canonname, nullptr);
    EXPECT_EQ(addresses.askedHints.ai_next, nullptr);
    EXPECT_TRUE(handed.isUntouched());
    expectReports({report("CTcpSocket_Create",
                          "Failed to connect to 'radio.example' at port '-2147483648'", 0x800A)});
}

TEST_P(CTcpSocketCreate, WritesThePortIntoThirtyZeroes)
{
    const ScriptedAddresses addresses({}, -2);
    const Hook hook(calls::snprintf,
                    [](char* text, size_t limit, const char* format, va_list values) {
                        EXPECT_EQ(limit, 29u) << "the last zero is never written over";
                        EXPECT_EQ(std::string(text, 30), std::string(30, '\0'));
                        return calls::snprintf.real(text, limit, format, values);
                    });
    Handed handed;
    EXPECT_EQ(CTcpSocket_Create(&handed, "h", 80, 1), 0x800Au);
    EXPECT_EQ(hook.calls(), 1u);
    EXPECT_EQ(addresses.askedService, "80");
    static_cast<void>(takeReports());
}

TEST_P(CTcpSocketCreate, ReportsAHostThatIsNoAddress)
{
    const Count freed(calls::freeaddrinfo);
    Handed handed;
    const Fault fault(calls::getaddrinfo, {EAI_NONAME, 0});
    EXPECT_EQ(CTcpSocket_Create(&handed, "nowhere.example", 80, 1), 0x800Au);
    expectReports({report("CTcpSocket_Create",
                          "Failed to connect to 'nowhere.example' at port '80'", 0x800A)});
    EXPECT_EQ(freed.calls(), 0u);
    EXPECT_TRUE(handed.isUntouched());
}

TEST_P(CTcpSocketCreate, IgnoresAListThatComesWithAFailure)
{
    const Listener listener;
    ScriptedAddresses addresses({LoopbackAddress(listener.port)}, EAI_FAIL);
    Handed handed;
    EXPECT_EQ(CTcpSocket_Create(&handed, "h", 80, 1), 0x800Au);
    EXPECT_EQ(addresses.frees, 0);
    expectReports({report("CTcpSocket_Create", "Failed to connect to 'h' at port '80'", 0x800A)});
}

TEST_P(CTcpSocketCreate, TakesAPositiveResultForSuccess)
{
    const Listener listener;
    {
        ScriptedAddresses addresses({}, 1);
        Handed handed;
        EXPECT_EQ(CTcpSocket_Create(&handed, "h", 80, 1), 0x800Bu);
        EXPECT_EQ(addresses.frees, 0);
        expectReports({report("CTcpSocket_Create", "Client failed to connect", 0x800B)});
    }
    ScriptedAddresses addresses({LoopbackAddress(listener.port)}, 1);
    Handed handed;
    EXPECT_EQ(CTcpSocket_Create(&handed, "h", 80, 1), GCL_OK);
    EXPECT_EQ(handed->iPort, 80);
    EXPECT_EQ(addresses.frees, 1);
    expectReports({});
}

TEST_P(CTcpSocketCreate, TriesTheAddressesInOrder)
{
    const Listener first;
    const Listener second;
    // A family that no socket can have, a port that refuses, then two that accept.
    ScriptedAddresses addresses({LoopbackAddress(first.port), LoopbackAddress(freePort()),
                                 LoopbackAddress(first.port), LoopbackAddress(second.port)});
    addresses[0].ai_family = 12345;
    Handed handed;
    EXPECT_EQ(CTcpSocket_Create(&handed, "h", 80, 1), GCL_OK);
    EXPECT_EQ(addresses.frees, 1);
    const OwnedFd peer = first.accepted();
    EXPECT_GE(peer.get(), 0);
    expectReports({});
}

TEST_P(CTcpSocketCreate, CreatesEachSocketFromItsEntry)
{
    ScriptedAddresses addresses({LoopbackAddress(1), LoopbackAddress(2)});
    addresses[0].ai_family = 101;
    addresses[0].ai_socktype = 102;
    addresses[0].ai_protocol = 103;
    addresses[1].ai_family = 201;
    addresses[1].ai_socktype = 202;
    addresses[1].ai_protocol = 203;
    std::vector<int> asked;
    const Hook hook(calls::socket, [&asked](int domain, int type, int protocol) {
        asked.insert(asked.end(), {domain, type, protocol});
        return -1;
    });
    Handed handed;
    EXPECT_EQ(CTcpSocket_Create(&handed, "h", 80, 1), 0x800Bu);
    EXPECT_EQ(asked, (std::vector<int>{101, 102, 103, 201, 202, 203}));
    EXPECT_EQ(addresses.frees, 1);
    expectReports({report("CTcpSocket_Create", "Client failed to connect", 0x800B)});
}

TEST_P(CTcpSocketCreate, AcceptsDescriptorZero)
{
    const ScriptedAddresses addresses({LoopbackAddress(1)});
    const Fault sockets(calls::socket, {0, 0});
    const Fault connects(calls::connect, {0, 0});
    const Count closes(calls::close);
    Handed handed;
    EXPECT_EQ(CTcpSocket_Create(&handed, "h", 80, 1), GCL_OK);
    EXPECT_EQ(handed->iSocketHandle, 0);
    EXPECT_EQ(closes.calls(), 0u);
    handed->iSocketHandle = -1; // the test's own standard input stays open
    expectReports({});
}

TEST_P(CTcpSocketCreate, ClosesDescriptorZeroWhereItDoesNotConnect)
{
    const ScriptedAddresses addresses({LoopbackAddress(1)});
    const Fault sockets(calls::socket, {0, 0});
    const Fault connects(calls::connect, {-1, ECONNREFUSED});
    const Hook closes(calls::close, [](int fd) {
        EXPECT_EQ(fd, 0);
        return 0;
    });
    Handed handed;
    EXPECT_EQ(CTcpSocket_Create(&handed, "h", 80, 1), 0x800Bu);
    EXPECT_EQ(closes.calls(), 1u);
    expectReports({report("CTcpSocket_Create", "Client failed to connect", 0x800B)});
}

TEST_P(CTcpSocketCreate, ClosesEachSocketThatDoesNotConnect)
{
    // Once: a second attempt would succeed.
    for (const int error : kPassing) {
        const Listener listener;
        Handed handed;
        Journal journal;
        journal.fail("connect", {1, 1, error});
        journal.fail("close", {1, 1, EINTR});
        EXPECT_EQ(CTcpSocket_Create(&handed, "127.0.0.1", listener.port, 1), 0x800Bu);
        EXPECT_TRUE(handed.isUntouched());
        EXPECT_EQ(journal.lines(),
                  journalOf({"socket s1", "connect s1", "close s1", "free",
                             "report CTcpSocket_Create: Client failed to connect 0x800b"}));
    }
}

TEST_P(CTcpSocketCreate, FreesTheAddressesBeforeItAllocates)
{
    const Listener listener;
    Handed handed;
    Journal journal;
    EXPECT_EQ(CTcpSocket_Create(&handed, "127.0.0.1", listener.port, 1), GCL_OK);
    EXPECT_EQ(journal.lines(), journalOf({"socket s1", "connect s1", "free", "new 16"}));
}

TEST_P(CTcpSocketCreate, LeaksNothingWhenTheAllocationThrows)
{
    const Listener listener;
    Handed handed;
    Journal journal;
    journal.fail("new");
    EXPECT_THROW(CTcpSocket_Create(&handed, "127.0.0.1", listener.port, 1), std::bad_alloc);
    EXPECT_TRUE(handed.isUntouched());
    EXPECT_EQ(journal.lines(),
              journalOf({"socket s1", "connect s1", "free", "new 16", "close s1"}));
}

TEST_P(CTcpSocketWaitForConnection, ReportsANullResultPointer)
{
    const Count resolved(calls::getaddrinfo);
    EXPECT_EQ(CTcpSocket_WaitForConnection(nullptr, 1, 1), 0x8008u);
    expectReports({report("CTcpSocket_WaitForConnection", "Invalid object", 0x8008)});
    EXPECT_EQ(resolved.calls(), 0u);
}

TEST_P(CTcpSocketWaitForConnection, AsksForPassiveStreamsOfAnyFamily)
{
    for (const int result : {-2, 1}) {
        ScriptedAddresses addresses({}, result);
        Handed handed;
        EXPECT_EQ(CTcpSocket_WaitForConnection(&handed, 2147483647, 1), 0x800Au);
        EXPECT_EQ(addresses.askedHost, "<null>");
        EXPECT_EQ(addresses.askedService, "2147483647");
        EXPECT_EQ(addresses.askedHints.ai_flags, AI_PASSIVE);
        EXPECT_EQ(addresses.askedHints.ai_socktype, SOCK_STREAM);
        EXPECT_EQ(addresses.askedHints.ai_family, AF_UNSPEC);
        EXPECT_EQ(addresses.askedHints.ai_protocol, 0);
        EXPECT_TRUE(handed.isUntouched());
        expectReports({report("CTcpSocket_WaitForConnection", "getaddrinfo() failed", 0x800A)});
    }
}

TEST_P(CTcpSocketWaitForConnection, ServesOneClient)
{
    const int port = freePort();
    OwnedFd client;
    const Hook hook(calls::listen, [&](int fd, int backlog) {
        const int result = calls::listen.real(fd, backlog);
        client = connectTo(port);
        return result;
    });
    // Twice: the port can be bound again at once, although the first connection still exists.
    for (int i = 0; i < 2; ++i) {
        Handed handed;
        ASSERT_EQ(CTcpSocket_WaitForConnection(&handed, port, 55), GCL_OK);
        EXPECT_EQ(handed->iPort, port);
        EXPECT_EQ(handed->uiMaxMsgSize, 55u);
        EXPECT_EQ(handed->uiTimeout, 0u);
        ASSERT_EQ(write(client.get(), "y", 1), 1);
        char byte = 0;
        EXPECT_EQ(read(handed->iSocketHandle, &byte, 1), 1);
        EXPECT_EQ(byte, 'y');
        EXPECT_LT(connectTo(port).get(), 0) << "nobody listens any more";
    }
    expectReports({});
}

TEST_P(CTcpSocketWaitForConnection, HandsOverBeforeItEndsTheListeningSocket)
{
    EXPECT_EQ(serve([](Journal&) {}, GCL_OK),
              journalOf({"socket s1", "setsockopt s1 " + kReuse, "bind s1", "free", "listen s1 20",
                         "accept s1 32", "new 16", "shutdown s1 2", "close s1"}));
}

TEST_P(CTcpSocketWaitForConnection, HandsAFilledObjectOver)
{
    const int port = freePort();
    OwnedFd client;
    const Hook listens(calls::listen, [&](int fd, int backlog) {
        const int result = calls::listen.real(fd, backlog);
        client = connectTo(port);
        return result;
    });
    Handed handed;
    const Hook shutdowns(calls::shutdown, [&](int fd, int how) {
        EXPECT_FALSE(handed.isUntouched());
        if (!handed.isUntouched()) {
            EXPECT_GE(handed->iSocketHandle, 0);
            EXPECT_EQ(handed->iPort, port);
            EXPECT_EQ(handed->uiMaxMsgSize, 55u);
        }
        return calls::shutdown.real(fd, how);
    });
    ASSERT_EQ(CTcpSocket_WaitForConnection(&handed, port, 55), GCL_OK);
    EXPECT_EQ(shutdowns.calls(), 1u);
}

TEST_P(CTcpSocketWaitForConnection, LeaksNothingWhenTheAllocationThrows)
{
    const int port = freePort();
    Handed handed;
    Journal journal;
    journal.fail("new");
    EXPECT_THROW(CTcpSocket_WaitForConnection(&handed, port, 1), std::bad_alloc);
    EXPECT_TRUE(handed.isUntouched());
    const Lines lines = journal.lines();
    ASSERT_GE(lines.size(), 4u);
    EXPECT_EQ(Lines(lines.end() - 4, lines.end()),
              journalOf({"new 16", "close a1", "shutdown s1 2", "close s1"}));
}

TEST_P(CTcpSocketWaitForConnection, GoesOnAfterASocketThatFails)
{
    EXPECT_EQ(serve([](Journal& journal) { journal.fail("socket", {1}); }, GCL_OK),
              journalOf({"socket failed", kServer + "Socket closed 0x800a", "socket s1",
                         "setsockopt s1 " + kReuse, "bind s1", "free", "listen s1 20",
                         "accept s1 32", "new 16", "shutdown s1 2", "close s1"}));
}

TEST_P(CTcpSocketWaitForConnection, EndsWhereNoSocketCanBeMade)
{
    EXPECT_EQ(
        serve([](Journal& journal) { journal.fail("socket"); }, 0x800A),
        journalOf({"socket failed", kServer + "Socket closed 0x800a", "socket failed",
                   kServer + "Socket closed 0x800a", "free", kServer + "Failed to bind 0x800a"}));
}

TEST_P(CTcpSocketWaitForConnection, EndsAtAnOptionThatFails)
{
    for (const int error : kPassing) {
        EXPECT_EQ(serve(
                      [error](Journal& journal) {
                          journal.fail("setsockopt", {1, 1, error});
                      },
                      0x800A),
                  journalOf({"socket s1", "setsockopt s1 " + kReuse,
                             kServer + "setsockopt() failed 0x800a", "shutdown s1 2", "close s1",
                             "free"}));
    }
}

TEST_P(CTcpSocketWaitForConnection, GoesOnAfterABindThatFails)
{
    EXPECT_EQ(
        serve([](Journal& journal) { journal.fail("bind", {1}); }, GCL_OK),
        journalOf({"socket s1", "setsockopt s1 " + kReuse, "bind s1", "perror Error " + kError,
                   "shutdown s1 2", "close s1", kServer + "bind() failed 0x800a", "socket s2",
                   "setsockopt s2 " + kReuse, "bind s2", "free", "listen s2 20", "accept s2 32",
                   "new 16", "shutdown s2 2", "close s2"}));
}

TEST_P(CTcpSocketWaitForConnection, EndsWhereNothingCanBeBound)
{
    EXPECT_EQ(
        serve([](Journal& journal) { journal.fail("bind"); }, 0x800A),
        journalOf({"socket s1", "setsockopt s1 " + kReuse, "bind s1", "perror Error " + kError,
                   "shutdown s1 2", "close s1", kServer + "bind() failed 0x800a", "socket s2",
                   "setsockopt s2 " + kReuse, "bind s2", "perror Error " + kError, "shutdown s2 2",
                   "close s2", kServer + "bind() failed 0x800a", "free",
                   kServer + "Failed to bind 0x800a"}));
}

TEST_P(CTcpSocketWaitForConnection, EndsAtAListenThatFails)
{
    for (const int error : kPassing) {
        EXPECT_EQ(
            serve(
                [error](Journal& journal) {
                    journal.fail("listen", {1, 1, error});
                },
                0x800A),
            journalOf({"socket s1", "setsockopt s1 " + kReuse, "bind s1", "free", "listen s1 20",
                       kServer + "listen() failed 0x800a", "shutdown s1 2", "close s1"}));
    }
}

TEST_P(CTcpSocketWaitForConnection, EndsAtAnAcceptThatFails)
{
    for (const int error : kPassing) {
        EXPECT_EQ(serve(
                      [error](Journal& journal) {
                          journal.fail("accept", {1, 1, error});
                      },
                      0x800A),
                  journalOf({"socket s1", "setsockopt s1 " + kReuse, "bind s1", "free",
                             "listen s1 20", "accept s1 32", kServer + "accept() failed 0x800a",
                             "shutdown s1 2", "close s1"}));
    }
}

TEST_P(CTcpSocketWaitForConnection, TakesAnEmptyListForNothingBound)
{
    ScriptedAddresses addresses({}, 0);
    Handed handed;
    EXPECT_EQ(CTcpSocket_WaitForConnection(&handed, 1, 1), 0x800Au);
    expectReports({report("CTcpSocket_WaitForConnection", "Failed to bind", 0x800A)});
}

TEST_P(CTcpSocketWaitForConnection, FreesAListThatComesWithAPositiveResult)
{
    ScriptedAddresses addresses({LoopbackAddress(1)}, 1);
    const Count sockets(calls::socket);
    Handed handed;
    EXPECT_EQ(CTcpSocket_WaitForConnection(&handed, 1, 1), 0x800Au);
    EXPECT_TRUE(handed.isUntouched());
    EXPECT_EQ(addresses.frees, 1);
    EXPECT_EQ(sockets.calls(), 0u);
    expectReports({report("CTcpSocket_WaitForConnection", "getaddrinfo() failed", 0x800A)});
}

TEST_P(CTcpSocketWaitForConnection, CreatesEachSocketFromItsEntry)
{
    ScriptedAddresses addresses({LoopbackAddress(1)});
    addresses[0].ai_family = 101;
    addresses[0].ai_socktype = 102;
    addresses[0].ai_protocol = 103;
    const Hook hook(calls::socket, [](int domain, int type, int protocol) {
        EXPECT_EQ(domain, 101);
        EXPECT_EQ(type, 102);
        EXPECT_EQ(protocol, 103);
        return -1;
    });
    Handed handed;
    EXPECT_EQ(CTcpSocket_WaitForConnection(&handed, 1, 1), 0x800Au);
    EXPECT_EQ(hook.calls(), 1u);
    EXPECT_EQ(addresses.frees, 1);
    EXPECT_EQ(takeReports().size(), GCL_trace.threshold > 0 ? 2u : 0u);
}

TEST_P(CTcpSocketWaitForConnection, RefusesAPortInUse)
{
    // A wildcard listener, so that every local address of the port is taken.
    const int family = gcltest::hostHasIpv6() ? AF_INET6 : AF_INET;
    const OwnedFd holder(socket(family, SOCK_STREAM, 0));
    LoopbackAddress any(0, family);
    if (family == AF_INET6) {
        // Of both families, whatever the machine's default is.
        const int onlyIpv6 = 0;
        ASSERT_EQ(setsockopt(holder.get(), IPPROTO_IPV6, IPV6_V6ONLY, &onlyIpv6, sizeof onlyIpv6),
                  0);
        reinterpret_cast<sockaddr_in6*>(&any.storage)->sin6_addr = in6addr_any;
    } else {
        reinterpret_cast<sockaddr_in*>(&any.storage)->sin_addr.s_addr = htonl(INADDR_ANY);
    }
    ASSERT_EQ(bind(holder.get(), any.get(), any.length), 0);
    ASSERT_EQ(listen(holder.get(), 1), 0);
    const Count sockets(calls::socket);
    const Count resolved(calls::getaddrinfo);
    const Count freed(calls::freeaddrinfo);
    Handed handed;

    testing::internal::CaptureStderr();
    const uint32_t code = CTcpSocket_WaitForConnection(&handed, gcltest::portOf(holder.get()), 1);
    const std::string written = testing::internal::GetCapturedStderr();

    EXPECT_EQ(code, 0x800Au);
    EXPECT_TRUE(handed.isUntouched());
    ASSERT_GE(sockets.calls(), 1u);
    std::vector<Report> expected;
    std::string expectedText;
    for (unsigned i = 0; i < sockets.calls(); ++i) {
        expected.push_back(report("CTcpSocket_WaitForConnection", "bind() failed", 0x800A));
        expectedText += std::string("Error: ") + strerror(EADDRINUSE) + "\n";
    }
    expected.push_back(report("CTcpSocket_WaitForConnection", "Failed to bind", 0x800A));
    expectReports(expected);
    EXPECT_EQ(written, expectedText);
    EXPECT_EQ(resolved.calls(), freed.calls());
}

TEST_P(CTcpSocketSetTimeout, ReportsNull)
{
    EXPECT_EQ(CTcpSocket_SetTimeout(nullptr, 1), 0x8008u);
    expectReports({report("CTcpSocket_SetTimeout", "Invalid argument: null object", 0x8008)});
}

TEST_P(CTcpSocketSetTimeout, SwitchesTheNonBlockingFlagAndKeepsTheOthers)
{
    const Connection connection;
    const int fd = connection.near.get();
    ASSERT_EQ(fcntl(fd, F_SETFL, O_APPEND), 0);
    const int before = fcntl(fd, F_GETFL);
    CTcpSocket socket{fd, 1, 2, 0};
    EXPECT_EQ(CTcpSocket_SetTimeout(&socket, 5), GCL_OK);
    EXPECT_EQ(socket.uiTimeout, 5u);
    EXPECT_EQ(fcntl(fd, F_GETFL), before | O_NONBLOCK);
    EXPECT_EQ(CTcpSocket_SetTimeout(&socket, 0), GCL_OK);
    EXPECT_EQ(socket.uiTimeout, 0u);
    EXPECT_EQ(fcntl(fd, F_GETFL), before);
    EXPECT_EQ(socket.iSocketHandle, fd);
    EXPECT_EQ(socket.iPort, 1);
    EXPECT_EQ(socket.uiMaxMsgSize, 2u);
    expectReports({});
}

TEST_P(CTcpSocketSetTimeout, TakesUnreadableFlagsForNone)
{
    long written = -1;
    CTcpSocket socket{3, 0, 0, 0};
    uint32_t stored = 5;
    const Hook hook(calls::fcntl, [&](int, int command, long argument) {
        EXPECT_EQ(socket.uiTimeout, stored) << "the time-out comes first";
        if (command == F_GETFL) {
            return -1;
        }
        EXPECT_EQ(command, F_SETFL);
        written = static_cast<int>(argument);
        return 0;
    });
    EXPECT_EQ(CTcpSocket_SetTimeout(&socket, 5), GCL_OK);
    EXPECT_EQ(written, O_NONBLOCK);
    stored = 0;
    EXPECT_EQ(CTcpSocket_SetTimeout(&socket, 0), GCL_OK);
    EXPECT_EQ(written, 0);
    expectReports({});
}

TEST_P(CTcpSocketSetTimeout, StoresTheTimeoutOfAClosedObjectAndFails)
{
    CTcpSocket socket{-1, 0, 2, 0};
    const Count flags(calls::fcntl);
    EXPECT_EQ(CTcpSocket_SetTimeout(&socket, 9), 0x800Cu);
    EXPECT_EQ(socket.uiTimeout, 9u);
    EXPECT_EQ(flags.calls(), 2u);
    expectReports(
        {report("CTcpSocket_SetTimeout", "CTcpSocket_SetTimeout call to fcntl failed", 0x800C)});
}
