#include "Heartbeat.h"

#include <unistd.h>

#include "Framework/GCL/DefaultSleepApi.h"

namespace {

constexpr unsigned kMaxSyncWaitMs = 1000;
constexpr int kAttempts = 4;
constexpr unsigned kFirstPauseMs = 100;

} // namespace

Heartbeat::Heartbeat(VorTrace& trace, uint16_t port, unsigned txSyncId, unsigned rxSyncId)
    : client(trace, port, kMaxSyncWaitMs, txSyncId, rxSyncId)
{
    client.socketFd = -1;
}

Heartbeat::~Heartbeat()
{
    disconnect();
}

bool Heartbeat::beat()
{
    if (client.socketFd < 0 && !connect()) {
        return false;
    }
    ++number;
    unsigned char echoed = 0;
    unsigned length = 0;
    const bool alive = client.writeToNet(&number, sizeof number, &length) &&
                       client.readFromNet(&echoed, sizeof echoed, &length) && echoed == number;
    if (!alive) {
        disconnect();
    }
    return alive;
}

// [connect]
bool Heartbeat::connect()
{
    unsigned pauseMs = kFirstPauseMs;
    for (int attempt = 1; !client.connectToServer("127.0.0.1"); ++attempt) {
        if (attempt == kAttempts) {
            return false;
        }
        Util::DefaultSleepApi::get().sleepMs(pauseMs); // replaceable, unlike a sleep of its own
        pauseMs *= 2;
    }
    return true;
}
// [connect end]

void Heartbeat::disconnect()
{
    if (client.socketFd >= 0) {
        close(client.socketFd);
    }
    client.socketFd = -1;
}
