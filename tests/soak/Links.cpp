// Framed messages to peer nodes with and without faults: every frame is numbered, echoed and
// accounted for.
#include <errno.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "Framework/GCL/HijackApi.h"
#include "Framework/GCL/testing/PeerNode.h"
#include "Framework/VT/VorTrace.h"
#include "tests/soak/Soak.h"

namespace soak {
namespace {

using gcltest::PeerNode;

constexpr char kTraceName[] = "SOAKLINK";
constexpr unsigned kMaxPayload = 4096;
constexpr unsigned kNoWarning = 1'000'000'000;

// What the clients' messages must say.
Count outOfSequence{0};
Count tooLong{0};
Count failedReads{0};
Count failedWrites{0};

bool due(uint32_t every, uint64_t number)
{
    return every != 0 && number % every == 0;
}

bool isOpen(int fd)
{
    return fcntl(fd, F_GETFD) != -1;
}

class LinkLoad : public Load {
public:
    // `window`: frames sent before the first echo is read. `withGarbage`: bytes between the frames
    // that the client sends.
    LinkLoad(const char* loadName, const PeerNode::Options& nodeOptions, unsigned framesAtOnce,
             bool withGarbage)
        : Load(Kind::frames, loadName),
          options(nodeOptions),
          window(framesAtOnce),
          sendsGarbage(withGarbage),
          trace(kTraceName, VorTraceLevel2),
          node(options),
          port(node.start()),
          nodeNext(options.firstSequence)
    {
    }

