// SinkSweepProbe <file> <rounds>: messages through libVorTrace, which writes them to VT_OUTPUT. The
// file is read back: each of its lines is a line of the outcome. It knows nothing of faults: see
// tests/sweep/sweep.py.
#include <fstream>

#include "Framework/VT/VT.h"
#include "Framework/VT/VorTrace.h"
#include "tests/sweep/Scenario.h"

using sweep::Output;
using sweep::step;

void sweep::takeMessages() {}

namespace {

TraceChannel channel = {7, "KIV.SWEEP"};
const VorTraceHeader kHeader = {"dir/File", 12, "function"};

void say(const std::string& text)
{
    VT_beginImpl(&channel, 1, &kHeader);
    VT_rawprintf(&channel, "%s", text.c_str());
    VT_endImpl(&channel);
}

void messages(int round)
{
    const std::string front = std::to_string(round) + " ";
    say(front + "first");
    say(front + std::string(1500, 'x'));
    std::thread([&] { say(front + "from a thread"); }).join();
    {
        VorTrace trace("KIV.CLASS", VorTraceLevel3);
        step("implementation", [&] { return trace.hasImpl(); });
        step("level", [&] { return trace.level(); });
        trace.beginLogMsg(VorTraceLevel1, kHeader);
        trace.stream() << round << " by a stream" << std::flush;
        VT_setLevel("KIV.CLASS", 5);
        step("new level", [&] { return trace.level(); });
        VT_setLevel("KIV.CLASS", 3);
    }
    say(front + "last");
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        fprintf(stderr, "usage: SinkSweepProbe <file> <rounds>\n");
        return 2;
    }
    const int result = sweep::runRounds(messages, std::atoi(argv[2]));
    std::ifstream file(argv[1]);
    for (std::string line; std::getline(file, line);) {
        fprintf(stderr, "%s\n", line.c_str());
    }
    return result;
}
