#include "Framework/GCL/CList.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <deque>
#include <new>
#include <random>
#include <utility>
#include <vector>

#include "Framework/GCL/ResultCodes.h"
#include "Framework/GCL/TraceChannels.h"
#include "Framework/GCL/testing/FaultInjection.h"
#include "Framework/GCL/testing/TraceCapture.h"

using gcltest::Count;
using gcltest::Failure;
using gcltest::Fault;
using gcltest::Frees;
using gcltest::gclReport;
using gcltest::Hook;
using gcltest::Report;
using gcltest::takeReports;
namespace calls = gcltest::calls;

namespace {

using Memory = std::vector<const void*>;

using Items = std::vector<unsigned long>;

// A list that ends with the test.
class OwnedList {
public:
    OwnedList(std::initializer_list<unsigned long> items = {})
    {
        CList_Construct(&list);
        for (const unsigned long item : items) {
            EXPECT_EQ(CList_PushTail(&list, item), GCL_OK);
        }
    }
    ~OwnedList() { CList_Destruct(&list); }
    OwnedList(const OwnedList&) = delete;
    OwnedList& operator=(const OwnedList&) = delete;
    CList* operator&() { return &list; }
    CList* operator->() { return &list; }
    CList list;
};

Items itemsOf(const CList& list)
{
    Items items;
    for (const CListNode* node = list.pHead; node != nullptr; node = node->pNext) {
        items.push_back(node->ulItem);
    }
    return items;
}

// What every operation on the common path keeps.
void expectConsistent(const CList& list)
{
    uint32_t count = 0;
    const CListNode* last = nullptr;
    for (const CListNode* node = list.pHead; node != nullptr; node = node->pNext) {
        last = node;
        ++count;
    }
    EXPECT_EQ(list.uiSize, count);
    EXPECT_EQ(list.pTail, last);
}

void expectSilence()
{
    EXPECT_EQ(takeReports(), std::vector<Report>{});
}

uint32_t matchEqual(unsigned long item, unsigned long key)
{
    return item == key ? 1 : 0;
}

// Matches with a number other than 1, which must count as well.
uint32_t matchRemainder(unsigned long item, unsigned long key)
{
    return item % 10 == key ? 0x80000000u : 0;
}

const CListMatcher kEqual = {matchEqual};
const CListMatcher kRemainder = {matchRemainder};

} // namespace

TEST(CListLayout, HasTheFieldsInOrder)
{
    EXPECT_EQ(offsetof(CList, pHead), 0u);
    EXPECT_EQ(offsetof(CList, pTail), sizeof(void*));
    EXPECT_EQ(offsetof(CList, uiSize), 2 * sizeof(void*));
    EXPECT_EQ(sizeof(CList), 3 * sizeof(void*));
    EXPECT_EQ(offsetof(CListNode, ulItem), 0u);
    EXPECT_EQ(offsetof(CListNode, pNext), sizeof(void*));
    EXPECT_EQ(sizeof(CListNode), 2 * sizeof(void*));
    EXPECT_EQ(offsetof(CListMatcher, pfnMatch), 0u);
    EXPECT_EQ(sizeof(CListNode::ulItem), sizeof(void*));
    EXPECT_EQ(sizeof(CList::uiSize), 4u);
}

TEST(CListConstruct, MakesAnEmptyList)
{
    CListNode node{};
    CList list{&node, &node, 7};
    CList_Construct(&list);
    EXPECT_EQ(list.pHead, nullptr);
    EXPECT_EQ(list.pTail, nullptr);
    EXPECT_EQ(list.uiSize, 0u);
    expectSilence();
}

TEST(CListDestruct, FreesEveryNodeAndLeavesAUsableList)
{
    CList list;
    CList_Construct(&list);
    Memory nodes;
    for (unsigned long item = 0; item < 5; ++item) {
        ASSERT_EQ(CList_PushTail(&list, item), GCL_OK);
        nodes.push_back(list.pTail);
    }
    {
        const Frees frees;
        CList_Destruct(&list);
        EXPECT_EQ(frees.memory(), nodes);
    }
    EXPECT_EQ(list.pHead, nullptr);
    EXPECT_EQ(list.pTail, nullptr);
    EXPECT_EQ(list.uiSize, 0u);
    ASSERT_EQ(CList_PushTail(&list, 9), GCL_OK);
    EXPECT_EQ(itemsOf(list), Items{9});
    CList_Destruct(&list);
}

TEST(CListNodes, AreFreedByWhatRemovesThem)
{
    OwnedList list{1, 2, 3, 2, 4, 5};
    Memory nodes;
    for (const CListNode* node = list->pHead; node != nullptr; node = node->pNext) {
        nodes.push_back(node);
    }
    unsigned long item = 0;
    const Frees frees;
    EXPECT_EQ(CList_PopHead(&list, &item), GCL_OK);
    EXPECT_EQ(frees.memory(), Memory{nodes[0]});
    EXPECT_EQ(CList_PopTail(&list, &item), GCL_OK);
    EXPECT_EQ(frees.memory(), Memory{nodes[5]});
    EXPECT_EQ(CList_Remove(&list, 2), GCL_OK);
    EXPECT_EQ(frees.memory(), (Memory{nodes[1], nodes[3]}));
    EXPECT_EQ(CList_RemoveAt(&list, 1), GCL_OK);
    EXPECT_EQ(frees.memory(), Memory{nodes[4]});
    EXPECT_EQ(CList_RemoveAt(&list, 0), GCL_OK);
    EXPECT_EQ(frees.memory(), Memory{nodes[2]});
    expectConsistent(list.list);
}

