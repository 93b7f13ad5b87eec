// TraceCapture: the trace framework of a test program. It records every message that is written,
// from the plain functions and from VorTrace objects alike, whole and in order.
//
//     CList_GetNext(nullptr, &item, nullptr);
//     assert(takeReports(inFunction("CList_GetNext") && withCode(0x8008)).size() == 1);
//
// A program that links KivGCL::Testing links no other trace framework, VorTrace included. Every
// function here may be called by any thread at any time, by itself or beside writers of messages.
// The recorder takes nothing from the faults of FaultInjection.h: its own calls are never failed
// and never counted. It lives as long as the process.
#ifndef GCL_TESTING_TRACECAPTURE_H
#define GCL_TESTING_TRACECAPTURE_H

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
    bool operator!=(const Report& other) const { return !(*this == other); }
};
std::ostream& operator<<(std::ostream& out, const Report& report);

// What a test is looking for in messages: a predicate with words for it. Matchers are joined by
// &&, || and !.
class ReportMatcher {
public:
    ReportMatcher(std::function<bool(const Report&)> predicate, std::string description);

    bool operator()(const Report& report) const { return matches(report); }
    // In words: "channel is KIV.GCL and level is 1".
    const std::string& description() const { return words; }

private:
    std::function<bool(const Report&)> matches;
    std::string words;
};
ReportMatcher operator&&(const ReportMatcher& left, const ReportMatcher& right);
ReportMatcher operator||(const ReportMatcher& left, const ReportMatcher& right);
ReportMatcher operator!(const ReportMatcher& matcher);

ReportMatcher anyReport();
ReportMatcher onChannel(const std::string& channel);
ReportMatcher atLevel(int level);
// At this level or a more severe one, which is a smaller number.
ReportMatcher atLevelOrWorse(int level);
// The source file as the header record has it, without extension.
ReportMatcher inFile(const std::string& file);
ReportMatcher inFunction(const std::string& function);
ReportMatcher withText(const std::string& text);
ReportMatcher withTextContaining(const std::string& part);
// With the line that reports of the plain-structure modules end in.
ReportMatcher withCode(uint32_t code);

// The messages written since the last take, oldest first. takeReports forgets them; the second form
// takes those that match, and leaves the others.
std::vector<Report> takeReports();
std::vector<Report> takeReports(const ReportMatcher& matcher);
// The same without taking them.
std::vector<Report> reports();
std::vector<Report> reports(const ReportMatcher& matcher);

// Waits until a message that matches is there, at most so many milliseconds. It stays recorded.
bool waitForReport(const ReportMatcher& matcher, unsigned limitMs);

// Forgets everything that was recorded, and gives the VorTrace objects the levels that they were
// built with: for the begin of each case, since the recorder lives as long as the process.
void resetRecorder();

// A message of the plain-structure module `module` as it must look: the text, then the code, on
// KIV.GCL, at the level that belongs to the code's magnitude.
Report gclReport(const std::string& module, const std::string& function, const std::string& text,
                 uint32_t code);

// Sets the level of the VorTrace objects called `name`, those that exist and those to come.
void setTraceLevel(const std::string& name, int level);

// The level of the VorTrace objects called `name`: what setTraceLevel has set, else what they were
// built with. 0 where there is neither.
int traceLevel(const std::string& name);

// Builds VorTrace objects without an implementation from now on, or with one again.
void buildTracesWithoutImpl(bool without);

// While it lives, `body` is called at the begin of each message of any thread, with what is known
// of the message by then (no text). It may throw or end its thread: the message is then not opened.
// One at a time, constructed and destroyed while no other thread writes; a body that writes
// messages itself is not called for them.
class BeginHook {
public:
    explicit BeginHook(std::function<void(const Report&)> body);
    ~BeginHook();
    BeginHook(const BeginHook&) = delete;
    BeginHook& operator=(const BeginHook&) = delete;
};

// For tests of code that calls the trace framework itself:

// The calls of the framework since the last take, in words ("begin KIV.GCL 1", "printf KIV.GCL
// <format>", "end KIV.GCL").
std::vector<std::string> takeCalls();

// The texts given to the discarding streams since the last take, by any thread: one for each flush.
std::vector<std::string> takeDiscarded();

// The lines of the header records of the messages that the last takeReports returned.
std::vector<int> takenLines();

// Where the header record lay that the calling thread's last message was opened with.
const void* lastHeaderAddress();

} // namespace gcltest

#endif // GCL_TESTING_TRACECAPTURE_H
