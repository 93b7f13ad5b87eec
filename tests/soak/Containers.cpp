// Lists, hash tables, stacks and pools that come, change and go, beside plain models.
#include <array>
#include <cstring>
#include <deque>
#include <map>

#include "Framework/GCL/CHashTable.h"
#include "Framework/GCL/CList.h"
#include "Framework/GCL/CMemoryPool.h"
#include "Framework/GCL/CStack.h"
#include "Framework/GCL/ResultCodes.h"
#include "tests/soak/Soak.h"

namespace soak {
namespace {

Count missingPairs{0};
Count exhaustions{0};

// One thread, and containers that last for some hundred steps.
class ContainerLoad : public Load {
public:
    explicit ContainerLoad(const char* loadName) : Load(Kind::containers, loadName) {}

    void account(Table& table) const override
    {
        table.same(name + ": put in, taken out or freed with it", putIn, takenOut);
    }

protected:
    void beginRound() override
    {
        employ([this](Random& random) {
            while (!over) {
                live(random);
                pauseUs(random.below(3000));
            }
        });
    }

    virtual void live(Random& random) = 0;

    void expect(bool holds, const char* what)
    {
        if (!holds) {
            complain("%s: %s", name.c_str(), what);
        }
    }

    Count putIn{0};
    Count takenOut{0};
};

class ListLoad : public ContainerLoad {
public:
    ListLoad() : ContainerLoad("list") {}

protected:
    void live(Random& random) override
    {
        CList list;
        CList_Construct(&list);
        std::deque<unsigned long> model;
        for (unsigned i = 0; i < 400; ++i) {
            step(list, model, random);
            expect(CList_CurrentSize(&list) == model.size(), "a wrong size");
            ++steps;
        }
        compare(list, model);
        takenOut += model.size();
        CList_Destruct(&list);
    }

private:
    void step(CList& list, std::deque<unsigned long>& model, Random& random)
    {
        const unsigned long item = random.below(50);
        unsigned long found = 0;
        switch (random.below(8)) {
        case 0:
            expect(CList_PushHead(&list, item) == GCL_OK, "no push at the head");
            model.push_front(item);
            ++putIn;
            break;
        case 1:
        case 2:
            expect(CList_PushTail(&list, item) == GCL_OK, "no push at the tail");
            model.push_back(item);
            ++putIn;
            break;
        case 3:
            expect(CList_PopHead(&list, &found) == (model.empty() ? GCL_LIST_EMPTY : GCL_OK),
                   "a wrong result of a pop at the head");
            if (!model.empty()) {
                expect(found == model.front(), "a wrong head");
                model.pop_front();
                ++takenOut;
            }
            break;
        case 4:
            expect(CList_PopTail(&list, &found) == (model.empty() ? GCL_LIST_EMPTY : GCL_OK),
                   "a wrong result of a pop at the tail");
            if (!model.empty()) {
                expect(found == model.back(), "a wrong tail");
                model.pop_back();
                ++takenOut;
            }
            break;
        case 5:
            if (random.oneIn(8)) {
                removeAll(list, model, item);
            }
            break;
        default:
            if (model.size() > 1) {
                changeInside(list, model, item,
                             1 + random.below(static_cast<unsigned>(model.size()) - 1));
            }
            break;
        }
    }

    void removeAll(CList& list, std::deque<unsigned long>& model, unsigned long item)
    {
        const size_t before = model.size();
        for (auto it = model.begin(); it != model.end();) {
            it = *it == item ? model.erase(it) : it + 1;
        }
        const bool removed = model.size() != before;
        expect(CList_Remove(&list, item) == (removed ? GCL_OK : GCL_ITEM_NOT_FOUND),
               "a wrong result of a removal");
        takenOut += before - model.size();
    }

    // Not at the ends, where these operations leave the list in need of mending.
    void changeInside(CList& list, std::deque<unsigned long>& model, unsigned long item,
                      unsigned index)
    {
        unsigned long found = 0;
        expect(CList_GetAt(&list, index, &found) == GCL_OK && found == model[index],
               "a wrong item in the middle");
        expect(CList_InsertAt(&list, index, item) == GCL_OK, "no insertion");
        model.insert(model.begin() + index, item);
        ++putIn;
        expect(CList_RemoveAt(&list, index - 1) == GCL_OK, "no removal by index");
        model.erase(model.begin() + index - 1);
        ++takenOut;
    }

