#include <stdio.h>

#include "Framework/GCL/CList.h"
#include "Framework/GCL/ResultCodes.h"

int main(void)
{
    CList list;
    unsigned long item = 0;
    uint32_t result;
    CList_Construct(&list);
    CList_PushTail(&list, 10);
    CList_PushTail(&list, 255);
    CList_PrintScalar(&list, 0);
    result = CList_GetNext(NULL, &item, NULL);
    CList_Destruct(&list);
    return result == GCL_INVALID_ARGUMENT && GCL_IS_FAILURE(result) ? 0 : 1;
}
