#include "Framework/GCL/cxx/HashTable.h"

#include <gtest/gtest.h>

#include <new>
#include <string>
#include <system_error>
#include <type_traits>
#include <vector>

#include "Framework/GCL/testing/FaultInjection.h"
#include "Framework/GCL/testing/TraceCapture.h"

using gcl::HashTable;
using gcltest::Count;
using gcltest::Fault;
using gcltest::gclReport;
using gcltest::Report;
using gcltest::takeReports;
namespace calls = gcltest::calls;

namespace {

std::vector<int> valuesOf(const HashTable<int>& table)
{
    std::vector<int> values;
    for (const int value : table.toList()) {
        values.push_back(value);
    }
    return values;
}

void expectReport(const char* function, const char* text, uint32_t code)
{
    EXPECT_EQ(takeReports(), std::vector<Report>{gclReport("CHashTable", function, text, code)});
}

} // namespace

TEST(HashTableProperties, MovesOnlyAndThrowsNothingInMoves)
{
    static_assert(!std::is_copy_constructible_v<HashTable<int>>);
    static_assert(!std::is_copy_assignable_v<HashTable<int>>);
    static_assert(std::is_nothrow_move_constructible_v<HashTable<int>>);
    static_assert(std::is_nothrow_move_assignable_v<HashTable<int>>);
    static_assert(!std::is_convertible_v<size_t, HashTable<int>>);
    static_assert(sizeof(HashTable<int>) == sizeof(CHashTable));
}

TEST(HashTableConstruct, MakesAnEmptyTableInPlaceOfTheFormer)
{
    HashTable<int> table(2);
    EXPECT_EQ(table.native().uiBucketCount, 2u);
    ASSERT_EQ(table.set("a", 1), GCL_OK);
    const gcltest::Frees frees;
    ASSERT_EQ(table.construct(8), GCL_OK);
    EXPECT_EQ(frees.memory().size(), 2u) << "a pair and the buckets";
    EXPECT_EQ(table.native().uiBucketCount, 8u);
    EXPECT_EQ(table.count(), 0u);
    EXPECT_FALSE(table.exists("a"));
}

TEST(HashTableConstruct, RefusesCountsThatItCannotHave)
{
    HashTable<int> table(2);
    ASSERT_EQ(table.set("a", 1), GCL_OK);
    EXPECT_EQ(table.construct(0), GCL_INVALID_ARGUMENT);
    if constexpr (sizeof(size_t) > 4) {
        EXPECT_EQ(table.construct((size_t{1} << 32) + 1), GCL_INVALID_ARGUMENT);
    }
    EXPECT_TRUE(table.exists("a"));
    try {
        const HashTable<int> none(0);
        FAIL() << "nothing was thrown";
    } catch (const std::system_error& failure) {
        EXPECT_EQ(failure.code(), GCL_INVALID_ARGUMENT);
    }
    EXPECT_EQ(takeReports(), std::vector<Report>{});
}

TEST(HashTableConstruct, LetsAnAllocationFailurePass)
{
    {
        const Fault fault(calls::newArray, {0, 0});
        EXPECT_THROW(HashTable<int>(4), std::bad_alloc);
    }
    HashTable<int> table(4);
    ASSERT_EQ(table.set("a", 1), GCL_OK);
    {
        const Fault fault(calls::newArray, {0, 0});
        EXPECT_THROW(static_cast<void>(table.construct(8)), std::bad_alloc);
    }
    EXPECT_EQ(table.native().uiBucketCount, 0u);
    EXPECT_TRUE(table.toList().isEmpty());
    ASSERT_EQ(table.construct(8), GCL_OK);
    const Fault fault(calls::newArray, {0, 0});
    EXPECT_THROW(static_cast<void>(table.set("a", 1)), std::bad_alloc);
    EXPECT_EQ(table.count(), 0u);
}

TEST(HashTableMove, HandsThePairsOnAndLeavesATableWithoutBuckets)
{
    HashTable<int> from(4);
    ASSERT_EQ(from.set("a", -1), GCL_OK);
    HashTable<int> to(std::move(from));
    int value = 0;
    EXPECT_EQ(to.get("a", value), GCL_OK);
    EXPECT_EQ(value, -1);
    // NOLINTBEGIN(bugprone-use-after-move): that is what the test is about
    EXPECT_EQ(from.count(), 0u);
    EXPECT_EQ(from.native().uiBucketCount, 0u);
    EXPECT_TRUE(from.toList().isEmpty());
    from = HashTable<int>(1);
    ASSERT_EQ(from.set("b", 2), GCL_OK);
    to = std::move(from);
    EXPECT_FALSE(to.exists("a"));
    EXPECT_TRUE(to.exists("b"));
    ASSERT_EQ(from.construct(3), GCL_OK);
    // NOLINTEND(bugprone-use-after-move)
    HashTable<int>& same = to;
    to = std::move(same);
    EXPECT_TRUE(to.exists("b"));
}