TEST(CListDestruct, AcceptsNull)
{
    CList_Destruct(nullptr);
    expectSilence();
}

TEST(CListQueries, AnswerFromTheSizeField)
{
    CList list{nullptr, nullptr, 0};
    EXPECT_EQ(CList_IsEmpty(&list), 1u);
    EXPECT_EQ(CList_CurrentSize(&list), 0u);
    list.uiSize = 3; // without a node: only the field counts
    EXPECT_EQ(CList_IsEmpty(&list), 0u);
    EXPECT_EQ(CList_CurrentSize(&list), 3u);
    expectSilence();
}

TEST(CListItemExists, FindsFirstMiddleAndLast)
{
    OwnedList list{5, 6, 7};
    EXPECT_EQ(CList_ItemExists(&list, 5), 1u);
    EXPECT_EQ(CList_ItemExists(&list, 6), 1u);
    EXPECT_EQ(CList_ItemExists(&list, 7), 1u);
    EXPECT_EQ(CList_ItemExists(&list, 8), 0u);
    OwnedList empty;
    EXPECT_EQ(CList_ItemExists(&empty, 0), 0u);
}

TEST(CListItemExists, ComparesWholeWords)
{
    const unsigned long wide = ~0ul;
    OwnedList list{wide};
    EXPECT_EQ(CList_ItemExists(&list, wide), 1u);
    EXPECT_EQ(CList_ItemExists(&list, wide - 1), 0u);
}

TEST(CListPushHead, InsertsInFront)
{
    OwnedList list;
    EXPECT_EQ(CList_PushHead(&list, 1), GCL_OK);
    expectConsistent(list.list);
    EXPECT_EQ(CList_PushHead(&list, 2), GCL_OK);
    EXPECT_EQ(itemsOf(list.list), (Items{2, 1}));
    expectConsistent(list.list);
}

TEST(CListPushHead, JudgesEmptinessByTheTail)
{
    CListNode node{4, nullptr};
    CList list{&node, nullptr, 1};
    EXPECT_EQ(CList_PushHead(&list, 3), GCL_OK);
    EXPECT_EQ(list.pTail, list.pHead);
    EXPECT_EQ(list.pHead->pNext, &node);
    delete[] list.pHead;
}

TEST(CListPushTail, AppendsBehindTheTail)
{
    OwnedList list;
    EXPECT_EQ(CList_PushTail(&list, 1), GCL_OK);
    expectConsistent(list.list);
    EXPECT_EQ(CList_PushTail(&list, 2), GCL_OK);
    EXPECT_EQ(itemsOf(list.list), (Items{1, 2}));
    expectConsistent(list.list);
}

TEST(CListPushTail, JudgesEmptinessByTheHead)
{
    CListNode node{4, nullptr};
    CList list{nullptr, &node, 0};
    EXPECT_EQ(CList_PushTail(&list, 3), GCL_OK);
    EXPECT_EQ(node.pNext, nullptr);
    EXPECT_EQ(itemsOf(list), Items{3});
    expectConsistent(list);
    CList_Destruct(&list);
}

TEST(CListPush, RefusesNullSilently)
{
    EXPECT_EQ(CList_PushHead(nullptr, 1), 0x8008u);
    EXPECT_EQ(CList_PushTail(nullptr, 1), 0x8008u);
    expectSilence();
}

TEST(CListPopHead, HandsOutTheFirstItem)
{
    OwnedList list{1, 2};
    unsigned long item = 0;
    EXPECT_EQ(CList_PopHead(&list, &item), GCL_OK);
    EXPECT_EQ(item, 1u);
    EXPECT_EQ(itemsOf(list.list), Items{2});
    expectConsistent(list.list);
    EXPECT_EQ(CList_PopHead(&list, &item), GCL_OK);
    EXPECT_EQ(item, 2u);
    EXPECT_EQ(list->pHead, nullptr);
    EXPECT_EQ(list->pTail, nullptr);
    EXPECT_EQ(list->uiSize, 0u);
    expectSilence();
}

TEST(CListPopHead, ChecksInOrder)
{
    unsigned long item = 77;
    CList list{nullptr, nullptr, 0};
    EXPECT_EQ(CList_PopHead(nullptr, &item), 0x8008u);
    EXPECT_EQ(CList_PopHead(&list, nullptr), 0x8008u);
    EXPECT_EQ(CList_PopHead(&list, &item), 0x8004u);
    list.uiSize = 2;
    EXPECT_EQ(CList_PopHead(&list, &item), 0x800Cu);
    EXPECT_EQ(list.uiSize, 2u);
    CListNode node{5, nullptr};
    CList unsized{&node, &node, 0};
    EXPECT_EQ(CList_PopHead(&unsized, &item), 0x8004u);
    EXPECT_EQ(unsized.pHead, &node);
    EXPECT_EQ(item, 77u);
    expectSilence();
}

TEST(CListGetHead, CopiesTheFirstItemWhateverTheSizeSays)
{
    CListNode node{5, nullptr};
    CList list{&node, &node, 0};
    unsigned long item = 77;
    EXPECT_EQ(CList_GetHead(&list, &item), GCL_OK);
    EXPECT_EQ(item, 5u);
    EXPECT_EQ(list.pHead, &node);
}

