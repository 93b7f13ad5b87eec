// A unit test of Heartbeat, without waiting and without another machine: the pauses go to a
// simulated sleeper, and the node is the peer node, with faults on request. Any test framework will
// do; this test brings what little it needs.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "Framework/GCL/SimulatedSleeper.h"
#include "Framework/GCL/testing/PeerNode.h"
#include "Framework/VT/VorTrace.h"
#include "Heartbeat.h"

namespace {

int failures = 0;

void expect(bool condition, const char* what)
{
    std::printf("%s: %s\n", condition ? "ok" : "FAILED", what);
    failures += condition ? 0 : 1;
}

const gcltest::PeerNode::Options kNode;

// A node and a heartbeat that knows its port, on a trace object that shows failures and warnings.
struct Bench {
    explicit Bench(const gcltest::PeerNode::Options& options)
        : node(options), heart(trace, node.start(), options.rxSyncId, options.txSyncId)
    {
    }

    VorTrace trace{"KIV.HEART", VorTraceLevel2};
    gcltest::PeerNode node;
    Heartbeat heart;
};

// [sleeper]
void givesUpAfterThreePauses()
{
    const uint16_t port = gcltest::PeerNode(kNode).start(); // the node goes again at once
    VorTrace trace("KIV.HEART", VorTraceLevel2);
    Heartbeat heart(trace, port, kNode.rxSyncId, kNode.txSyncId);
    Util::SimulatedSleeper sleeper;
    const Util::SimulatedSleeper::Installation installed(sleeper);

    expect(!heart.beat(), "no node: not alive");
    expect(sleeper.sleeps() == std::vector<unsigned>({100, 200, 400}), "paused 100, 200, 400 ms");
}
// [sleeper end]

// [node]
void livesWithGarbageOnTheLine()
{
    gcltest::PeerNode::Options options;
    options.garbageEvery = 1; // before every frame
    options.byteByByte = true;
    Bench bench(options);

    expect(bench.heart.beat() && bench.heart.beat(), "garbage before the frames: alive");
    expect(bench.node.framesReceived() == 2, "the node received two frames");
}

void refusesAFrameThatIsTooLong()
{
    gcltest::PeerNode::Options options;
    options.oversizeEvery = 2; // the second frame announces 4294967295 bytes
    Bench bench(options);

    expect(bench.heart.beat(), "a good frame: alive");
    expect(!bench.heart.beat(), "a frame that is too long: not alive");
    expect(bench.heart.beat(), "connected anew: alive again");
}
// [node end]

} // namespace

int main()
{
    std::signal(SIGPIPE, SIG_IGN);
    givesUpAfterThreePauses();
    livesWithGarbageOnTheLine();
    refusesAFrameThatIsTooLong();
    return failures == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
