// The mapping of result codes to trace levels, for use inside the library: for a constant code the
// compiler computes it.
#ifndef GCL_PRIVATE_TRACELEVEL_H
#define GCL_PRIVATE_TRACELEVEL_H

#include <cstdint>

namespace gcl {

// By contract: the order of the levels is irregular. The codes of routine progress (0x0840 and up)
// are the most verbose, those just below them come next, and what belongs to no band is level 5.
constexpr int32_t traceLevelOf(uint32_t code)
{
    if (code >= 0x8000) {
        return 1;
    }
    if (code >= 0x1000) {
        return 2;
    }
    if (code >= 0x900) {
        return 3;
    }
    if (code >= 0x840) {
        return 7;
    }
    if (code >= 0x820) {
        return 6;
    }
    if (code >= 0x100 && code <= 0x7FF) {
        return 4;
    }
    return 5;
}

} // namespace gcl

#endif // GCL_PRIVATE_TRACELEVEL_H