TEST(CListGetHead, ChecksInOrder)
{
    unsigned long item = 77;
    CList list{nullptr, nullptr, 4};
    EXPECT_EQ(CList_GetHead(nullptr, &item), 0x8008u);
    EXPECT_EQ(CList_GetHead(&list, nullptr), 0x8008u);
    EXPECT_EQ(CList_GetHead(&list, &item), 0x8004u);
    EXPECT_EQ(item, 77u);
    expectSilence();
}

TEST(CListGetTail, CopiesTheLastItem)
{
    OwnedList list{1, 2, 3};
    unsigned long item = 0;
    EXPECT_EQ(CList_GetTail(&list, &item), GCL_OK);
    EXPECT_EQ(item, 3u);
    EXPECT_EQ(itemsOf(list.list), (Items{1, 2, 3}));
}

TEST(CListGetTail, ChecksInOrder)
{
    unsigned long item = 77;
    CListNode node{5, nullptr};
    CList list{&node, &node, 0};
    EXPECT_EQ(CList_GetTail(nullptr, &item), 0x8008u);
    EXPECT_EQ(CList_GetTail(&list, nullptr), 0x8008u);
    EXPECT_EQ(CList_GetTail(&list, &item), 0x8004u);
    list.uiSize = 1;
    list.pTail = nullptr;
    EXPECT_EQ(CList_GetTail(&list, &item), 0x800Cu);
    EXPECT_EQ(item, 77u);
    expectSilence();
}

TEST(CListPopTail, HandsOutTheLastItemAndWalksToTheNewTail)
{
    OwnedList list{1, 2, 3};
    unsigned long item = 0;
    EXPECT_EQ(CList_PopTail(&list, &item), GCL_OK);
    EXPECT_EQ(item, 3u);
    EXPECT_EQ(itemsOf(list.list), (Items{1, 2}));
    expectConsistent(list.list);
    EXPECT_EQ(CList_PopTail(&list, &item), GCL_OK);
    EXPECT_EQ(item, 2u);
    expectConsistent(list.list);
    EXPECT_EQ(CList_PopTail(&list, &item), GCL_OK);
    EXPECT_EQ(item, 1u);
    EXPECT_EQ(list->pHead, nullptr);
    EXPECT_EQ(list->pTail, nullptr);
    EXPECT_EQ(list->uiSize, 0u);
    expectSilence();
}

TEST(CListPopTail, ChecksInOrderAndChangesNothing)
{
    unsigned long item = 77;
    CListNode stray{9, nullptr};
    CListNode second{2, nullptr};
    CListNode first{1, &second};
    CList list{&first, &second, 0};
    EXPECT_EQ(CList_PopTail(nullptr, &item), 0x8008u);
    EXPECT_EQ(CList_PopTail(&list, nullptr), 0x8008u);
    EXPECT_EQ(CList_PopTail(&list, &item), 0x8004u);
    list = {&first, nullptr, 2};
    EXPECT_EQ(CList_PopTail(&list, &item), 0x800Cu);
    list = {nullptr, &second, 2};
    EXPECT_EQ(CList_PopTail(&list, &item), 0x800Cu);
    list = {&first, &stray, 2};
    EXPECT_EQ(CList_PopTail(&list, &item), 0x800Cu);
    EXPECT_EQ(list.pTail, &stray);
    EXPECT_EQ(list.uiSize, 2u);
    EXPECT_EQ(first.pNext, &second);
    EXPECT_EQ(item, 77u);
    expectSilence();
}

TEST(CListPopTail, ClearsBothEndsWhenTheSizeReachesZero)
{
    // The size says one node, the chain has two: the size decides.
    OwnedList list{1, 2};
    CListNode* const first = list->pHead;
    list->uiSize = 1;
    unsigned long item = 0;
    EXPECT_EQ(CList_PopTail(&list, &item), GCL_OK);
    EXPECT_EQ(item, 2u);
    EXPECT_EQ(list->pHead, nullptr);
    EXPECT_EQ(list->pTail, nullptr);
    delete[] first;
}

TEST(CListPopTail, LeavesTheTailEmptyWhereTheSizeSaysThereIsMore)
{
    OwnedList list{1};
    CListNode* const inserted = new CListNode[1]{{2, nullptr}};
    const CListNode* const head = list->pHead;
    list->pHead->pNext = inserted; // behind the node that pTail names
    list->uiSize = 2;
    unsigned long item = 0;
    EXPECT_EQ(CList_PopTail(&list, &item), GCL_OK);
    EXPECT_EQ(item, 1u);
    EXPECT_EQ(list->pTail, nullptr);
    EXPECT_EQ(list->pHead, head); // names the freed node
    EXPECT_EQ(list->uiSize, 1u);
    delete[] inserted;
    CList_Construct(&list);
}

TEST(CListEmpty, AnswersEveryOperation)
{
    OwnedList list;
    unsigned long item = 77;
    CListNode* position = nullptr;
    EXPECT_EQ(CList_PopHead(&list, &item), 0x8004u);
    EXPECT_EQ(CList_GetHead(&list, &item), 0x8004u);
    EXPECT_EQ(CList_PopTail(&list, &item), 0x8004u);
    EXPECT_EQ(CList_GetTail(&list, &item), 0x8004u);
    EXPECT_EQ(CList_StartIterationFromHead(&list, &position), 0x8004u);
    EXPECT_EQ(CList_Remove(&list, 1), 0x8005u);
    for (const uint32_t index : {0u, 1u, 0xFFFFFFFFu}) {
        EXPECT_EQ(CList_InsertAt(&list, index, 1), 0x8009u);
        EXPECT_EQ(CList_GetAt(&list, index, &item), 0x8009u);
        EXPECT_EQ(CList_RemoveAt(&list, index), 0x8009u);
    }
    EXPECT_EQ(item, 77u);
    EXPECT_EQ(list->uiSize, 0u);
    expectSilence();
}

