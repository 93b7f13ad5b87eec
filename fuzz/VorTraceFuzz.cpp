// Messages of the stand-alone sink, written piece by piece through every entry, beside the line
// that they should make. write(2) is replaced in this process for standard error: it takes what it
// likes, and is interrupted now and then.
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ostream>
#include <string>
#include <vector>

#include "Framework/VT/VT.h"
#include "Framework/VT/VorTrace.h"
#include "fuzz/support/Check.h"

namespace {

std::string written;
std::vector<size_t> limits; // bytes that the writes take, in turn, over and over; 0: interrupted
size_t turn = 0;
bool capturing = false;

constexpr const char* kNames[] = {"KIV.GCL", "KIV.CTimer", "own name"};

} // namespace

extern "C" ssize_t write(int descriptor, const void* data, size_t size)
{
    if (!capturing || descriptor != STDERR_FILENO) {
        return syscall(SYS_write, descriptor, data, size);
    }
    const size_t limit = limits[turn++ % limits.size()];
    if (limit == 0) {
        errno = EINTR;
        return -1;
    }
    const size_t taken = std::min(limit, size);
    written.append(static_cast<const char*>(data), taken);
    return static_cast<ssize_t>(taken);
}

namespace {

// What the sink should have written, but for the time.
class Model {
public:
    void begin(const char* name, int32_t level, int32_t admitted, const VorTraceHeader* header)
    {
        end();
        if (level > admitted) {
            return;
        }
        open = true;
        line = std::to_string(getpid()) + "/" + std::to_string(gettid()) + " " + name + " " +
               std::to_string(level) + " ";
        line += header == nullptr ? "?:0 ?"
                                  : std::string(header->file) + ":" + std::to_string(header->line) +
                                        " " + header->function;
        line += ": ";
        textStart = line.size();
    }

    void append(const std::string& text)
    {
        if (open) {
            line += text;
        }
    }

    void end()
    {
        if (!open) {
            return;
        }
        open = false;
        if (line.size() > textStart && line.back() == '\n') {
            line.pop_back();
        }
        std::replace(line.begin(), line.end(), '\n', ' ');
        lines.push_back(line + "\n");
    }

    std::vector<std::string> lines;

private:
    bool open = false;
    std::string line;
    size_t textStart = 0;
};

// "2026-11-21T01:20:33.123456Z "
bool isTime(const std::string& text)
{
    const std::string form = "0000-00-00T00:00:00.000000Z ";
    return text.size() == form.size() &&
           std::equal(text.begin(), text.end(), form.begin(), [](char character, char expected) {
               return expected == '0' ? character >= '0' && character <= '9'
                                      : character == expected;
           });
}

void compare(const std::vector<std::string>& lines)
{
    constexpr size_t kTime = 28;
    size_t at = 0;
    for (const std::string& line : lines) {
        REQUIRE(written.size() >= at + kTime + line.size());
        REQUIRE(isTime(written.substr(at, kTime)));
        REQUIRE(written.compare(at + kTime, line.size(), line) == 0);
        at += kTime + line.size();
    }
    REQUIRE(at == written.size());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    written.clear();
    limits.clear();
    turn = 0;
    for (int i = input.ConsumeIntegralInRange(0, 4); i > 0; --i) {
        limits.push_back(input.ConsumeIntegralInRange<size_t>(0, 40));
    }
    limits.push_back(100000); // so that it goes on
    capturing = true;

    Model model;
    int32_t levels[3] = {7, 7, 7};
    for (int i = 0; i < 3; ++i) {
        VT_setLevel(kNames[i], levels[i]);
    }
    VorTrace trace(kNames[2], VorTraceLevel3);
    TraceChannel channels[] = {{0, kNames[0]}, {0, kNames[1]}};
    const std::string file = input.ConsumeRandomLengthString(40).c_str();
    const std::string function = input.ConsumeRandomLengthString(40).c_str();
    const VorTraceHeader header{file.c_str(), input.ConsumeIntegral<int32_t>(), function.c_str()};

    for (int steps = 0; steps < 60 && input.remaining_bytes() > 0; ++steps) {
        const auto which = input.ConsumeIntegralInRange<size_t>(0, 1);
        const auto level = input.ConsumeIntegralInRange<int32_t>(-1, 9);
        std::string text = input.ConsumeRandomLengthString(300);
        // Now and then more than a line's own room holds.
        if (input.ConsumeProbability<float>() < 0.05f && !text.empty()) {
            while (text.size() < 3000) {
                text += text;
            }
        }
        const std::string untilNul = text.c_str();
        switch (input.ConsumeIntegralInRange(0, 9)) {
        case 0: {
            const bool known = input.ConsumeBool();
            VT_beginImpl(&channels[which], level, known ? &header : nullptr);
            model.begin(kNames[which], level, levels[which], known ? &header : nullptr);
            break;
        }
        case 1:
            VT_rawprintf(&channels[which], "%s|%d", untilNul.c_str(), steps);
            model.append(untilNul + "|" + std::to_string(steps));
            break;
        case 2:
            VT_rawprintf(&channels[which], nullptr);
            model.append("?");
            break;
        case 3:
            VT_endImpl(&channels[which]);
            model.end();
            break;
        case 4: {
            const auto ofObject = static_cast<VorTraceLevel>(std::clamp(level, 1, 7));
            trace.beginLogMsg(ofObject, header);
            model.begin(kNames[2], ofObject, levels[2], &header);
            break;
        }
        case 5:
            trace.logMsgData(text.data(), static_cast<unsigned>(text.size()));
            model.append(text);
            break;
        case 6:
            trace.stream() << text << steps;
            model.append(text + std::to_string(steps));
            break;
        case 7:
            trace.stream() << std::endl;
            model.append("\n");
            model.end();
            break;
        case 8:
            trace.discardStream() << text << std::flush;
            break;
        default: {
            const auto name = input.ConsumeIntegralInRange<size_t>(0, 2);
            VT_setLevel(kNames[name], level);
            levels[name] = level;
            REQUIRE(name != 2 || trace.level() == level);
            break;
        }
        }
    }
    VT_endImpl(nullptr);
    model.end();
    capturing = false;
    compare(model.lines);
    return 0;
}
