#include <ostream>

#include "Framework/GCL/CList.h"
#include "Framework/GCL/TraceChannels.h"
#include "Framework/VT/VorTrace.h"

int main()
{
    VorTrace trace("KIV.CONSUMER", VorTraceLevel3);
    const VorTraceHeader here = {"consumer", __LINE__, "main"};
    trace.beginLogMsg(VorTraceLevel2, here);
    trace.stream() << "channel " << GCL_trace.name << std::endl;
    CList list;
    CList_Construct(&list);
    CList_PushHead(&list, 1);
    CList_PrintScalar(&list, 1);
    CList_Destruct(&list);
    return 0;
}