TEST(CListIteration, StartsAtTheHead)
{
    OwnedList list{3, 4};
    CListNode* position = nullptr;
    EXPECT_EQ(CList_StartIterationFromHead(&list, &position), GCL_OK);
    EXPECT_EQ(position, list->pHead);
}

TEST(CListIteration, StartRefusesNullSilently)
{
    OwnedList list{3};
    CListNode* position = list->pHead;
    EXPECT_EQ(CList_StartIterationFromHead(nullptr, &position), 0x8008u);
    EXPECT_EQ(CList_StartIterationFromHead(&list, nullptr), 0x8008u);
    EXPECT_EQ(position, list->pHead);
    expectSilence();
}

TEST(CListIteration, StartLeavesThePositionAloneOnAnEmptyList)
{
    OwnedList list;
    CListNode node{};
    CListNode* position = &node;
    EXPECT_EQ(CList_StartIterationFromHead(&list, &position), 0x8004u);
    EXPECT_EQ(position, &node);
}

TEST(CListGetNext, WalksTheListAndMarksTheLastItem)
{
    OwnedList list{10, 20, 30};
    CListNode* position = nullptr;
    unsigned long item = 0;
    ASSERT_EQ(CList_StartIterationFromHead(&list, &position), GCL_OK);
    EXPECT_EQ(CList_GetNext(&list, &item, &position), GCL_OK);
    EXPECT_EQ(item, 10u);
    EXPECT_EQ(CList_GetNext(&list, &item, &position), GCL_OK);
    EXPECT_EQ(item, 20u);
    EXPECT_EQ(CList_GetNext(&list, &item, &position), 0x1002u);
    EXPECT_EQ(item, 30u);
    EXPECT_EQ(position, nullptr);
    EXPECT_EQ(CList_GetNext(&list, &item, &position), 0x8008u);
    EXPECT_EQ(item, 0u);
    expectSilence();
}

TEST(CListGetNext, MarksTheOnlyItemAsTheLast)
{
    OwnedList list{10};
    CListNode* position = list->pHead;
    unsigned long item = 0;
    EXPECT_EQ(CList_GetNext(&list, &item, &position), 0x1002u);
    EXPECT_EQ(item, 10u);
    EXPECT_EQ(CList_GetNext(&list, &item, &position), 0x8008u);
    EXPECT_EQ(item, 0u);
}

TEST(CListGetNext, ClearsTheItemAndReportsANullList)
{
    CListNode node{5, nullptr};
    CListNode* position = &node;
    unsigned long item = 77;
    EXPECT_EQ(CList_GetNext(nullptr, &item, &position), 0x8008u);
    EXPECT_EQ(item, 0u);
    EXPECT_EQ(position, &node);
    EXPECT_EQ(takeReports(),
              (std::vector<Report>{gclReport("CList", "CList_GetNext", "pThis is NULL!", 0x8008)}));
}

TEST(CListGetNext, ReportsNothingOnASilencedChannel)
{
    // The program's write must reach the object that the library reads.
    GCL_trace.threshold = 0;
    unsigned long item = 77;
    EXPECT_EQ(CList_GetNext(nullptr, &item, nullptr), 0x8008u);
    EXPECT_EQ(item, 0u);
    expectSilence();
    GCL_trace.threshold = 1;
    EXPECT_EQ(CList_GetNext(nullptr, &item, nullptr), 0x8008u);
    EXPECT_EQ(takeReports().size(), 1u);
    GCL_trace.threshold = 0x1003;
}

TEST(CListGetNext, RefusesANullPositionSilentlyWithTheItemCleared)
{
    OwnedList list{1};
    unsigned long item = 77;
    CListNode* position = nullptr;
    EXPECT_EQ(CList_GetNext(&list, &item, &position), 0x8008u);
    EXPECT_EQ(item, 0u);
    item = 77;
    EXPECT_EQ(CList_GetNext(&list, &item, nullptr), 0x8008u);
    EXPECT_EQ(item, 0u);
    expectSilence();
}

TEST(CListInsertAfter, LinksBehindThePosition)
{
    OwnedList list{1, 3};
    EXPECT_EQ(CList_InsertAfter(&list, 2, list->pHead), GCL_OK);
    EXPECT_EQ(itemsOf(list.list), (Items{1, 2, 3}));
    expectConsistent(list.list);
}

TEST(CListInsertAfter, LeavesTheTailAloneAtTheTail)
{
    OwnedList list{1, 2};
    CListNode* const tail = list->pTail;
    EXPECT_EQ(CList_InsertAfter(&list, 3, tail), GCL_OK);
    EXPECT_EQ(list->uiSize, 3u);
    EXPECT_EQ(list->pTail, tail);
    EXPECT_EQ(itemsOf(list.list), (Items{1, 2, 3}));
    unsigned long item = 0;
    EXPECT_EQ(CList_GetTail(&list, &item), GCL_OK);
    EXPECT_EQ(item, 2u);
    CListNode* const inserted = tail->pNext;
    EXPECT_EQ(CList_PushTail(&list, 4), GCL_OK);
    EXPECT_EQ(itemsOf(list.list), (Items{1, 2, 4}));
    delete[] inserted; // cut off the list by the push
}

