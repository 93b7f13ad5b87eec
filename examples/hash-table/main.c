/* CHashTable: the carriers of a unit under their names. The table holds addresses; the carriers
 * themselves stay the caller's. */
#include <stdio.h>
#include <stdlib.h>

#include "Framework/GCL/CHashTable.h"
#include "Framework/GCL/CList.h"
#include "Framework/GCL/ResultCodes.h"

enum { kBuckets = 32 }; /* about as many as there will be keys: the table never grows */

/* [pointers] */
typedef struct Carrier {
    const char* szName;
    unsigned uiFrequencyKHz;
} Carrier;

static uint32_t add(CHashTable* carriers, Carrier* carrier)
{
    /* A second carrier of the same name would replace the first without a word. */
    if (CHashTable_Exists(carriers, carrier->szName)) {
        printf("there is a carrier %s already\n", carrier->szName);
        return GCL_FAILURE;
    }
    return CHashTable_Set(carriers, carrier->szName, (unsigned long)carrier);
}

static Carrier* find(const CHashTable* carriers, const char* name)
{
    unsigned long value = 0;
    return CHashTable_Get(carriers, name, &value) == GCL_OK ? (Carrier*)value : NULL;
}
/* [pointers end] */

/* [list] */
/* The table hands its values out as a list, which the caller destructs. */
static unsigned totalKHz(const CHashTable* carriers)
{
    unsigned total = 0;
    unsigned long value = 0;
    CList list;
    if (GCL_IS_FAILURE(CHashTable_ToList(carriers, &list))) {
        return 0; /* only for a NULL table or list: nothing was constructed */
    }
    while (CList_PopHead(&list, &value) == GCL_OK) {
        total += ((const Carrier*)value)->uiFrequencyKHz;
    }
    CList_Destruct(&list);
    return total;
}
/* [list end] */

static int run(CHashTable* table)
{
    static Carrier carriers[] = {{"north", 1842500}, {"south", 1847500}, {"roof", 1852500}};
    unsigned long removed = 0;

    for (size_t i = 0; i < sizeof carriers / sizeof carriers[0]; ++i) {
        if (GCL_IS_FAILURE(add(table, &carriers[i]))) {
            return EXIT_FAILURE;
        }
    }
    (void)add(table, &carriers[1]); /* refused, and says so itself */

    const Carrier* const roof = find(table, "roof");
    if (roof == NULL || find(table, "cellar") != NULL) {
        return EXIT_FAILURE;
    }
    printf("roof: %u kHz\n", roof->uiFrequencyKHz);
    printf("%u carriers, %u kHz in all\n", CHashTable_Count(table), totalKHz(table));

    if (CHashTable_Unset(table, "south", &removed) != GCL_OK) {
        return EXIT_FAILURE;
    }
    printf("removed %s, %u left\n", ((const Carrier*)removed)->szName, CHashTable_Count(table));
    return EXIT_SUCCESS;
}

int main(void)
{
    CHashTable table;
    CHashTable_Construct(&table, kBuckets);
    const int status = run(&table);
    CHashTable_Destruct(&table);
    return status;
}
