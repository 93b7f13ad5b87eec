#include "tests/support/TraceCapture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>

#include "Framework/VT/VT.h"
#include "Framework/VT/VorTrace.h"

namespace gcltest {

// A lock of its own, so that tests which fail the mutex calls leave the recorder alone.
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

namespace {

// Never destroyed: the library's own trace object is older than this program's objects and outlives
// them.
struct Recorder {
    SpinLock mutex;
    std::vector<Report> reports;
    std::vector<int> lines;
    std::vector<int> takenLines;
    std::vector<std::string> calls;
    std::vector<std::string> discarded;
    std::map<std::string, std::atomic<int>> levels;
    std::map<std::string, int> initialLevels; // those that the objects were built with
};

Recorder& recorder()
{
    static Recorder* const instance = new Recorder;
    return *instance;
}

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

void callBeginHook(const Report& report)
{
    std::function<void(const Report&)>* const body = beginHook;
    if (body == nullptr || insideBeginHook) {
        return;
    }
    struct Inside {
        Inside() { insideBeginHook = true; }
        ~Inside() { insideBeginHook = false; }
    } guard;
    (*body)(report);
}

void noteCall(const std::string& call)
{
    const std::lock_guard<gcltest::SpinLock> lock(recorder().mutex);
    recorder().calls.push_back(call);
}

void openReport(const std::string& channel, int level, const VorTraceHeader& header)
{
    callBeginHook({channel, level, header.file, header.function, ""});
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
    noteCall("end " + channel);
    if (!openMessage.open) {
        return;
    }
    openMessage.open = false;
    const std::lock_guard<gcltest::SpinLock> lock(recorder().mutex);
    recorder().reports.push_back(openMessage.report);
    recorder().lines.push_back(openMessage.line);
}

// A stream buffer whose text goes into the open message; a flush ends the message.
class MessageBuffer : public std::stringbuf {
protected:
    int sync() override
    {
        append(str());
        str("");
        closeMessage(openMessage.report.channel);
        return 0;
    }
};

// One whose text is only noted; a flush ends the note.
class DiscardBuffer : public std::stringbuf {
protected:
    int sync() override
    {
        const std::lock_guard<gcltest::SpinLock> lock(recorder().mutex);
        recorder().discarded.push_back(str());
        str("");
        return 0;
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
    static thread_local ThreadStreams streams;
    return streams;
}

// What one case has written and set is not for the next one.
class ResetListener : public testing::EmptyTestEventListener {
    void OnTestEnd(const testing::TestInfo&) override
    {
        takeReports();
        takeCalls();
        takeDiscarded();
        const std::lock_guard<gcltest::SpinLock> lock(recorder().mutex);
        for (const auto& [name, level] : recorder().initialLevels) {
            recorder().levels[name] = level;
        }
    }
};

[[maybe_unused]] const bool resets = [] {
    testing::UnitTest::GetInstance()->listeners().Append(new ResetListener);
    return true;
}();

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

std::vector<Report> takeReports()
{
    const std::lock_guard<gcltest::SpinLock> lock(recorder().mutex);
    recorder().takenLines.swap(recorder().lines);
    recorder().lines.clear();
    std::vector<Report> taken;
    taken.swap(recorder().reports);
    return taken;
}

std::vector<std::string> takeCalls()
{
    const std::lock_guard<gcltest::SpinLock> lock(recorder().mutex);
    std::vector<std::string> taken;
    taken.swap(recorder().calls);
    return taken;
}

std::vector<std::string> takeDiscarded()
{
    const std::lock_guard<gcltest::SpinLock> lock(recorder().mutex);
    std::vector<std::string> taken;
    taken.swap(recorder().discarded);
    return taken;
}

std::vector<int> takenLines()
{
    const std::lock_guard<gcltest::SpinLock> lock(recorder().mutex);
    return recorder().takenLines;
}

const void* lastHeaderAddress()
{
    return openMessage.headerAddress;
}

Report gclReport(const std::string& module, const std::string& function, const std::string& text,
                 uint32_t code)
{
    char codeLine[40];
    std::snprintf(codeLine, sizeof codeLine, "      code: 0x%lx\n",
                  static_cast<unsigned long>(code));
    return {"KIV.GCL", levelOfCode(code), "Framework/GCL/private/" + module, function,
            text + codeLine};
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
    const std::lock_guard<gcltest::SpinLock> lock(recorder().mutex);
    recorder().levels[name] = level;
}

void buildTracesWithoutImpl(bool without)
{
    withoutImpl = without;
}

} // namespace gcltest

using gcltest::recorder;

int32_t VT_beginImpl(TraceChannel* channel, int32_t level, const VorTraceHeader* header)
{
    gcltest::openReport(channel->name, level, *header);
    return 0;
}

int32_t VT_rawprintf(TraceChannel* channel, const char* format, ...)
{
    gcltest::noteCall(std::string("printf ") + channel->name + " " + format);
    char text[2048];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    gcltest::append(text);
    return 0;
}

int32_t VT_endImpl(TraceChannel* channel)
{
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
    const std::lock_guard<gcltest::SpinLock> lock(recorder().mutex);
    const auto entry = recorder().levels.try_emplace(name, level).first;
    recorder().initialLevels[name] = level;
    impl = new Impl{name, &entry->second};
}

VorTrace::~VorTrace()
{
    delete impl;
}

void VorTrace::beginLogMsg(VorTraceLevel level, const VorTraceHeader& header)
{
    gcltest::openReport(impl->name, level, header);
}

void VorTrace::logMsgData(const char* data, unsigned length)
{
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
