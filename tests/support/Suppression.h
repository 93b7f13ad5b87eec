// Failures with and without their reports: a case of a suite that derives from ReportsOrNot runs
// twice, with a threshold that admits every report and with one that suppresses them all. Results
// and state must be the same; expectReports knows which of the two it is.
#ifndef TESTS_SUPPORT_SUPPRESSION_H
#define TESTS_SUPPORT_SUPPRESSION_H

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "Framework/GCL/TraceChannels.h"
#include "Framework/GCL/testing/TraceCapture.h"

namespace gcltest {

class ReportsOrNot : public testing::TestWithParam<int32_t> {
protected:
    ReportsOrNot() { GCL_trace.threshold = GetParam(); }
    ~ReportsOrNot() override { GCL_trace.threshold = thresholdBefore; }

private:
    int32_t thresholdBefore = GCL_trace.threshold;
};

// These reports, or none where they are suppressed.
inline std::vector<Report> whereAdmitted(const std::vector<Report>& reports)
{
    return GCL_trace.threshold > 0 ? reports : std::vector<Report>{};
}

// The reports since the last look are these, or none where they are suppressed.
inline void expectReports(const std::vector<Report>& reports)
{
    EXPECT_EQ(takeReports(), whereAdmitted(reports));
}

inline std::string nameOfThreshold(const testing::TestParamInfo<int32_t>& threshold)
{
    return threshold.param > 0 ? "Admitted" : "Suppressed";
}

} // namespace gcltest

// Runs the cases of a suite of this kind twice.
#define GCLTEST_WITH_AND_WITHOUT_REPORTS(suite)                                                    \
    INSTANTIATE_TEST_SUITE_P(Reporting, suite, testing::Values(0x1003, 0), gcltest::nameOfThreshold)

#endif // TESTS_SUPPORT_SUPPRESSION_H
