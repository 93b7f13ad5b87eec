#include "Framework/GCL/CHashTable.h"

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <list>
#include <new>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "Framework/GCL/ResultCodes.h"
#include "Framework/GCL/testing/FaultInjection.h"
#include "Framework/GCL/testing/TraceCapture.h"
#include "tests/support/SignalJump.h"
#include "tests/support/Suppression.h"

using gcltest::Count;
using gcltest::expectReports;
using gcltest::Failure;
using gcltest::Fault;
using gcltest::Frees;
using gcltest::gclReport;
using gcltest::Hook;
using gcltest::Report;
using gcltest::takeReports;
namespace calls = gcltest::calls;

namespace {

using Reports = std::vector<Report>;
using Values = std::vector<unsigned long>;
using Memory = std::vector<const void*>;

// Suites with failures; their cases that fail nothing are plain ones.
class CHashTableOperations : public gcltest::ReportsOrNot {};
class CHashTableKeys : public gcltest::ReportsOrNot {};
class CHashTableBucketCount : public gcltest::ReportsOrNot {};
class CHashTableUnset : public gcltest::ReportsOrNot {};

GCLTEST_WITH_AND_WITHOUT_REPORTS(CHashTableOperations);
GCLTEST_WITH_AND_WITHOUT_REPORTS(CHashTableKeys);
GCLTEST_WITH_AND_WITHOUT_REPORTS(CHashTableBucketCount);
GCLTEST_WITH_AND_WITHOUT_REPORTS(CHashTableUnset);

void expectSilence()
{
    EXPECT_EQ(takeReports(), Reports{});
}

Report invalidTable(const std::string& operation)
{
    return gclReport("CHashTable", "CHashTable_" + operation, "Invalid hash table", 0x8010);
}

Report invalidKey(const std::string& operation)
{
    return gclReport("CHashTable", "CHashTable_" + operation, "Invalid hash key", 0x8011);
}

const Report kNotFound = gclReport("CHashTable", "CHashTable_Unset", "Pair not found", 0x8013);

// A table that ends with the test.
class OwnedTable {
public:
    explicit OwnedTable(uint32_t buckets) { CHashTable_Construct(&table, buckets); }
    ~OwnedTable() { CHashTable_Destruct(&table); }
    OwnedTable(const OwnedTable&) = delete;
    OwnedTable& operator=(const OwnedTable&) = delete;
    CHashTable* operator&() { return &table; }
    CHashTable* operator->() { return &table; }
    CHashTable table;
};

// The hash as its definition has it, byte by byte.
uint32_t djb2(const std::string& key)
{
    uint32_t hash = 5381;
    for (const char character : key) {
        hash = (hash << 5) + hash + static_cast<unsigned char>(character);
    }
    return hash;
}

// The bucket that holds a stored pair, found by looking into all of them.
uint32_t bucketWith(const CHashTable& table, const std::string& storedKey)
{
    for (uint32_t i = 0; i < table.uiBucketCount; ++i) {
        for (const CHashTablePair* pair = table.pBuckets[i].pFirst; pair != nullptr;
             pair = pair->pNext) {
            if (storedKey == pair->szKey) {
                return i;
            }
        }
    }
    return UINT32_MAX;
}

Values takeValues(const CHashTable& table)
{
    CList list;
    EXPECT_EQ(CHashTable_ToList(&table, &list), GCL_OK);
    Values values;
    for (const CListNode* node = list.pHead; node != nullptr; node = node->pNext) {
        values.push_back(node->ulItem);
    }
    EXPECT_EQ(list.uiSize, values.size());
    CList_Destruct(&list);
    return values;
}

} // namespace

TEST(CHashTableLayout, HasTheFieldsInOrder)
{
    EXPECT_EQ(offsetof(CHashTablePair, szKey), 0u);
    EXPECT_EQ(offsetof(CHashTablePair, ulValue), 256u);
    EXPECT_EQ(offsetof(CHashTablePair, pNext), 256 + sizeof(void*));
    EXPECT_EQ(sizeof(CHashTablePair), 256 + 2 * sizeof(void*));
    EXPECT_EQ(offsetof(CHashTableBucket, uiCount), 0u);
    EXPECT_EQ(offsetof(CHashTableBucket, pFirst), sizeof(void*));
    EXPECT_EQ(sizeof(CHashTableBucket), 2 * sizeof(void*));
    EXPECT_EQ(offsetof(CHashTable, uiBucketCount), 0u);
    EXPECT_EQ(offsetof(CHashTable, uiCount), 4u);
    EXPECT_EQ(offsetof(CHashTable, pBuckets), 8u);
    EXPECT_EQ(sizeof(CHashTable), 8 + sizeof(void*));
    EXPECT_EQ(sizeof(CHashTablePair::ulValue), sizeof(void*));
}

