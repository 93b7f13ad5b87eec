// The report step and the mapping of codes to levels that it rests on.
#include "Framework/GCL/private/Report.h"

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <cerrno>
#include <string>
#include <vector>

#include "Framework/GCL/CHyxTraceHandler.h"
#include "Framework/GCL/testing/TraceCapture.h"

using gcltest::Report;
using gcltest::takeCalls;
using gcltest::takeReports;

namespace {

constexpr char kSource[] = "Framework/GCL/private/Sample";

uint32_t reportCode(uint32_t code)
{
    switch (code) {
    case 0:
        return GCL_REPORT(0x0, "zero");
    case 0x100:
        return GCL_REPORT(GCL_DRAIN_FAILED, "level %d", 4);
    case 0x820:
        return GCL_REPORT(0x820, "level %d", 6);
    case 0x840:
        return GCL_REPORT(GCL_DRAIN_PROGRESS, "level %d", 7);
    case 0x900:
        return GCL_REPORT(0x900, "level %d", 3);
    case 0x1000:
        return GCL_REPORT(GCL_MUTEX_INIT_FAILED, "level %d", 2);
    default:
        return GCL_REPORT(GCL_INVALID_HASH_TABLE, "level %d", 1);
    }
}

// Every level once, most severe first.
constexpr uint32_t kCodes[] = {0x8010, 0x1000, 0x900, 0x100, 0, 0x820, 0x840};

class ReportStep : public testing::Test {
protected:
    ~ReportStep() override { GCL_trace.threshold = 0x1003; }
};

} // namespace

TEST(CHyxTraceHandlerDmLevel2VtLevel, MapsEveryBandAtBothEnds)
{
    struct Row {
        uint32_t code;
        int32_t level;
    };
    const Row rows[] = {{0, 5},          {0xFF, 5},       {0x100, 4},     {0x7FF, 4},  {0x800, 5},
                        {0x81F, 5},      {0x820, 6},      {0x83F, 6},     {0x840, 7},  {0x8FF, 7},
                        {0x900, 3},      {0xFFF, 3},      {0x1000, 2},    {0x7FFF, 2}, {0x8000, 1},
                        {0x7FFFFFFF, 1}, {0x80000000, 1}, {0xFFFFFFFF, 1}};
    for (const Row& row : rows) {
        EXPECT_EQ(CHyxTraceHandler_DmLevel2VtLevel(row.code), row.level)
            << "code " << std::hex << row.code;
    }
}

TEST_F(ReportStep, WritesTheMessageThenTheCodeAndYieldsTheCode)
{
    takeCalls();
    EXPECT_EQ(reportCode(0x8010), 0x8010u);
    EXPECT_EQ(takeReports(), (std::vector<Report>{{"KIV.GCL", 1, "Framework/GCL/private/Sample",
                                                   "reportCode", "level 1      code: 0x8010\n"}}));
    EXPECT_EQ(takeCalls(),
              (std::vector<std::string>{"begin KIV.GCL 1", "printf KIV.GCL level %d",
                                        "printf KIV.GCL       code: %#lx\n", "end KIV.GCL"}));
}

TEST_F(ReportStep, WritesTheCodeZeroWithoutAPrefix)
{
    EXPECT_EQ(reportCode(0), 0u);
    const std::vector<Report> reports = takeReports();
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].text, "zero      code: 0\n");
    EXPECT_EQ(reports[0].level, 5);
}

TEST_F(ReportStep, WritesTheLineOfTheSite)
{
    const int line = __LINE__ + 1;
    static_cast<void>(GCL_REPORT(GCL_FAILURE, "here"));
    ASSERT_EQ(takeReports().size(), 1u);
    EXPECT_EQ(gcltest::takenLines(), std::vector<int>{line});
}

TEST_F(ReportStep, WritesWhatTheThresholdAdmits)
{
    // The threshold says up to which level, whatever the order of the codes.
    const int levels[] = {1, 2, 3, 4, 5, 6, 7};
    for (int threshold = -1; threshold <= 8; ++threshold) {
        GCL_trace.threshold = threshold;
        for (size_t i = 0; i < std::size(kCodes); ++i) {
            EXPECT_EQ(reportCode(kCodes[i]), kCodes[i]);
            EXPECT_EQ(takeReports().size(), levels[i] <= threshold ? 1u : 0u)
                << "threshold " << threshold << ", level " << levels[i];
        }
    }
}

TEST_F(ReportStep, ComparesTheWholeThresholdWithItsSign)
{
    for (const int32_t threshold : {INT32_MIN, -0x1003, 0}) {
        GCL_trace.threshold = threshold;
        reportCode(0x8010);
        EXPECT_TRUE(takeReports().empty()) << threshold;
    }
    for (const int32_t threshold : {1, 0x100, 0x1000, 0x10000, INT32_MAX}) {
        GCL_trace.threshold = threshold;
        reportCode(0x8010);
        EXPECT_EQ(takeReports().size(), 1u) << threshold;
    }
}

TEST_F(ReportStep, CallsNothingWhenSuppressed)
{
    GCL_trace.threshold = 0;
    takeCalls();
    EXPECT_EQ(reportCode(0x8010), 0x8010u);
    EXPECT_TRUE(takeCalls().empty());
}

TEST_F(ReportStep, TakesItsArgumentsBeforeTheFrameworkIsCalled)
{
    errno = 11;
    static_cast<void>(GCL_REPORT(GCL_FAILURE, "errno %d", errno));
    const std::vector<Report> reports = takeReports();
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].text, "errno 11      code: 0x8000\n");
}

TEST_F(ReportStep, HandsOverACopyOfTheConstantRecord)
{
    reportCode(0x8010);
    // The constant records lie in a loaded object; a stack does not.
    Dl_info info;
    EXPECT_NE(dladdr(kSource, &info), 0);
    EXPECT_EQ(dladdr(gcltest::lastHeaderAddress(), &info), 0);
}