TEST(CListInsertAfter, RefusesNullSilently)
{
    OwnedList list{1};
    EXPECT_EQ(CList_InsertAfter(nullptr, 2, list->pHead), 0x8008u);
    EXPECT_EQ(CList_InsertAfter(&list, 2, nullptr), 0x8008u);
    EXPECT_EQ(itemsOf(list.list), Items{1});
    expectSilence();
}

TEST(CListInsertAt, InsertsBeforeTheNodeWithTheIndex)
{
    OwnedList list{5, 6};
    EXPECT_EQ(CList_InsertAt(&list, 1, 50), GCL_OK);
    EXPECT_EQ(itemsOf(list.list), (Items{5, 50, 6}));
    EXPECT_EQ(CList_InsertAt(&list, 2, 55), GCL_OK);
    EXPECT_EQ(itemsOf(list.list), (Items{5, 50, 55, 6}));
    expectConsistent(list.list);
}

TEST(CListInsertAt, NeverAppends)
{
    OwnedList list{5, 6};
    EXPECT_EQ(CList_InsertAt(&list, 2, 7), 0x8009u);
    EXPECT_EQ(CList_InsertAt(&list, 3, 7), 0x8009u);
    EXPECT_EQ(CList_InsertAt(&list, 0xFFFFFFFF, 7), 0x8009u);
    EXPECT_EQ(itemsOf(list.list), (Items{5, 6}));
    expectSilence();
}

TEST(CListInsertAt, ClosesARingAtIndexZeroThatRemoveRefuses)
{
    OwnedList list{5, 6, 7};
    CListNode* const head = list->pHead;
    CListNode* const second = head->pNext;
    CListNode* const tail = list->pTail;
    EXPECT_EQ(CList_InsertAt(&list, 0, 4), GCL_OK);
    EXPECT_EQ(list->pHead, head);
    EXPECT_EQ(list->pTail, tail);
    EXPECT_EQ(list->uiSize, 4u);
    CListNode* const added = head->pNext;
    EXPECT_EQ(added->ulItem, 4u);
    EXPECT_EQ(added->pNext, head);
    expectSilence();
    for (const unsigned long item : {4ul, 5ul, 6ul, 99ul}) {
        EXPECT_EQ(CList_Remove(&list, item), 0x8008u);
        EXPECT_EQ(takeReports(),
                  (std::vector<Report>{gclReport(
                      "CList", "CList_Remove",
                      "CList_Remove: invalid argument. A cycle was detected in pThis! ", 0x8008)}));
    }
    const int32_t threshold = std::exchange(GCL_trace.threshold, 0);
    EXPECT_EQ(CList_Remove(&list, 4), 0x8008u);
    GCL_trace.threshold = threshold;
    expectSilence();
    EXPECT_EQ(list->uiSize, 4u);
    EXPECT_EQ(head->pNext, added);
    EXPECT_EQ(added->pNext, head);
    added->pNext = second; // mended
}

TEST(CListRemove, DetectsRingsOfEveryLengthAndStart)
{
    for (size_t length = 1; length <= 7; ++length) {
        for (size_t start = 0; start < length; ++start) {
            std::vector<CListNode> nodes(length);
            for (size_t i = 0; i < length; ++i) {
                nodes[i] = {i, i + 1 < length ? &nodes[i + 1] : &nodes[start]};
            }
            CList list{&nodes.front(), &nodes.back(), static_cast<uint32_t>(length)};
            EXPECT_EQ(CList_Remove(&list, 0), 0x8008u) << length << " nodes, back to " << start;
            EXPECT_EQ(takeReports().size(), 1u);
        }
    }
}

TEST(CListRemove, RemovesEveryNodeWithTheItem)
{
    OwnedList list{1, 2, 1, 3, 1};
    EXPECT_EQ(CList_Remove(&list, 1), GCL_OK);
    EXPECT_EQ(itemsOf(list.list), (Items{2, 3}));
    EXPECT_EQ(list->uiSize, 2u);
    EXPECT_EQ(list->pTail->ulItem, 3u);
    expectConsistent(list.list);
    EXPECT_EQ(CList_Remove(&list, 3), GCL_OK);
    EXPECT_EQ(list->pTail->ulItem, 2u);
    expectConsistent(list.list);
    EXPECT_EQ(CList_Remove(&list, 2), GCL_OK);
    EXPECT_EQ(list->pHead, nullptr);
    EXPECT_EQ(list->pTail, nullptr);
    EXPECT_EQ(list->uiSize, 0u);
    expectSilence();
}

TEST(CListRemove, RemovesAListOfNothingElse)
{
    OwnedList list{4, 4, 4};
    EXPECT_EQ(CList_Remove(&list, 4), GCL_OK);
    EXPECT_EQ(itemsOf(list.list), Items{});
    expectConsistent(list.list);
}

