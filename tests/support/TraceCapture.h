// The test programs' own trace framework: it records every message that is written, from the plain
// functions and from VorTrace objects alike, whole and in order.
#ifndef TESTS_SUPPORT_TRACECAPTURE_H
#define TESTS_SUPPORT_TRACECAPTURE_H

#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

namespace gcltest {

// One message.
struct Report {
    std::string channel;
    int level;
    std::string file;
    std::string function;
    std::string text; // all pieces in a row

    bool operator==(const Report& other) const;
};
std::ostream& operator<<(std::ostream& out, const Report& report);

// The messages written since the last call, by any thread.
std::vector<Report> takeReports();

// The calls of the framework that led to them, in words ("begin KIV.GCL 1", "printf KIV.GCL
// <format>", "end KIV.GCL"), for tests of the report step itself.
std::vector<std::string> takeCalls();

// The texts given to the discarding streams since the last call, by any thread: one for each flush.
std::vector<std::string> takeDiscarded();

// The lines of the header records of the messages that the last takeReports returned.
std::vector<int> takenLines();

// Where the header record lay that the calling thread's last message was opened with.
const void* lastHeaderAddress();

// A message of the plain-structure module `module` as it must look: the text, then the code, on
// KIV.GCL, at the level that belongs to the code's magnitude.
Report gclReport(const std::string& module, const std::string& function, const std::string& text,
                 uint32_t code);

// While it lives, `body` is called at the begin of each message of any thread, with what is known
// of the message by then (no text). It may throw or end its thread: the message is then not opened.
// One at a time; a body that writes messages itself is not called for them.
class BeginHook {
public:
    explicit BeginHook(std::function<void(const Report&)> body);
    ~BeginHook();
    BeginHook(const BeginHook&) = delete;
    BeginHook& operator=(const BeginHook&) = delete;
};

// Sets the level of the VorTrace objects called `name`, those that exist and those to come.
void setTraceLevel(const std::string& name, int level);

// Builds VorTrace objects without an implementation from now on, or with one again.
void buildTracesWithoutImpl(bool without);

} // namespace gcltest

#endif // TESTS_SUPPORT_TRACECAPTURE_H
