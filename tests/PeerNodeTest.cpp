// The framed message client against a peer node in the same process.
#include "Framework/GCL/testing/PeerNode.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <new>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "Framework/GCL/HijackApi.h"
#include "Framework/GCL/testing/FaultInjection.h"
#include "Framework/GCL/testing/TraceCapture.h"
#include "Framework/VT/VorTrace.h"

using gcltest::PeerNode;
using gcltest::Report;
using gcltest::takeReports;
using Util::HijackApi;
using Options = PeerNode::Options;

namespace {

constexpr char kName[] = "KIV.NODE";
constexpr unsigned kPatient = 600'000;
constexpr unsigned kUntouched = 4711;
constexpr unsigned kBufferBytes = 8u << 20;

using Reports = std::vector<Report>;
using Clock = std::chrono::steady_clock;

Report report(int level, const std::string& function, const std::string& text)
{
    return {kName, level, "Framework/GCL/private/HijackApi", function, text + "\n"};
}

const Report kConnecting = report(4, "connectToServer", "Connect to server");
const Report kAgain = report(
    4, "safeRead", "HijackApi::safeRead(), socket read() returned EAGAIN, read would be blocked");
const Report kReadOk = report(6, "readFromNet", "HijackApi::read() message OK");

Report announced(size_t size)
{
    return report(6, "readFromNet", "HijackApi::read, message legth: " + std::to_string(size));
}

Report outOfSequence(unsigned received, unsigned old)
{
    return report(2, "readFromNet",
                  "HijackApi::read(), Sequence number " + std::to_string(received) +
                      " not in sequence with old " + std::to_string(old));
}

Report wasReset()
{
    return report(1, "safeRead",
                  std::string("HijackApi::safeRead(), socket read() returned -1, Error: ") +
                      std::strerror(ECONNRESET));
}

unsigned char* bytesOf(std::string& text)
{
    return reinterpret_cast<unsigned char*>(&text[0]);
}

// A running node and a client that is connected to it.
class Session {
public:
    explicit Session(const Options& options = {})
        : node(options),
          trace(kName, VorTraceLevel7),
          api(trace, node.start(), kPatient, options.rxSyncId, options.txSyncId)
    {
        gcltest::setTraceLevel(kName, 7);
        EXPECT_TRUE(api.connectToServer("127.0.0.1"));
        EXPECT_EQ(takeReports(), Reports{kConnecting});
    }
    ~Session()
    {
        if (api.socketFd > 0) {
            close(api.socketFd);
        }
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    void reconnect()
    {
        close(api.socketFd);
        EXPECT_TRUE(api.connectToServer("127.0.0.1"));
        EXPECT_EQ(takeReports(), Reports{kConnecting});
    }

    void send(std::string bytes)
    {
        unsigned written = 0;
        EXPECT_TRUE(api.writeToNet(bytesOf(bytes), static_cast<unsigned>(bytes.size()), &written));
        EXPECT_EQ(written, bytes.size() + 12);
    }

    // Sends a payload and reads the answer into `payload` and `length`.
    bool exchange(const std::string& bytes, unsigned limit = kBufferBytes)
    {
        send(bytes);
        payload.assign(kBufferBytes, '-');
        length = kUntouched;
        const bool whole = api.readFromNet(bytesOf(payload), limit, &length);
        if (whole) {
            payload.resize(length);
        }
        return whole;
    }

    // An exchange whose answer is the payload itself; the messages are these and the usual two.
    void expectEcho(const std::string& bytes, Reports before = {})
    {
        ASSERT_TRUE(exchange(bytes));
        ASSERT_TRUE(payload == bytes) << "of " << bytes.size() << " bytes";
        before.push_back(announced(bytes.size()));
        before.push_back(kReadOk);
        ASSERT_EQ(takeReports(), before);
    }

    PeerNode node;
    VorTrace trace;
    HijackApi api;
    std::string payload;
    unsigned length = 0;
};

// Sends frames until there is no room for another one: the node takes them, and waits for the
// client to take its answers. True once the node has taken a frame that it cannot answer.
bool fillUp(Session& session)
{
    timeval timeout{};
    timeout.tv_usec = 300'000;
    EXPECT_EQ(setsockopt(session.api.socketFd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout),
              0);
    std::string bytes(1u << 20, 'w');
    for (int i = 0; i < 1000; ++i) {
        if (!session.api.writeToNet(bytesOf(bytes), static_cast<unsigned>(bytes.size()), nullptr)) {
            break;
        }
    }
    EXPECT_EQ(takeReports().size(), 1u);
    const auto limit = Clock::now() + std::chrono::seconds(2);
    while (session.node.framesReceived() == session.node.framesSent() && Clock::now() < limit) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return session.node.framesReceived() > session.node.framesSent();
}

// Whether `step` succeeds on a new connection to a node that waits for its client for so long only.
// It is tried again where it was the client that lost the time, without a processor: the node is
// right to hang up then.
template <typename Step>
bool succeedsInTime(Session& session, const Options& options, Step step)
{
    for (int tries = 0; tries < 20; ++tries) {
        session.reconnect();
        const auto begun = Clock::now();
        if (step()) {
            return true;
        }
        if (Clock::now() - begun < std::chrono::milliseconds(options.idleTimeoutMs)) {
            return false;
        }
        takeReports();
    }
    return false;
}

} // namespace

TEST(PeerNodeEcho, ReturnsFramesOfManySizes)
{
    Options options;
    options.maxPayload = kBufferBytes;
    Session session(options);
    std::mt19937 random(7);
    unsigned count = 0;
    for (const size_t size : {0u, 1u, 11u, 12u, 13u, 4095u, 4096u, 65536u, 1u << 20, 5u << 20}) {
        std::string payload(size, '\0');
        for (char& byte : payload) {
            byte = static_cast<char>(random());
        }
        session.expectEcho(payload);
        ++count;
    }
    for (; count < 500; ++count) {
        session.expectEcho(std::string(random() % 300, static_cast<char>(count)));
    }
    EXPECT_EQ(session.api.txSequenceNumber, count);
    EXPECT_EQ(session.api.rxSequenceNumber, count);
    session.node.stop();
    EXPECT_EQ(session.node.framesReceived(), count);
    EXPECT_EQ(session.node.framesSent(), count);
}

TEST(PeerNodeEcho, NumbersFromWhereItIsTold)
{
    Options options;
    options.firstSequence = 0;
    Session session(options);
    session.expectEcho("a", {outOfSequence(0, 0)});
    session.expectEcho("b");
}

TEST(PeerNodeEcho, WrapsItsNumbers)
{
    Options options;
    options.firstSequence = 0xFFFFFFFF;
    Session session(options);
    session.expectEcho("a", {outOfSequence(0xFFFFFFFF, 0)});
    session.expectEcho("b");
    EXPECT_EQ(session.api.rxSequenceNumber, 0u);
}

TEST(PeerNodeEcho, GoesOnNumberingForTheNextClient)
{
    Session session;
    session.expectEcho("first");
    session.reconnect();
    session.expectEcho("second");
    session.reconnect();
    session.expectEcho("third");
    EXPECT_EQ(session.api.rxSequenceNumber, 3u);
}

TEST(PeerNodeEcho, HuntsForTheSyncId)
{
    Session session;
    // Noise that begins like a frame, and the start of a frame that is too long to be one.
    const std::string noise("noise\x43\x4C\x4E\x43\x4C", 10);
    const std::string endless("\x43\x4C\x4E\x54\0\0\0\0\xFF\xFF\xFF\xFF", 12);
    for (const std::string& bytes : {noise, endless, noise + endless + noise}) {
        ASSERT_EQ(::send(session.api.socketFd, bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
        session.expectEcho("found");
    }
    session.node.stop();
    EXPECT_EQ(session.node.framesReceived(), 3u);
}

TEST(PeerNodeFaults, GarbageIsSkipped)
{
    for (const uint32_t syncId : {0x4E4F4445u, 0xAAAAAAAAu, 0x000000ABu, 0xAAAAAABBu, 1u}) {
        Options options;
        options.garbageEvery = 2;
        options.txSyncId = syncId;
        Session session(options);
        for (int i = 0; i < 6; ++i) {
            session.expectEcho("payload");
        }
    }
}

TEST(PeerNodeFaults, SkippedNumbersAreReportedAndAccepted)
{
    Options options;
    options.skipEvery = 3;
    Session session(options);
    session.expectEcho("1");
    session.expectEcho("2");
    session.expectEcho("4", {outOfSequence(4, 2)});
    session.expectEcho("5");
    session.expectEcho("6");
    session.expectEcho("8", {outOfSequence(8, 6)});
}

TEST(PeerNodeFaults, RepeatedNumbersAreReportedAndAccepted)
{
    Options options;
    options.repeatEvery = 3;
    Session session(options);
    session.expectEcho("1");
    session.expectEcho("2");
    session.expectEcho("2", {outOfSequence(2, 2)});
    session.expectEcho("3");
    session.expectEcho("4");
    session.expectEcho("4", {outOfSequence(4, 4)});
}

TEST(PeerNodeFaults, OversizedFramesAreRefusedAndSkipped)
{
    Options options;
    options.oversizeEvery = 2;
    Session session(options);
    for (int i = 0; i < 3; ++i) {
        session.expectEcho("fits");
        EXPECT_FALSE(session.exchange("does not fit", 100));
        EXPECT_EQ(session.length, 0u);
        EXPECT_EQ(takeReports(),
                  Reports{report(1, "readFromNet",
                                 "HijackApi::read(), Message length 4294967295 exceeds max buffer "
                                 "length 100")});
    }
}

TEST(PeerNodeFaults, AStalledFrameIsWaitedFor)
{
    Options options;
    options.stallEvery = 2;
    options.stallMs = 2000;
    Session session(options);
    timeval timeout{};
    timeout.tv_usec = 20'000;
    ASSERT_EQ(setsockopt(session.api.socketFd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout),
              0);
    ASSERT_TRUE(session.exchange("quick"));
    takeReports();
    const std::string bytes(200, 's');
    std::string payload(bytes.size(), '-');
    unsigned length = kUntouched;
    const auto start = Clock::now();
    session.send(bytes);
    const auto readBegan = Clock::now();
    ASSERT_TRUE(session.api.readFromNet(bytesOf(payload), 200, &length));
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(1900));
    EXPECT_EQ(payload, bytes);
    // The time may run out at any read. It does so in the payload, unless this thread was held up
    // for half of the pause.
    Reports reports = takeReports();
    ASSERT_GE(reports.size(), 2u);
    if (readBegan - start < std::chrono::milliseconds(1000)) {
        EXPECT_EQ(reports[reports.size() - 2], kAgain);
    }
    reports.erase(std::remove(reports.begin(), reports.end(), kAgain), reports.end());
    EXPECT_EQ(reports, (Reports{announced(200), kReadOk}));
}

TEST(PeerNodeFaults, ANumberThatIsSkippedAndRepeatedIsRepeated)
{
    Options options;
    options.skipEvery = 2;
    options.repeatEvery = 4;
    Session session(options);
    session.expectEcho("1");
    session.expectEcho("3", {outOfSequence(3, 1)});
    session.expectEcho("4");
    session.expectEcho("4", {outOfSequence(4, 4)});
    session.expectEcho("5");
    session.expectEcho("7", {outOfSequence(7, 5)});
}

TEST(PeerNodeFaults, BytesThatComeOneByOneMakeUpAFrame)
{
    Options options;
    options.byteByByte = true;
    Session session(options);
    session.expectEcho("");
    session.expectEcho(std::string(1000, 'b'));
}

TEST(PeerNodeFaults, MayStrikeTogether)
{
    Options options;
    options.byteByByte = true;
    options.garbageEvery = 1;
    options.skipEvery = 2;
    options.stallEvery = 2;
    options.stallMs = 5;
    Session session(options);
    session.expectEcho("1");
    session.expectEcho("3", {outOfSequence(3, 1)});
    session.expectEcho("4");
}

TEST(PeerNodeFaults, AResetInThePayloadFailsTheRead)
{
    Options options;
    options.resetAfter = 2;
    Session session(options);
    session.expectEcho("1");
    session.expectEcho("2");
    EXPECT_FALSE(session.exchange(std::string(100, 'r')));
    EXPECT_EQ(session.length, 0u);
    EXPECT_EQ(takeReports(),
              (Reports{announced(100), wasReset(),
                       report(1, "readFromNet",
                              "HijackApi::read(), safeRead() return wrong  number of bytes for "
                              "msg")}));
    // The number of the frame that was cut off is used again, and the client has seen it.
    session.reconnect();
    session.expectEcho("3", {outOfSequence(3, 3)});
    session.node.stop();
    EXPECT_EQ(session.node.framesReceived(), 4u);
    EXPECT_EQ(session.node.framesSent(), 3u);
}

TEST(PeerNodeFaults, AResetInTheHeaderFailsTheRead)
{
    Options options;
    options.resetAfter = 1;
    Session session(options);
    session.expectEcho("1");
    EXPECT_FALSE(session.exchange(""));
    EXPECT_EQ(session.length, kUntouched);
    EXPECT_EQ(session.api.rxSequenceNumber, 1u);
    EXPECT_EQ(takeReports(),
              (Reports{wasReset(),
                       report(1, "readFromNet",
                              "HijackApi::read(), safeRead() return wrong number of bytes for "
                              "sequenceNumber")}));
}

TEST(PeerNodeFaults, APeerThatNeverReadsFailsTheWrite)
{
    const auto previous = std::signal(SIGPIPE, SIG_IGN);
    Options options;
    options.stallEvery = 1;
    options.stallMs = 3'600'000;
    Session session(options);
    timeval timeout{};
    timeout.tv_usec = 50'000;
    ASSERT_EQ(setsockopt(session.api.socketFd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout),
              0);
    std::string bytes(1u << 20, 'w');
    const auto length = static_cast<unsigned>(bytes.size());
    const Report blocked =
        report(1, "writeToNet",
               std::string("Socket writev() returned -1, error: ") + std::strerror(EAGAIN));
    const std::string shortEnd = " expecting " + std::to_string(length + 12) + "\n";
    // Whole frames go out until the buffers between the two are full, then parts of frames, and
    // at last there is no room for a single byte. The kernel may enlarge the buffers in between.
    Reports reports;
    for (int i = 0; i < 1000 && reports != Reports{blocked}; ++i) {
        const uint32_t number = session.api.txSequenceNumber;
        unsigned written = kUntouched;
        const bool whole = session.api.writeToNet(bytesOf(bytes), length, &written);
        EXPECT_EQ(written, whole ? length + 12 : kUntouched);
        EXPECT_EQ(session.api.txSequenceNumber, whole ? number + 1 : number);
        reports = takeReports();
        ASSERT_EQ(reports.size(), whole ? 0u : 1u);
        if (!whole && reports[0].level == 3) {
            EXPECT_EQ(reports[0].text.rfind("Socket writev() returned ", 0), 0u);
            EXPECT_NE(reports[0].text.find(shortEnd), std::string::npos) << reports[0];
        }
    }
    EXPECT_EQ(reports, Reports{blocked});
    // The node can be stopped in the middle of its pause.
    const auto start = Clock::now();
    session.node.stop();
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(20));
    EXPECT_EQ(session.node.framesSent(), 0u);
    std::signal(SIGPIPE, previous);
}

TEST(PeerNodePrint, WritesALineForEachFrame)
{
    std::ostringstream output;
    Options options;
    options.mode = PeerNode::Mode::print;
    options.output = &output;
    options.once = true;
    {
        Session session(options);
        session.send("");
        session.send(std::string("\0\x7F\xFFz", 4));
        session.send(std::string(33, 'x'));
        shutdown(session.api.socketFd, SHUT_WR);
        session.node.wait();
        EXPECT_EQ(session.node.framesReceived(), 3u);
        EXPECT_EQ(session.node.framesSent(), 0u);
    }
    std::string many;
    for (int i = 0; i < 32; ++i) {
        many += " 78";
    }
    EXPECT_EQ(output.str(), "frame 0, 0 bytes:\nframe 1, 4 bytes: 00 7f ff 7a\nframe 2, 33 bytes:" +
                                many + " ...\n");
}

TEST(PeerNodePrint, EndsWhereALineIsLost)
{
    std::ostringstream output;
    output.setstate(std::ios_base::badbit);
    Options options;
    options.mode = PeerNode::Mode::print;
    options.output = &output;
    Session session(options);
    session.send("lost");
    session.node.wait();
    EXPECT_EQ(session.node.framesReceived(), 1u);
}

TEST(PeerNodeLife, EndsAfterTheFirstClientIfTold)
{
    Options options;
    options.once = true;
    Session session(options);
    session.expectEcho("only");
    close(session.api.socketFd);
    session.api.socketFd = -1;
    session.node.wait();
    EXPECT_EQ(session.node.framesSent(), 1u);
}

TEST(PeerNodeLife, StopsWhateverItIsDoing)
{
    PeerNode unstarted{Options()};
    unstarted.stop();
    PeerNode idle{Options()};
    EXPECT_NE(idle.start(), 0);
    idle.stop();
    idle.stop();
    Session connected;
    connected.expectEcho("x");
    connected.node.stop();
}

TEST(PeerNodeLife, StopsWhileAClientDoesNotRead)
{
    Session session;
    ASSERT_TRUE(fillUp(session));
    session.node.stop();
    EXPECT_GT(session.node.framesReceived(), session.node.framesSent());
}

TEST(PeerNodeLife, StopsInTheMiddleOfAFrameThatIsTakenAtOnce)
{
    Options options;
    options.byteByByte = true;
    options.maxPayload = PeerNode::kMaxPayload;
    Session session(options);
    // The client reads all the time, so that the node always finds room.
    std::thread reader([fd = session.api.socketFd] {
        std::string chunk(65536, '\0');
        while (recv(fd, &chunk[0], chunk.size(), 0) > 0) {
            // until the node hangs up
        }
    });
    session.send(std::string(48u << 20, 'f'));
    while (session.node.framesReceived() == 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    session.node.stop();
    reader.join();
    EXPECT_EQ(session.node.framesSent(), 0u);
}

TEST(PeerNodeLife, HangsUpOnAClientThatIsSilentOrDoesNotReadIfTold)
{
    Options options;
    options.idleTimeoutMs = 200;
    Session session(options);
    char byte = 0;
    EXPECT_EQ(recv(session.api.socketFd, &byte, 1, 0), 0) << "silent";
    const auto previous = std::signal(SIGPIPE, SIG_IGN);
    // The numbers depend on how many answers the buffers between the two have taken.
    EXPECT_TRUE(succeedsInTime(session, options, [&] {
        return session.exchange("served") && session.payload == "served";
    }));
    takeReports();
    EXPECT_TRUE(succeedsInTime(session, options, [&] { return fillUp(session); }));
    EXPECT_TRUE(succeedsInTime(session, options, [&] {
        return session.exchange("served again") && session.payload == "served again";
    }));
    takeReports();
    std::signal(SIGPIPE, previous);
}

TEST(PeerNodeLife, OutlivesAClientThatItHasNoMemoryFor)
{
    Session session;
    session.expectEcho("before");
    const std::string large(1u << 20, 'm');
    {
        const gcltest::Hook memory(
            gcltest::calls::newScalar,
            [](size_t size) -> void* {
                if (size > 1u << 19) {
                    throw std::bad_alloc();
                }
                return gcltest::calls::newScalar.real(size);
            },
            gcltest::Threads::all);
        std::vector<unsigned char> header = {0x43, 0x4C, 0x4E, 0x54, 0, 0, 0, 0, 0, 0x10, 0, 0};
        EXPECT_EQ(::send(session.api.socketFd, header.data(), header.size(), MSG_NOSIGNAL), 12);
        // It hangs up in the middle, so that the rest may find nobody.
        static_cast<void>(::send(session.api.socketFd, large.data(), large.size(), MSG_NOSIGNAL));
        char byte = 0;
        EXPECT_LE(recv(session.api.socketFd, &byte, 1, 0), 0);
    }
    session.reconnect();
    session.expectEcho("after");
}

TEST(PeerNodeLife, OutlivesAClientThatResetsTheConnection)
{
    // Without a handler of its own the signal would end this process.
    ASSERT_EQ(std::signal(SIGPIPE, SIG_DFL), SIG_DFL);
    Options options;
    options.stallEvery = 2;
    options.stallMs = 500;
    Session session(options);
    session.expectEcho("before");
    session.send("cut off");
    // The end of the stream first: only then does the platform answer the node's next send with the
    // broken-pipe error, which it would also tell by the signal.
    ASSERT_EQ(shutdown(session.api.socketFd, SHUT_WR), 0);
    char byte = 0;
    ASSERT_EQ(recv(session.api.socketFd, &byte, 1, 0), 1);
    const linger atOnce{1, 0};
    ASSERT_EQ(setsockopt(session.api.socketFd, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce), 0);
    session.reconnect();
    session.expectEcho("after");
}

TEST(PeerNodeLife, TakesNoPayloadAboveItsLimit)
{
    Options options;
    options.maxPayload = 1000;
    Session session(options);
    session.expectEcho(std::string(1000, 'x'));
    session.send(std::string(1001, 'x')); // is hunted through
    session.expectEcho("next");
    session.node.stop();
    EXPECT_EQ(session.node.framesReceived(), 2u);
}

TEST(PeerNodeLife, TakesOneMebibyteUnlessToldOtherwise)
{
    Session session;
    session.expectEcho(std::string(1u << 20, 'x'));
    session.send(std::string((1u << 20) + 1, 'x'));
    session.expectEcho("next");
}

TEST(PeerNodeLife, ListensOnItsAddressOnly)
{
    Options options;
    options.listenAddress = "127.0.0.2";
    PeerNode node(options);
    VorTrace trace(kName, VorTraceLevel1);
    HijackApi api(trace, node.start(), kPatient, options.rxSyncId, options.txSyncId);
    // Other programs may listen to the same port on the usual address.
    EXPECT_FALSE(api.connectToServer("127.0.0.3"));
    EXPECT_TRUE(api.connectToServer("127.0.0.2"));
    close(api.socketFd);
    takeReports();
}

TEST(PeerNodeLife, TakesAPortAgainAtOnce)
{
    Options options;
    {
        Session session;
        options.port = session.api.port;
        session.expectEcho("x");
        session.node.stop(); // hangs up first, so that its end of the connection lingers
    }
    PeerNode second(options);
    EXPECT_EQ(second.start(), options.port);
}

TEST(PeerNodeLife, RefusesAnAddressThatIsNotNumeric)
{
    Options options;
    options.listenAddress = "localhost";
    PeerNode node(options);
    EXPECT_THROW(node.start(), std::invalid_argument);
}

TEST(PeerNodeLife, RefusesAPortThatIsTaken)
{
    PeerNode first{Options()};
    Options options;
    options.port = first.start();
    PeerNode second(options);
    EXPECT_THROW(second.start(), std::system_error);
}
