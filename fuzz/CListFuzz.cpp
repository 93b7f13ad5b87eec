// Sequences of operations on a list, beside a model of its nodes and links. The model carries the
// list's sharp edges: rings, a pTail that lags behind or names a freed node, a size that counts
// nodes which are lost. Calls whose outcome is the caller's error are left out.
#include <deque>

#include "Framework/GCL/CList.h"
#include "Framework/GCL/ResultCodes.h"
#include "fuzz/support/Reports.h"

namespace {

struct ModelNode {
    unsigned long item;
    ModelNode* next;
    CListNode* real;
    bool freed;
};

uint32_t matchLowBits(unsigned long item, unsigned long key)
{
    return item % 4 == key % 4 ? 1 : 0;
}
const CListMatcher kLowBits = {matchLowBits};

class Comparison {
public:
    Comparison() { CList_Construct(&list); }

    ~Comparison()
    {
        if (walkable()) {
            for (ModelNode* node = head; node != nullptr; node = node->next) {
                node->freed = true;
            }
            CList_Destruct(&list);
            head = nullptr;
            tail = nullptr;
            size = 0;
            check();
        }
        // Nodes that the list has lost.
        for (const ModelNode& node : nodes) {
            if (!node.freed) {
                delete[] node.real;
            }
        }
    }

    void step(FuzzedDataProvider& input)
    {
        const auto item = input.ConsumeIntegralInRange<unsigned long>(0, 7);
        const auto index = input.ConsumeIntegralInRange<uint32_t>(0, 9);
        switch (input.ConsumeIntegralInRange(0, 17)) {
        case 0:
            pushHead(item);
            break;
        case 1:
            pushTail(item);
            break;
        case 2:
            popHead();
            break;
        case 3:
            popTail();
            break;
        case 4:
            remove(item);
            break;
        case 5:
            insertAt(index, item);
            break;
        case 6:
            removeAt(index);
            break;
        case 7:
            getAt(index);
            break;
        case 8:
            insertAfter(index, item);
            break;
        case 9:
            getHead();
            break;
        case 10:
            getTail();
            break;
        case 11:
            itemExists(item);
            break;
        case 12:
            find(item);
            break;
        case 13:
            walk();
            break;
        case 14:
            refusals();
            break;
        default: // so that lists grow
            pushTail(item);
            break;
        }
        check();
    }

private:
    static constexpr unsigned long kUntouched = 4711;

    // Whether a walk from `node` ends, at most `steps` nodes on, and meets no freed node.
    static bool reaches(const ModelNode* node, size_t steps)
    {
        for (; node != nullptr && steps > 0; --steps) {
            if (node->freed) {
                return false;
            }
            node = node->next;
        }
        return node == nullptr || !node->freed;
    }

    // Whether a walk over all of the list ends.
    bool walkable() const
    {
        const ModelNode* node = head;
        for (size_t steps = 0; node != nullptr; ++steps) {
            if (node->freed || steps > nodes.size()) {
                return false;
            }
            node = node->next;
        }
        return true;
    }

    // The list may have lost its way to a freed node, but has none among those it reaches.
    bool reachesFreed() const { return !reaches(head, nodes.size()); }

    ModelNode* at(uint32_t index) const
    {
        ModelNode* node = head;
        for (; node != nullptr && index > 0; --index) {
            node = node->next;
        }
        return node;
    }

    ModelNode* made(unsigned long item, ModelNode* next, CListNode* real)
    {
        nodes.push_back({item, next, real, false});
        return &nodes.back();
    }

    void dropHead()
    {
        head->freed = true;
        head = head->next;
        tail = head == nullptr ? nullptr : tail;
        --size;
    }

    void pushHead(unsigned long item)
    {
        REQUIRE(CList_PushHead(&list, item) == GCL_OK);
        head = made(item, head, list.pHead);
        tail = tail == nullptr ? head : tail;
        ++size;
    }

    void pushTail(unsigned long item)
    {
        if (head != nullptr && (tail == nullptr || tail->freed)) {
            return;
        }
        REQUIRE(CList_PushTail(&list, item) == GCL_OK);
        ModelNode* const node = made(item, nullptr, list.pTail);
        (head == nullptr ? head : tail->next) = node;
        tail = node;
        ++size;
    }

    void popHead()
    {
        unsigned long out = kUntouched;
        if (size == 0) {
            REQUIRE(CList_PopHead(&list, &out) == GCL_LIST_EMPTY);
        } else if (head == nullptr) {
            REQUIRE(CList_PopHead(&list, &out) == GCL_INCONSISTENT);
        } else if (!head->freed) {
            REQUIRE(CList_PopHead(&list, &out) == GCL_OK);
            REQUIRE(out == head->item);
            dropHead();
            return;
        }
        REQUIRE(out == kUntouched);
    }

