// Reporter: a small module of a unit, to show how one is tested. It hands texts to a peer node, and
// tries again where that fails.
#ifndef EXAMPLES_UNITTEST_REPORTER_H
#define EXAMPLES_UNITTEST_REPORTER_H

#include <cstdint>
#include <string>

#include "Framework/GCL/CList.h"
#include "Framework/GCL/HijackApi.h"
#include "Framework/VT/VorTrace.h"

class Reporter {
public:
    // The peer node listens on this port of this host.
    explicit Reporter(uint16_t port);
    ~Reporter();
    Reporter(const Reporter&) = delete;
    Reporter& operator=(const Reporter&) = delete;

    // Connects, at most `attempts` times, with a pause of 100 ms after the first failure and twice
    // as much after each further one.
    bool connect(unsigned attempts);

    // Sends a number and waits for the node to send it back.
    bool report(uint32_t number);

    // Numbers that were sent, the latest last; false where there is no memory for one more.
    bool remember(uint32_t number);
    uint32_t remembered() const { return CList_CurrentSize(&numbers); }

private:
    VorTrace trace;
    Util::HijackApi client;
    CList numbers{};
};

#endif // EXAMPLES_UNITTEST_REPORTER_H
