#include <gmock/gmock.h>

#include <new>

#include "Framework/GCL/CList.h"
#include "Framework/GCL/HijackApi.h"
#include "Framework/GCL/testing/FaultInjection.h"
#include "Framework/GCL/testing/Matchers.h"
#include "Framework/GCL/testing/PeerNode.h"
#include "Framework/GCL/testing/TraceCapture.h"
#include "Framework/VT/VorTrace.h"

namespace calls = gcltest::calls;

TEST(Module, ReportsANullList)
{
    gcltest::resetRecorder();
    unsigned long item = 0;
    EXPECT_EQ(CList_GetNext(nullptr, &item, nullptr), 0x8008u);
    EXPECT_THAT(gcltest::takeReports(),
                testing::ElementsAre(
                    testing::AllOf(gcltest::OnChannel("KIV.GCL"), gcltest::AtLevel(1),
                                   gcltest::InFunction("CList_GetNext"),
                                   gcltest::WithText(testing::HasSubstr("pThis is NULL!")))));
}

TEST(Module, SurvivesTheSecondAllocation)
{
    CList list;
    CList_Construct(&list);
    {
        gcltest::Fault fault(calls::newArray, {0, 0, 2});
        CList_PushTail(&list, 1);
        EXPECT_THROW(CList_PushTail(&list, 2), std::bad_alloc);
        EXPECT_EQ(fault.failures(), 1u);
    }
    CList_PushTail(&list, 3);
    EXPECT_EQ(CList_CurrentSize(&list), 2u);
    CList_Destruct(&list);
}

TEST(Module, TalksToAPeerNode)
{
    gcltest::resetRecorder();
    gcltest::PeerNode::Options options;
    options.oversizeEvery = 2;
    gcltest::PeerNode node(options);
    VorTrace trace("KIV.MODULE", VorTraceLevel3);
    Util::HijackApi client(trace, node.start(), 1'000'000, options.rxSyncId, options.txSyncId);
    ASSERT_TRUE(client.connectToServer("127.0.0.1"));
    unsigned char text[] = "hello";
    unsigned char answer[100];
    unsigned length = 0;
    EXPECT_TRUE(client.writeToNet(text, sizeof text, nullptr));
    EXPECT_TRUE(client.readFromNet(answer, sizeof answer, &length));
    EXPECT_EQ(length, sizeof text);
    EXPECT_TRUE(client.writeToNet(text, sizeof text, nullptr));
    EXPECT_FALSE(client.readFromNet(answer, sizeof answer, &length));
    EXPECT_EQ(node.framesReceived(), 2u);
    EXPECT_FALSE(gcltest::takeReports(gcltest::onChannel("KIV.MODULE")).empty());
}
