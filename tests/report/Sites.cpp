// Report sites, one for each CASE; all but RightArguments must not compile.
#include "Framework/GCL/private/Report.h"

constexpr char kSource[] = "Framework/GCL/private/Sites";

uint32_t site()
{
#if defined(RightArguments)
    return GCL_REPORT(GCL_FAILURE, "%s: %u", "text", 7U);
#elif defined(WrongArgument)
    return GCL_REPORT(GCL_FAILURE, "%s: %u", 7U, "text");
#elif defined(MissingArgument)
    return GCL_REPORT_AS("other", GCL_FAILURE, "%s: %u", "text");
#endif
}
