// The recording trace framework and its matchers must themselves do what they say.
#include "Framework/GCL/testing/TraceCapture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <ostream>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Framework/GCL/CList.h"
#include "Framework/GCL/testing/FaultInjection.h"
#include "Framework/GCL/testing/Matchers.h"
#include "Framework/VT/VT.h"
#include "Framework/VT/VorTrace.h"

using gcltest::Report;
using gcltest::ReportMatcher;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
namespace calls = gcltest::calls;

namespace {

TraceChannel channel = {0x1003, "KIV.ONE"};
const VorTraceHeader kHeader = {"dir/File", 12, "function"};

void say(const std::string& text, int level = 1)
{
    VT_beginImpl(&channel, level, &kHeader);
    VT_rawprintf(&channel, "%s", text.c_str());
    VT_endImpl(&channel);
}

Report said(const std::string& text, int level = 1)
{
    return {"KIV.ONE", level, "dir/File", "function", text};
}

using Reports = std::vector<Report>;

} // namespace

TEST(TraceCaptureReports, TakesThemOnceAndLooksAtThemOften)
{
    say("first");
    say("second", 2);
    const Reports both{said("first"), said("second", 2)};
    EXPECT_EQ(gcltest::reports(), both);
    EXPECT_EQ(gcltest::reports(), both);
    EXPECT_EQ(gcltest::takeReports(), both);
    EXPECT_EQ(gcltest::takenLines(), (std::vector<int>{12, 12}));
    EXPECT_EQ(gcltest::takeReports(), Reports{});
}

TEST(TraceCaptureReports, TakesThoseThatMatchAndLeavesTheOthers)
{
    say("first");
    say("second", 2);
    say("third");
    EXPECT_EQ(gcltest::reports(gcltest::atLevel(1)), (Reports{said("first"), said("third")}));
    EXPECT_EQ(gcltest::takeReports(gcltest::atLevel(1)), (Reports{said("first"), said("third")}));
    EXPECT_EQ(gcltest::takeReports(), Reports{said("second", 2)});
}

TEST(TraceCaptureReports, JoinsThePiecesOfAMessageAndItsStream)
{
    VorTrace trace("KIV.TWO", VorTraceLevel3);
    trace.beginLogMsg(VorTraceLevel2, kHeader);
    trace.logMsgData("abc", 2);
    trace.stream() << " and " << 7 << ';' << std::flush;
    trace.discardStream() << "dropped" << std::flush;
    EXPECT_EQ(gcltest::takeReports(),
              (Reports{{"KIV.TWO", 2, "dir/File", "function", "ab and 7;"}}));
    EXPECT_EQ(gcltest::takeDiscarded(), std::vector<std::string>{"dropped"});
}

TEST(TraceCaptureReports, TellsTextOutsideOfAMessage)
{
    VT_rawprintf(&channel, "lost");
    say("kept");
    EXPECT_EQ(gcltest::takeReports(), Reports{said("kept")});
}

TEST(TraceCaptureReset, ForgetsEverythingAndRestoresLevels)
{
    const VorTrace trace("KIV.THREE", VorTraceLevel3);
    EXPECT_EQ(gcltest::traceLevel("KIV.THREE"), 3);
    EXPECT_EQ(gcltest::traceLevel("KIV.THIRD"), 0);
    gcltest::setTraceLevel("KIV.THREE", 7);
    EXPECT_EQ(trace.level(), 7);
    EXPECT_EQ(gcltest::traceLevel("KIV.THREE"), 7);
    say("text");
    gcltest::resetRecorder();
    EXPECT_EQ(trace.level(), 3);
    EXPECT_EQ(gcltest::reports(), Reports{});
    EXPECT_EQ(gcltest::takeCalls(), std::vector<std::string>{});
    EXPECT_EQ(gcltest::takenLines(), std::vector<int>{});
}

