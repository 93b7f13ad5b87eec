// Heartbeat: a module that tells whether a node is alive. It is what the test beside it tests.
#ifndef HEARTBEAT_H
#define HEARTBEAT_H

#include <cstdint>

#include "Framework/GCL/HijackApi.h"

class VorTrace;

class Heartbeat {
public:
    // `trace` must outlive the object; the node listens on `port` of this machine.
    Heartbeat(VorTrace& trace, uint16_t port, unsigned txSyncId, unsigned rxSyncId);
    ~Heartbeat();
    Heartbeat(const Heartbeat&) = delete;
    Heartbeat& operator=(const Heartbeat&) = delete;

    // beat sends a frame and waits for its echo. Without a connection it first makes one, in four
    // attempts with pauses of 100, 200 and 400 ms between them. False: the node is not alive, or
    // its answer is wrong; the connection is then closed.
    bool beat();

private:
    bool connect();
    void disconnect();

    Util::HijackApi client;
    unsigned char number = 0;
};

#endif // HEARTBEAT_H
