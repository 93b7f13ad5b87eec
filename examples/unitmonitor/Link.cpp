#include "examples/unitmonitor/Link.h"

#include <unistd.h>

#include <cstring>

namespace unitmonitor {
namespace {

constexpr unsigned kMaxSyncWaitMs = 1000;
const gcltest::PeerNode::Options kPeerOptions;

} // namespace

Link::Link()
    : peer(kPeerOptions),
      client(trace, peer.start(), kMaxSyncWaitMs, kPeerOptions.rxSyncId, kPeerOptions.txSyncId),
      connected(client.connectToServer("127.0.0.1"))
{
}

Link::~Link()
{
    // The client leaves its socket to its owner.
    if (connected) {
        close(client.socketFd);
    }
}

bool Link::exchange(const Sample& sample)
{
    if (!connected) {
        return false;
    }
    Sample sent = sample;
    Sample echoed{};
    unsigned length = 0;
    if (client.writeToNet(reinterpret_cast<unsigned char*>(&sent), sizeof sent, &length) &&
        client.readFromNet(reinterpret_cast<unsigned char*>(&echoed), sizeof echoed, &length) &&
        length == sizeof sent && std::memcmp(&sent, &echoed, sizeof sent) == 0) {
        ++count;
        return true;
    }
    close(client.socketFd);
    connected = false;
    return false;
}

} // namespace unitmonitor
