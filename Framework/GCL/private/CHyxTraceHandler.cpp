#include "Framework/GCL/CHyxTraceHandler.h"

#include "Framework/GCL/private/TraceLevel.h"

int32_t CHyxTraceHandler_DmLevel2VtLevel(uint32_t uiCode)
{
    return gcl::traceLevelOf(uiCode);
}