TEST(CListRemove, MovesTheTailOnlyIfItsNodeGoes)
{
    OwnedList list{1, 2};
    ASSERT_EQ(CList_InsertAfter(&list, 3, list->pTail), GCL_OK); // behind the tail
    EXPECT_EQ(CList_Remove(&list, 3), GCL_OK);
    EXPECT_EQ(list->pTail, list->pHead->pNext);
    ASSERT_EQ(CList_InsertAfter(&list, 3, list->pTail), GCL_OK);
    EXPECT_EQ(CList_Remove(&list, 2), GCL_OK);
    EXPECT_EQ(itemsOf(list.list), (Items{1, 3}));
    EXPECT_EQ(list->pTail, list->pHead);
}

TEST(CListRemove, ComparesWholeWords)
{
    OwnedList list{ULONG_MAX, ULONG_MAX / 2};
    EXPECT_EQ(CList_Remove(&list, ULONG_MAX / 2), GCL_OK);
    EXPECT_EQ(itemsOf(list.list), Items{ULONG_MAX});
}

TEST(CListRemove, FailsSilently)
{
    EXPECT_EQ(CList_Remove(nullptr, 1), 0x8000u);
    OwnedList list{1, 2};
    EXPECT_EQ(CList_Remove(&list, 3), 0x8005u);
    EXPECT_EQ(itemsOf(list.list), (Items{1, 2}));
    CList headless{nullptr, nullptr, 5};
    EXPECT_EQ(CList_Remove(&headless, 1), 0x8005u);
    EXPECT_EQ(headless.uiSize, 5u);
    expectSilence();
}

TEST(CListGetAt, HandsOutByIndex)
{
    OwnedList list{5, 6, 7};
    unsigned long item = 0;
    for (uint32_t index = 0; index < 3; ++index) {
        EXPECT_EQ(CList_GetAt(&list, index, &item), GCL_OK);
        EXPECT_EQ(item, 5 + index);
    }
    item = 77;
    EXPECT_EQ(CList_GetAt(&list, 3, &item), 0x8009u);
    EXPECT_EQ(CList_GetAt(&list, 0xFFFFFFFF, &item), 0x8009u);
    EXPECT_EQ(item, 77u);
    expectSilence();
}

TEST(CListRemoveAt, RemovesFirstAndMiddle)
{
    OwnedList list{5, 6, 7};
    EXPECT_EQ(CList_RemoveAt(&list, 1), GCL_OK);
    EXPECT_EQ(itemsOf(list.list), (Items{5, 7}));
    expectConsistent(list.list);
    EXPECT_EQ(CList_RemoveAt(&list, 0), GCL_OK);
    EXPECT_EQ(itemsOf(list.list), Items{7});
    expectConsistent(list.list);
    EXPECT_EQ(CList_RemoveAt(&list, 1), 0x8009u);
    EXPECT_EQ(CList_RemoveAt(&list, 2), 0x8009u);
    EXPECT_EQ(CList_RemoveAt(&list, 0), GCL_OK);
    EXPECT_EQ(list->pHead, nullptr);
    EXPECT_EQ(list->pTail, nullptr);
    EXPECT_EQ(list->uiSize, 0u);
    expectSilence();
}

TEST(CListRemoveAt, LeavesTheTailAloneAtTheTail)
{
    OwnedList list{5, 6};
    CListNode* const tail = list->pTail;
    EXPECT_EQ(CList_RemoveAt(&list, 1), GCL_OK);
    EXPECT_EQ(itemsOf(list.list), Items{5});
    EXPECT_EQ(list->uiSize, 1u);
    EXPECT_EQ(list->pTail, tail); // names the freed node
}

TEST(CListFind, StopsAtTheFirstMatch)
{
    OwnedList list{15, 22, 32};
    CListNode* position = nullptr;
    EXPECT_EQ(CList_Find(&list, 2, &kRemainder, &position), 1u);
    EXPECT_EQ(position, list->pHead->pNext);
}

TEST(CListFind, ClearsThePositionWithoutAMatch)
{
    OwnedList list{15, 22};
    CListNode* position = list->pHead;
    EXPECT_EQ(CList_Find(&list, 9, &kRemainder, &position), 0u);
    EXPECT_EQ(position, nullptr);
    OwnedList empty;
    position = list->pHead;
    EXPECT_EQ(CList_Find(&empty, 9, &kRemainder, &position), 0u);
    EXPECT_EQ(position, nullptr);
    expectSilence();
}

TEST(CListFind, WritesNothingForNull)
{
    OwnedList list{1};
    CListNode* position = list->pHead;
    EXPECT_EQ(CList_Find(nullptr, 1, &kEqual, &position), 0u);
    EXPECT_EQ(CList_Find(&list, 1, nullptr, &position), 0u);
    EXPECT_EQ(CList_Find(&list, 1, &kEqual, nullptr), 0u);
    EXPECT_EQ(position, list->pHead);
    expectSilence();
}

namespace {

CListNode* watchedPosition;
CListMatcher switchedMatcher;

uint32_t matchWhilePositionIsNull(unsigned long, unsigned long)
{
    return watchedPosition == nullptr ? 1 : 0;
}

uint32_t matchNoneAndSwitch(unsigned long, unsigned long)
{
    switchedMatcher.pfnMatch = matchEqual;
    return 0;
}

} // namespace

TEST(CListFind, ClearsThePositionBeforeItAsks)
{
    OwnedList list{1};
    watchedPosition = list->pHead;
    const CListMatcher matcher = {matchWhilePositionIsNull};
    EXPECT_EQ(CList_Find(&list, 1, &matcher, &watchedPosition), 1u);
    EXPECT_EQ(watchedPosition, list->pHead);
}