    void popTail()
    {
        unsigned long out = kUntouched;
        if (size == 0) {
            REQUIRE(CList_PopTail(&list, &out) == GCL_LIST_EMPTY);
            REQUIRE(out == kUntouched);
            return;
        }
        if (head == nullptr || tail == nullptr) {
            REQUIRE(CList_PopTail(&list, &out) == GCL_INCONSISTENT);
            REQUIRE(out == kUntouched);
            return;
        }
        ModelNode* before = nullptr;
        if (head != tail) {
            before = head;
            for (size_t steps = 0; before != nullptr && before->next != tail; ++steps) {
                if (before->freed || steps > nodes.size()) {
                    return;
                }
                before = before->next;
            }
            if (before == nullptr) {
                REQUIRE(CList_PopTail(&list, &out) == GCL_INCONSISTENT);
                REQUIRE(out == kUntouched);
                return;
            }
        }
        if (tail->freed || (before != nullptr && before->freed)) {
            return;
        }
        REQUIRE(CList_PopTail(&list, &out) == GCL_OK);
        REQUIRE(out == tail->item);
        tail->freed = true;
        if (before != nullptr) {
            before->next = nullptr;
        }
        tail = before;
        if (--size == 0) {
            head = nullptr;
            tail = nullptr;
        }
    }

    void remove(unsigned long item)
    {
        if (reachesFreed()) {
            return;
        }
        if (!walkable()) {
            REQUIRE(CList_Remove(&list, item) == GCL_INVALID_ARGUMENT);
            fuzz::requireReport(GCL_INVALID_ARGUMENT);
            return;
        }
        bool found = false;
        ModelNode* kept = nullptr;
        for (ModelNode* node = head; node != nullptr; node = node->next) {
            if (node->item != item) {
                kept = node;
                continue;
            }
            found = true;
            node->freed = true;
            tail = node == tail ? kept : tail;
            (kept == nullptr ? head : kept->next) = node->next;
            --size;
        }
        REQUIRE(CList_Remove(&list, item) == (found ? GCL_OK : GCL_ITEM_NOT_FOUND));
    }

    void insertAt(uint32_t index, unsigned long item)
    {
        if (head == nullptr) {
            REQUIRE(CList_InsertAt(&list, index, item) == GCL_INDEX_OUT_OF_RANGE);
            return;
        }
        if (!reaches(head, index)) {
            return;
        }
        if (index == 0) {
            REQUIRE(CList_InsertAt(&list, index, item) == GCL_OK);
            head->next = made(item, head, head->real->pNext);
            ++size;
            return;
        }
        ModelNode* const before = at(index - 1);
        if (before == nullptr || before->next == nullptr) {
            REQUIRE(CList_InsertAt(&list, index, item) == GCL_INDEX_OUT_OF_RANGE);
            return;
        }
        REQUIRE(CList_InsertAt(&list, index, item) == GCL_OK);
        before->next = made(item, before->next, before->real->pNext);
        ++size;
    }

    void removeAt(uint32_t index)
    {
        if (!reaches(head, index)) {
            return;
        }
        if (head != nullptr && index == 0) {
            REQUIRE(CList_RemoveAt(&list, 0) == GCL_OK);
            dropHead();
            return;
        }
        ModelNode* const before = head == nullptr ? nullptr : at(index - 1);
        if (before == nullptr || before->next == nullptr) {
            REQUIRE(CList_RemoveAt(&list, index) == GCL_INDEX_OUT_OF_RANGE);
            return;
        }
        REQUIRE(CList_RemoveAt(&list, index) == GCL_OK);
        before->next->freed = true;
        before->next = before->next->next;
        --size;
    }

    void getAt(uint32_t index)
    {
        if (!reaches(head, index)) {
            return;
        }
        unsigned long out = kUntouched;
        const ModelNode* const node = at(index);
        REQUIRE(CList_GetAt(&list, index, &out) ==
                (node == nullptr ? GCL_INDEX_OUT_OF_RANGE : GCL_OK));
        REQUIRE(out == (node == nullptr ? kUntouched : node->item));
    }

    void insertAfter(uint32_t index, unsigned long item)
    {
        if (!reaches(head, index)) {
            return;
        }
        ModelNode* const node = at(index);
        if (node == nullptr) {
            REQUIRE(CList_InsertAfter(&list, item, nullptr) == GCL_INVALID_ARGUMENT);
            return;
        }
        REQUIRE(CList_InsertAfter(&list, item, node->real) == GCL_OK);
        node->next = made(item, node->next, node->real->pNext);
        ++size;
    }

    void getHead()
    {
        if (head != nullptr && head->freed) {
            return;
        }
        unsigned long out = kUntouched;
        REQUIRE(CList_GetHead(&list, &out) == (head == nullptr ? GCL_LIST_EMPTY : GCL_OK));
        REQUIRE(out == (head == nullptr ? kUntouched : head->item));
    }