TEST(HashTableDestruct, LeavesATableWithoutBuckets)
{
    HashTable<int> table(4);
    ASSERT_EQ(table.set("a", 1), GCL_OK);
    table.destruct();
    EXPECT_EQ(table.count(), 1u); // as the plain function has it
    EXPECT_TRUE(table.toList().isEmpty());
    table.destruct();
    ASSERT_EQ(table.construct(2), GCL_OK);
    EXPECT_EQ(table.count(), 0u);
}

TEST(HashTableSet, StoresOverwritesAndReads)
{
    HashTable<int> table(2);
    int value = 77;
    ASSERT_EQ(table.set("a", -5), GCL_OK);
    ASSERT_EQ(table.set("a", -6), GCL_OK);
    ASSERT_EQ(table.set("", 3), GCL_OK);
    EXPECT_EQ(table.count(), 2u);
    EXPECT_EQ(table.get("a", value), GCL_OK);
    EXPECT_EQ(value, -6);
    EXPECT_TRUE(table.exists(""));
    EXPECT_FALSE(table.exists("b"));
    EXPECT_EQ(table.get("b", value), GCL_PAIR_NOT_FOUND);
    EXPECT_EQ(value, -6);
    EXPECT_EQ(takeReports(), std::vector<Report>{});
}

TEST(HashTableSet, RefusesANullKey)
{
    HashTable<int> table(2);
    int value = 77;
    EXPECT_EQ(table.set(nullptr, 1), GCL_INVALID_HASH_KEY);
    expectReport("CHashTable_Set", "Invalid hash key", 0x8011);
    EXPECT_EQ(table.get(nullptr, value), GCL_INVALID_HASH_KEY);
    expectReport("CHashTable_Get", "Invalid hash key", 0x8011);
    EXPECT_EQ(table.unset(nullptr, value), GCL_INVALID_HASH_KEY);
    expectReport("CHashTable_Unset", "Invalid hash key", 0x8011);
    EXPECT_FALSE(table.exists(nullptr));
    expectReport("CHashTable_Exists", "Invalid hash key", 0x8011);
    EXPECT_EQ(value, 77);
}

TEST(HashTableUnset, RemovesAndStoresTheValue)
{
    HashTable<int> table(2);
    int value = 77;
    ASSERT_EQ(table.set("a", -5), GCL_OK);
    EXPECT_EQ(table.unset("a", value), GCL_OK);
    EXPECT_EQ(value, -5);
    EXPECT_EQ(table.count(), 0u);
    EXPECT_EQ(table.unset("a", value), GCL_PAIR_NOT_FOUND);
    EXPECT_EQ(value, -5);
    expectReport("CHashTable_Unset", "Pair not found", 0x8013);
}

// As in the plain interface: a value of zeros counts as absent, but its pair goes.
TEST(HashTableUnset, TakesAValueOfZeroForAbsent)
{
    HashTable<int> table(2);
    int value = 77;
    ASSERT_EQ(table.set("a", 0), GCL_OK);
    EXPECT_EQ(table.unset("a", value), GCL_PAIR_NOT_FOUND);
    EXPECT_EQ(value, 77);
    EXPECT_FALSE(table.exists("a"));
    EXPECT_EQ(table.count(), 1u);
    expectReport("CHashTable_Unset", "Pair not found", 0x8013);
}

TEST(HashTableToList, YieldsTheValuesAsAListOfItsOwn)
{
    HashTable<int> table(1);
    EXPECT_EQ(valuesOf(table), std::vector<int>{});
    for (const int value : {1, 2, 3}) {
        ASSERT_EQ(table.set(std::to_string(value).c_str(), value), GCL_OK);
    }
    EXPECT_EQ(valuesOf(table), (std::vector<int>{1, 2, 3}));
    gcl::List<int> values = table.toList();
    values = table.toList();
    EXPECT_EQ(values.currentSize(), 3u);
    EXPECT_EQ(table.count(), 3u);
}

TEST(HashTableToList, LetsAnAllocationFailurePass)
{
    HashTable<int> table(1);
    ASSERT_EQ(table.set("a", 1), GCL_OK);
    ASSERT_EQ(table.set("b", 2), GCL_OK);
    const Fault fault(calls::newArray, {0, 0, 2});
    EXPECT_THROW(table.toList(), std::bad_alloc);
    EXPECT_EQ(table.count(), 2u);
}

TEST(HashTableNative, IsTheTableOfThePlainFunctions)
{
    HashTable<const char*> table(2);
    const char* const text = "text";
    ASSERT_EQ(CHashTable_Set(&table.native(), "k", reinterpret_cast<unsigned long>(text)), GCL_OK);
    const char* value = nullptr;
    EXPECT_EQ(table.get("k", value), GCL_OK);
    EXPECT_EQ(value, text);
    const HashTable<const char*>& constant = table;
    EXPECT_EQ(&constant.native(), &table.native());
}
