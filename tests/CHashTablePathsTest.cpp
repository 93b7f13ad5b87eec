// Each keyed operation finds a key in its own copy of the code, and compares keys of each length in
// its own way: every operation on keys of every length, found first, found later and not found.
#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <vector>

#include "Framework/GCL/CHashTable.h"
#include "Framework/GCL/ResultCodes.h"
#include "Framework/GCL/testing/TraceCapture.h"
#include "tests/support/SignalJump.h"

using gcltest::gclReport;
using gcltest::Report;
using gcltest::takeReports;

namespace {

using Reports = std::vector<Report>;

// A table whose one bucket holds all keys, so that each is compared with those before it.
struct OneBucket {
    explicit OneBucket(uint32_t buckets = 1) { CHashTable_Construct(&table, buckets); }
    ~OneBucket() { CHashTable_Destruct(&table); }
    OneBucket(const OneBucket&) = delete;
    OneBucket& operator=(const OneBucket&) = delete;
    CHashTable table = {};
};

// Keys that differ from `key` in one byte each.
std::vector<std::string> neighboursOf(const std::string& key)
{
    std::vector<std::string> neighbours;
    for (size_t at = 0; at < key.size(); ++at) {
        neighbours.push_back(key);
        neighbours.back()[at] = 'l';
    }
    return neighbours;
}

std::string keyOf(size_t length)
{
    return std::string(length, 'k');
}

class CHashTablePaths : public testing::TestWithParam<size_t> {};

INSTANTIATE_TEST_SUITE_P(KeyLength, CHashTablePaths,
                         testing::Values(0, 1, 2, 3, 4, 5, 6, 7, 8, 11, 14, 15, 16, 17, 30, 31, 32,
                                         47, 48, 100, 254, 255),
                         testing::PrintToStringParamName());

} // namespace

TEST_P(CHashTablePaths, OfGetTellAKeyFromItsNeighbours)
{
    OneBucket bucket;
    const std::string key = keyOf(GetParam());
    unsigned long value = 5;
    EXPECT_EQ(CHashTable_Get(&bucket.table, key.c_str(), &value), GCL_PAIR_NOT_FOUND);
    for (const std::string& other : neighboursOf(key)) {
        ASSERT_EQ(CHashTable_Set(&bucket.table, other.c_str(), 1), GCL_OK);
    }
    EXPECT_EQ(CHashTable_Get(&bucket.table, key.c_str(), &value), GCL_PAIR_NOT_FOUND);
    EXPECT_EQ(value, 5u);
    ASSERT_EQ(CHashTable_Set(&bucket.table, key.c_str(), 2), GCL_OK);
    for (const std::string& other : neighboursOf(key)) {
        EXPECT_EQ(CHashTable_Get(&bucket.table, other.c_str(), &value), GCL_OK);
        EXPECT_EQ(value, 1u);
    }
    EXPECT_EQ(CHashTable_Get(&bucket.table, key.c_str(), &value), GCL_OK);
    EXPECT_EQ(value, 2u);
    EXPECT_EQ(takeReports(), Reports{});
}

TEST_P(CHashTablePaths, OfExistsTellAKeyFromItsNeighbours)
{
    OneBucket bucket;
    const std::string key = keyOf(GetParam());
    EXPECT_EQ(CHashTable_Exists(&bucket.table, key.c_str()), 0u);
    for (const std::string& other : neighboursOf(key)) {
        ASSERT_EQ(CHashTable_Set(&bucket.table, other.c_str(), 1), GCL_OK);
    }
    EXPECT_EQ(CHashTable_Exists(&bucket.table, key.c_str()), 0u);
    ASSERT_EQ(CHashTable_Set(&bucket.table, key.c_str(), 2), GCL_OK);
    for (const std::string& other : neighboursOf(key)) {
        EXPECT_EQ(CHashTable_Exists(&bucket.table, other.c_str()), 1u);
    }
    EXPECT_EQ(CHashTable_Exists(&bucket.table, key.c_str()), 1u);
    EXPECT_EQ(takeReports(), Reports{});
}