    void compare(const CList& list, const std::deque<unsigned long>& model)
    {
        CListNode* position = nullptr;
        if (CList_StartIterationFromHead(&list, &position) != GCL_OK) {
            expect(model.empty(), "no first item");
            return;
        }
        for (const unsigned long item : model) {
            unsigned long found = 0;
            expect(!GCL_IS_FAILURE(CList_GetNext(&list, &found, &position)) && found == item,
                   "a wrong item on the way");
        }
        expect(position == nullptr, "more items than were put in");
    }
};

class HashTableLoad : public ContainerLoad {
public:
    HashTableLoad() : ContainerLoad("hash table") {}

protected:
    void live(Random& random) override
    {
        CHashTable table;
        CHashTable_Construct(&table, 1 + random.below(40));
        std::map<unsigned, unsigned long> model;
        for (unsigned i = 0; i < 400; ++i) {
            step(table, model, random);
            expect(CHashTable_Count(&table) == model.size(), "a wrong count");
            ++steps;
        }
        compareList(table, model);
        takenOut += model.size();
        CHashTable_Destruct(&table);
    }

private:
    void step(CHashTable& table, std::map<unsigned, unsigned long>& model, Random& random)
    {
        const unsigned number = random.below(100);
        const std::string key = "key " + std::to_string(number);
        const auto known = model.find(number);
        const uint32_t expected = known == model.end() ? GCL_PAIR_NOT_FOUND : GCL_OK;
        unsigned long value = 0;
        switch (random.below(4)) {
        case 0:
        case 1:
            value = 1 + random.below(1000);
            expect(CHashTable_Set(&table, key.c_str(), value) == GCL_OK, "a value was not set");
            putIn += known == model.end() ? 1 : 0;
            model[number] = value;
            break;
        case 2:
            expect(CHashTable_Exists(&table, key.c_str()) == (known == model.end() ? 0 : 1),
                   "a wrong answer about a key");
            expect(CHashTable_Get(&table, key.c_str(), &value) == expected,
                   "a wrong result of a get");
            expect(known == model.end() || value == known->second, "a wrong value");
            break;
        default:
            expect(CHashTable_Unset(&table, key.c_str(), &value) == expected,
                   "a wrong result of an unset");
            if (known == model.end()) {
                ++missingPairs;
            } else {
                expect(value == known->second, "a wrong value was unset");
                model.erase(known);
                ++takenOut;
            }
            break;
        }
    }

    void compareList(const CHashTable& table, const std::map<unsigned, unsigned long>& model)
    {
        CList list;
        expect(CHashTable_ToList(&table, &list) == GCL_OK, "no list");
        unsigned long sum = 0;
        for (const auto& pair : model) {
            sum += pair.second;
        }
        unsigned long listed = 0;
        unsigned long item = 0;
        while (CList_PopHead(&list, &item) == GCL_OK) {
            listed += item;
        }
        expect(listed == sum, "a list of other values");
        CList_Destruct(&list);
    }
};

class PoolLoad : public ContainerLoad {
public:
    PoolLoad() : ContainerLoad("pool and stack") {}

protected:
    // The blocks in use lie on a stack of this load, which knows what stands in them.
    void live(Random& random) override
    {
        const unsigned blocks = 1 + random.below(60);
        CMemoryPool pool;
        CMemoryPool_Construct(&pool, kBlockSize, blocks);
        CStack inUse;
        CStack_Construct(&inUse, blocks);
        for (unsigned i = 0; i < 400; ++i) {
            const uint32_t used = CStack_GetCurrentSize(&inUse);
            if (random.below(blocks) >= used || random.oneIn(8)) {
                take(pool, inUse, used, blocks, random);
            } else {
                giveBack(pool, inUse, used);
            }
            ++steps;
        }
        while (CStack_IsEmpty(&inUse) == 0) {
            giveBack(pool, inUse, CStack_GetCurrentSize(&inUse));
        }
        expectFree(pool, blocks);
        CStack_Destruct(&inUse);
        CMemoryPool_Destruct(&pool);
    }

private:
    static constexpr uint32_t kBlockSize = 48;
    using Block = std::array<uint64_t, kBlockSize / sizeof(uint64_t)>;

    static Block contentOf(uint32_t place)
    {
        Block block{};
        for (size_t i = 0; i < block.size(); ++i) {
            block[i] = mixed(place, i);
        }
        return block;
    }

    void expectFree(const CMemoryPool& pool, uint32_t expected)
    {
        uint32_t size = 0;
        uint32_t blocks = 0;
        uint32_t free = 0;
        expect(CMemoryPool_Statistics(&pool, &size, &blocks, &free) == GCL_OK && free == expected &&
                   size == kBlockSize,
               "a wrong number of free blocks");
    }

    void take(CMemoryPool& pool, CStack& inUse, uint32_t used, unsigned blocks, Random& random)
    {
        void* block = nullptr;
        const uint32_t code = CMemoryPool_Malloc(&pool, 1 + random.below(kBlockSize), &block);
        if (used == blocks) {
            expect(code == GCL_POOL_EXHAUSTED && block == nullptr, "a block from an empty pool");
            expect(CStack_Push(&inUse, &pool) == GCL_STACK_FULL, "room on a full stack");
            ++exhaustions;
            return;
        }
        expect(code == GCL_OK && block != nullptr, "no block");
        if (block == nullptr) {
            return;
        }
        const Block content = contentOf(used);
        std::memcpy(block, content.data(), kBlockSize);
        expect(CStack_Push(&inUse, block) == GCL_OK, "no room on the stack");
        ++putIn;
        expectFree(pool, blocks - used - 1);
    }

    void giveBack(CMemoryPool& pool, CStack& inUse, uint32_t used)
    {
        void* block = nullptr;
        if (CStack_Pop(&inUse, &block) != GCL_OK) {
            expect(used == 0, "nothing on a stack that holds something");
            return;
        }
        const Block content = contentOf(used - 1);
        expect(std::memcmp(block, content.data(), kBlockSize) == 0,
               "a block was written by somebody else");
        expect(CMemoryPool_Free(&pool, block) == GCL_OK, "a block was not taken back");
        ++takenOut;
    }
};

} // namespace

void addContainers(Loads& loads, Expectations& expectations)
{
    expectations.expect("KIV.GCL", "Pair not found", &missingPairs);
    expectations.expect("KIV.GCL", "Not possible to get memory block from pool!", &exhaustions);
    loads.push_back(std::make_unique<ListLoad>());
    loads.push_back(std::make_unique<HashTableLoad>());
    loads.push_back(std::make_unique<PoolLoad>());
}

} // namespace soak