    void getTail()
    {
        unsigned long out = kUntouched;
        if (size == 0) {
            REQUIRE(CList_GetTail(&list, &out) == GCL_LIST_EMPTY);
        } else if (tail == nullptr) {
            REQUIRE(CList_GetTail(&list, &out) == GCL_INCONSISTENT);
        } else if (!tail->freed) {
            REQUIRE(CList_GetTail(&list, &out) == GCL_OK);
            REQUIRE(out == tail->item);
            return;
        }
        REQUIRE(out == kUntouched);
    }

    void itemExists(unsigned long item)
    {
        if (!walkable()) {
            return;
        }
        bool found = false;
        for (const ModelNode* node = head; node != nullptr; node = node->next) {
            found = found || node->item == item;
        }
        REQUIRE(CList_ItemExists(&list, item) == (found ? 1u : 0u));
    }

    void find(unsigned long key)
    {
        if (!walkable()) {
            return;
        }
        // All matches, one after the other.
        CListNode* position = nullptr;
        uint32_t result = CList_Find(&list, key, &kLowBits, &position);
        unsigned long first = kUntouched;
        const uint32_t retrieved = CList_FindAndRetrieve(&list, key, &kLowBits, &first);
        REQUIRE(retrieved == result);
        REQUIRE(result == 0 ? first == kUntouched : first == position->ulItem);
        for (const ModelNode* node = head; node != nullptr; node = node->next) {
            if (matchLowBits(node->item, key) == 0) {
                continue;
            }
            REQUIRE(result == 1);
            REQUIRE(position == node->real);
            unsigned long out = kUntouched;
            CList_GetNext(&list, &out, &position);
            REQUIRE(out == node->item);
            CListNode* const before = position;
            result = CList_FindNext(&list, key, &kLowBits, &position);
            REQUIRE(result == 1 || position == before);
        }
        REQUIRE(result == 0);
    }

    void walk()
    {
        if (!walkable()) {
            return;
        }
        CListNode* position = nullptr;
        REQUIRE(CList_StartIterationFromHead(&list, &position) ==
                (head == nullptr ? GCL_LIST_EMPTY : GCL_OK));
        for (const ModelNode* node = head; node != nullptr; node = node->next) {
            unsigned long out = kUntouched;
            REQUIRE(CList_GetNext(&list, &out, &position) ==
                    (node->next == nullptr ? GCL_LAST_ITEM : GCL_OK));
            REQUIRE(out == node->item);
        }
        unsigned long out = kUntouched;
        REQUIRE(CList_GetNext(&list, &out, &position) == GCL_INVALID_ARGUMENT);
        REQUIRE(out == 0);
    }

    void refusals()
    {
        unsigned long out = kUntouched;
        CListNode* position = nullptr;
        REQUIRE(CList_PushHead(nullptr, 1) == GCL_INVALID_ARGUMENT);
        REQUIRE(CList_PushTail(nullptr, 1) == GCL_INVALID_ARGUMENT);
        REQUIRE(CList_PopHead(&list, nullptr) == GCL_INVALID_ARGUMENT);
        REQUIRE(CList_PopTail(&list, nullptr) == GCL_INVALID_ARGUMENT);
        REQUIRE(CList_GetHead(&list, nullptr) == GCL_INVALID_ARGUMENT);
        REQUIRE(CList_GetTail(&list, nullptr) == GCL_INVALID_ARGUMENT);
        REQUIRE(CList_StartIterationFromHead(&list, nullptr) == GCL_INVALID_ARGUMENT);
        REQUIRE(CList_Find(&list, 1, nullptr, &position) == 0);
        REQUIRE(CList_FindNext(&list, 1, &kLowBits, &position) == 0);
        REQUIRE(CList_Remove(nullptr, 1) == GCL_FAILURE);
        fuzz::requireSilence();
        REQUIRE(CList_GetNext(nullptr, &out, &position) == GCL_INVALID_ARGUMENT);
        fuzz::requireReport(GCL_INVALID_ARGUMENT);
    }

    static CListNode* realOf(const ModelNode* node)
    {
        return node == nullptr ? nullptr : node->real;
    }

    // All that the list has, field by field.
    void check() const
    {
        fuzz::requireSilence();
        REQUIRE(list.uiSize == size);
        REQUIRE(CList_CurrentSize(&list) == size);
        REQUIRE(CList_IsEmpty(&list) == (size == 0 ? 1u : 0u));
        REQUIRE(list.pHead == realOf(head));
        REQUIRE(list.pTail == realOf(tail));
        for (const ModelNode& node : nodes) {
            if (!node.freed) {
                REQUIRE(node.real->ulItem == node.item);
                REQUIRE(node.real->pNext == realOf(node.next));
            }
        }
    }

    CList list;
    std::deque<ModelNode> nodes; // all that ever were, in the order of their making
    ModelNode* head = nullptr;
    ModelNode* tail = nullptr;
    uint32_t size = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    Comparison comparison;
    for (int steps = 0; steps < 200 && input.remaining_bytes() > 0; ++steps) {
        comparison.step(input);
    }
    return 0;
}
