#include "Framework/GCL/testing/FaultInjection.h"

#define GCLTEST_DISPATCH(name) gcltest::calls::name
#define GCLTEST_DISPATCH_BY(name, id) gcltest::calls::name.by(next_##id)
#include "Framework/GCL/testing/private/Interposers.h"

// Programs that link this library name it to the linker, so that the file becomes part of them.
extern "C" __attribute__((visibility("default"))) const char gcltest_faults;
const char gcltest_faults = 0;

#ifdef __clang__
#if __has_feature(address_sanitizer)
// clang puts the sanitizer's runtime into the program itself. The operator new that comes next to
// this one is then the C++ library's, which takes its memory from malloc, while operator delete
// stays the sanitizer's: that the two do not match is no error.
extern "C" const char* __asan_default_options()
{
    return "alloc_dealloc_mismatch=0";
}
#endif
#endif

namespace gcltest::calls {
namespace {

struct Usual {
    FailureKind kind;
    int value;
    int error;
};
#define GCLTEST_DEFINE_USUAL(name, symbol, result, parameters, arguments, kind, value, error)      \
    [[maybe_unused]] constexpr Usual usual_##name = {FailureKind::kind, value, error};
GCLTEST_CALLS(GCLTEST_DEFINE_USUAL)

} // namespace

#define GCLTEST_DEFINE(name, symbol, result, parameters, arguments, kind, value, error)            \
    Call<result parameters> name(GCLTEST_STRING_OF(symbol), FailureKind::kind, value, error);
GCLTEST_CALLS(GCLTEST_DEFINE)
GCLTEST_TEXT_CALLS(GCLTEST_DEFINE)

Call<void(int, const char*)> syslog("syslog", FailureKind::never, 0, 0, findLogFunction);

#if __SIZEOF_POINTER__ == 4
#define GCLTEST_DEFINE_TIME64(name, function, symbol, result, parameters, arguments)               \
    Call<result parameters> name(GCLTEST_STRING_OF(symbol), usual_##function.kind,                 \
                                 usual_##function.value, usual_##function.error);
#else
#define GCLTEST_DEFINE_TIME64(name, function, symbol, result, parameters, arguments)               \
    Call<result parameters>& name = function;
#endif
GCLTEST_TIME64_CALLS(GCLTEST_DEFINE_TIME64)

} // namespace gcltest::calls

GCLTEST_DEFINE_INTERPOSERS
