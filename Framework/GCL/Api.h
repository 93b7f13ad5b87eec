// Api.h: how the library's interface is declared, in C and in C++.
//
// The library comes as libKivGCL.so and, if it was built with KIVGCL_BUILD_STATIC, as libKivGCL.a
// as well. The archive is for a program that is the only user of the library in its process; linked
// with -flto by the compiler that built the archive, it has the small calls inlined. It is not for
// a program that also loads libKivGCL.so, by itself or through a plug-in or another library, nor
// for a shared library: the trace channels, the syslog level, the sleep override and the timers'
// trace object would then exist twice in the process, and what is set in one is not seen by the
// users of the other. Only programs may link it, and with a C++ runtime, also if they are in C.
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