TEST(CListFind, ReadsTheMatchFunctionAnewForEachItem)
{
    OwnedList list{1, 1};
    switchedMatcher.pfnMatch = matchNoneAndSwitch;
    CListNode* position = nullptr;
    EXPECT_EQ(CList_Find(&list, 1, &switchedMatcher, &position), 1u);
    EXPECT_EQ(position, list->pHead->pNext);
}

TEST(CListFindNext, ReadsTheMatchFunctionAnewForEachItem)
{
    OwnedList list{1, 1};
    switchedMatcher.pfnMatch = matchNoneAndSwitch;
    CListNode* position = list->pHead;
    EXPECT_EQ(CList_FindNext(&list, 1, &switchedMatcher, &position), 1u);
    EXPECT_EQ(position, list->pHead->pNext);
}

TEST(CListFindNext, FindsTheSameNodeAgain)
{
    OwnedList list{1, 12, 22};
    CListNode* position = nullptr;
    ASSERT_EQ(CList_Find(&list, 2, &kRemainder, &position), 1u);
    CListNode* const found = position;
    EXPECT_EQ(CList_FindNext(&list, 2, &kRemainder, &position), 1u);
    EXPECT_EQ(position, found);
    unsigned long item = 0;
    EXPECT_EQ(CList_GetNext(&list, &item, &position), GCL_OK);
    EXPECT_EQ(CList_FindNext(&list, 2, &kRemainder, &position), 1u);
    EXPECT_EQ(position, list->pTail);
}

TEST(CListFindNext, LeavesThePositionWithoutAMatch)
{
    OwnedList list{1, 2};
    CListNode* position = list->pHead;
    EXPECT_EQ(CList_FindNext(&list, 9, &kEqual, &position), 0u);
    EXPECT_EQ(position, list->pHead);
    position = nullptr;
    EXPECT_EQ(CList_FindNext(&list, 1, &kEqual, &position), 0u);
    EXPECT_EQ(position, nullptr);
    expectSilence();
}

TEST(CListFindNext, ReturnsZeroForNull)
{
    OwnedList list{1};
    CListNode* position = list->pHead;
    EXPECT_EQ(CList_FindNext(nullptr, 1, &kEqual, &position), 0u);
    EXPECT_EQ(CList_FindNext(&list, 1, nullptr, &position), 0u);
    EXPECT_EQ(CList_FindNext(&list, 1, &kEqual, nullptr), 0u);
    EXPECT_EQ(position, list->pHead);
    expectSilence();
}

TEST(CListFindAndRetrieve, CopiesTheMatchingItemAlsoFromTheLastNode)
{
    OwnedList list{15, 22};
    unsigned long item = 0;
    EXPECT_EQ(CList_FindAndRetrieve(&list, 5, &kRemainder, &item), 1u);
    EXPECT_EQ(item, 15u);
    EXPECT_EQ(CList_FindAndRetrieve(&list, 2, &kRemainder, &item), 1u);
    EXPECT_EQ(item, 22u);
}

TEST(CListFindAndRetrieve, LeavesTheItemWithoutAMatch)
{
    OwnedList list{15};
    unsigned long item = 77;
    EXPECT_EQ(CList_FindAndRetrieve(&list, 2, &kRemainder, &item), 0u);
    EXPECT_EQ(CList_FindAndRetrieve(nullptr, 5, &kRemainder, &item), 0u);
    EXPECT_EQ(CList_FindAndRetrieve(&list, 5, nullptr, &item), 0u);
    EXPECT_EQ(item, 77u);
    expectSilence();
}