TEST(CHashTableConstruct, MakesEmptyBuckets)
{
    CHashTable table;
    std::memset(&table, 0xA5, sizeof table);
    std::vector<size_t> sizes;
    {
        const Hook hook(calls::newArray, [&sizes](size_t size) {
            sizes.push_back(size);
            void* const memory = calls::newArray.real(size);
            std::memset(memory, 0xA5, size);
            return memory;
        });
        CHashTable_Construct(&table, 7);
    }
    EXPECT_EQ(sizes, std::vector<size_t>{7 * sizeof(CHashTableBucket)});
    EXPECT_EQ(table.uiBucketCount, 7u);
    EXPECT_EQ(table.uiCount, 0u);
    for (int i = 0; i < 7; ++i) {
        EXPECT_EQ(table.pBuckets[i].uiCount, 0u);
        EXPECT_EQ(table.pBuckets[i].pFirst, nullptr);
    }
    EXPECT_EQ(CHashTable_Count(&table), 0u);
    CHashTable_Destruct(&table);
    expectSilence();
}

TEST(CHashTableConstruct, PassesAnAllocationFailureOnAndLeavesATableOfNoBuckets)
{
    CHashTable table;
    std::memset(&table, 0xA5, sizeof table);
    {
        const Fault fault(calls::newArray, {0, 0});
        EXPECT_THROW(CHashTable_Construct(&table, 7), std::bad_alloc);
        EXPECT_EQ(fault.failures(), 1u);
    }
    EXPECT_EQ(table.uiBucketCount, 0u);
    EXPECT_EQ(CHashTable_Count(&table), 0u);
    EXPECT_EQ(takeValues(table), Values{});
    CHashTable_Destruct(&table);
    expectSilence();
}

