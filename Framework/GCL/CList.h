// CList: a singly linked list of one-word items, kept in a structure that the caller owns.
//
// An item is an unsigned integer as wide as a pointer: a scalar, or a pointer cast to it. The list
// allocates and frees its nodes, one array-form operator new[] for each; it never looks into an
// item and never owns what an item points to. Results are codes of ResultCodes.h unless stated
// otherwise. Where an allocation fails, std::bad_alloc passes through the call, the list is as it
// was before it, and nothing leaks; a C caller on ARM must be compiled with -fexceptions for that.
//
// A copy of the structure shares the nodes with the original: only one of the two may be used and
// destructed from then on.
//
// A list takes no lock: threads that share one serialise their calls. Two failures are reported on
// GCL_trace; all others return their code silently. A failing call changes nothing but what its
// comment names. Where a comment does not mention a check for NULL, there is none, and a NULL
// pointer is the caller's error.
#ifndef GCL_CLIST_H
#define GCL_CLIST_H

#include <stdint.h>

#include "Framework/GCL/Api.h"

GCL_C_BEGIN

// A node; made and freed by the list only.
typedef struct CListNode {
    unsigned long ulItem;    // the item
    struct CListNode* pNext; // the next node, NULL at the end
} CListNode;

// A list. Construct it before any other use; the fields may be read, but are the list's to write.
typedef struct CList {
    CListNode* pHead; // the first node, NULL when the list is empty; owned
    CListNode* pTail; // the last node, NULL when the list is empty
    uint32_t uiSize;  // number of nodes
} CList;

// What a search asks of each item. The caller owns the record; the search reads pfnMatch anew
// before each call of it.
typedef struct CListMatcher {
    // Returns non-zero if ulItem, the item of a node, matches ulKey, the key given to the search.
    uint32_t (*pfnMatch)(unsigned long ulItem, unsigned long ulKey);
} CListMatcher;

// CList_Construct makes pThis an empty list. It allocates nothing and cannot fail. Nodes that the
// list held before are forgotten, not freed.
GCL_API void CList_Construct(CList* pThis);

// CList_Destruct frees every node and leaves the list empty and usable. A NULL pThis is allowed.
// The list must not be a ring (see CList_InsertAt) nor begin with a freed node (see CList_PopTail).
GCL_API void CList_Destruct(CList* pThis);

// CList_IsEmpty returns 1 if uiSize is 0, else 0.
GCL_API uint32_t CList_IsEmpty(const CList* pThis);

// CList_CurrentSize returns uiSize.
GCL_API uint32_t CList_CurrentSize(const CList* pThis);

// CList_ItemExists returns 1 if a node holds ulItem, else 0. Linear time.
GCL_API uint32_t CList_ItemExists(const CList* pThis, unsigned long ulItem);

// CList_Remove removes every node that holds ulItem. Linear time; it first makes sure that the
// list is not circular.
//   GCL_OK                at least one node was removed
//   GCL_FAILURE           pThis is NULL (silent)
//   GCL_ITEM_NOT_FOUND    no node holds ulItem, or the list is empty (silent)
//   GCL_INVALID_ARGUMENT  the list is circular; nothing changed (reported)
GCL_API uint32_t CList_Remove(CList* pThis, unsigned long ulItem);

// CList_PushHead inserts ulItem before the first node. Constant time, one allocation.
//   GCL_OK                inserted
//   GCL_INVALID_ARGUMENT  pThis is NULL (silent)
GCL_API uint32_t CList_PushHead(CList* pThis, unsigned long ulItem);

// CList_PopHead removes the first node and stores its item in *pulItem. Constant time.
//   GCL_OK                removed
//   GCL_INVALID_ARGUMENT  pThis or pulItem is NULL (silent)
//   GCL_LIST_EMPTY        uiSize is 0 (silent)
//   GCL_INCONSISTENT      uiSize is not 0, but there is no first node (silent)
GCL_API uint32_t CList_PopHead(CList* pThis, unsigned long* pulItem);

// CList_GetHead stores the first node's item in *pulItem. Constant time.
//   GCL_OK                stored
//   GCL_INVALID_ARGUMENT  pThis or pulItem is NULL (silent)
//   GCL_LIST_EMPTY        there is no first node, whatever uiSize says (silent)
GCL_API uint32_t CList_GetHead(const CList* pThis, unsigned long* pulItem);

// CList_PushTail inserts ulItem behind the node that pTail names. Constant time, one allocation.
//   GCL_OK                inserted
//   GCL_INVALID_ARGUMENT  pThis is NULL (silent)
GCL_API uint32_t CList_PushTail(CList* pThis, unsigned long ulItem);

// CList_PopTail removes the node that pTail names and stores its item in *pulItem. It walks to the
// node before it: linear time. Nodes that CList_InsertAfter put behind pTail are lost with it, and
// uiSize keeps counting them. If pTail is the first node although uiSize is above 1, pHead is left
// naming the freed node: the list must be constructed anew before any other call.
//   GCL_OK                removed
//   GCL_INVALID_ARGUMENT  pThis or pulItem is NULL (silent)
//   GCL_LIST_EMPTY        uiSize is 0 (silent)
//   GCL_INCONSISTENT      uiSize is not 0, but there is no first or no last node, or the last one
//                         cannot be reached from the first (silent)
GCL_API uint32_t CList_PopTail(CList* pThis, unsigned long* pulItem);