TEST_P(CHashTablePaths, OfSetChangeTheValueOfTheirKeyOnly)
{
    OneBucket bucket;
    const std::string key = keyOf(GetParam());
    const std::vector<std::string> neighbours = neighboursOf(key);
    ASSERT_EQ(CHashTable_Set(&bucket.table, key.c_str(), 1), GCL_OK);
    for (const std::string& other : neighbours) {
        ASSERT_EQ(CHashTable_Set(&bucket.table, other.c_str(), 1), GCL_OK);
    }
    EXPECT_EQ(CHashTable_Set(&bucket.table, key.c_str(), 2), GCL_OK);
    EXPECT_EQ(CHashTable_Count(&bucket.table), neighbours.size() + 1);
    unsigned long value = 0;
    for (const std::string& other : neighbours) {
        EXPECT_EQ(CHashTable_Get(&bucket.table, other.c_str(), &value), GCL_OK);
        EXPECT_EQ(value, 1u);
    }
    EXPECT_EQ(CHashTable_Get(&bucket.table, key.c_str(), &value), GCL_OK);
    EXPECT_EQ(value, 2u);
    EXPECT_EQ(takeReports(), Reports{});
}

TEST_P(CHashTablePaths, OfUnsetTakeTheirKeyOnly)
{
    OneBucket bucket;
    const std::string key = keyOf(GetParam());
    const std::vector<std::string> neighbours = neighboursOf(key);
    for (const std::string& other : neighbours) {
        ASSERT_EQ(CHashTable_Set(&bucket.table, other.c_str(), 1), GCL_OK);
    }
    const Reports notFound = {
        gclReport("CHashTable", "CHashTable_Unset", "Pair not found", 0x8013)};
    unsigned long value = 5;
    EXPECT_EQ(CHashTable_Unset(&bucket.table, key.c_str(), &value), GCL_PAIR_NOT_FOUND);
    EXPECT_EQ(takeReports(), notFound);
    ASSERT_EQ(CHashTable_Set(&bucket.table, key.c_str(), 2), GCL_OK);
    EXPECT_EQ(CHashTable_Unset(&bucket.table, key.c_str(), &value), GCL_OK);
    EXPECT_EQ(value, 2u);
    EXPECT_EQ(CHashTable_Unset(&bucket.table, key.c_str(), &value), GCL_PAIR_NOT_FOUND);
    EXPECT_EQ(takeReports(), notFound);
    for (const std::string& other : neighbours) {
        EXPECT_EQ(CHashTable_Unset(&bucket.table, other.c_str(), &value), GCL_OK) << other;
        EXPECT_EQ(value, 1u);
    }
    EXPECT_EQ(CHashTable_Count(&bucket.table), 0u);
    EXPECT_EQ(takeReports(), Reports{});
}

// Counts that are powers of two, which need no division, and others.
TEST(CHashTablePathsToABucket, AreThoseOfEveryOperationForEveryCount)
{
    for (const uint32_t buckets : {1u, 3u, 16u, 100u}) {
        OneBucket several(buckets);
        unsigned long value = 0;
        EXPECT_EQ(CHashTable_Set(&several.table, "key", 4), GCL_OK);
        EXPECT_EQ(CHashTable_Exists(&several.table, "key"), 1u);
        EXPECT_EQ(CHashTable_Get(&several.table, "key", &value), GCL_OK);
        EXPECT_EQ(value, 4u);
        EXPECT_EQ(CHashTable_Unset(&several.table, "key", &value), GCL_OK);
        EXPECT_EQ(CHashTable_Exists(&several.table, "key"), 0u);
    }
}

TEST(CHashTablePathsToABucket, EndInASignalWhereThereIsNone)
{
    OneBucket none(0);
    unsigned long value = 5;
    EXPECT_TRUE(gcltest::raises(SIGFPE, [&] { CHashTable_Get(&none.table, "key", &value); }));
    EXPECT_TRUE(gcltest::raises(SIGFPE, [&] { CHashTable_Exists(&none.table, "key"); }));
    EXPECT_TRUE(gcltest::raises(SIGFPE, [&] { CHashTable_Set(&none.table, "key", 1); }));
    EXPECT_TRUE(gcltest::raises(SIGFPE, [&] { CHashTable_Unset(&none.table, "key", &value); }));
    EXPECT_EQ(value, 5u);
    EXPECT_EQ(CHashTable_Count(&none.table), 0u);
    EXPECT_EQ(takeReports(), Reports{});
}
