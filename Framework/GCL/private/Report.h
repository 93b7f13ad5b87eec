// The report step of the plain-structure modules: a failure worth telling is written to GCL_trace
// before its code is returned.
//
// A source file defines `kSource`, its path as it appears in reports, and writes a report as
//
//     return GCL_REPORT(GCL_INVALID_ARGUMENT, "pThis is NULL!");
//
// which yields the code. Sites stand in functions of a .cpp file, not in lambdas or templates: the
// record carries the enclosing function's name.
#ifndef GCL_PRIVATE_REPORT_H
#define GCL_PRIVATE_REPORT_H

#include <cstdint>

#include "Framework/GCL/ResultCodes.h"
#include "Framework/GCL/TraceChannels.h"
#include "Framework/GCL/private/TraceLevel.h"
#include "Framework/VT/VT.h"

namespace gcl {

// The framework may change the threshold while others report, hence the atomic load.
inline bool reportAdmitted(uint32_t code)
{
    return __atomic_load_n(&GCL_trace.threshold, __ATOMIC_RELAXED) >= traceLevelOf(code);
}

// Writes one message: the text, then the code. The framework gets a copy of the site's record, so
// that nothing it does can reach the constant one. The macro below has checked the format.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
template <typename... Arguments>
[[gnu::cold, gnu::noinline]] uint32_t writeReport(const VorTraceHeader& site, uint32_t code,
                                                  const char* format, Arguments... arguments)
{
    const VorTraceHeader header = site;
    VT_beginImpl(&GCL_trace, traceLevelOf(code), &header);
    VT_rawprintf(&GCL_trace, format, arguments...);
    VT_rawprintf(&GCL_trace, "      code: %#lx\n", static_cast<unsigned long>(code));
    VT_endImpl(&GCL_trace);
    return code;
}
#pragma GCC diagnostic pop

} // namespace gcl

// GCL_REPORT(code, format, arguments...) reports and yields the code. A suppressed report costs a
// load, a compare and a branch. The arguments are evaluated only for an admitted report, and before
// the framework is called, so that `errno` among them is still that of the failed call.
#define GCL_REPORT(code, ...) GCL_REPORT_AS(__func__, code, __VA_ARGS__)

// GCL_REPORT_AS(function, code, format, arguments...) does the same under another function's name,
// a constant, for the steps of an operation that stand in functions of their own.
#define GCL_REPORT_AS(function, code, ...)                                                         \
    __extension__({                                                                                \
        static constexpr VorTraceHeader site = {kSource, __LINE__, function};                      \
        if (false) { /* lets the compiler check the format against its arguments */                \
            VT_rawprintf(&GCL_trace, __VA_ARGS__);                                                 \
        }                                                                                          \
        __builtin_expect(::gcl::reportAdmitted(code), 0)                                           \
            ? ::gcl::writeReport(site, (code), __VA_ARGS__)                                        \
            : uint32_t{code};                                                                      \
    })

#endif // GCL_PRIVATE_REPORT_H
