#include "Framework/GCL/CList.h"

#include <cstddef>
#include <cstdio>

#include "Framework/GCL/ResultCodes.h"
#include "Framework/GCL/private/Report.h"
#include "Framework/GCL/private/Unlikely.h"

namespace {

static_assert(sizeof(unsigned long) == sizeof(void*), "an item holds a pointer");
static_assert(offsetof(CListNode, ulItem) == 0);
static_assert(offsetof(CListNode, pNext) == sizeof(void*));
static_assert(offsetof(CList, pHead) == 0);
static_assert(offsetof(CList, pTail) == sizeof(void*));
static_assert(offsetof(CList, uiSize) == 2 * sizeof(void*));
static_assert(sizeof(CList) == 3 * sizeof(void*));

constexpr char kSource[] = "Framework/GCL/private/CList";

CListNode* newNode(unsigned long item, CListNode* next)
{
    return new CListNode[1]{{item, next}};
}

// Unlinks the first node, which exists, and frees it.
void dropHead(CList& list)
{
    CListNode* const oldHead = list.pHead;
    list.pHead = oldHead->pNext;
    if (list.pHead == nullptr) {
        list.pTail = nullptr;
    }
    delete[] oldHead;
    --list.uiSize;
}

CListNode* nodeAt(const CList& list, uint32_t index)
{
    CListNode* node = list.pHead;
    for (; node != nullptr && index > 0; --index) {
        node = node->pNext;
    }
    return node;
}

// Where an item stands in a list, all NULL if nowhere.
struct Places {
    CListNode* beforeFirst = nullptr; // NULL also if it is the first node's
    CListNode* first = nullptr;
    CListNode* last = nullptr;

    void look(unsigned long item, CListNode* previous, CListNode* node)
    {
        if (gcl::unlikely(node->ulItem == item)) {
            if (first == nullptr) {
                beforeFirst = previous;
                first = node;
            }
            last = node;
        }
    }
};

// Finds the places of an item in a list that is not empty; false if the list is circular. By
// Floyd's method: a pointer that steps twice as fast meets the slow one again only on a ring.
bool findPlaces(const CList& list, unsigned long item, Places& places)
{
    const CListNode* slow = list.pHead;
    CListNode* fast = list.pHead;
    places.look(item, nullptr, fast);
    for (;;) {
        CListNode* const odd = fast->pNext;
        if (odd == nullptr) {
            return true;
        }
        places.look(item, fast, odd);
        fast = odd->pNext;
        if (fast == nullptr) {
            return true;
        }
        slow = slow->pNext;
        if (fast == slow) {
            return false;
        }
        places.look(item, odd, fast);
    }
}

// The first node from `node` on whose item matches, NULL if there is none.
CListNode* findFrom(CListNode* node, unsigned long key, const CListMatcher& matcher)
{
    while (node != nullptr && matcher.pfnMatch(node->ulItem, key) == 0) {
        node = node->pNext;
    }
    return node;
}

} // namespace

void CList_Construct(CList* pThis)
{
    pThis->pHead = nullptr;
    pThis->pTail = nullptr;
    pThis->uiSize = 0;
}

void CList_Destruct(CList* pThis)
{
    if (pThis == nullptr) {
        return;
    }
    for (CListNode* node = pThis->pHead; node != nullptr;) {
        CListNode* const next = node->pNext;
        delete[] node;
        node = next;
    }
    CList_Construct(pThis);
}

uint32_t CList_IsEmpty(const CList* pThis)
{
    return pThis->uiSize == 0 ? 1 : 0;
}

uint32_t CList_CurrentSize(const CList* pThis)
{
    return pThis->uiSize;
}

uint32_t CList_ItemExists(const CList* pThis, unsigned long ulItem)
{
    for (const CListNode* node = pThis->pHead; node != nullptr; node = node->pNext) {
        if (node->ulItem == ulItem) {
            return 1;
        }
    }
    return 0;
}

uint32_t CList_Remove(CList* pThis, unsigned long ulItem)
{
    // By contract: a NULL list is a general failure here, not an invalid argument.
    if (pThis == nullptr) {
        return GCL_FAILURE;
    }
    if (pThis->pHead == nullptr) {
        return GCL_ITEM_NOT_FOUND;
    }
    // Nothing is changed before the end of the list has been seen; what was found on the way there
    // spares the removal the nodes before the first place and behind the last.
    Places places;
    if (!findPlaces(*pThis, ulItem, places)) {
        return GCL_REPORT(GCL_INVALID_ARGUMENT,
                          "CList_Remove: invalid argument. A cycle was detected in pThis! ");
    }
    if (places.first == nullptr) {
        return GCL_ITEM_NOT_FOUND;
    }
    CListNode* lastKept = places.beforeFirst;
    CListNode* node = places.first;
    for (bool more = true; more;) {
        CListNode* const next = node->pNext;
        if (node->ulItem != ulItem) {
            lastKept = node;
        } else {
            if (node == pThis->pTail) {
                pThis->pTail = lastKept;
            }
            if (lastKept == nullptr) {
                pThis->pHead = next;
            } else {
                lastKept->pNext = next;
            }
            more = node != places.last;
            delete[] node;
            --pThis->uiSize;
        }
        node = next;
    }
    return GCL_OK;
}

