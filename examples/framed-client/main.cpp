// Util::HijackApi: frames exchanged with a peer node, here one that runs in this process and sends
// each payload back.
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "Framework/GCL/HijackApi.h"
#include "Framework/GCL/testing/PeerNode.h"
#include "Framework/VT/VorTrace.h"

namespace {

const gcltest::PeerNode::Options kNode; // its sync ids are the client's, the other way round
constexpr unsigned kMaxSyncWaitMs = 1000;

// [owner]
// Owns a client and its connection: the client itself never closes its socket.
class Link {
public:
    Link(VorTrace& trace, uint16_t port)
        : client(trace, port, kMaxSyncWaitMs, kNode.rxSyncId, kNode.txSyncId)
    {
        client.socketFd = -1; // it starts as 0, which is standard input
    }
    ~Link() { disconnect(); }
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;

    bool connect()
    {
        disconnect(); // connectToServer would forget the old socket, not close it
        return client.connectToServer("127.0.0.1");
    }

    void disconnect()
    {
        if (client.socketFd >= 0) {
            close(client.socketFd);
        }
        client.socketFd = -1;
    }

    // Sends a number and takes the node's answer. After a failure the stream may be anywhere
    // within a frame, so the connection is given up.
    bool exchange(unsigned char number, unsigned char& answer)
    {
        unsigned length = 0;
        std::array<unsigned char, 16> buffer{};
        if (client.writeToNet(&number, sizeof number, &length) &&
            client.readFromNet(buffer.data(), buffer.size(), &length) && length == 1) {
            answer = buffer[0];
            return true;
        }
        disconnect();
        return false;
    }

    uint32_t framesSent() const { return client.txSequenceNumber; }

private:
    Util::HijackApi client;
};
// [owner end]

bool exchangeOne(Link& link, unsigned char number)
{
    unsigned char answer = 0;
    if (!link.exchange(number, answer)) {
        return false;
    }
    std::printf("sent %d, got %d; %u frames sent so far\n", number, answer, link.framesSent());
    return true;
}

} // namespace

int main()
{
    std::signal(SIGPIPE, SIG_IGN); // a node that has gone must not end this process
    VorTrace trace("KIV.LINK", VorTraceLevel3);
    gcltest::PeerNode node(kNode);
    Link link(trace, node.start());

    if (!link.connect() || !exchangeOne(link, 7) || !exchangeOne(link, 8)) {
        return EXIT_FAILURE;
    }
    // Both sides go on numbering over a new connection.
    if (!link.connect() || !exchangeOne(link, 9)) {
        return EXIT_FAILURE;
    }
    link.disconnect();
    // Without a connection the call is refused, and the client says so on its trace object.
    return exchangeOne(link, 10) ? EXIT_FAILURE : EXIT_SUCCESS;
}
