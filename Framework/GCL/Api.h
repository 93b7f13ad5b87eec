// Api.h: how the library's interface is declared, in C and in C++.
#ifndef GCL_API_H
#define GCL_API_H

#include <stdint.h> // the integer types of the interface

// GCL_API marks what libKivGCL.so exports; everything else in it is hidden.
#define GCL_API __attribute__((visibility("default")))

// GCL_C_BEGIN and GCL_C_END enclose declarations with C linkage, so that C and C++ callers use the
// same unmangled names.
#ifdef __cplusplus
#define GCL_C_BEGIN extern "C" {
#define GCL_C_END }
#else
#define GCL_C_BEGIN
#define GCL_C_END
#endif

#endif // GCL_API_H
