// What the framed client does on purpose; docs/on-purpose.md says why.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "Framework/GCL/CTimer.h"
#include "Framework/GCL/HijackApi.h"
#include "Framework/GCL/testing/PeerNode.h"
#include "Framework/VT/VorTrace.h"

namespace {

const gcltest::PeerNode::Options kNode;

// [abort]
// Makes a call of readFromNet return that waits for a peer, or that reads on for good because the
// peer has closed. Any thread may call it, and only the owner closes the descriptor.
void abortReading(const Util::HijackApi& client)
{
    const int unreadable = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (unreadable >= 0) {
        shutdown(client.socketFd, SHUT_RDWR); // ends a read that waits
        dup2(unreadable, client.socketFd);    // and makes the next one fail
        close(unreadable);
    }
}
// [abort end]

// [within]
// Reads a frame within a time. False: none came, and the connection is of no more use. The timer is
// gone before its caller can close the socket. (Where the time runs out just as a frame has come,
// the frame is good, and the next read fails.)
bool readWithin(std::chrono::milliseconds limit, Util::HijackApi& client, unsigned char* frame,
                unsigned size, unsigned& length)
{
    CTimer timer([&client](void*) { abortReading(client); }, nullptr, "limit", CTimer::NonCyclic);
    return timer.start(limit) && client.readFromNet(frame, size, &length);
}
// [within end]

bool showClosedPeer(VorTrace& trace)
{
    unsigned char frame[] = {1};
    unsigned length = 0;
    gcltest::PeerNode node(kNode);
    Util::HijackApi client(trace, node.start(), 1000, kNode.rxSyncId, kNode.txSyncId);
    if (!client.connectToServer("127.0.0.1") || !client.writeToNet(frame, 1, nullptr) ||
        !readWithin(std::chrono::seconds(10), client, frame, sizeof frame, length)) {
        return false;
    }
    std::printf("read a frame\n");

    // [closed]
    node.stop(); // closes the connection
    const bool read =
        readWithin(std::chrono::milliseconds(100), client, frame, sizeof frame, length);
    std::printf("%s\n", read ? "read another" : "given up");
    // [closed end]
    close(client.socketFd);
    return !read;
}

// Exchanges a frame with a node of its own that has just been started.
bool exchangeWithNewNode(Util::HijackApi& client)
{
    gcltest::PeerNode node(kNode);
    client.serverAddress.sin_port = htons(node.start());
    unsigned char frame[] = {1};
    unsigned length = 0;
    const bool done = client.connectToServer("127.0.0.1") && client.writeToNet(frame, 1, nullptr) &&
                      client.readFromNet(frame, 1, &length);
    close(client.socketFd);
    client.socketFd = -1;
    return done;
}

bool showNumbering(VorTrace& trace)
{
    // [numbering]
    Util::HijackApi client(trace, 0, 1000, kNode.rxSyncId, kNode.txSyncId);
    const bool first = exchangeWithNewNode(client);
    const bool second = exchangeWithNewNode(client);
    // The client went on numbering; the second node began with 1 again, which was reported.
    std::printf("sent %u frames, last received number %u\n", client.txSequenceNumber,
                client.rxSequenceNumber);
    // [numbering end]
    return first && second;
}

} // namespace

int main()
{
    std::signal(SIGPIPE, SIG_IGN);
    VorTrace trace("KIV.LINK", VorTraceLevel3);
    return showClosedPeer(trace) && showNumbering(trace) ? EXIT_SUCCESS : EXIT_FAILURE;
}
