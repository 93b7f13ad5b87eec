#include "Framework/GCL/TraceChannels.h"

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <string>

namespace {

// In the order of declaration.
const char* const kNames[] = {
    "CAPH",  "RCCH",   "RAUH",  "STATE", "DPDH",  "BIH",   "I2CIDT", "CPRIH", "CPRI",    "KIH",
    "DSP",   "BCM",    "DSPC",  "ATPC",  "INTH",  "TEST",  "TS",     "TH",    "RSSI",    "OPH",
    "LH",    "IH",     "HCCDH", "HCC",   "HCH",   "FH",    "FPGA",   "CH",    "AP",      "AH",
    "AIRIF", "XMLRPC", "IM",    "GNM",   "GCL",   "AF",    "DRIVER", "PD",    "FL",      "DS",
    "DMU",   "DM",     "SPC",   "OPC",   "DC",    "FSC",   "FC",     "DPD",   "CHANNEL", "BC",
    "TI",    "CCDP",   "RXPC",  "RXPH",  "XPICH", "XPICC", "XPIC",   "PT"};

std::string channelName(const std::string& name)
{
    if (name == "XPICH") {
        return "KIV.XPIC.HAND";
    }
    return name == "XPICC" ? "KIV.XPIC.CTRL" : "KIV." + name;
}

TraceChannel* findChannel(const std::string& name)
{
    return static_cast<TraceChannel*>(dlsym(RTLD_DEFAULT, (name + "_trace").c_str()));
}

} // namespace

TEST(TraceChannels, ThereAreFiftyEight)
{
    EXPECT_EQ(std::size(kNames), 58u);
}

TEST(TraceChannels, EachIsExportedWithItsNameAndLetsEveryLevelThrough)
{
    for (const char* const name : kNames) {
        const TraceChannel* const channel = findChannel(name);
        ASSERT_NE(channel, nullptr) << name;
        EXPECT_EQ(channel->threshold, 0x1003) << name;
        EXPECT_EQ(channel->name, channelName(name));
    }
}

TEST(TraceChannels, AreWritable)
{
    for (const char* const name : kNames) {
        TraceChannel* const channel = findChannel(name);
        ASSERT_NE(channel, nullptr) << name;
        channel->threshold = 2;
        EXPECT_EQ(channel->threshold, 2) << name;
    }
}

TEST(TraceChannels, AreTheObjectsThatTheHeaderDeclares)
{
    EXPECT_EQ(&GCL_trace, findChannel("GCL"));
    EXPECT_EQ(&CAPH_trace, findChannel("CAPH"));
    EXPECT_EQ(&PT_trace, findChannel("PT"));
}

TEST(TraceChannels, AreAWordAndAPointer)
{
    EXPECT_EQ(offsetof(TraceChannel, threshold), 0u);
    EXPECT_EQ(offsetof(TraceChannel, name), sizeof(void*));
    EXPECT_EQ(sizeof(TraceChannel), 2 * sizeof(void*));
    EXPECT_EQ(sizeof(TraceChannel::threshold), 4u);
}

TEST(VtfRedirect, StartsAsOneAndIsWritable)
{
    EXPECT_EQ(VTF_redirect, 1);
    VTF_redirect = 0;
    EXPECT_EQ(VTF_redirect, 0);
    EXPECT_EQ(sizeof VTF_redirect, 4u);
}
