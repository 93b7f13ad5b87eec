/* CList: the active alarms of a unit, oldest first. An alarm is a number of three digits, the first
 * of which is its severity. */
#include <stdio.h>
#include <stdlib.h>

#include "Framework/GCL/CList.h"
#include "Framework/GCL/ResultCodes.h"

/* [push] */
/* Appends the alarms; it stops at the first failure. */
static uint32_t raise(CList* alarms, const unsigned long* numbers, size_t count)
{
    for (size_t i = 0; i < count; ++i) {
        const uint32_t result = CList_PushTail(alarms, numbers[i]);
        if (GCL_IS_FAILURE(result)) {
            return result;
        }
    }
    return GCL_OK;
}
/* [push end] */

/* [walk] */
/* Prints every alarm. The last one comes with GCL_LAST_ITEM, a success that carries news. */
static void show(const CList* alarms)
{
    CListNode* position = NULL;
    unsigned long alarm = 0;
    uint32_t result = CList_StartIterationFromHead(alarms, &position);
    while (result == GCL_OK) {
        result = CList_GetNext(alarms, &alarm, &position);
        if (!GCL_IS_FAILURE(result)) {
            printf("alarm %lu, severity %lu\n", alarm, alarm / 100);
        }
    }
}
/* [walk end] */

/* [find] */
static uint32_t hasSeverity(unsigned long alarm, unsigned long severity)
{
    return alarm / 100 == severity;
}

static unsigned countOfSeverity(const CList* alarms, unsigned long severity)
{
    const CListMatcher matcher = {hasSeverity};
    CListNode* position = NULL;
    unsigned long alarm = 0;
    unsigned count = 0;
    uint32_t found = CList_Find(alarms, severity, &matcher, &position);
    while (found) {
        ++count;
        /* CList_FindNext looks at the position itself first, so step over the alarm just found. */
        if (CList_GetNext(alarms, &alarm, &position) != GCL_OK) {
            break; /* it was the last one */
        }
        found = CList_FindNext(alarms, severity, &matcher, &position);
    }
    return count;
}
/* [find end] */

static int run(CList* alarms)
{
    static const unsigned long numbers[] = {310, 120, 205, 120, 330};
    unsigned long oldest = 0;

    if (GCL_IS_FAILURE(raise(alarms, numbers, sizeof numbers / sizeof numbers[0]))) {
        return EXIT_FAILURE;
    }
    show(alarms);
    printf("%u of %u have severity 3\n", countOfSeverity(alarms, 3), CList_CurrentSize(alarms));

    /* [remove] */
    /* CList_Remove takes every node that holds the item. */
    if (CList_Remove(alarms, 120) == GCL_ITEM_NOT_FOUND) {
        printf("alarm 120 was not active\n");
    }
    /* [remove end] */
    if (GCL_IS_FAILURE(CList_PopHead(alarms, &oldest))) {
        return EXIT_FAILURE;
    }
    printf("acknowledged: %lu, still active: ", oldest);
    return CList_PrintScalar(alarms, 1) == EOF ? EXIT_FAILURE : EXIT_SUCCESS;
}

int main(void)
{
    CList alarms;
    CList_Construct(&alarms);
    const int status = run(&alarms);
    CList_Destruct(&alarms);
    return status;
}
