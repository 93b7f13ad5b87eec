/* A first program: readings under names, and what the library reports by itself. */
#include <stdio.h>

#include "Framework/GCL/CHashTable.h"
#include "Framework/GCL/ResultCodes.h"

int main(void)
{
    CHashTable readings;
    unsigned long volts = 0;

    CHashTable_Construct(&readings, 16);
    if (!GCL_IS_FAILURE(CHashTable_Set(&readings, "supply", 48)) &&
        !GCL_IS_FAILURE(CHashTable_Get(&readings, "supply", &volts))) {
        printf("supply: %lu V\n", volts);
    }

    /* This key was never set. The call fails, and reports why on the library's trace channel. */
    if (CHashTable_Unset(&readings, "reserve", &volts) == GCL_PAIR_NOT_FOUND) {
        printf("reserve: no such reading\n");
    }
    CHashTable_Destruct(&readings);
    return 0;
}