uint32_t CList_PushHead(CList* pThis, unsigned long ulItem)
{
    if (pThis == nullptr) {
        return GCL_INVALID_ARGUMENT;
    }
    CListNode* const node = newNode(ulItem, pThis->pHead);
    pThis->pHead = node;
    if (pThis->pTail == nullptr) {
        pThis->pTail = node;
    }
    ++pThis->uiSize;
    return GCL_OK;
}

uint32_t CList_PopHead(CList* pThis, unsigned long* pulItem)
{
    if (pThis == nullptr || pulItem == nullptr) {
        return GCL_INVALID_ARGUMENT;
    }
    if (pThis->uiSize == 0) {
        return GCL_LIST_EMPTY;
    }
    if (pThis->pHead == nullptr) {
        return GCL_INCONSISTENT;
    }
    *pulItem = pThis->pHead->ulItem;
    dropHead(*pThis);
    return GCL_OK;
}

uint32_t CList_GetHead(const CList* pThis, unsigned long* pulItem)
{
    if (pThis == nullptr || pulItem == nullptr) {
        return GCL_INVALID_ARGUMENT;
    }
    if (pThis->pHead == nullptr) {
        return GCL_LIST_EMPTY;
    }
    *pulItem = pThis->pHead->ulItem;
    return GCL_OK;
}

uint32_t CList_PushTail(CList* pThis, unsigned long ulItem)
{
    if (pThis == nullptr) {
        return GCL_INVALID_ARGUMENT;
    }
    CListNode* const node = newNode(ulItem, nullptr);
    // By contract: pHead tells whether the list is empty here, where CList_PushHead asks pTail.
    if (pThis->pHead == nullptr) {
        pThis->pHead = node;
    } else {
        pThis->pTail->pNext = node;
    }
    pThis->pTail = node;
    ++pThis->uiSize;
    return GCL_OK;
}

uint32_t CList_PopTail(CList* pThis, unsigned long* pulItem)
{
    if (pThis == nullptr || pulItem == nullptr) {
        return GCL_INVALID_ARGUMENT;
    }
    if (pThis->uiSize == 0) {
        return GCL_LIST_EMPTY;
    }
    CListNode* const oldTail = pThis->pTail;
    if (oldTail == nullptr || pThis->pHead == nullptr) {
        return GCL_INCONSISTENT;
    }
    CListNode* newTail = nullptr;
    if (oldTail != pThis->pHead) {
        newTail = pThis->pHead;
        while (newTail != nullptr && newTail->pNext != oldTail) {
            newTail = newTail->pNext;
        }
        if (newTail == nullptr) {
            return GCL_INCONSISTENT;
        }
        newTail->pNext = nullptr;
    }
    *pulItem = oldTail->ulItem;
    delete[] oldTail;
    --pThis->uiSize;
    pThis->pTail = newTail;
    if (pThis->uiSize == 0) {
        pThis->pHead = nullptr;
        pThis->pTail = nullptr;
    }
    return GCL_OK;
}

uint32_t CList_GetTail(const CList* pThis, unsigned long* pulItem)
{
    if (pThis == nullptr || pulItem == nullptr) {
        return GCL_INVALID_ARGUMENT;
    }
    if (pThis->uiSize == 0) {
        return GCL_LIST_EMPTY;
    }
    if (pThis->pTail == nullptr) {
        return GCL_INCONSISTENT;
    }
    *pulItem = pThis->pTail->ulItem;
    return GCL_OK;
}

uint32_t CList_StartIterationFromHead(const CList* pThis, CListNode** ppPosition)
{
    if (pThis == nullptr || ppPosition == nullptr) {
        return GCL_INVALID_ARGUMENT;
    }
    if (pThis->pHead == nullptr) {
        return GCL_LIST_EMPTY;
    }
    *ppPosition = pThis->pHead;
    return GCL_OK;
}

uint32_t CList_InsertAfter(CList* pThis, unsigned long ulItem, CListNode* pPosition)
{
    if (pThis == nullptr || pPosition == nullptr) {
        return GCL_INVALID_ARGUMENT;
    }
    // By contract: pTail stays, even if the new node comes behind it.
    pPosition->pNext = newNode(ulItem, pPosition->pNext);
    ++pThis->uiSize;
    return GCL_OK;
}

