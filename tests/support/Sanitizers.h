// Which sanitizer the tests are built with, whatever the compiler: for what a sanitizer changes of
// the process, such as its address space.
#ifndef TESTS_SUPPORT_SANITIZERS_H
#define TESTS_SUPPORT_SANITIZERS_H

#ifdef __clang__
#if __has_feature(address_sanitizer)
#define GCLTEST_ADDRESS_SANITIZER
#endif
#if __has_feature(thread_sanitizer)
#define GCLTEST_THREAD_SANITIZER
#endif
#else
#ifdef __SANITIZE_ADDRESS__
#define GCLTEST_ADDRESS_SANITIZER
#endif
#ifdef __SANITIZE_THREAD__
#define GCLTEST_THREAD_SANITIZER
#endif
#endif

#endif // TESTS_SUPPORT_SANITIZERS_H