TEST_P(CHashTableOperations, ReportANullTable)
{
    unsigned long value = 77;
    CHashTable_Construct(nullptr, 3);
    expectReports(Reports{invalidTable("Construct")});
    CHashTable_Destruct(nullptr);
    expectReports(Reports{invalidTable("Destruct")});
    EXPECT_EQ(CHashTable_Count(nullptr), 0u);
    expectReports(Reports{invalidTable("Count")});
    for (const char* key : {"key", static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(CHashTable_Get(nullptr, key, &value), 0x8010u);
        expectReports(Reports{invalidTable("Get")});
        EXPECT_EQ(CHashTable_Exists(nullptr, key), 0u);
        expectReports(Reports{invalidTable("Exists")});
        EXPECT_EQ(CHashTable_Set(nullptr, key, 1), 0x8010u);
        expectReports(Reports{invalidTable("Set")});
        EXPECT_EQ(CHashTable_Unset(nullptr, key, &value), 0x8010u);
        expectReports(Reports{invalidTable("Unset")});
    }
    EXPECT_EQ(value, 77u);
}

TEST_P(CHashTableOperations, ReportANullKey)
{
    OwnedTable table(3);
    unsigned long value = 77;
    EXPECT_EQ(CHashTable_Get(&table, nullptr, &value), 0x8011u);
    expectReports(Reports{invalidKey("Get")});
    EXPECT_EQ(CHashTable_Exists(&table, nullptr), 0u);
    expectReports(Reports{invalidKey("Exists")});
    EXPECT_EQ(CHashTable_Set(&table, nullptr, 1), 0x8011u);
    expectReports(Reports{invalidKey("Set")});
    EXPECT_EQ(CHashTable_Unset(&table, nullptr, &value), 0x8011u);
    expectReports(Reports{invalidKey("Unset")});
    EXPECT_EQ(value, 77u);
    EXPECT_EQ(CHashTable_Count(&table), 0u);
}

TEST(CHashTableHash, SelectsTheBucketFromTheWholeKey)
{
    // Lengths around the steps of the hash, bytes above 127, and keys longer than what is stored.
    std::vector<std::string> keys = {"", "a", "ab", "abc", "abcd", "abcde", "\xff\x80\xfe"};
    std::mt19937 random(5);
    for (size_t length = 0; length < 40; ++length) {
        std::string key;
        for (size_t i = 0; i < length; ++i) {
            key.push_back(static_cast<char>(1 + random() % 255));
        }
        keys.push_back(key);
    }
    keys.push_back(std::string(255, '\xe4'));
    keys.push_back(std::string(256, 'x'));
    keys.push_back(std::string(300, 'y') + "tail");
    for (size_t length = 256; length < 264; ++length) { // the last bytes count, too
        std::string key(length, 'z');
        key.back() = static_cast<char>('A' + length % 8);
        keys.push_back(key);
    }
    for (const uint32_t buckets : {1u, 2u, 7u, 64u, 1009u, 4096u, 65521u}) {
        for (const std::string& key : keys) {
            SCOPED_TRACE(testing::PrintToString(key) + " in " + std::to_string(buckets));
            OwnedTable table(buckets);
            ASSERT_EQ(CHashTable_Set(&table, key.c_str(), 1), GCL_OK);
            EXPECT_EQ(bucketWith(table.table, key.substr(0, 255)), djb2(key) % buckets);
        }
    }
    EXPECT_EQ(djb2(""), 5381u);
    expectSilence();
}

TEST(CHashTableHash, ReadsNothingOutsideTheKey)
{
    // The key fills the end of a page, then the beginning of one; its neighbours cannot be read.
    const auto pageSize = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void* const pages =
        mmap(nullptr, 3 * pageSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(pages, MAP_FAILED);
    char* const begin = static_cast<char*>(pages) + pageSize;
    char* const end = begin + pageSize;
    ASSERT_EQ(mprotect(pages, pageSize, PROT_NONE), 0);
    ASSERT_EQ(mprotect(end, pageSize, PROT_NONE), 0);
    OwnedTable table(3);
    for (size_t length = 0; length < 300; ++length) {
        for (char* const key : {end - length - 1, begin}) {
            std::memset(key, 'k', length);
            key[length] = '\0';
            unsigned long value = 0;
            EXPECT_EQ(CHashTable_Set(&table, key, length + 1), GCL_OK);
            const bool kept = length < 256;
            EXPECT_EQ(CHashTable_Get(&table, key, &value), kept ? GCL_OK : GCL_PAIR_NOT_FOUND);
            EXPECT_EQ(value, kept ? length + 1 : 0);
            EXPECT_EQ(CHashTable_Exists(&table, key), kept ? 1u : 0u);
        }
    }
    EXPECT_EQ(CHashTable_Count(&table), 256u + 2 * 44u);
    munmap(pages, 3 * pageSize);
}

TEST(CHashTableKeys, AreToldApartByEveryByte)
{
    OwnedTable table(1);
    for (size_t length = 1; length < 256; ++length) {
        std::string key(length, 'k');
        ASSERT_EQ(CHashTable_Set(&table, key.c_str(), length), GCL_OK);
        for (char& character : key) {
            character = 'l';
            EXPECT_EQ(CHashTable_Exists(&table, key.c_str()), 0u) << key;
            character = 'k';
        }
        unsigned long value = 0;
        EXPECT_EQ(CHashTable_Get(&table, key.c_str(), &value), GCL_OK);
        EXPECT_EQ(value, length);
    }
    expectSilence();
}

TEST(CHashTableSet, StoresACopyOfTheKeyFilledUpWithZeros)
{
    OwnedTable table(1);
    char key[] = "name";
    {
        const Hook hook(calls::newArray, [](size_t size) {
            void* const memory = calls::newArray.real(size);
            std::memset(memory, 0xA5, size);
            return memory;
        });
        EXPECT_EQ(CHashTable_Set(&table, key, ~0ul), GCL_OK);
    }
    std::memset(key, 'x', 4);
    const CHashTablePair* const pair = table->pBuckets[0].pFirst;
    ASSERT_NE(pair, nullptr);
    char expected[256] = "name";
    EXPECT_EQ(std::memcmp(pair->szKey, expected, sizeof expected), 0);
    EXPECT_EQ(pair->ulValue, ~0ul);
    EXPECT_EQ(pair->pNext, nullptr);
    EXPECT_EQ(table->pBuckets[0].uiCount, 1u);
    EXPECT_EQ(table->uiCount, 1u);
    unsigned long value = 0;
    EXPECT_EQ(CHashTable_Get(&table, "name", &value), GCL_OK);
    EXPECT_EQ(value, ~0ul);
    expectSilence();
}

TEST(CHashTableSet, TakesTheSizeOfAPair)
{
    OwnedTable table(1);
    std::vector<size_t> sizes;
    const Hook hook(calls::newArray, [&sizes](size_t size) {
        sizes.push_back(size);
        return calls::newArray.real(size);
    });
    ASSERT_EQ(CHashTable_Set(&table, "a", 1), GCL_OK);
    ASSERT_EQ(CHashTable_Set(&table, std::string(300, 'n').c_str(), 1), GCL_OK);
    EXPECT_EQ(sizes, (std::vector<size_t>{sizeof(CHashTablePair), sizeof(CHashTablePair)}));
}

TEST(CHashTableSet, FillsUpKeysOfAnyLengthWithZeros)
{
    const Hook hook(calls::newArray, [](size_t size) {
        void* const memory = calls::newArray.real(size);
        std::memset(memory, 0xA5, size);
        return memory;
    });
    OwnedTable table(1);
    for (size_t length = 0; length < 300; ++length) {
        const std::string key(length, 'n');
        ASSERT_EQ(CHashTable_Set(&table, key.c_str(), 1), GCL_OK);
        char expected[256] = {};
        key.copy(expected, 255);
        ASSERT_EQ(std::memcmp(table->pBuckets[0].pFirst->szKey, expected, sizeof expected), 0)
            << length;
    }
}

TEST(CHashTableSet, OverwritesTheValueOfAKey)
{
    OwnedTable table(2);
    for (const char* key : {"a", "c", "e"}) { // all in one bucket
        ASSERT_EQ(CHashTable_Set(&table, key, 1), GCL_OK);
    }
    const Count arrays(calls::newArray);
    for (const char* key : {"a", "c", "e"}) {
        EXPECT_EQ(CHashTable_Set(&table, key, 9), GCL_OK);
        unsigned long value = 0;
        EXPECT_EQ(CHashTable_Get(&table, key, &value), GCL_OK);
        EXPECT_EQ(value, 9u);
    }
    EXPECT_EQ(arrays.calls(), 0u);
    EXPECT_EQ(CHashTable_Count(&table), 3u);
    EXPECT_EQ(table->pBuckets[djb2("a") % 2].uiCount, 3u);
    expectSilence();
}

TEST(CHashTableSet, LinksNewPairsInFront)
{
    OwnedTable table(1);
    ASSERT_EQ(CHashTable_Set(&table, "a", 1), GCL_OK);
    ASSERT_EQ(CHashTable_Set(&table, "b", 2), GCL_OK);
    const CHashTablePair* const first = table->pBuckets[0].pFirst;
    EXPECT_STREQ(first->szKey, "b");
    EXPECT_STREQ(first->pNext->szKey, "a");
    EXPECT_EQ(first->pNext->pNext, nullptr);
    EXPECT_EQ(table->pBuckets[0].uiCount, 2u);
    EXPECT_EQ(table->uiCount, 2u);
    unsigned long value = 0;
    EXPECT_EQ(CHashTable_Get(&table, "a", &value), GCL_OK);
    EXPECT_EQ(value, 1u);
    EXPECT_EQ(CHashTable_Get(&table, "b", &value), GCL_OK);
    EXPECT_EQ(value, 2u);
}

TEST(CHashTableKeys, OfUpTo255CharactersAreFound)
{
    OwnedTable table(5);
    const std::string longest(255, 'k');
    const std::string other = longest.substr(0, 254) + "l";
    for (const std::string& key : {std::string(), longest, other}) {
        EXPECT_EQ(CHashTable_Exists(&table, key.c_str()), 0u);
        EXPECT_EQ(CHashTable_Set(&table, key.c_str(), key.size() + 1), GCL_OK);
        unsigned long value = 0;
        EXPECT_EQ(CHashTable_Get(&table, key.c_str(), &value), GCL_OK);
        EXPECT_EQ(value, key.size() + 1);
        EXPECT_EQ(CHashTable_Exists(&table, key.c_str()), 1u);
    }
    EXPECT_EQ(CHashTable_Count(&table), 3u);
    expectSilence();
}

TEST_P(CHashTableKeys, Of256CharactersAndMoreAreNeverFoundAgain)
{
    for (const size_t length : {256u, 257u, 1000u}) {
        OwnedTable table(1); // the hash cannot be what hides them
        const std::string key(length, 'k');
        unsigned long value = 77;
        for (uint32_t count = 1; count <= 3; ++count) {
            EXPECT_EQ(CHashTable_Set(&table, key.c_str(), count), GCL_OK);
            EXPECT_EQ(CHashTable_Count(&table), count);
            EXPECT_EQ(CHashTable_Get(&table, key.c_str(), &value), 0x8013u);
            EXPECT_EQ(CHashTable_Exists(&table, key.c_str()), 0u);
        }
        expectSilence();
        EXPECT_EQ(CHashTable_Unset(&table, key.c_str(), &value), 0x8013u);
        expectReports(Reports{kNotFound});
        EXPECT_EQ(value, 77u);
        EXPECT_EQ(CHashTable_Count(&table), 3u);
        EXPECT_EQ(std::string(table->pBuckets[0].pFirst->szKey), key.substr(0, 255));
        EXPECT_EQ(table->pBuckets[0].pFirst->szKey[255], '\0');
    }
}

TEST(CHashTableKeys, ThatWereCutAreFoundByTheirFirst255CharactersInTheSameBucket)
{
    OwnedTable table(1);
    const std::string key(256, 'k');
    const std::string cut = key.substr(0, 255);
    ASSERT_EQ(CHashTable_Set(&table, key.c_str(), 5), GCL_OK);
    unsigned long value = 0;
    EXPECT_EQ(CHashTable_Exists(&table, cut.c_str()), 1u);
    EXPECT_EQ(CHashTable_Get(&table, cut.c_str(), &value), GCL_OK);
    EXPECT_EQ(value, 5u);
    EXPECT_EQ(CHashTable_Set(&table, cut.c_str(), 6), GCL_OK);
    EXPECT_EQ(CHashTable_Count(&table), 1u);
    EXPECT_EQ(CHashTable_Unset(&table, cut.c_str(), &value), GCL_OK);
    EXPECT_EQ(value, 6u);
    EXPECT_EQ(CHashTable_Count(&table), 0u);
    EXPECT_EQ(table->pBuckets[0].pFirst, nullptr);
    expectSilence();
}

// Of several pairs with the same key the newest, which comes first, is found.
TEST(CHashTableKeys, ThatWereCutStandForTheNewestPair)
{
    OwnedTable table(1);
    const std::string key(256, 'k');
    const std::string cut = key.substr(0, 255);
    ASSERT_EQ(CHashTable_Set(&table, key.c_str(), 1), GCL_OK);
    ASSERT_EQ(CHashTable_Set(&table, key.c_str(), 2), GCL_OK);
    ASSERT_EQ(CHashTable_Count(&table), 2u);
    unsigned long value = 0;
    EXPECT_EQ(CHashTable_Get(&table, cut.c_str(), &value), GCL_OK);
    EXPECT_EQ(value, 2u);
    EXPECT_EQ(CHashTable_Set(&table, cut.c_str(), 3), GCL_OK);
    EXPECT_EQ(table->pBuckets[0].pFirst->ulValue, 3u);
    EXPECT_EQ(CHashTable_Unset(&table, cut.c_str(), &value), GCL_OK);
    EXPECT_EQ(value, 3u);
    EXPECT_EQ(CHashTable_Get(&table, cut.c_str(), &value), GCL_OK);
    EXPECT_EQ(value, 1u);
}

TEST(CHashTableGet, NeedsNoPlaceForTheValueOfAnAbsentKey)
{
    OwnedTable table(1);
    EXPECT_EQ(CHashTable_Get(&table, "a", nullptr), 0x8013u);
    expectSilence();
}

TEST(CHashTableGet, IsSilentAboutAnAbsentKey)
{
    OwnedTable table(1);
    unsigned long value = 77;
    EXPECT_EQ(CHashTable_Get(&table, "a", &value), 0x8013u);
    EXPECT_EQ(CHashTable_Exists(&table, "a"), 0u);
    ASSERT_EQ(CHashTable_Set(&table, "ab", 1), GCL_OK);
    ASSERT_EQ(CHashTable_Set(&table, "b", 1), GCL_OK);
    for (const char* key : {"a", "abc", "", "B"}) {
        EXPECT_EQ(CHashTable_Get(&table, key, &value), 0x8013u);
        EXPECT_EQ(CHashTable_Exists(&table, key), 0u);
    }
    EXPECT_EQ(value, 77u);
    expectSilence();
}

TEST_P(CHashTableBucketCount, OfZeroHidesTheChain)
{
    OwnedTable table(1);
    ASSERT_EQ(CHashTable_Set(&table, "a", 1), GCL_OK);
    CHashTablePair* const pair = table->pBuckets[0].pFirst;
    table->pBuckets[0].uiCount = 0;
    unsigned long value = 77;
    EXPECT_EQ(CHashTable_Get(&table, "a", &value), 0x8013u);
    EXPECT_EQ(CHashTable_Exists(&table, "a"), 0u);
    expectSilence();
    EXPECT_EQ(CHashTable_Unset(&table, "a", &value), 0x8013u);
    expectReports(Reports{kNotFound});
    EXPECT_EQ(value, 77u);
    EXPECT_EQ(table->pBuckets[0].pFirst, pair);
    EXPECT_EQ(CHashTable_Set(&table, "a", 2), GCL_OK);
    EXPECT_EQ(table->pBuckets[0].uiCount, 1u);
    EXPECT_EQ(table->uiCount, 2u);
    EXPECT_EQ(table->pBuckets[0].pFirst->pNext, pair);
}

TEST_P(CHashTableBucketCount, WithoutAChainIsReportedByUnsetOnly)
{
    OwnedTable table(1);
    table->pBuckets[0].uiCount = 1;
    unsigned long value = 77;
    EXPECT_EQ(CHashTable_Get(&table, "a", &value), 0x8013u);
    EXPECT_EQ(CHashTable_Exists(&table, "a"), 0u);
    expectSilence();
    EXPECT_EQ(CHashTable_Unset(&table, "a", &value), 0x8013u);
    expectReports((Reports{invalidTable("PairHasKey"), kNotFound}));
    EXPECT_EQ(value, 77u);
    EXPECT_EQ(table->pBuckets[0].uiCount, 1u);
    EXPECT_EQ(CHashTable_Set(&table, "a", 2), GCL_OK);
    EXPECT_EQ(table->pBuckets[0].uiCount, 2u);
    EXPECT_EQ(takeValues(table.table), Values{2}) << "the chain is shorter than the count";
    expectSilence();
}

TEST_P(CHashTableUnset, HandsTheValueBackFromEveryPlaceOfTheChain)
{
    for (const char* removed : {"a", "b", "c"}) {
        SCOPED_TRACE(removed);
        OwnedTable table(1);
        for (const char* key : {"a", "b", "c"}) {
            ASSERT_EQ(CHashTable_Set(&table, key, static_cast<unsigned char>(*key)), GCL_OK);
        }
        unsigned long value = 0;
        const Frees frees;
        EXPECT_EQ(CHashTable_Unset(&table, removed, &value), GCL_OK);
        EXPECT_EQ(frees.memory().size(), 1u);
        EXPECT_EQ(value, static_cast<unsigned char>(*removed));
        EXPECT_EQ(table->pBuckets[0].uiCount, 2u);
        EXPECT_EQ(CHashTable_Count(&table), 2u);
        for (const char* key : {"a", "b", "c"}) {
            EXPECT_EQ(CHashTable_Exists(&table, key), key == std::string(removed) ? 0u : 1u);
        }
        expectSilence();
        value = 77;
        EXPECT_EQ(CHashTable_Unset(&table, removed, &value), 0x8013u);
        expectReports(Reports{kNotFound});
        EXPECT_EQ(value, 77u);
        EXPECT_EQ(CHashTable_Count(&table), 2u);
    }
}

TEST_P(CHashTableUnset, TakesTheOnlyPairAway)
{
    OwnedTable table(1);
    ASSERT_EQ(CHashTable_Set(&table, "a", 5), GCL_OK);
    unsigned long value = 0;
    EXPECT_EQ(CHashTable_Unset(&table, "a", &value), GCL_OK);
    EXPECT_EQ(value, 5u);
    EXPECT_EQ(table->pBuckets[0].pFirst, nullptr);
    EXPECT_EQ(table->pBuckets[0].uiCount, 0u);
    EXPECT_EQ(CHashTable_Count(&table), 0u);
    expectSilence();
    EXPECT_EQ(CHashTable_Unset(&table, "a", &value), 0x8013u);
    expectReports(Reports{kNotFound});
}

TEST_P(CHashTableUnset, TreatsAZeroValueAsAnAbsentPair)
{
    OwnedTable table(1);
    for (const char* key : {"a", "b"}) {
        ASSERT_EQ(CHashTable_Set(&table, key, *key == 'a' ? 0 : 1), GCL_OK);
    }
    unsigned long value = 77;
    {
        const Frees frees;
        const CHashTablePair* const pair = table->pBuckets[0].pFirst->pNext;
        EXPECT_EQ(CHashTable_Unset(&table, "a", &value), 0x8013u);
        EXPECT_EQ(frees.memory(), Memory{pair});
    }
    expectReports(Reports{kNotFound});
    EXPECT_EQ(value, 77u);
    EXPECT_EQ(CHashTable_Exists(&table, "a"), 0u);
    EXPECT_EQ(table->pBuckets[0].uiCount, 1u);
    EXPECT_EQ(CHashTable_Count(&table), 2u) << "the table still counts the pair";
    ASSERT_EQ(CHashTable_Set(&table, "a", 0), GCL_OK);
    EXPECT_EQ(CHashTable_Count(&table), 3u);
    EXPECT_EQ(CHashTable_Unset(&table, "a", nullptr), 0x8013u) << "nothing is written";
    expectReports(Reports{kNotFound});
}

TEST(CHashTableDestruct, FreesTheTableAndKeepsTheCount)
{
    CHashTable table;
    CHashTable_Construct(&table, 2);
    for (const char* key : {"a", "b", "c", "d", "e"}) {
        ASSERT_EQ(CHashTable_Set(&table, key, 1), GCL_OK);
    }
    Memory owned;
    for (int i = 0; i < 2; ++i) {
        for (const CHashTablePair* pair = table.pBuckets[i].pFirst; pair != nullptr;
             pair = pair->pNext) {
            owned.push_back(pair);
        }
    }
    ASSERT_EQ(owned.size(), 5u);
    owned.push_back(table.pBuckets);
    {
        const Frees frees;
        CHashTable_Destruct(&table);
        EXPECT_EQ(frees.memory(), owned);
    }
    EXPECT_EQ(table.uiBucketCount, 0u);
    EXPECT_EQ(table.pBuckets, nullptr);
    EXPECT_EQ(CHashTable_Count(&table), 5u);
    CHashTable_Destruct(&table); // a second time finds nothing to free
    EXPECT_EQ(CHashTable_Count(&table), 5u);
    CHashTable_Construct(&table, 1);
    EXPECT_EQ(CHashTable_Count(&table), 0u);
    EXPECT_EQ(CHashTable_Set(&table, "a", 1), GCL_OK);
    CHashTable_Destruct(&table);
    expectSilence();
}

TEST(CHashTableToList, RefusesNullSilentlyAndWritesNothing)
{
    OwnedTable table(1);
    CListNode node{};
    CList list{&node, &node, 7};
    EXPECT_EQ(CHashTable_ToList(nullptr, &list), 0x8008u);
    EXPECT_EQ(CHashTable_ToList(&table, nullptr), 0x8008u);
    EXPECT_EQ(list.pHead, &node);
    EXPECT_EQ(list.pTail, &node);
    EXPECT_EQ(list.uiSize, 7u);
    expectSilence();
}

TEST(CHashTableToList, ForgetsWhatTheListHeld)
{
    OwnedTable table(3);
    CListNode node{};
    CList list{&node, &node, 7};
    EXPECT_EQ(CHashTable_ToList(&table, &list), GCL_OK);
    EXPECT_EQ(list.pHead, nullptr);
    EXPECT_EQ(list.pTail, nullptr);
    EXPECT_EQ(list.uiSize, 0u);
}

TEST(CHashTableToList, PutsTheValuesOfTheLastBucketFirst)
{
    OwnedTable table(64);
    Values expected;
    for (char letter = 'A'; letter <= 'Z'; ++letter) { // neighbours in neighbouring buckets
        const std::string key(1, letter);
        ASSERT_EQ(CHashTable_Set(&table, key.c_str(), djb2(key) % 64), GCL_OK);
        expected.push_back(djb2(key) % 64);
    }
    std::sort(expected.rbegin(), expected.rend());
    ASSERT_EQ(std::unique(expected.begin(), expected.end()), expected.end());
    EXPECT_EQ(takeValues(table.table), expected);
    expectSilence();
}

TEST(CHashTableToList, TakesFurtherValuesFromTheChain)
{
    OwnedTable table(1);
    for (const char* key : {"a", "b", "c"}) {
        ASSERT_EQ(CHashTable_Set(&table, key, static_cast<unsigned char>(*key)), GCL_OK);
    }
    EXPECT_EQ(takeValues(table.table), (Values{'a', 'b', 'c'}));
    table->pBuckets[0].uiCount = 2; // as many as the bucket counts
    EXPECT_EQ(takeValues(table.table), (Values{'b', 'c'}));
    table->pBuckets[0].uiCount = 0;
    EXPECT_EQ(takeValues(table.table), Values{});
    table->pBuckets[0].uiCount = 9; // the chain ends first
    EXPECT_EQ(takeValues(table.table), (Values{'a', 'b', 'c'}));
    expectSilence();
}

TEST(CHashTableAllocation, TakesOneArrayForEachNewKeyAndNoneForTheRest)
{
    OwnedTable table(2);
    unsigned long value = 0;
    const Count arrays(calls::newArray);
    const Count scalars(calls::newScalar);
    CHashTable_Set(&table, "a", 1);
    EXPECT_EQ(arrays.calls(), 1u);
    CHashTable_Set(&table, "b", 1);
    EXPECT_EQ(arrays.calls(), 2u);
    CHashTable_Set(&table, "a", 2);
    CHashTable_Get(&table, "a", &value);
    CHashTable_Get(&table, "z", &value);
    CHashTable_Exists(&table, "a");
    CHashTable_Count(&table);
    CHashTable_Unset(&table, "a", &value);
    EXPECT_EQ(arrays.calls(), 2u);
    EXPECT_EQ(scalars.calls(), 0u);
}

TEST(CHashTableAllocation, PassesAFailureOnWithTheTableAsItWas)
{
    OwnedTable table(1);
    ASSERT_EQ(CHashTable_Set(&table, "a", 1), GCL_OK);
    const CHashTablePair* const pair = table->pBuckets[0].pFirst;
    {
        const Fault fault(calls::newArray, {0, 0, 1, Failure::kForGood});
        EXPECT_THROW(CHashTable_Set(&table, "b", 2), std::bad_alloc);
        EXPECT_EQ(CHashTable_Set(&table, "a", 3), GCL_OK) << "an overwrite needs no memory";
        EXPECT_EQ(fault.failures(), 1u);
    }
    EXPECT_EQ(table->pBuckets[0].pFirst, pair);
    EXPECT_EQ(table->pBuckets[0].uiCount, 1u);
    EXPECT_EQ(CHashTable_Count(&table), 1u);
    EXPECT_EQ(CHashTable_Exists(&table, "b"), 0u);
}

TEST(CHashTableAllocation, FailingInToListLeavesAnEmptyList)
{
    OwnedTable table(3);
    for (const char* key : {"a", "b", "c"}) {
        ASSERT_EQ(CHashTable_Set(&table, key, 1), GCL_OK);
    }
    for (const unsigned nth : {1u, 2u, 3u}) {
        CListNode node{};
        CList list{&node, &node, 7};
        {
            const Fault fault(calls::newArray, {0, 0, nth});
            const Frees frees;
            EXPECT_THROW(CHashTable_ToList(&table, &list), std::bad_alloc);
            EXPECT_EQ(frees.memory().size(), nth - 1) << "the list's nodes";
        }
        EXPECT_EQ(list.pHead, nullptr);
        EXPECT_EQ(list.pTail, nullptr);
        EXPECT_EQ(list.uiSize, 0u);
    }
    EXPECT_EQ(takeValues(table.table).size(), 3u);
}

TEST(CHashTableNoBuckets, CanBeCountedListedAndDestructed)
{
    OwnedTable table(0);
    EXPECT_EQ(CHashTable_Count(&table), 0u);
    EXPECT_EQ(takeValues(table.table), Values{});
    expectSilence();
}

TEST(CHashTableNoBuckets, CanBeUsedOnWhereAHandlerLeavesTheDivision)
{
    OwnedTable table(0);
    EXPECT_TRUE(gcltest::raises(SIGFPE, [&] { CHashTable_Set(&table, "a", 1); }));
    // Ignored, it ends the process all the same.
    const auto before = std::signal(SIGFPE, SIG_IGN);
    EXPECT_TRUE(gcltest::raises(SIGABRT, [&] { CHashTable_Exists(&table, "a"); }));
    std::signal(SIGFPE, before);
    EXPECT_EQ(CHashTable_Count(&table), 0u);
    expectSilence();
}

TEST(CHashTableNoBucketsDeathTest, DividesByZeroInEveryKeyedOperation)
{
    OwnedTable table(0);
    unsigned long value = 0;
    // A sanitizer's handler would turn the signal into an exit.
    const auto withDefaultSignal = [](const auto& operation) {
        std::signal(SIGFPE, SIG_DFL);
        operation();
    };
    const testing::KilledBySignal divided(SIGFPE);
    EXPECT_EXIT(withDefaultSignal([&] { CHashTable_Get(&table, "a", &value); }), divided, "");
    EXPECT_EXIT(withDefaultSignal([&] { CHashTable_Exists(&table, "a"); }), divided, "");
    EXPECT_EXIT(withDefaultSignal([&] { CHashTable_Set(&table, "a", 1); }), divided, "");
    EXPECT_EXIT(withDefaultSignal([&] { CHashTable_Unset(&table, "a", &value); }), divided, "");
}

TEST(CHashTableNoBucketsDeathTest, GoesNoFurtherWhereTheSignalIsIgnored)
{
    OwnedTable table(0);
    const auto withoutSignal = [&table] {
        std::signal(SIGFPE, SIG_IGN);
        std::signal(SIGABRT, SIG_DFL);
        CHashTable_Exists(&table, "a");
    };
    EXPECT_EXIT(withoutSignal(), testing::KilledBySignal(SIGABRT), "");
}

TEST(CHashTableNoBucketsDeathTest, GoesNoFurtherWhereTheSignalIsBlocked)
{
    OwnedTable table(0);
    const auto withSignalBlocked = [&table] {
        sigset_t divided;
        sigemptyset(&divided);
        sigaddset(&divided, SIGFPE);
        pthread_sigmask(SIG_BLOCK, &divided, nullptr);
        std::signal(SIGFPE, SIG_DFL);
        std::signal(SIGABRT, SIG_DFL);
        CHashTable_Exists(&table, "a");
    };
    EXPECT_EXIT(withSignalBlocked(), testing::KilledBySignal(SIGABRT), "");
}

TEST(CHashTableModel, AgreesWithChainsOfPairsOverRandomOperations)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    for (const uint32_t buckets : {1u, 3u, 8u, 13u}) {
        // Of each pair the model knows the stored key and the value, newest first; a long key's
        // pair is never found.
        OwnedTable table(buckets);
        std::vector<std::list<std::pair<std::string, unsigned long>>> model(buckets);
        uint32_t count = 0;
        for (int step = 0; step < 4000 && !HasFailure(); ++step) {
            std::string key(1, static_cast<char>('a' + random() % 20));
            if (random() % 50 == 0) {
                key += std::string(255, 'x'); // too long by one
            }
            auto& chain = model[djb2(key) % buckets];
            const auto found = std::find_if(chain.begin(), chain.end(),
                                            [&key](const auto& pair) { return pair.first == key; });
            const bool present = found != chain.end();
            const unsigned long value = random() % 4;
            unsigned long out = 77;
            switch (random() % 4) {
            case 0:
                EXPECT_EQ(CHashTable_Set(&table, key.c_str(), value), GCL_OK);
                if (present) {
                    found->second = value;
                } else {
                    chain.emplace_front(key.substr(0, 255), value);
                    ++count;
                }
                break;
            case 1: {
                const bool counts = present && found->second != 0;
                EXPECT_EQ(CHashTable_Unset(&table, key.c_str(), &out),
                          counts ? GCL_OK : GCL_PAIR_NOT_FOUND);
                EXPECT_EQ(takeReports(), counts ? Reports{} : Reports{kNotFound});
                EXPECT_EQ(out, counts ? found->second : 77u);
                count -= counts ? 1 : 0;
                if (present) {
                    chain.erase(found);
                }
                break;
            }
            case 2:
                EXPECT_EQ(CHashTable_Get(&table, key.c_str(), &out),
                          present ? GCL_OK : GCL_PAIR_NOT_FOUND);
                EXPECT_EQ(out, present ? found->second : 77u);
                break;
            default:
                EXPECT_EQ(CHashTable_Exists(&table, key.c_str()), present ? 1u : 0u);
                break;
            }
            EXPECT_EQ(CHashTable_Count(&table), count);
            Values values;
            for (uint32_t i = 0; i < buckets; ++i) {
                EXPECT_EQ(table->pBuckets[i].uiCount, model[i].size());
                for (const auto& pair : model[i]) {
                    values.insert(values.begin(), pair.second);
                }
            }
            EXPECT_EQ(takeValues(table.table), values);
        }
    }
    expectSilence();
}