uint32_t CList_GetNext(const CList* pThis, unsigned long* pulItem, CListNode** ppPosition)
{
    // By contract: the item is cleared before any check.
    *pulItem = 0;
    if (pThis == nullptr) {
        return GCL_REPORT(GCL_INVALID_ARGUMENT, "pThis is NULL!");
    }
    if (ppPosition == nullptr || *ppPosition == nullptr) {
        return GCL_INVALID_ARGUMENT;
    }
    *pulItem = (*ppPosition)->ulItem;
    *ppPosition = (*ppPosition)->pNext;
    if (*ppPosition == nullptr) {
        return GCL_LAST_ITEM;
    }
    return GCL_OK;
}

uint32_t CList_InsertAt(CList* pThis, uint32_t uiIndex, unsigned long ulItem)
{
    if (pThis->pHead == nullptr) {
        return GCL_INDEX_OUT_OF_RANGE;
    }
    if (uiIndex == 0) {
        // By contract: index 0 closes a ring of two behind the head and cuts off the rest.
        pThis->pHead->pNext = newNode(ulItem, pThis->pHead);
    } else {
        CListNode* const previous = nodeAt(*pThis, uiIndex - 1);
        if (previous == nullptr || previous->pNext == nullptr) {
            return GCL_INDEX_OUT_OF_RANGE;
        }
        previous->pNext = newNode(ulItem, previous->pNext);
    }
    ++pThis->uiSize;
    return GCL_OK;
}

uint32_t CList_GetAt(const CList* pThis, uint32_t uiIndex, unsigned long* pulItem)
{
    const CListNode* const node = nodeAt(*pThis, uiIndex);
    if (node == nullptr) {
        return GCL_INDEX_OUT_OF_RANGE;
    }
    *pulItem = node->ulItem;
    return GCL_OK;
}

uint32_t CList_RemoveAt(CList* pThis, uint32_t uiIndex)
{
    if (pThis->pHead == nullptr) {
        return GCL_INDEX_OUT_OF_RANGE;
    }
    if (uiIndex == 0) {
        dropHead(*pThis);
        return GCL_OK;
    }
    CListNode* const previous = nodeAt(*pThis, uiIndex - 1);
    if (previous == nullptr || previous->pNext == nullptr) {
        return GCL_INDEX_OUT_OF_RANGE;
    }
    CListNode* const node = previous->pNext;
    // By contract: pTail stays, even if it names the node that goes.
    previous->pNext = node->pNext;
    delete[] node;
    --pThis->uiSize;
    return GCL_OK;
}

uint32_t CList_Find(const CList* pThis, unsigned long ulKey, const CListMatcher* pMatcher,
                    CListNode** ppPosition)
{
    if (pThis == nullptr || pMatcher == nullptr || ppPosition == nullptr) {
        return 0;
    }
    // The position is NULL while the match function runs, which may look at it.
    *ppPosition = nullptr;
    *ppPosition = findFrom(pThis->pHead, ulKey, *pMatcher);
    return *ppPosition == nullptr ? 0 : 1;
}

uint32_t CList_FindNext(const CList* pThis, unsigned long ulKey, const CListMatcher* pMatcher,
                        CListNode** ppPosition)
{
    if (pThis == nullptr || pMatcher == nullptr || ppPosition == nullptr) {
        return 0;
    }
    // By contract: the node at the position is looked at first, so that it is found again.
    CListNode* const found = findFrom(*ppPosition, ulKey, *pMatcher);
    if (found == nullptr) {
        return 0;
    }
    *ppPosition = found;
    return 1;
}

uint32_t CList_FindAndRetrieve(const CList* pThis, unsigned long ulKey,
                               const CListMatcher* pMatcher, unsigned long* pulItem)
{
    CListNode* position = nullptr;
    if (CList_Find(pThis, ulKey, pMatcher, &position) == 0) {
        return 0;
    }
    // The step cannot fail at a node just found; both of its successes count.
    static_cast<void>(CList_GetNext(pThis, pulItem, &position));
    return 1;
}

int CList_PrintScalar(const CList* pThis, uint32_t uiDecimal)
{
    // What the single pieces return is left alone: the stream keeps the error, and the caller
    // learns how the line ended.
    static_cast<void>(std::putchar('['));
    const char* separator = "";
    for (const CListNode* node = pThis->pHead; node != nullptr; node = node->pNext) {
        if (uiDecimal != 0) {
            static_cast<void>(std::printf("%s%ld", separator, static_cast<long>(node->ulItem)));
        } else {
            static_cast<void>(std::printf("%s0x%lX", separator, node->ulItem));
        }
        separator = ", ";
    }
    return std::puts("]");
}
