// Interposers: definitions of all functions of CallTable.h, for one program or one library. Whoever
// includes this defines before
//   GCLTEST_DISPATCH(name)         what a call goes to, as something that can be called
//   GCLTEST_DISPATCH_BY(name, id)  the same for another name of the function, whose own body is
//                                  that of next_<id>
// The functions carry the C library's names as assembler labels only, so that the C headers' own
// declarations, with their attributes, are not in their way.
#ifndef GCL_TESTING_PRIVATE_INTERPOSERS_H
#define GCL_TESTING_PRIVATE_INTERPOSERS_H

#include "Framework/GCL/testing/CallTable.h"
#include "Framework/GCL/testing/FaultInjection.h"

namespace gcltest {

// The text of a line for the system's log, cut to the room there is.
class LogText {
public:
    LogText(const char* format, va_list values)
    {
        using Format = int (*)(char*, size_t, const char*, va_list);
        static NextFunction next("vsnprintf");
        text[0] = '\0';
        static_cast<void>(reinterpret_cast<Format>(next.get())(text, sizeof text, format, values));
    }
    const char* get() const { return text; }

private:
    char text[2048];
};

// What gives such a text to the log as it is.
inline void logText(int priority, const char* text)
{
    static NextFunction next("syslog");
    reinterpret_cast<void (*)(int, const char*, ...)>(next.get())(priority, "%s", text);
}

inline void* findLogFunction(const char*)
{
    return reinterpret_cast<void*>(&logText);
}

} // namespace gcltest

// The C library's end of a process whose buffer is too small.
extern "C" [[noreturn]] void __chk_fail(); // NOLINT(bugprone-reserved-identifier)

// Types and declarations are no operands.
// NOLINTBEGIN(bugprone-macro-parentheses)
#define GCLTEST_STRING_OF(symbol) #symbol

#define GCLTEST_DEFINE_INTERPOSER(id, symbol, result, parameters)                                  \
    extern "C" __attribute__((visibility("default"), used))                                        \
    result interposed_##id parameters __asm__(GCLTEST_STRING_OF(symbol));                          \
    extern "C" result interposed_##id parameters

#define GCLTEST_INTERPOSE(name, symbol, result, parameters, arguments, kind, value, error)         \
    GCLTEST_DEFINE_INTERPOSER(name, symbol, result, parameters)                                    \
    {                                                                                              \
        return GCLTEST_DISPATCH(name) arguments;                                                   \
    }

#define GCLTEST_INTERPOSE_TIME64(name, function, symbol, result, parameters, arguments)            \
    GCLTEST_DEFINE_INTERPOSER(name, symbol, result, parameters)                                    \
    {                                                                                              \
        return GCLTEST_DISPATCH(name) arguments;                                                   \
    }

#define GCLTEST_INTERPOSE_OTHER(name, symbol, result, parameters, arguments)                       \
    namespace {                                                                                    \
    gcltest::NextFunction next_##symbol(#symbol);                                                  \
    }                                                                                              \
    GCLTEST_DEFINE_INTERPOSER(symbol, symbol, result, parameters)                                  \
    {                                                                                              \
        return GCLTEST_DISPATCH_BY(name, symbol) arguments;                                        \
    }

#define GCLTEST_INTERPOSE_CHECKED(name, symbol, result, parameters, arguments, wanted, there)      \
    GCLTEST_DEFINE_INTERPOSER(symbol, symbol, result, parameters)                                  \
    {                                                                                              \
        if ((wanted) > (there)) {                                                                  \
            __chk_fail();                                                                          \
        }                                                                                          \
        return GCLTEST_DISPATCH(name) arguments;                                                   \
    }

// Functions of a variable number of arguments, which those of the headers take as a list.
#define GCLTEST_WITH_VALUES(result, last, call)                                                    \
    va_list values;                                                                                \
    va_start(values, last);                                                                        \
    const result outcome = call;                                                                   \
    va_end(values);                                                                                \
    return outcome

#define GCLTEST_INTERPOSE_TEXT_CALLS                                                               \
    GCLTEST_DEFINE_INTERPOSER(printf, printf, int, (const char* format, ...))                      \
    {                                                                                              \
        GCLTEST_WITH_VALUES(int, format, GCLTEST_DISPATCH(printf)(format, values));                \
    }                                                                                              \
    GCLTEST_DEFINE_INTERPOSER(printf_chk, __printf_chk, int, (int, const char* format, ...))       \
    {                                                                                              \
        GCLTEST_WITH_VALUES(int, format, GCLTEST_DISPATCH(printf)(format, values));                \
    }                                                                                              \
    GCLTEST_DEFINE_INTERPOSER(snprintf, snprintf, int,                                             \
                              (char* buffer, size_t size, const char* format, ...))                \
    {                                                                                              \
        GCLTEST_WITH_VALUES(int, format,                                                           \
                            GCLTEST_DISPATCH(snprintf)(buffer, size, format, values));             \
    }                                                                                              \
    GCLTEST_DEFINE_INTERPOSER(                                                                     \
        snprintf_chk, __snprintf_chk, int,                                                         \
        (char* buffer, size_t size, int, size_t room, const char* format, ...))                    \
    {                                                                                              \
        if (size > room) {                                                                         \
            __chk_fail();                                                                          \
        }                                                                                          \
        GCLTEST_WITH_VALUES(int, format,                                                           \
                            GCLTEST_DISPATCH(snprintf)(buffer, size, format, values));             \
    }                                                                                              \
    GCLTEST_DEFINE_INTERPOSER(syslog, syslog, void, (int priority, const char* format, ...))       \
    {                                                                                              \
        va_list values;                                                                            \
        va_start(values, format);                                                                  \
        const gcltest::LogText text(format, values);                                               \
        va_end(values);                                                                            \
        GCLTEST_DISPATCH(syslog)(priority, text.get());                                            \
    }                                                                                              \
    GCLTEST_DEFINE_INTERPOSER(syslog_chk, __syslog_chk, void,                                      \
                              (int priority, int, const char* format, ...))                        \
    {                                                                                              \
        va_list values;                                                                            \
        va_start(values, format);                                                                  \
        const gcltest::LogText text(format, values);                                               \
        va_end(values);                                                                            \
        GCLTEST_DISPATCH(syslog)(priority, text.get());                                            \
    }

#if __SIZEOF_POINTER__ == 4
#define GCLTEST_DEFINE_TIME64_INTERPOSERS GCLTEST_TIME64_CALLS(GCLTEST_INTERPOSE_TIME64)
#else
#define GCLTEST_DEFINE_TIME64_INTERPOSERS
#endif

#define GCLTEST_DEFINE_INTERPOSERS                                                                 \
    GCLTEST_CALLS(GCLTEST_INTERPOSE)                                                               \
    GCLTEST_INTERPOSE_TEXT_CALLS                                                                   \
    GCLTEST_DEFINE_TIME64_INTERPOSERS                                                              \
    GCLTEST_OTHER_NAMES(GCLTEST_INTERPOSE_OTHER)                                                   \
    GCLTEST_CHECKED_CALLS(GCLTEST_INTERPOSE_CHECKED)

// NOLINTEND(bugprone-macro-parentheses)

#endif // GCL_TESTING_PRIVATE_INTERPOSERS_H
