// CTcpSocket: real connections between threads.
#include "Framework/GCL/CTcpSocket.h"

#include <gtest/gtest.h>

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "Framework/GCL/ResultCodes.h"
#include "Framework/GCL/testing/FaultInjection.h"
#include "Framework/GCL/testing/TraceCapture.h"
#include "tests/support/Loopback.h"

using gcltest::freePort;
using gcltest::takeReports;
namespace calls = gcltest::calls;

namespace {

constexpr uint32_t kMaxMsgSize = 4096;

void destroy(CTcpSocket* socket)
{
    CTcpSocket_Destruct(socket);
    delete[] socket;
}

// Connects to a server that another thread is about to start.
CTcpSocket* connectWhenServed(const char* host, int port)
{
    CTcpSocket* socket = nullptr;
    for (int i = 0; i < 2000; ++i) {
        if (CTcpSocket_Create(&socket, host, port, kMaxMsgSize) == GCL_OK) {
            return socket;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return nullptr;
}

// Both ends of a connection, made by the two operations. The server takes the first address that
// can be bound, which is the IPv4 one where there are both.
struct Peers {
    Peers()
    {
        const int port = freePort();
        std::thread waiting([this, port] {
            codeOfServer = CTcpSocket_WaitForConnection(&server, port, kMaxMsgSize);
        });
        client = connectWhenServed("127.0.0.1", port);
        waiting.join();
        static_cast<void>(takeReports()); // attempts before the server was there
    }
    ~Peers()
    {
        destroy(client);
        destroy(server);
    }
    uint32_t codeOfServer = 0xFFFFFFFF;
    CTcpSocket* client = nullptr;
    CTcpSocket* server = nullptr;
};

std::string pattern(size_t size, unsigned seed)
{
    std::string data(size, '\0');
    for (char& byte : data) {
        seed = seed * 1103515245u + 12345u;
        byte = static_cast<char>(seed >> 16);
    }
    return data;
}

std::string readAll(CTcpSocket* socket, size_t size)
{
    std::string data;
    char buffer[kMaxMsgSize];
    while (data.size() < size) {
        int32_t length = sizeof buffer;
        const uint32_t code = CTcpSocket_Read(socket, buffer, &length);
        if (code == GCL_TIMED_OUT) {
            continue;
        }
        if (code != GCL_OK) {
            ADD_FAILURE() << std::hex << code;
            break;
        }
        data.append(buffer, static_cast<size_t>(length));
    }
    return data;
}

void writeAll(CTcpSocket* socket, const std::string& data)
{
    int32_t length = static_cast<int32_t>(data.size());
    EXPECT_EQ(CTcpSocket_Write(socket, data.data(), &length), GCL_OK);
    EXPECT_EQ(length, static_cast<int32_t>(data.size()));
}

} // namespace

TEST(CTcpSocketStream, WaitsForAClientAndConnects)
{
    Peers peers;
    ASSERT_EQ(peers.codeOfServer, GCL_OK);
    ASSERT_NE(peers.client, nullptr);
    EXPECT_EQ(peers.client->iPort, peers.server->iPort);
    writeAll(peers.client, "question");
    EXPECT_EQ(readAll(peers.server, 8), "question");
    writeAll(peers.server, "answer");
    EXPECT_EQ(readAll(peers.client, 6), "answer");
}

// Megabytes each way at once, blocking and with a time-out; one thread for each end.
TEST(CTcpSocketStream, CarriesMegabytesUnchanged)
{
    for (const uint32_t timeout : {0u, 30u}) {
        Peers peers;
        ASSERT_NE(peers.client, nullptr);
        ASSERT_EQ(CTcpSocket_SetTimeout(peers.client, timeout), GCL_OK);
        ASSERT_EQ(CTcpSocket_SetTimeout(peers.server, timeout), GCL_OK);
        const std::string there = pattern(4 * 1024 * 1024 + 7, 1);
        const std::string back = pattern(2 * 1024 * 1024 + 3, 2);
        std::thread server([&] {
            EXPECT_TRUE(readAll(peers.server, there.size()) == there);
            writeAll(peers.server, back);
        });
        writeAll(peers.client, there);
        EXPECT_TRUE(readAll(peers.client, back.size()) == back);
        server.join();
    }
}

// A signal during the wait counts as readiness: on the non-blocking socket the receive then fails.
TEST(CTcpSocketStream, ReceivesAtOnceWhenASignalEndsTheWait)
{
    struct sigaction note {};
    struct sigaction before {};
    note.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &note, &before), 0);
    Peers peers;
    ASSERT_NE(peers.client, nullptr);
    ASSERT_EQ(CTcpSocket_SetTimeout(peers.client, 60), GCL_OK);
    const pthread_t reader = pthread_self();
    std::atomic<bool> done{false};
    std::thread disturber([&] {
        while (!done) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            pthread_kill(reader, SIGUSR1);
        }
    });
    char buffer[4];
    int32_t length = 4;
    EXPECT_EQ(CTcpSocket_Read(peers.client, buffer, &length), 0x800Au);
    EXPECT_EQ(length, -1);
    done = true;
    disturber.join();
    EXPECT_EQ(takeReports(), std::vector<gcltest::Report>{gcltest::gclReport(
                                 "CTcpSocket", "CTcpSocket_Read", "recv() failed", 0x800A)});
    ASSERT_EQ(sigaction(SIGUSR1, &before, nullptr), 0);
}

// The wait is for room as well: a slow reader does not make the writer time out.
TEST(CTcpSocketStream, WritesToASlowReader)
{
    Peers peers;
    ASSERT_NE(peers.client, nullptr);
    ASSERT_EQ(CTcpSocket_SetTimeout(peers.client, 30), GCL_OK);
    const std::string data = pattern(8 * 1024 * 1024, 3);
    std::thread reader([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        EXPECT_TRUE(readAll(peers.server, data.size()) == data);
    });
    const gcltest::Count sends(calls::send);
    writeAll(peers.client, data);
    EXPECT_GT(sends.calls(), 1u) << "more than fits into the buffers at once";
    reader.join();
}

TEST(CTcpSocketStream, ServesOneClientAfterTheOtherOnOnePort)
{
    const int port = freePort();
    for (int i = 0; i < 3; ++i) {
        CTcpSocket* server = nullptr;
        std::thread waiting(
            [&] { EXPECT_EQ(CTcpSocket_WaitForConnection(&server, port, kMaxMsgSize), GCL_OK); });
        CTcpSocket* const client = connectWhenServed("127.0.0.1", port);
        waiting.join();
        ASSERT_NE(client, nullptr);
        writeAll(client, "ping");
        EXPECT_EQ(readAll(server, 4), "ping");
        destroy(server); // the side that ends first keeps the port in TIME_WAIT
        destroy(client);
    }
}
