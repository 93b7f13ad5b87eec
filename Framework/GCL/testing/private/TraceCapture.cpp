#include "Framework/GCL/testing/TraceCapture.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <iterator>
#include <map>
#include <mutex>
#include <streambuf>
#include <thread>
#include <utility>

#include "Framework/GCL/testing/NoFaults.h"
#include "Framework/VT/VT.h"
#include "Framework/VT/VorTrace.h"

// Programs that link this library name it to the linker, so that the file becomes part of them.
extern "C" __attribute__((visibility("default"))) const char gcltest_recorder;
const char gcltest_recorder = 0;

namespace gcltest {
namespace {

// A lock without calls of the C library but one, for recording while these are counted.
class SpinLock {
public:
    void lock()
    {
        while (held.test_and_set(std::memory_order_acquire)) {
            std::this_thread::yield();
        }
    }
    void unlock() { held.clear(std::memory_order_release); }

private:
    std::atomic_flag held = ATOMIC_FLAG_INIT;
};

struct Record {
    Report report;
    int line;
};

// Never destroyed: the library's own trace object is older than this program's objects and outlives
// them.
struct Recorder {
    SpinLock mutex; // guards all below; the levels are read without it
    std::vector<Record> records;
    std::vector<int> takenLines;
    std::vector<std::string> calls;
    std::vector<std::string> discarded;
    std::map<std::string, std::atomic<int>> levels;
    std::map<std::string, int> initialLevels; // those that the objects were built with
};

Recorder& recorder()
{
    static auto* const instance = new Recorder;
    return *instance;
}

// The recorder for the time of a scope, without faults.
class Locked {
public:
    Locked() : lock(recorder().mutex) {}
    Recorder* operator->() const { return &recorder(); }

private:
    const NoFaults noFaults;
    const std::lock_guard<SpinLock> lock;
};

// The message that the thread has open.
struct OpenMessage {
    bool open = false;
    Report report;
    int line = 0;
    const void* headerAddress = nullptr;
};
thread_local OpenMessage openMessage;

std::atomic<bool> withoutImpl{false};

std::atomic<std::function<void(const Report&)>*> beginHook{nullptr};
thread_local bool insideBeginHook = false;

// By the functions that open a message, outside of their own scope without faults.
void callBeginHook(const std::string& channel, int level, const VorTraceHeader& header)
{
    std::function<void(const Report&)>* const body = beginHook;
    if (body == nullptr || insideBeginHook) {
        return;
    }
    const Report report = {channel, level, header.file, header.function, ""};
    struct Inside {
        Inside() { insideBeginHook = true; }
        ~Inside() { insideBeginHook = false; }
    } guard;
    (*body)(report);
}

void noteCall(const std::string& call)
{
    const Locked locked;
    locked->calls.push_back(call);
}

void openReport(const std::string& channel, int level, const VorTraceHeader& header)
{
    const NoFaults noFaults;
    openMessage.open = true;
    openMessage.report = {channel, level, header.file, header.function, ""};
    openMessage.line = header.line;
    openMessage.headerAddress = &header;
    noteCall("begin " + channel + " " + std::to_string(level));
}

void append(const std::string& text)
{
    openMessage.report.text += openMessage.open ? text : "<text outside a message: " + text + ">";
}

void closeMessage(const std::string& channel)
{
    const NoFaults noFaults;
    noteCall("end " + channel);
    if (!openMessage.open) {
        return;
    }
    openMessage.open = false;
    const Locked locked;
    locked->records.push_back({openMessage.report, openMessage.line});
}

// A stream buffer that keeps what is written until a flush.
class TextBuffer : public std::streambuf {
protected:
    virtual void flushed(const std::string& text) = 0;

    int_type overflow(int_type character) override
    {
        const NoFaults noFaults;
        if (!traits_type::eq_int_type(character, traits_type::eof())) {
            kept.push_back(traits_type::to_char_type(character));
        }
        return traits_type::not_eof(character);
    }

    std::streamsize xsputn(const char* data, std::streamsize size) override
    {
        const NoFaults noFaults;
        kept.append(data, static_cast<size_t>(size));
        return size;
    }