// Messages are whole, none is lost, and those of one thread keep their order.
TEST(TraceCaptureThreads, RecordEveryMessageWhole)
{
    constexpr int kThreads = 4;
    constexpr int kMessages = 200;
    std::atomic<bool> done{false};
    Reports taken;
    std::thread taker([&] {
        bool last = false;
        while (!last) {
            last = done;
            for (const Report& report : gcltest::takeReports()) {
                taken.push_back(report);
            }
            static_cast<void>(gcltest::reports(gcltest::atLevel(1)));
        }
    });
    std::vector<std::thread> writers;
    for (int i = 0; i < kThreads; ++i) {
        writers.emplace_back([i] {
            VorTrace trace("KIV.THREAD", VorTraceLevel3);
            for (int k = 0; k < kMessages; ++k) {
                trace.beginLogMsg(VorTraceLevel1, kHeader);
                trace.stream() << i << ':' << k << std::flush;
            }
        });
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    done = true;
    taker.join();
    std::vector<int> next(kThreads, 0);
    ASSERT_EQ(taken.size(), static_cast<size_t>(kThreads * kMessages));
    for (const Report& report : taken) {
        int writer = -1;
        int number = -1;
        char colon = 0;
        std::istringstream(report.text) >> writer >> colon >> number;
        ASSERT_TRUE(writer >= 0 && writer < kThreads) << report;
        EXPECT_EQ(number, next[static_cast<size_t>(writer)]++) << report;
    }
}

TEST(TraceCaptureWait, EndsWithTheReportOrTheLimit)
{
    EXPECT_FALSE(gcltest::waitForReport(gcltest::withText("late"), 20));
    std::thread writer([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        say("late");
    });
    EXPECT_TRUE(gcltest::waitForReport(gcltest::withText("late"), 20'000));
    writer.join();
    EXPECT_EQ(gcltest::takeReports(), Reports{said("late")});
}

// The test fails the library's second allocation; the recorder's own ones do not count.
TEST(TraceCaptureFaults, DoNotReachTheRecorder)
{
    const std::string text(200, 'x');
    const gcltest::Fault news(calls::newScalar, {0, 0, 1, gcltest::Failure::kForGood});
    const gcltest::Count locks(calls::pthread_mutex_lock);
    unsigned long item = 0;
    EXPECT_EQ(CList_GetNext(nullptr, &item, nullptr), 0x8008u);
    VT_beginImpl(&channel, 1, &kHeader);
    VT_rawprintf(&channel, "%s", text.c_str());
    VT_endImpl(&channel);
    const auto taken = gcltest::takeReports();
    EXPECT_EQ(news.calls(), 0u);
    EXPECT_EQ(locks.calls(), 0u);
    const gcltest::NoFaults noFaults;
    ASSERT_EQ(taken.size(), 2u);
    EXPECT_EQ(taken[1], said(text));
}

// Each matcher: what it accepts, what it refuses, and its words.
TEST(TraceCaptureMatchers, LookAtTheirPart)
{
    const Report report = gcltest::gclReport("CList", "CList_GetNext", "pThis is NULL!", 0x8008);
    struct Row {
        ReportMatcher matcher;
        bool matches;
        std::string words;
    };
    const Row rows[] = {
        {gcltest::anyReport(), true, "is any report"},
        {gcltest::onChannel("KIV.GCL"), true, "channel is \"KIV.GCL\""},
        {gcltest::onChannel("KIV.GC"), false, "channel is \"KIV.GC\""},
        {gcltest::atLevel(1), true, "level is 1"},
        {gcltest::atLevel(2), false, "level is 2"},
        {gcltest::atLevelOrWorse(2), true, "level is 2 or worse"},
        {gcltest::atLevelOrWorse(1), true, "level is 1 or worse"},
        {gcltest::atLevelOrWorse(0), false, "level is 0 or worse"},
        {gcltest::inFile("Framework/GCL/private/CList"), true,
         "file is \"Framework/GCL/private/CList\""},
        {gcltest::inFile("CList"), false, "file is \"CList\""},
        {gcltest::inFunction("CList_GetNext"), true, "function is \"CList_GetNext\""},
        {gcltest::inFunction("CList_GetNex"), false, "function is \"CList_GetNex\""},
        {gcltest::withText(report.text), true, "text is \"" + report.text + "\""},
        {gcltest::withText("pThis is NULL!"), false, "text is \"pThis is NULL!\""},
        {gcltest::withTextContaining("is NULL"), true, "text contains \"is NULL\""},
        {gcltest::withTextContaining("is null"), false, "text contains \"is null\""},
        {gcltest::withCode(0x8008), true, "code is 0x8008"},
        {gcltest::withCode(0x800), false, "code is 0x800"},
        {gcltest::withCode(0x18008), false, "code is 0x18008"},
        {gcltest::atLevel(1) && gcltest::onChannel("KIV.GCL"), true,
         "(level is 1 and channel is \"KIV.GCL\")"},
        {gcltest::atLevel(1) && gcltest::onChannel("KIV.DM"), false,
         "(level is 1 and channel is \"KIV.DM\")"},
        {gcltest::atLevel(2) && gcltest::onChannel("KIV.GCL"), false,
         "(level is 2 and channel is \"KIV.GCL\")"},
        {gcltest::atLevel(1) || gcltest::atLevel(2), true, "(level is 1 or level is 2)"},
        {gcltest::atLevel(2) || gcltest::atLevel(1), true, "(level is 2 or level is 1)"},
        {gcltest::atLevel(2) || gcltest::atLevel(3), false, "(level is 2 or level is 3)"},
        {!gcltest::atLevel(1), false, "not level is 1"},
        {!gcltest::atLevel(2), true, "not level is 2"},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(row.matcher(report), row.matches) << row.words;
        EXPECT_EQ(row.matcher.description(), row.words);
        std::ostringstream words;
        const auto adapted = gcltest::Matching(row.matcher);
        adapted.DescribeTo(&words);
        EXPECT_EQ(words.str(), row.words);
        EXPECT_EQ(adapted.Matches(report), row.matches) << row.words;
    }
}

TEST(TraceCaptureMatchers, WorkInGoogleMock)
{
    unsigned long item = 0;
    CList_GetNext(nullptr, &item, nullptr);
    say("text", 3);
    EXPECT_THAT(
        gcltest::reports(),
        ElementsAre(AllOf(gcltest::OnChannel("KIV.GCL"), gcltest::AtLevel(1),
                          gcltest::InFile(EndsWith("/CList")), gcltest::InFunction("CList_GetNext"),
                          gcltest::WithText(HasSubstr("pThis is NULL!"))),
                    gcltest::Matching(gcltest::withText("text") && gcltest::atLevel(3))));
    const Report last = gcltest::takeReports().back();
    EXPECT_THAT(last, Not(gcltest::OnChannel("KIV.GCL")));
    EXPECT_THAT(last, Not(gcltest::AtLevel(1)));
    EXPECT_THAT(last, Not(gcltest::InFile(EndsWith("/CList"))));
    EXPECT_THAT(last, Not(gcltest::InFunction("CList_GetNext")));
    EXPECT_THAT(last, Not(gcltest::WithText(HasSubstr("pThis"))));
}
