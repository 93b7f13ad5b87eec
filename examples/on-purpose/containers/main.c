/* What the containers do on purpose; docs/on-purpose.md says why. */
#include <stdio.h>
#include <string.h>

#include "Framework/GCL/CHashTable.h"
#include "Framework/GCL/CList.h"
#include "Framework/GCL/CMemoryPool.h"
#include "Framework/GCL/CStack.h"
#include "Framework/GCL/ResultCodes.h"

static void showRing(void)
{
    CList list;
    CList_Construct(&list);
    CList_PushTail(&list, 5);
    CList_PushTail(&list, 6);
    CList_PushTail(&list, 7);

    /* [ring] */
    CListNode* const second = list.pHead->pNext; /* of the list 5, 6, 7 */
    CList_InsertAt(&list, 0, 4);                 /* a ring of 5 and 4; 6 and 7 are cut off */
    printf("%u nodes, ", CList_CurrentSize(&list));
    printf("removing 6: 0x%X\n", CList_Remove(&list, 6));
    list.pHead->pNext->pNext = second; /* mends the ring */
    CList_PrintScalar(&list, 1);
    /* [ring end] */
    CList_Destruct(&list);
}

static void showTail(void)
{
    CList list;
    unsigned long tail = 0;
    CList_Construct(&list);
    CList_PushTail(&list, 1);
    CList_PushTail(&list, 2);

    /* [tail] */
    CList_InsertAfter(&list, 3, list.pTail);
    CList_PrintScalar(&list, 1);
    if (CList_GetTail(&list, &tail) == GCL_OK) {
        printf("the tail is %lu\n", tail);
    }
    /* [tail end] */
    CList_Destruct(&list);
}

static void showZero(void)
{
    CHashTable table;
    unsigned long value = 99;
    CHashTable_Construct(&table, 4);

    /* [zero] */
    CHashTable_Set(&table, "errors", 0);
    const uint32_t result = CHashTable_Unset(&table, "errors", &value);
    printf("0x%X, value %lu, exists %u, count %u\n", result, value,
           CHashTable_Exists(&table, "errors"), CHashTable_Count(&table));
    CHashTable_Destruct(&table);
    printf("count after Destruct: %u\n", CHashTable_Count(&table));
    /* [zero end] */
}

static void showLongKey(void)
{
    CHashTable table;
    char key[257];
    CHashTable_Construct(&table, 16);

    /* [long-key] */
    memset(key, 'k', 256);
    key[256] = '\0'; /* one character more than fits */
    CHashTable_Set(&table, key, 1);
    CHashTable_Set(&table, key, 2); /* adds another pair */
    printf("count %u, exists %u\n", CHashTable_Count(&table), CHashTable_Exists(&table, key));
    /* [long-key end] */
    CHashTable_Destruct(&table);
}

static void showStatus(void)
{
    CStack stack;
    CStack_Construct(&stack, 2);

    /* [status] */
    stack.uiStatus = 0x8000;
    printf("size 0x%X, ", CStack_GetCurrentSize(&stack));
    stack.uiStatus = 0x80000000; /* negative, read as a signed number: no failure */
    printf("size %u\n", CStack_GetCurrentSize(&stack));
    /* [status end] */
    CStack_Destruct(&stack);
}

static void showTwice(void)
{
    CMemoryPool pool;
    void* first = NULL;
    void* second = NULL;
    CMemoryPool_Construct(&pool, 16, 2);

    /* [twice] */
    CMemoryPool_Malloc(&pool, 16, &first);
    CMemoryPool_Malloc(&pool, 16, &second);
    CMemoryPool_Free(&pool, first);
    CMemoryPool_Free(&pool, first); /* accepted, while not all blocks are free */
    CMemoryPool_Malloc(&pool, 16, &first);
    CMemoryPool_Malloc(&pool, 16, &second);
    printf("%s\n", first == second ? "two owners of one block" : "two blocks");
    /* [twice end] */
    CMemoryPool_Destruct(&pool);
}

int main(void)
{
    showRing();
    showTail();
    showZero();
    showLongKey();
    showStatus();
    showTwice();
    return 0;
}
