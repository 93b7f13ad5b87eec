// CTcpSocket on a network that fails: refused, reset, silent, slow and lossy. run.sh starts it.
// Both ends of each connection belong to this process; the peer's sockets are made in the other
// network namespace, where the faults are made as well.
#include "Framework/GCL/CTcpSocket.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "Framework/GCL/ResultCodes.h"
#include "Framework/GCL/testing/TraceCapture.h"
#include "tests/support/Loopback.h"

using gcltest::OwnedFd;
using gcltest::Report;
using gcltest::takeReports;

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr uint32_t kMaxMsgSize = 65536;
const char kFarAddress[] = "10.77.0.2";
const char kFarAddress6[] = "fd77::2";

std::string variable(const char* name)
{
    const char* const value = std::getenv(name);
    return value == nullptr ? "" : value;
}

Report report(const std::string& function, const std::string& text, uint32_t code)
{
    return gcltest::gclReport("CTcpSocket", function, text, code);
}

// The calling thread is in the far namespace while it exists. Sockets stay where they were made.
class InFarNamespace {
public:
    InFarNamespace() : home(open("/proc/thread-self/ns/net", O_RDONLY))
    {
        const std::string path = "/run/netns/" + variable("GCLTEST_FAR");
        const OwnedFd far(open(path.c_str(), O_RDONLY));
        EXPECT_EQ(setns(far.get(), CLONE_NEWNET), 0);
    }
    ~InFarNamespace() { EXPECT_EQ(setns(home.get(), CLONE_NEWNET), 0); }

private:
    OwnedFd home;
};

class Network : public testing::Test {
protected:
    Network()
    {
        signal(SIGPIPE, SIG_IGN);
        const InFarNamespace far;
        listener.reset(socket(AF_INET6, SOCK_STREAM, 0));
        sockaddr_in6 any{};
        any.sin6_family = AF_INET6; // and IPv4 with it
        EXPECT_EQ(bind(listener.get(), reinterpret_cast<sockaddr*>(&any), sizeof any), 0);
        EXPECT_EQ(listen(listener.get(), 5), 0);
        port = gcltest::portOf(listener.get());
    }

    ~Network() override
    {
        CTcpSocket_Destruct(object);
        delete[] object;
        inFar("nft flush ruleset");
        if (linkIsDown) {
            shell("ip -n " + variable("GCLTEST_NEAR") + " link set veth0 up");
        }
        if (isSlow) {
            shell("ip netns exec " + variable("GCLTEST_NEAR") + " tc qdisc del dev veth0 root");
        }
        static_cast<void>(takeReports());
    }

    static void shell(const std::string& command)
    {
        EXPECT_EQ(std::system(command.c_str()), 0) << command;
    }
    static void inFar(const std::string& command)
    {
        shell("ip netns exec " + variable("GCLTEST_FAR") + " " + command);
    }

    // From now on the far side does this with segments that arrive for the listener's port.
    void answerSegments(const std::string& verdict) const
    {
        inFar("nft add table inet faults");
        inFar("nft 'add chain inet faults input { type filter hook input priority 0; }'");
        inFar("nft 'add rule inet faults input tcp dport " + std::to_string(port) + " " + verdict +
              "'");
    }

    // What a rule with a counter has dropped.
    static long segmentsDropped()
    {
        const std::string command =
            "ip netns exec " + variable("GCLTEST_FAR") + " nft list chain inet faults input";
        FILE* const pipe = popen(command.c_str(), "r");
        if (pipe == nullptr) {
            return -1;
        }
        std::string listing;
        char part[256];
        while (std::fgets(part, sizeof part, pipe) != nullptr) {
            listing += part;
        }
        pclose(pipe);
        const std::string label = "counter packets ";
        const size_t at = listing.find(label);
        return at == std::string::npos ? -1 : std::strtol(&listing[at + label.size()], nullptr, 10);
    }

    void cutLink()
    {
        linkIsDown = true;
        shell("ip -n " + variable("GCLTEST_NEAR") + " link set veth0 down");
    }

    void slowDown(const std::string& rate)
    {
        isSlow = true;
        shell("ip netns exec " + variable("GCLTEST_NEAR") +
              " tc qdisc add dev veth0 root tbf rate " + rate + " burst 3000 latency 5s");
    }