    void account(Table& table) const override
    {
        table.same(name + ": frames sent, taken by the node", written, node.framesReceived());
        table.same(name + ": frames of the node, read", node.framesSent(), read + refused);
        table.same(name + ": frames sent, echoed or cut by a reset", written, read + refused + cut);
        table.same(name + ": sockets opened, closed by this program", opened, closed);
        table.note(name + ": reconnects", opened);
    }

protected:
    void beginRound() override
    {
        employ([this](Random& random) {
            // The class leaves its socket to its owner: the numbers of the next client begin anew.
            Util::HijackApi client(trace, port, kNoWarning, options.rxSyncId, options.txSyncId);
            client.socketFd = -1;
            while (!over) {
                if (client.socketFd == -1 || random.oneIn(256)) {
                    reconnect(client);
                }
                if (client.socketFd != -1) {
                    exchange(client, random);
                }
                ++steps;
                if (random.oneIn(16)) {
                    pauseUs(random.below(2000));
                }
            }
            hangUp(client);
        });
    }

private:
    void reconnect(Util::HijackApi& client)
    {
        const int before = client.socketFd;
        const uint32_t numberBefore = client.txSequenceNumber;
        const bool connected = client.connectToServer("127.0.0.1");
        if (before != -1) {
            // The old socket is overwritten, not closed.
            if (!isOpen(before)) {
                complain("%s: a socket was closed that is not the client's", name.c_str());
            }
            close(before);
            ++closed;
        }
        if (client.txSequenceNumber != numberBefore) {
            complain("%s: a new connection has changed the number", name.c_str());
        }
        if (!connected) {
            // A signal may end a connect.
            if (round.restarting || client.socketFd != -1) {
                complain("%s: no connection", name.c_str());
                pauseUs(10000);
            }
            return;
        }
        ++opened;
        // All that may be on its way fits, so that no write is interrupted half-way.
        const int room = 1 << 18;
        setsockopt(client.socketFd, SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
        // Garbage and the frame behind it go out at once.
        const int on = 1;
        setsockopt(client.socketFd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }

    void hangUp(Util::HijackApi& client)
    {
        if (client.socketFd != -1) {
            if (!isOpen(client.socketFd)) {
                complain("%s: the client's socket was closed by somebody else", name.c_str());
            }
            close(client.socketFd);
            client.socketFd = -1;
            ++closed;
        }
    }

    // No byte of it can begin a frame.
    unsigned fill(std::array<unsigned char, kMaxPayload>& payload, uint64_t number, Random& random)
    {
        const unsigned length = random.oneIn(8) ? random.below(kMaxPayload + 1) : random.below(64);
        for (unsigned i = 0; i < length; ++i) {
            payload[i] = static_cast<unsigned char>(mixed(number, i) | 0x80);
        }
        return length;
    }

    void exchange(Util::HijackApi& client, Random& random)
    {
        std::array<unsigned char, kMaxPayload> payload{};
        std::array<unsigned, 8> lengths{};
        const unsigned frames = 1 + random.below(window);
        const uint64_t first = written;
        for (unsigned i = 0; i < frames; ++i) {
            if (sendsGarbage && random.oneIn(4)) {
                sendGarbage(client.socketFd, random);
            }
            lengths[i] = fill(payload, written, random);
            const uint32_t number = client.txSequenceNumber;
            unsigned sent = 0;
            if (!client.writeToNet(payload.data(), lengths[i], &sent)) {
                complain("%s: a frame was not sent", name.c_str());
                ++failedWrites;
                hangUp(client);
                return;
            }
            if (sent != lengths[i] + 12 || client.txSequenceNumber != number + 1) {
                complain("%s: a frame has %u bytes and the number %u", name.c_str(), sent, number);
            }
            ++written;
        }
        for (unsigned i = 0; i < frames; ++i) {
            if (!readEcho(client, first + i, lengths[i])) {
                hangUp(client);
                return;
            }
        }
    }

    void sendGarbage(int fd, Random& random)
    {
        std::array<unsigned char, 64> bytes{};
        bytes.fill(static_cast<unsigned char>(0x80 | random.below(128)));
        size_t left = 1 + random.below(static_cast<unsigned>(bytes.size()));
        while (left > 0) {
            const ssize_t count = send(fd, bytes.data(), left, MSG_NOSIGNAL);
            if (count > 0) {
                left -= static_cast<size_t>(count);
            } else if (errno != EINTR) {
                complain("%s: garbage was not sent, errno %d", name.c_str(), errno);
                return;
            }
        }
    }

    // What the node's next frame is like, told by the node's options alone.
    struct Expected {
        uint32_t number;
        bool tooLong;
        bool reset;
    };
    Expected nextOfNode()
    {
        ++nodeFrame;
        Expected frame{nodeNext, due(options.oversizeEvery, nodeFrame), false};
        if (options.resetAfter != 0 && onThisConnection == options.resetAfter) {
            frame.reset = true; // its number is used again
            return frame;
        }
        if (due(options.repeatEvery, nodeFrame)) {
            frame.number = nodeNext - 1;
        } else {
            frame.number += due(options.skipEvery, nodeFrame) ? 1 : 0;
            nodeNext = frame.number + 1;
        }
        ++onThisConnection;
        return frame;
    }

    // False if the connection is to be given up.
    bool readEcho(Util::HijackApi& client, uint64_t frame, unsigned length)
    {
        if (client.socketFd != lastFd || opened != lastOpened) {
            lastFd = client.socketFd;
            lastOpened = opened;
            onThisConnection = 0;
        }
        const Expected expected = nextOfNode();
        std::array<unsigned char, kMaxPayload> buffer{};
        const uint32_t numberBefore = client.rxSequenceNumber;
        unsigned got = 0xFFFFFFFF;
        const bool success = client.readFromNet(buffer.data(), kMaxPayload, &got);
        const bool numberRead =
            success || expected.tooLong || client.rxSequenceNumber != numberBefore;
        if (numberRead && client.rxSequenceNumber != numberBefore + 1) {
            ++outOfSequence;
        }
        if (numberRead && client.rxSequenceNumber != expected.number) {
            complain("%s: number %u instead of %u", name.c_str(), client.rxSequenceNumber,
                     expected.number);
        }
        if (expected.reset) {
            if (success) {
                complain("%s: a frame that was cut off was read", name.c_str());
            }
            ++failedReads;
            ++cut;
            return false;
        }
        if (expected.tooLong) {
            if (success || got != 0) {
                complain("%s: a frame that is too long was read", name.c_str());
            }
            ++tooLong;
            ++refused;
            return true; // the next search skips its payload
        }
        if (!success) {
            complain("%s: an echo was not read", name.c_str());
            ++failedReads;
            return false;
        }
        ++read;
        bool equal = got == length;
        for (unsigned i = 0; equal && i < length; ++i) {
            equal = buffer[i] == static_cast<unsigned char>(mixed(frame, i) | 0x80);
        }
        if (!equal) {
            complain("%s: the echo of frame %llu has %u bytes instead of %u, or others",
                     name.c_str(), static_cast<unsigned long long>(frame), got, length);
        }
        return true;
    }

    const PeerNode::Options options;
    const unsigned window;
    const bool sendsGarbage;
    VorTrace trace;
    PeerNode node;
    const uint16_t port;

    // The node, as it must be.
    uint64_t nodeFrame = 0;
    uint32_t nodeNext;
    uint32_t onThisConnection = 0;
    int lastFd = -1;
    uint64_t lastOpened = 0;

    Count written{0};
    Count read{0};
    Count refused{0};
    Count cut{0};
    Count opened{0};
    Count closed{0};
};

} // namespace

void addLinks(Loads& loads, Expectations& expectations)
{
    expectations.expect(kTraceName, "not in sequence with old", &outOfSequence);
    expectations.expect(kTraceName, "exceeds max buffer length", &tooLong);
    expectations.expect(kTraceName, "socket read() returned -1", &failedReads);
    expectations.expect(kTraceName, "HijackApi::read(), ", &failedReads);
    expectations.expect(kTraceName, "Socket writev() returned -1", &failedWrites);

    VT_setLevel(kTraceName, 2);

    const PeerNode::Options plain;
    loads.push_back(std::make_unique<LinkLoad>("link", plain, 8, false));

    PeerNode::Options faulty;
    faulty.garbageEvery = 3;
    faulty.skipEvery = 5;
    faulty.repeatEvery = 7;
    faulty.oversizeEvery = 11;
    loads.push_back(std::make_unique<LinkLoad>("link with garbage and gaps", faulty, 1, true));

    PeerNode::Options resetting;
    resetting.resetAfter = 20;
    loads.push_back(std::make_unique<LinkLoad>("link with resets", resetting, 1, false));

    PeerNode::Options slow;
    slow.byteByByte = true;
    slow.stallEvery = 16;
    slow.stallMs = 3;
    loads.push_back(std::make_unique<LinkLoad>("link byte by byte", slow, 4, false));
}

} // namespace soak
