// Sequences of operations on a hash table, beside chains of pairs. The model carries the sharp
// edges: keys of 256 and more characters, values of zero, the count that keeps counting them.
#include <algorithm>
#include <list>
#include <string>
#include <utility>
#include <vector>

#include "Framework/GCL/CHashTable.h"
#include "Framework/GCL/CList.h"
#include "Framework/GCL/ResultCodes.h"
#include "fuzz/support/Reports.h"

namespace {

constexpr unsigned long kUntouched = 4711;
constexpr size_t kKeptOfKey = 255;

using Pair = std::pair<std::string, unsigned long>;

// The hash, one character after the other.
uint32_t djb2(const std::string& key)
{
    uint32_t hash = 5381;
    for (const char character : key) {
        hash = hash * 33 + static_cast<unsigned char>(character);
    }
    return hash;
}

class Comparison {
public:
    explicit Comparison(uint32_t buckets) : chains(buckets)
    {
        CHashTable_Construct(&table, buckets);
    }

    ~Comparison()
    {
        CHashTable_Destruct(&table);
        REQUIRE(CHashTable_Count(&table) == count);
        fuzz::requireSilence();
    }

    void step(FuzzedDataProvider& input)
    {
        const int operation = input.ConsumeIntegralInRange(0, 6);
        const auto value = input.ConsumeIntegralInRange<unsigned long>(0, 3);
        const std::string key = keyFrom(input);
        auto& chain = chains[djb2(key) % chains.size()];
        const auto found = std::find_if(chain.begin(), chain.end(),
                                        [&key](const Pair& pair) { return pair.first == key; });
        const bool present = found != chain.end();
        unsigned long out = kUntouched;
        switch (operation) {
        case 0:
        case 1:
            REQUIRE(CHashTable_Set(&table, key.c_str(), value) == GCL_OK);
            if (present) {
                found->second = value;
            } else {
                chain.emplace_front(key.substr(0, kKeptOfKey), value);
                ++count;
            }
            break;
        case 2: {
            const bool counts = present && found->second != 0;
            const unsigned long old = present ? found->second : 0;
            if (present) {
                chain.erase(found);
            }
            REQUIRE(CHashTable_Unset(&table, key.c_str(), &out) ==
                    (counts ? GCL_OK : GCL_PAIR_NOT_FOUND));
            REQUIRE(out == (counts ? old : kUntouched));
            if (counts) {
                --count;
            } else {
                fuzz::requireReport(GCL_PAIR_NOT_FOUND);
            }
            break;
        }
        case 3:
            REQUIRE(CHashTable_Get(&table, key.c_str(), &out) ==
                    (present ? GCL_OK : GCL_PAIR_NOT_FOUND));
            REQUIRE(out == (present ? found->second : kUntouched));
            break;
        case 4:
            REQUIRE(CHashTable_Exists(&table, key.c_str()) == (present ? 1u : 0u));
            break;
        case 5:
            checkValues();
            break;
        default:
            refusals();
            break;
        }
        fuzz::requireSilence();
        REQUIRE(CHashTable_Count(&table) == count);
    }

private:
    // Keys of all lengths: a few bytes of the input, repeated, so that long ones meet each other.
    static std::string keyFrom(FuzzedDataProvider& input)
    {
        std::string part = input.ConsumeRandomLengthString(24);
        part.erase(std::remove(part.begin(), part.end(), '\0'), part.end());
        const auto length = input.ConsumeIntegralInRange<size_t>(0, 300);
        if (part.empty() || length <= part.size()) {
            return part;
        }
        std::string key;
        while (key.size() < length) {
            key += part;
        }
        return key.substr(0, length);
    }

    void checkValues() const
    {
        std::vector<unsigned long> expected;
        for (size_t i = 0; i < chains.size(); ++i) {
            REQUIRE(table.pBuckets[i].uiCount == chains[i].size());
            for (const Pair& pair : chains[i]) {
                expected.push_back(pair.second);
            }
        }
        std::reverse(expected.begin(), expected.end());
        CList list;
        REQUIRE(CHashTable_ToList(&table, &list) == GCL_OK);
        REQUIRE(list.uiSize == expected.size());
        const CListNode* node = list.pHead;
        for (const unsigned long value : expected) {
            REQUIRE(node->ulItem == value);
            node = node->pNext;
        }
        CList_Destruct(&list);
    }

    void refusals()
    {
        unsigned long out = kUntouched;
        REQUIRE(CHashTable_Get(&table, nullptr, &out) == GCL_INVALID_HASH_KEY);
        fuzz::requireReport(GCL_INVALID_HASH_KEY);
        REQUIRE(CHashTable_Set(nullptr, "key", 1) == GCL_INVALID_HASH_TABLE);
        fuzz::requireReport(GCL_INVALID_HASH_TABLE);
        REQUIRE(CHashTable_Unset(&table, nullptr, &out) == GCL_INVALID_HASH_KEY);
        fuzz::requireReport(GCL_INVALID_HASH_KEY);
        REQUIRE(out == kUntouched);
    }

    CHashTable table;
    std::vector<std::list<Pair>> chains; // of each bucket, newest pair first
    uint32_t count = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    Comparison comparison(input.ConsumeIntegralInRange<uint32_t>(1, 9));
    for (int steps = 0; steps < 200 && input.remaining_bytes() > 0; ++steps) {
        comparison.step(input);
    }
    return 0;
}
