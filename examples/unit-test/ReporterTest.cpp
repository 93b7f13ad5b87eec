#include "examples/unit-test/Reporter.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <vector>

#include "Framework/GCL/SimulatedSleeper.h"
#include "Framework/GCL/testing/FaultInjection.h"
#include "Framework/GCL/testing/Matchers.h"
#include "Framework/GCL/testing/PeerNode.h"
#include "Framework/GCL/testing/TraceCapture.h"

using gcltest::Fault;
using gcltest::PeerNode;
using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
namespace calls = gcltest::calls;

namespace {

class ReporterTest : public testing::Test {
protected:
    // The recorder lives as long as the process: each case begins with an empty one.
    ReporterTest() { gcltest::resetRecorder(); }
};

} // namespace

// [peer]
TEST_F(ReporterTest, ReportsToAPeerNode)
{
    PeerNode::Options options;
    options.oversizeEvery = 2; // the second frame announces more than it has
    PeerNode node(options);
    Reporter reporter(node.start());
    ASSERT_TRUE(reporter.connect(1));
    EXPECT_TRUE(reporter.report(5));
    EXPECT_FALSE(reporter.report(6));
    EXPECT_EQ(node.framesReceived(), 2u);
}
// [peer end]

// [sleeper]
TEST_F(ReporterTest, WaitsLongerAfterEachFailure)
{
    PeerNode node{PeerNode::Options()};
    Reporter reporter(node.start());
    Util::SimulatedSleeper sleeper;
    const Util::SimulatedSleeper::Installation installed(sleeper);

    // The first three calls of connect(2) that this thread makes fail.
    const Fault fault(calls::connect, calls::connect.failure(ECONNREFUSED, 1, 3));
    EXPECT_TRUE(reporter.connect(10));
    EXPECT_EQ(fault.failures(), 3u);
    EXPECT_EQ(sleeper.sleeps(), (std::vector<unsigned>{100, 200, 400})); // none of it was real
}
// [sleeper end]

// [recorder]
TEST_F(ReporterTest, LeavesAReportWhereTheConnectionBreaks)
{
    PeerNode node{PeerNode::Options()};
    Reporter reporter(node.start());
    ASSERT_TRUE(reporter.connect(1));
    const Fault fault(calls::read, calls::read.failure(ECONNRESET));
    EXPECT_FALSE(reporter.report(5));
    EXPECT_THAT(gcltest::takeReports(),
                Contains(AllOf(gcltest::OnChannel("KIV.REPORTER"), gcltest::AtLevel(1),
                               gcltest::InFunction("safeRead"),
                               gcltest::WithText(HasSubstr("Connection reset by peer")))));
}
// [recorder end]

// [memory]
TEST_F(ReporterTest, GoesOnWhereMemoryIsShort)
{
    Reporter reporter(1);
    {
        const Fault fault(calls::newArray, calls::newArray.failure(0, 2)); // the 2nd allocation
        EXPECT_TRUE(reporter.remember(1));
        EXPECT_FALSE(reporter.remember(2));
    }
    EXPECT_TRUE(reporter.remember(3));
    EXPECT_EQ(reporter.remembered(), 2u);
}
// [memory end]
