// SinkSweepProbe <file> <rounds> [step]: messages through libVorTrace, which writes them to
// VT_OUTPUT, a file or a named pipe; what comes to it is said with the step that wrote it. It knows
// nothing of faults: see tests/sweep/sweep.py.
#include <sys/stat.h>

#include <iterator>
#include <ostream>

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

int reader = -1;
bool staysFull = false; // the pipe; nothing is read from it

int opened(int flags)
{
    const int descriptor = open(outputPath, flags | O_NONBLOCK | O_CLOEXEC, 0600);
    if (descriptor < 0) {
        std::abort();
    }
    return descriptor;
}

void read(std::string& text)
{
    char buffer[4096];
    ssize_t length = 0;
    while ((length = ::read(reader, buffer, sizeof buffer)) > 0) {
        // What fills the pipe is no message.
        std::copy_if(buffer, buffer + length, std::back_inserter(text),
                     [](char character) { return character != '\0'; });
    }
}

// A named pipe: without a failure, full, and without a reader.
void pipeMessages(int)
{
    act("message", [] { say("first"); });
    const int filler = opened(O_WRONLY);
    const std::string filling(4096, '\0');
    while (write(filler, filling.data(), filling.size()) > 0) {
    }
    close(filler);
    staysFull = true;
    step("message-to-a-full-pipe", [] {
        const auto begin = std::chrono::steady_clock::now();
        say("lost");
        const auto end = std::chrono::steady_clock::now();
        return std::string(end - begin >= std::chrono::milliseconds(100) ? "waited" : "at once");
    });
    act("one-more", [] { say("lost as well"); });
    staysFull = false;
    sweep::takeMessages();
    act("message-again", [] { say("second"); });
    close(reader);
    reader = -1;
    act("message-without-a-reader", [] { say("lost"); });
    reader = opened(O_RDONLY);
    act("message-to-a-reader", [] { say("third"); });
}

} // namespace

void sweep::takeMessages()
{
    std::string text;
    if (!staysFull) {
        read(text);
    }
    for (size_t end = 0; (end = text.find('\n')) != std::string::npos; text.erase(0, end + 1)) {
        Output::get().line("  " + text.substr(0, end));
    }
}

int main(int argc, char** argv)
{
    if (argc < 3 || argc > 4) {
        fprintf(stderr, "usage: SinkSweepProbe <file> <rounds> [step to leave out]\n");
        return 2;
    }
    outputPath = argv[1];
    struct stat status = {};
    const bool isPipe = stat(outputPath, &status) == 0 && S_ISFIFO(status.st_mode);
    reader = opened(isPipe ? O_RDONLY : O_RDONLY | O_CREAT);
    // The sink keeps its file to the end.
    return sweep::runRounds(isPipe ? pipeMessages : messages, std::atoi(argv[2]),
                            argc > 3 ? std::atoi(argv[3]) : 0);
}