    int sync() override
    {
        const NoFaults noFaults;
        flushed(kept);
        kept.clear();
        return 0;
    }

private:
    std::string kept;
};

// Its text goes into the open message; a flush ends the message.
class MessageBuffer : public TextBuffer {
    void flushed(const std::string& text) override
    {
        append(text);
        closeMessage(openMessage.report.channel);
    }
};

// Its text is only noted; a flush ends the note.
class DiscardBuffer : public TextBuffer {
    void flushed(const std::string& text) override
    {
        const Locked locked;
        locked->discarded.push_back(text);
    }
};

struct ThreadStreams {
    MessageBuffer messageBuffer;
    DiscardBuffer discardBuffer;
    std::ostream message{&messageBuffer};
    std::ostream discard{&discardBuffer};
};

ThreadStreams& threadStreams()
{
    const NoFaults noFaults;
    static thread_local ThreadStreams streams;
    return streams;
}

// The line in which reports of the plain-structure modules end.
std::string codeLine(uint32_t code)
{
    char line[40];
    std::snprintf(line, sizeof line, "      code: 0x%lx\n", static_cast<unsigned long>(code));
    return line;
}

std::string quoted(const std::string& text)
{
    return "\"" + text + "\"";
}

int levelOfCode(uint32_t code)
{
    struct Band {
        uint32_t first;
        int level;
    };
    static const Band bands[] = {{0x8000, 1}, {0x1000, 2}, {0x900, 3}, {0x840, 7},
                                 {0x820, 6},  {0x800, 5},  {0x100, 4}, {0, 5}};
    for (const Band& band : bands) {
        if (code >= band.first) {
            return band.level;
        }
    }
    return 0;
}

} // namespace

bool Report::operator==(const Report& other) const
{
    return channel == other.channel && level == other.level && file == other.file &&
           function == other.function && text == other.text;
}

std::ostream& operator<<(std::ostream& out, const Report& report)
{
    return out << report.channel << ' ' << report.level << ' ' << report.file << ' '
               << report.function << ": \"" << report.text << '"';
}

ReportMatcher::ReportMatcher(std::function<bool(const Report&)> predicate, std::string description)
    : matches(std::move(predicate)), words(std::move(description))
{
}

ReportMatcher operator&&(const ReportMatcher& left, const ReportMatcher& right)
{
    return {[left, right](const Report& report) { return left(report) && right(report); },
            "(" + left.description() + " and " + right.description() + ")"};
}

ReportMatcher operator||(const ReportMatcher& left, const ReportMatcher& right)
{
    return {[left, right](const Report& report) { return left(report) || right(report); },
            "(" + left.description() + " or " + right.description() + ")"};
}

ReportMatcher operator!(const ReportMatcher& matcher)
{
    return {[matcher](const Report& report) { return !matcher(report); },
            "not " + matcher.description()};
}

ReportMatcher anyReport()
{
    return {[](const Report&) { return true; }, "is any report"};
}

ReportMatcher onChannel(const std::string& channel)
{
    return {[channel](const Report& report) { return report.channel == channel; },
            "channel is " + quoted(channel)};
}

ReportMatcher atLevel(int level)
{
    return {[level](const Report& report) { return report.level == level; },
            "level is " + std::to_string(level)};
}

ReportMatcher atLevelOrWorse(int level)
{
    return {[level](const Report& report) { return report.level <= level; },
            "level is " + std::to_string(level) + " or worse"};
}

ReportMatcher inFile(const std::string& file)
{
    return {[file](const Report& report) { return report.file == file; },
            "file is " + quoted(file)};
}

ReportMatcher inFunction(const std::string& function)
{
    return {[function](const Report& report) { return report.function == function; },
            "function is " + quoted(function)};
}

ReportMatcher withText(const std::string& text)
{
    return {[text](const Report& report) { return report.text == text; },
            "text is " + quoted(text)};
}

ReportMatcher withTextContaining(const std::string& part)
{
    return {[part](const Report& report) { return report.text.find(part) != std::string::npos; },
            "text contains " + quoted(part)};
}

ReportMatcher withCode(uint32_t code)
{
    char hexadecimal[20];
    std::snprintf(hexadecimal, sizeof hexadecimal, "0x%lx", static_cast<unsigned long>(code));
    const std::string line = codeLine(code);
    return {[line](const Report& report) {
                return report.text.size() >= line.size() &&
                       report.text.compare(report.text.size() - line.size(), line.size(), line) ==
                           0;
            },
            std::string("code is ") + hexadecimal};
}

std::vector<Report> takeReports()
{
    return takeReports(anyReport());
}

std::vector<Report> takeReports(const ReportMatcher& matcher)
{
    const Locked locked;
    std::vector<Report> taken;
    std::vector<Record> left;
    locked->takenLines.clear();
    for (Record& record : locked->records) {
        if (matcher(record.report)) {
            taken.push_back(std::move(record.report));
            locked->takenLines.push_back(record.line);
        } else {
            left.push_back(std::move(record));
        }
    }
    locked->records.swap(left);
    return taken;
}

std::vector<Report> reports()
{
    return reports(anyReport());
}

std::vector<Report> reports(const ReportMatcher& matcher)
{
    const Locked locked;
    std::vector<Report> found;
    for (const Record& record : locked->records) {
        if (matcher(record.report)) {
            found.push_back(record.report);
        }
    }
    return found;
}

bool waitForReport(const ReportMatcher& matcher, unsigned limitMs)
{
    const NoFaults noFaults;
    const auto limit = std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMs);
    while (reports(matcher).empty()) {
        if (std::chrono::steady_clock::now() >= limit) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

void resetRecorder()
{
    const Locked locked;
    locked->records.clear();
    locked->takenLines.clear();
    locked->calls.clear();
    locked->discarded.clear();
    for (const auto& [name, level] : locked->initialLevels) {
        locked->levels[name] = level;
    }
}

std::vector<std::string> takeCalls()
{
    const Locked locked;
    return std::exchange(locked->calls, {});
}

std::vector<std::string> takeDiscarded()
{
    const Locked locked;
    return std::exchange(locked->discarded, {});
}

std::vector<int> takenLines()
{
    const Locked locked;
    return locked->takenLines;
}

const void* lastHeaderAddress()
{
    return openMessage.headerAddress;
}

Report gclReport(const std::string& module, const std::string& function, const std::string& text,
                 uint32_t code)
{
    return {"KIV.GCL", levelOfCode(code), "Framework/GCL/private/" + module, function,
            text + codeLine(code)};
}

BeginHook::BeginHook(std::function<void(const Report&)> body)
{
    beginHook = new std::function<void(const Report&)>(std::move(body));
}

BeginHook::~BeginHook()
{
    delete beginHook.exchange(nullptr);
}

void setTraceLevel(const std::string& name, int level)
{
    const Locked locked;
    locked->levels[name] = level;
}

int traceLevel(const std::string& name)
{
    const Locked locked;
    const auto entry = locked->levels.find(name);
    return entry == locked->levels.end() ? 0 : entry->second.load();
}

void buildTracesWithoutImpl(bool without)
{
    withoutImpl = without;
}

} // namespace gcltest

using gcltest::NoFaults;

int32_t VT_beginImpl(TraceChannel* channel, int32_t level, const VorTraceHeader* header)
{
    gcltest::callBeginHook(channel->name, level, *header);
    const NoFaults noFaults;
    gcltest::openReport(channel->name, level, *header);
    return 0;
}

int32_t VT_rawprintf(TraceChannel* channel, const char* format, ...)
{
    const NoFaults noFaults;
    gcltest::noteCall(std::string("printf ") + channel->name + " " + format);
    char text[2048];
    va_list arguments;
    va_start(arguments, format);
    static_cast<void>(std::vsnprintf(text, sizeof text, format, arguments));
    va_end(arguments);
    gcltest::append(text);
    return 0;
}

int32_t VT_endImpl(TraceChannel* channel)
{
    const NoFaults noFaults;
    gcltest::closeMessage(channel->name);
    return 0;
}

class VorTrace::Impl {
public:
    std::string name;
    std::atomic<int>* level;
};

VorTrace::VorTrace(const char* name, VorTraceLevel level) : impl(nullptr)
{
    if (gcltest::withoutImpl) {
        return;
    }
    const gcltest::Locked locked;
    const auto entry = locked->levels.try_emplace(name, level).first;
    locked->initialLevels[name] = level;
    impl = new Impl{name, &entry->second};
}

VorTrace::~VorTrace()
{
    delete impl;
}

void VorTrace::beginLogMsg(VorTraceLevel level, const VorTraceHeader& header)
{
    gcltest::callBeginHook(impl->name, level, header);
    gcltest::openReport(impl->name, level, header);
}

void VorTrace::logMsgData(const char* data, unsigned length)
{
    const NoFaults noFaults;
    gcltest::noteCall("data " + std::string(data, length));
    gcltest::append(std::string(data, length));
}

void VorTrace::endLogMsg()
{
    gcltest::closeMessage(impl->name);
}

bool VorTrace::hasImpl() const
{
    return impl != nullptr;
}

int VorTrace::level() const
{
    // Without an implementation the level means nothing: callers ask hasImpl first.
    return impl == nullptr ? VorTraceLevel7 : impl->level->load();
}

std::ostream& VorTrace::stream()
{
    return gcltest::threadStreams().message;
}

std::ostream& VorTrace::discardStream()
{
    return gcltest::threadStreams().discard;
}
