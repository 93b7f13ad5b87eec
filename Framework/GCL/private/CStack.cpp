#include "Framework/GCL/CStack.h"

#include <cstddef>

#include "Framework/GCL/private/StackSteps.h"

namespace {

static_assert(offsetof(CStack, pEntries) == 0);
static_assert(offsetof(CStack, iTop) == sizeof(void*));
static_assert(offsetof(CStack, uiCapacity) == sizeof(void*) + 4);
static_assert(offsetof(CStack, uiStatus) == sizeof(void*) + 8);
static_assert(sizeof(CStack) == (sizeof(void*) == 8 ? 24 : 16));

} // namespace

void CStack_Construct(CStack* pThis, uint32_t uiCapacity)
{
    // Without the array it stays a stack that every operation, Destruct included, can deal with.
    *pThis = {nullptr, -1, 0, GCL_OK};
    pThis->pEntries = new void*[uiCapacity];
    pThis->uiCapacity = uiCapacity;
}

void CStack_Destruct(CStack* pThis)
{
    // By contract: the other fields keep their values.
    delete[] pThis->pEntries;
    pThis->pEntries = nullptr;
}

uint32_t CStack_Push(CStack* pThis, void* pEntry)
{
    return gcl::stackPush(*pThis, pEntry);
}

uint32_t CStack_Pop(CStack* pThis, void** ppEntry)
{
    return gcl::stackPop(*pThis, ppEntry);
}

uint32_t CStack_IsEmpty(const CStack* pThis)
{
    if (gcl::stackHasFailed(*pThis)) {
        return pThis->uiStatus;
    }
    return pThis->iTop < 0 ? 1 : 0;
}

uint32_t CStack_GetCurrentSize(const CStack* pThis)
{
    return gcl::stackCurrentSize(*pThis);
}
