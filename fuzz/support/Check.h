// What every fuzz target needs: the reader of the input, and a check that stops the process.
#ifndef FUZZ_SUPPORT_CHECK_H
#define FUZZ_SUPPORT_CHECK_H

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

// Stops the process, so that the fuzzer keeps the input, unless the condition holds.
#define REQUIRE(condition)                                                                         \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            std::fprintf(stderr, "%s:%d: it does not hold that %s\n", __FILE__, __LINE__,          \
                         #condition);                                                              \
            std::abort();                                                                          \
        }                                                                                          \
    } while (false)

#endif // FUZZ_SUPPORT_CHECK_H
