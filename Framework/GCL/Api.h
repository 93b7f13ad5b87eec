// Api.h: how the library's interface is declared, in C and in C++.
#ifndef GCL_API_H
#define GCL_API_H

#include <stdint.h> // the integer types of the interface

// GCL_API marks what libKivGCL.so exports; everything else in it is hidden.
#define GCL_API __attribute__((visibility("default")))

#ifdef __cplusplus
// GCL_C_BEGIN opens declarations with C linkage, so that C and C++ callers use the same unmangled
// names. In C it is empty.
#define GCL_C_BEGIN extern "C" {
// GCL_C_END closes what GCL_C_BEGIN has opened.
#define GCL_C_END }
#else
#define GCL_C_BEGIN
#define GCL_C_END
#endif

#endif // GCL_API_H
