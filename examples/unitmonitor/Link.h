// Link: sends samples to a peer node as frames and reads its answers.
#ifndef EXAMPLES_UNITMONITOR_LINK_H
#define EXAMPLES_UNITMONITOR_LINK_H

#include <cstdint>

#include "Framework/GCL/HijackApi.h"
#include "Framework/GCL/testing/PeerNode.h"
#include "Framework/VT/VorTrace.h"
#include "examples/unitmonitor/Sample.h"

namespace unitmonitor {

// Used on one thread. The peer is a node of this process, so that the demo needs no second one; any
// program that speaks the protocol would do.
class Link {
public:
    // Throws std::system_error if the peer node cannot be started.
    Link();
    ~Link();
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;

    // Sends a sample and waits for the peer to echo it. Returns false, with nothing more done, once
    // the link has failed.
    bool exchange(const Sample& sample);

    uint32_t exchanged() const { return count; }

private:
    gcltest::PeerNode peer;
    VorTrace trace{"KIV.MONITOR", VorTraceLevel3};
    Util::HijackApi client;
    bool connected;
    uint32_t count = 0;
};

} // namespace unitmonitor

#endif // EXAMPLES_UNITMONITOR_LINK_H
