// SinkSweepProbe <file> <rounds> [step]: messages through libVorTrace, which writes them to
// VT_OUTPUT; what comes to the file is said with the step that wrote it. It knows nothing of faults:
// see tests/sweep/sweep.py.
#include <fstream>

#include "Framework/VT/VT.h"
#include "Framework/VT/VorTrace.h"
#include "tests/sweep/Scenario.h"

using sweep::act;
using sweep::Output;
using sweep::step;

namespace {

const char* outputPath = nullptr;

TraceChannel channel = {7, "KIV.SWEEP"};
const VorTraceHeader kHeader = {"dir/File", 12, "function"};

void say(const std::string& text, int32_t level = 1)
{
    VT_beginImpl(&channel, level, &kHeader);
    VT_rawprintf(&channel, "%s", text.c_str());
    VT_endImpl(&channel);
}

void messages(int round)
{
    act("short-message", [] { say("first"); });
    act("message-above-its-level", [] { say("dropped", 5); });
    act("long-message", [] { say(std::string(1500, 'x')); });
    act("message-of-a-thread", [] { std::thread([] { say("from a thread"); }).join(); });
    {
        VorTrace* trace = nullptr;
        alignas(VorTrace) static unsigned char place[sizeof(VorTrace)];
        step("VorTrace", [&] {
            trace = new (place) VorTrace("KIV.CLASS", VorTraceLevel3);
            return std::string(trace->hasImpl() ? "implementation, level " : "none, level ") +
                   std::to_string(trace->level());
        });
        if (trace != nullptr) {
            act("message-by-a-stream", [&] {
                trace->beginLogMsg(VorTraceLevel1, kHeader);
                trace->stream() << "by a stream" << std::flush;
            });
            const std::string name = "KIV.NEW" + std::to_string(round);
            step("VT_setLevel", [&] {
                VT_setLevel("KIV.CLASS", 5);
                VT_setLevel(name.c_str(), 5);
                const VorTrace other(name.c_str(), VorTraceLevel3);
                return std::to_string(trace->level()) + " " + std::to_string(other.level());
            });
            act("level-back", [] { VT_setLevel("KIV.CLASS", 3); });
            trace->~VorTrace();
        }
    }
    act("last-message", [] { say("last"); });
}

} // namespace

void sweep::takeMessages()
{
    static std::streamoff position = 0;
    std::ifstream file(outputPath);
    file.seekg(position);
    for (std::string line; std::getline(file, line);) {
        Output::get().line("  " + line);
        position += static_cast<std::streamoff>(line.size() + 1);
    }
}

int main(int argc, char** argv)
{
    if (argc < 3 || argc > 4) {
        fprintf(stderr, "usage: SinkSweepProbe <file> <rounds> [step to leave out]\n");
        return 2;
    }
    outputPath = argv[1];
    // The sink keeps its file to the end.
    return sweep::runRounds(messages, std::atoi(argv[2]), argc > 3 ? std::atoi(argv[3]) : 0);
}