    void connectObject(const char* host = kFarAddress)
    {
        ASSERT_EQ(CTcpSocket_Create(&object, host, port, kMaxMsgSize), GCL_OK);
        peer.reset(accept(listener.get(), nullptr, nullptr));
        ASSERT_GE(peer.get(), 0);
    }

    void exchange()
    {
        int32_t length = 4;
        ASSERT_EQ(CTcpSocket_Write(object, "ping", &length), GCL_OK);
        ASSERT_EQ(gcltest::receiveAll(peer.get(), 4), "ping");
        ASSERT_EQ(write(peer.get(), "pong", 4), 4);
        char buffer[4];
        ASSERT_EQ(CTcpSocket_Read(object, buffer, &length), GCL_OK);
        ASSERT_EQ(std::string(buffer, 4), "pong");
    }

    // Closes the object while its send queue cannot drain: the drain runs out of time and says so.
    void expectCloseGivesUp()
    {
        static_cast<void>(takeReports());
        const int fd = object->iSocketHandle;
        const auto start = Clock::now();
        EXPECT_EQ(CTcpSocket_Close(object), GCL_OK);
        EXPECT_GE(Clock::now() - start, milliseconds(100));
        EXPECT_EQ(object->iSocketHandle, -1);
        const std::vector<Report> reports = takeReports();
        ASSERT_GE(reports.size(), 2u);
        unsigned named = 0;
        long long waitedMs = 0;
        int waits = 0;
        ASSERT_EQ(
            std::sscanf(reports.back().text.c_str(),
                        "Buffer drain wait exahausted for socket %u waited %lld mS and %d times",
                        &named, &waitedMs, &waits),
            3)
            << reports.back();
        EXPECT_EQ(named, static_cast<unsigned>(fd));
        EXPECT_GE(waitedMs, 101);
        EXPECT_GE(waits, 2);
        EXPECT_EQ(reports.back().function, "CTcpSocket_DrainSendBuffer");
    }

    OwnedFd listener;
    OwnedFd peer;
    int port = 0;
    CTcpSocket* object = nullptr;
    bool linkIsDown = false;
    bool isSlow = false;
};

} // namespace

TEST_F(Network, CarriesDataBetweenHosts)
{
    connectObject();
    exchange();
    EXPECT_EQ(takeReports(), std::vector<Report>{});
}

