/* CStack: the free slots of a table, the one that was freed last used first. */
#include <stdio.h>
#include <stdlib.h>

#include "Framework/GCL/CStack.h"
#include "Framework/GCL/ResultCodes.h"

enum { kSlots = 3 };

typedef struct Slot {
    unsigned uiNumber;
} Slot;

/* [take] */
/* The stack reports nothing: whether an empty one is an error is for its owner to say. */
static Slot* take(CStack* freeSlots)
{
    void* entry = NULL;
    if (CStack_Pop(freeSlots, &entry) == GCL_STACK_EMPTY) {
        printf("no slot is free\n");
        return NULL;
    }
    return (Slot*)entry;
}

static void giveBack(CStack* freeSlots, Slot* slot)
{
    if (CStack_Push(freeSlots, slot) == GCL_STACK_FULL) {
        printf("slot %u was given back twice\n", slot->uiNumber);
    }
}
/* [take end] */

static int run(CStack* freeSlots)
{
    static Slot slots[kSlots] = {{0}, {1}, {2}};
    Slot* taken[kSlots];
    for (int i = 0; i < kSlots; ++i) {
        giveBack(freeSlots, &slots[i]);
    }
    for (int i = 0; i < kSlots; ++i) {
        taken[i] = take(freeSlots);
        if (taken[i] == NULL) {
            return EXIT_FAILURE;
        }
        printf("took slot %u\n", taken[i]->uiNumber);
    }
    if (take(freeSlots) != NULL) {
        return EXIT_FAILURE;
    }
    for (int i = 0; i < kSlots; ++i) {
        giveBack(freeSlots, taken[i]);
    }
    giveBack(freeSlots, taken[0]);
    printf("%u slots are free\n", CStack_GetCurrentSize(freeSlots));
    return EXIT_SUCCESS;
}

int main(void)
{
    CStack freeSlots;
    CStack_Construct(&freeSlots, kSlots);
    const int status = run(&freeSlots);
    CStack_Destruct(&freeSlots);
    return status;
}
