#include "tests/support/FaultInjection.h"

#include <cstdarg>
#include <cstdio>

namespace gcltest::calls {

#define GCLTEST_STRING_OF(symbol) #symbol
#define GCLTEST_DEFINE(name, symbol, result, parameters, arguments)                                \
    Call<result parameters> name(GCLTEST_STRING_OF(symbol));
GCLTEST_CALLS(GCLTEST_DEFINE)

Call<void(int, const char*)> syslog("syslog");

} // namespace gcltest::calls

// The interposing functions carry the C library's names as assembler labels only, so that the C
// headers' own declarations, with their attributes, are not in their way.
#define GCLTEST_INTERPOSE(name, symbol, result, parameters, arguments)                             \
    extern "C" __attribute__((visibility("default"), used))                                        \
    result interposed_##name parameters __asm__(GCLTEST_STRING_OF(symbol));                        \
    extern "C" result interposed_##name parameters                                                 \
    {                                                                                              \
        return gcltest::calls::name arguments;                                                     \
    }
GCLTEST_CALLS(GCLTEST_INTERPOSE)

namespace {

void logFormatted(int priority, const char* format, va_list arguments)
{
    char text[2048];
    static_cast<void>(vsnprintf(text, sizeof text, format, arguments));
    gcltest::calls::syslog(priority, text);
}

} // namespace

extern "C" __attribute__((visibility("default"), used)) void
interposed_syslog(int priority, const char* format, ...) __asm__("syslog");
extern "C" void interposed_syslog(int priority, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    logFormatted(priority, format, arguments);
    va_end(arguments);
}

extern "C" __attribute__((visibility("default"), used)) void
interposed_syslog_chk(int priority, int flag, const char* format, ...) __asm__("__syslog_chk");
extern "C" void interposed_syslog_chk(int priority, int, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    logFormatted(priority, format, arguments);
    va_end(arguments);
}