TEST_F(Network, CarriesDataOverIpv6)
{
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    ASSERT_EQ(inet_pton(AF_INET6, "fd77::1", &address.sin6_addr), 1);
    const OwnedFd probe(socket(AF_INET6, SOCK_STREAM, 0));
    if (bind(probe.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        GTEST_SKIP() << "this machine has no IPv6";
    }
    connectObject(kFarAddress6);
    exchange();
    EXPECT_EQ(takeReports(), std::vector<Report>{});
}

TEST_F(Network, SaysThatAFirewallRefuses)
{
    answerSegments("reject with tcp reset");
    EXPECT_EQ(CTcpSocket_Create(&object, kFarAddress, port, kMaxMsgSize), 0x800Bu);
    EXPECT_EQ(object, nullptr);
    EXPECT_EQ(takeReports(),
              std::vector<Report>{report("CTcpSocket_Create", "Client failed to connect", 0x800B)});
}

TEST_F(Network, SaysThatThereIsNoRoute)
{
    EXPECT_EQ(CTcpSocket_Create(&object, "192.0.2.1", port, kMaxMsgSize), 0x800Bu);
    EXPECT_EQ(object, nullptr);
    EXPECT_EQ(takeReports(),
              std::vector<Report>{report("CTcpSocket_Create", "Client failed to connect", 0x800B)});
}

TEST_F(Network, FailsToReadAndWriteAfterAReset)
{
    connectObject();
    exchange();
    ASSERT_EQ(CTcpSocket_SetTimeout(object, 10), GCL_OK);
    answerSegments("reject with tcp reset");
    int32_t length = 4;
    EXPECT_EQ(CTcpSocket_Write(object, "ping", &length), GCL_OK); // this one is answered by a reset
    char buffer[4];
    EXPECT_EQ(CTcpSocket_Read(object, buffer, &length), 0x800Au);
    EXPECT_EQ(length, -1);
    length = 4;
    EXPECT_EQ(CTcpSocket_Write(object, "ping", &length), 0x800Au);
    EXPECT_EQ(length, 0);
    EXPECT_EQ(takeReports(),
              (std::vector<Report>{report("CTcpSocket_Read", "recv() failed", 0x800A),
                                   report("CTcpSocket_Write", "send() failed", 0x800A)}));
}

TEST_F(Network, TimesOutWhenSegmentsAreDropped)
{
    connectObject();
    exchange();
    ASSERT_EQ(CTcpSocket_SetTimeout(object, 1), GCL_OK);
    answerSegments("drop");
    int32_t length = 4;
    EXPECT_EQ(CTcpSocket_Write(object, "ping", &length), GCL_OK);
    char buffer[4];
    const auto start = Clock::now();
    EXPECT_EQ(CTcpSocket_Read(object, buffer, &length), 0x8015u);
    EXPECT_GE(Clock::now() - start, milliseconds(1000));
    EXPECT_EQ(length, 4);
    EXPECT_EQ(takeReports(), std::vector<Report>{});
    expectCloseGivesUp();
}

TEST_F(Network, GivesUpDrainingWhenTheLinkGoesDownInMidStream)
{
    connectObject();
    exchange();
    cutLink();
    const std::string data(5000, 'x');
    int32_t length = static_cast<int32_t>(data.size());
    EXPECT_EQ(CTcpSocket_Write(object, data.data(), &length), GCL_OK); // as far as the queue
    expectCloseGivesUp();
    char byte = 0;
    EXPECT_EQ(recv(peer.get(), &byte, 1, MSG_DONTWAIT), -1) << "the peer hears nothing";
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(Network, ReportsTheQueueOfASlowLinkStepByStep)
{
    connectObject();
    exchange();
    slowDown("1mbit");
    const std::string data(100000, 'x');
    int32_t length = static_cast<int32_t>(data.size());
    ASSERT_EQ(CTcpSocket_Write(object, data.data(), &length), GCL_OK);
    static_cast<void>(takeReports());
    std::string received;
    std::thread reader([&] { received = gcltest::receiveAll(peer.get(), data.size()); });
    EXPECT_EQ(CTcpSocket_Close(object), GCL_OK); // 0.8 s would be needed
    const std::vector<Report> reports = takeReports();
    reader.join();
    EXPECT_TRUE(received == data) << "the platform goes on delivering";
    ASSERT_GE(reports.size(), 3u);
    long long before = static_cast<long long>(data.size()) + 2; // the end of the stream counts
    for (size_t i = 0; i + 1 < reports.size(); ++i) {
        int left = 0;
        ASSERT_EQ(std::sscanf(reports[i].text.c_str(), "Bytes left: %d", &left), 1) << reports[i];
        EXPECT_EQ(reports[i].level, 7);
        EXPECT_LT(left, before);
        before = left;
    }
    EXPECT_EQ(reports.back().text.rfind("Buffer drain wait exahausted for socket ", 0), 0u);
}

TEST_F(Network, CarriesDataThroughLossUnchanged)
{
    connectObject();
    ASSERT_EQ(CTcpSocket_SetTimeout(object, 20), GCL_OK);
    answerSegments("numgen random mod 100 < 10 counter drop");
    std::string data(300000, '\0');
    for (size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<char>(i * 7 + i / 256);
    }
    // Few but large segments are on their way: as many rounds as it takes to lose one.
    for (int round = 0; round < 50 && segmentsDropped() == 0; ++round) {
        std::string received;
        std::thread reader([&] { received = gcltest::receiveAll(peer.get(), data.size()); });
        int32_t length = static_cast<int32_t>(data.size());
        EXPECT_EQ(CTcpSocket_Write(object, data.data(), &length), GCL_OK);
        reader.join();
        ASSERT_TRUE(received == data);
    }
    EXPECT_GT(segmentsDropped(), 0);
    EXPECT_EQ(takeReports(), std::vector<Report>{});
}