TEST(CListPrintScalar, PrintsHexadecimals)
{
    OwnedList list{10, 255};
    testing::internal::CaptureStdout();
    EXPECT_GE(CList_PrintScalar(&list, 0), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[0xA, 0xFF]\n");
}

TEST(CListPrintScalar, PrintsSignedDecimals)
{
    OwnedList list{10, ~0ul, 3};
    testing::internal::CaptureStdout();
    EXPECT_GE(CList_PrintScalar(&list, 2), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[10, -1, 3]\n");
}

TEST(CListPrintScalar, PrintsWholeWords)
{
    const unsigned long item = ULONG_MAX / 2;
    OwnedList list{item};
    testing::internal::CaptureStdout();
    EXPECT_GE(CList_PrintScalar(&list, 1), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[" + std::to_string(item) + "]\n");
    testing::internal::CaptureStdout();
    EXPECT_GE(CList_PrintScalar(&list, 0), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[0x7" + std::string(2 * sizeof item - 1, 'F') + "]\n");
}

TEST(CListPrintScalar, PrintsAnEmptyList)
{
    OwnedList list;
    testing::internal::CaptureStdout();
    EXPECT_GE(CList_PrintScalar(&list, 1), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[]\n");
}

TEST(CListPrintScalar, ReturnsTheResultOfTheClosingLine)
{
    OwnedList list{1};
    testing::internal::CaptureStdout();
    Fault fault(calls::puts, {-7, 0});
    EXPECT_EQ(CList_PrintScalar(&list, 1), -7);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[1");
}

TEST(CListAllocation, TakesOneArrayForEachInsertedNodeAndNoneForTheRest)
{
    OwnedList list;
    const Count arrays(calls::newArray);
    const Count scalars(calls::newScalar);
    CList_PushHead(&list, 1);
    EXPECT_EQ(arrays.calls(), 1u);
    CList_PushTail(&list, 2);
    EXPECT_EQ(arrays.calls(), 2u);
    CList_InsertAfter(&list, 3, list->pHead);
    EXPECT_EQ(arrays.calls(), 3u);
    CList_InsertAt(&list, 1, 4);
    EXPECT_EQ(arrays.calls(), 4u);
    unsigned long item = 0;
    CListNode* position = nullptr;
    CList_GetHead(&list, &item);
    CList_GetTail(&list, &item);
    CList_GetAt(&list, 2, &item);
    CList_Find(&list, 2, &kEqual, &position);
    CList_FindNext(&list, 2, &kEqual, &position);
    CList_FindAndRetrieve(&list, 2, &kEqual, &item);
    CList_StartIterationFromHead(&list, &position);
    CList_GetNext(&list, &item, &position);
    CList_ItemExists(&list, 9);
    CList_IsEmpty(&list);
    CList_CurrentSize(&list);
    CList_Remove(&list, 4);
    CList_RemoveAt(&list, 1);
    CList_PopTail(&list, &item);
    CList_PopHead(&list, &item);
    EXPECT_EQ(arrays.calls(), 4u);
    EXPECT_EQ(scalars.calls(), 0u);
}

TEST(CListAllocation, TakesTheSizeOfANode)
{
    OwnedList list;
    std::vector<size_t> sizes;
    const Hook hook(calls::newArray, [&sizes](size_t size) {
        sizes.push_back(size);
        return calls::newArray.real(size);
    });
    CList_PushHead(&list, 1);
    CList_PushTail(&list, 2);
    EXPECT_EQ(sizes, (std::vector<size_t>{sizeof(CListNode), sizeof(CListNode)}));
}

TEST(CListAllocation, PassesAFailureOnWithTheListAsItWas)
{
    OwnedList list{1, 2};
    const auto expectUnchanged = [&list] {
        EXPECT_EQ(itemsOf(list.list), (Items{1, 2}));
        expectConsistent(list.list);
    };
    const Fault fault(calls::newArray, {0, 0, 1, Failure::kForGood});
    EXPECT_THROW(CList_PushHead(&list, 3), std::bad_alloc);
    expectUnchanged();
    EXPECT_THROW(CList_PushTail(&list, 3), std::bad_alloc);
    expectUnchanged();
    EXPECT_THROW(CList_InsertAfter(&list, 3, list->pHead), std::bad_alloc);
    expectUnchanged();
    EXPECT_THROW(CList_InsertAt(&list, 0, 3), std::bad_alloc);
    expectUnchanged();
    EXPECT_THROW(CList_InsertAt(&list, 1, 3), std::bad_alloc);
    expectUnchanged();
    EXPECT_EQ(fault.failures(), 5u);
}

TEST(CListModel, AgreesWithADequeOverRandomOperations)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    OwnedList list;
    std::deque<unsigned long> model;
    for (int step = 0; step < 20000 && !HasFailure(); ++step) {
        const unsigned long item = random() % 8;
        const auto index = static_cast<uint32_t>(1 + random() % 9);
        const auto at = static_cast<std::ptrdiff_t>(index);
        unsigned long out = 0;
        switch (random() % 9) {
        case 0:
            EXPECT_EQ(CList_PushHead(&list, item), GCL_OK);
            model.push_front(item);
            break;
        case 1:
            EXPECT_EQ(CList_PushTail(&list, item), GCL_OK);
            model.push_back(item);
            break;
        case 2:
            EXPECT_EQ(CList_PopHead(&list, &out), model.empty() ? GCL_LIST_EMPTY : GCL_OK);
            if (!model.empty()) {
                EXPECT_EQ(out, model.front());
                model.pop_front();
            }
            break;
        case 3:
            EXPECT_EQ(CList_PopTail(&list, &out), model.empty() ? GCL_LIST_EMPTY : GCL_OK);
            if (!model.empty()) {
                EXPECT_EQ(out, model.back());
                model.pop_back();
            }
            break;
        case 4: {
            const auto end = std::remove(model.begin(), model.end(), item);
            EXPECT_EQ(CList_Remove(&list, item), end == model.end() ? GCL_ITEM_NOT_FOUND : GCL_OK);
            model.erase(end, model.end());
            break;
        }
        case 5:
            if (index < model.size()) {
                EXPECT_EQ(CList_InsertAt(&list, index, item), GCL_OK);
                model.insert(model.begin() + at, item);
            } else {
                EXPECT_EQ(CList_InsertAt(&list, index, item), GCL_INDEX_OUT_OF_RANGE);
            }
            break;
        case 6:
            // The last node is left alone: its removal by index leaves pTail behind on purpose.
            if (index + 1 < model.size()) {
                EXPECT_EQ(CList_RemoveAt(&list, index), GCL_OK);
                model.erase(model.begin() + at);
            }
            break;
        case 7:
            EXPECT_EQ(CList_GetAt(&list, index, &out),
                      index < model.size() ? GCL_OK : GCL_INDEX_OUT_OF_RANGE);
            if (index < model.size()) {
                EXPECT_EQ(out, model[index]);
            }
            break;
        default:
            EXPECT_EQ(CList_ItemExists(&list, item),
                      std::count(model.begin(), model.end(), item) > 0 ? 1u : 0u);
            break;
        }
        EXPECT_EQ(itemsOf(list.list), Items(model.begin(), model.end()));
        expectConsistent(list.list);
    }
}