// CList_GetTail stores the item of the node that pTail names in *pulItem. Constant time.
//   GCL_OK                stored
//   GCL_INVALID_ARGUMENT  pThis or pulItem is NULL (silent)
//   GCL_LIST_EMPTY        uiSize is 0 (silent)
//   GCL_INCONSISTENT      uiSize is not 0, but there is no last node (silent)
GCL_API uint32_t CList_GetTail(const CList* pThis, unsigned long* pulItem);

// CList_StartIterationFromHead sets the position *ppPosition to the first node. A position is
// valid until the node that it names is removed.
//   GCL_OK                set
//   GCL_INVALID_ARGUMENT  pThis or ppPosition is NULL (silent)
//   GCL_LIST_EMPTY        there is no first node (silent)
GCL_API uint32_t CList_StartIterationFromHead(const CList* pThis, CListNode** ppPosition);

// CList_InsertAfter inserts ulItem behind the node at pPosition. Constant time, one allocation.
// pTail stays where it is even if pPosition is the last node: the new node is then found by
// walking, but not by CList_GetTail, and the next CList_PushTail cuts it off the list (it leaks,
// and uiSize keeps counting it). Where nodes stand behind the one that pTail names, that one must
// stay: CList_PopHead and CList_RemoveAt leave pTail naming the freed node, so that CList_PushTail,
// CList_PopTail and CList_GetTail must not be used any more, and CList_Remove may leave it NULL,
// after which CList_PushTail crashes.
//   GCL_OK                inserted
//   GCL_INVALID_ARGUMENT  pThis or pPosition is NULL (silent)
GCL_API uint32_t CList_InsertAfter(CList* pThis, unsigned long ulItem, CListNode* pPosition);

// CList_GetNext stores the item at the position *ppPosition in *pulItem and moves the position to
// the next node. *pulItem is set to 0 first, also if the call then fails; pulItem must not be NULL.
// A walk starts with CList_StartIterationFromHead and goes on until GCL_LAST_ITEM, whose item still
// counts, or a failure.
//   GCL_OK                stored; there is a next node
//   GCL_LAST_ITEM         stored; it was the last item, and the position is now NULL
//   GCL_INVALID_ARGUMENT  pThis is NULL (reported); ppPosition or the position is NULL (silent)
GCL_API uint32_t CList_GetNext(const CList* pThis, unsigned long* pulItem, CListNode** ppPosition);

// CList_InsertAt inserts ulItem so that it becomes node number uiIndex, counted from 0. Linear
// time, one allocation. It never appends.
// With index 0 the new node and the first node form a ring: each names the other as its next, the
// first node stays first, and the nodes that followed it can no longer be reached from the list.
// Until the caller has mended the links, CList_Remove refuses such a list; CList_Destruct,
// CList_PopHead and CList_RemoveAt must not be used on it, since they free nodes that others still
// name; and CList_PopTail, CList_ItemExists, the searches, CList_PrintScalar and a walk of the
// caller's may never end. Use CList_PushHead to insert at the front.
//   GCL_OK                   inserted
//   GCL_INDEX_OUT_OF_RANGE   there is no node number uiIndex, or the list is empty (silent)
GCL_API uint32_t CList_InsertAt(CList* pThis, uint32_t uiIndex, unsigned long ulItem);

// CList_GetAt stores the item of node number uiIndex, counted from 0, in *pulItem. Linear time.
//   GCL_OK                   stored
//   GCL_INDEX_OUT_OF_RANGE   there is no node number uiIndex (silent)
GCL_API uint32_t CList_GetAt(const CList* pThis, uint32_t uiIndex, unsigned long* pulItem);

// CList_RemoveAt removes node number uiIndex, counted from 0. Linear time. Unless the list becomes
// empty, pTail stays where it is: once the node that it names has been removed by its index, pTail
// names a freed node, and CList_PushTail, CList_PopTail and CList_GetTail must not be used on the
// list.
//   GCL_OK                   removed
//   GCL_INDEX_OUT_OF_RANGE   there is no node number uiIndex (silent)
GCL_API uint32_t CList_RemoveAt(CList* pThis, uint32_t uiIndex);

// CList_Find looks from the first node on for an item that matches ulKey. It returns 1 with the
// position *ppPosition at that node, or 0 with the position NULL. If pThis, pMatcher or ppPosition
// is NULL it returns 0 and stores nothing. Linear time.
GCL_API uint32_t CList_Find(const CList* pThis, unsigned long ulKey, const CListMatcher* pMatcher,
                            CListNode** ppPosition);

// CList_FindNext looks for an item that matches ulKey, from the node at the position *ppPosition
// on, that node included: move on with CList_GetNext before looking for the next one. It returns 1
// with the position at the node found, or 0 with the position as it was. If pThis, pMatcher,
// ppPosition or the position is NULL it returns 0. Linear time.
GCL_API uint32_t CList_FindNext(const CList* pThis, unsigned long ulKey,
                                const CListMatcher* pMatcher, CListNode** ppPosition);

// CList_FindAndRetrieve looks for an item as CList_Find does and stores it in *pulItem, which must
// not be NULL. It returns 1, or 0 with *pulItem untouched if there is none. Linear time.
GCL_API uint32_t CList_FindAndRetrieve(const CList* pThis, unsigned long ulKey,
                                       const CListMatcher* pMatcher, unsigned long* pulItem);

// CList_PrintScalar prints the items on standard output as one line: "[" first, the items, from the
// first node on, separated by ", ", and "]" with a newline. A non-zero uiDecimal prints signed
// decimals ("%ld"), 0 prints upper-case hexadecimals ("0x%lX"). It returns what puts(3) returned
// for the end of the line: EOF for a failure.
GCL_API int CList_PrintScalar(const CList* pThis, uint32_t uiDecimal);

GCL_C_END

#endif // GCL_CLIST_H
