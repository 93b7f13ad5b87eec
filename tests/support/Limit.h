// The limits that the system sets a process, for tests that reach them.
#ifndef TESTS_SUPPORT_LIMIT_H
#define TESTS_SUPPORT_LIMIT_H

#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <utility>

namespace gcltest {

// A soft limit of this process while it lives.
class Limit {
public:
    Limit(__rlimit_resource_t limited, rlim_t value) : resource(limited)
    {
        require(getrlimit(resource, &before) == 0);
        const rlimit lowered = {value, before.rlim_max};
        require(setrlimit(resource, &lowered) == 0);
    }
    ~Limit() { require(setrlimit(resource, &before) == 0); }
    Limit(const Limit&) = delete;
    Limit& operator=(const Limit&) = delete;

private:
    static void require(bool holds)
    {
        if (!holds) {
            std::perror("Limit");
            std::abort();
        }
    }

    __rlimit_resource_t resource;
    rlimit before = {};
};

// What the process takes of its address space, in bytes.
inline rlim_t addressSpace()
{
    long pages = 0;
    FILE* const file = std::fopen("/proc/self/statm", "r");
    if (file == nullptr || std::fscanf(file, "%ld", &pages) != 1) {
        std::perror("/proc/self/statm");
        std::abort();
    }
    std::fclose(file);
    return static_cast<rlim_t>(pages) * static_cast<rlim_t>(sysconf(_SC_PAGESIZE));
}

// No memory is left while it lives, not even a small block of what the process has already.
class NoMemory {
public:
    NoMemory() : limit(RLIMIT_AS, addressSpace())
    {
        for (size_t size = 1u << 20; size > kSmall; size /= 2) {
            take(size);
        }
        for (size_t size = kSmall; size > 0; size -= 8) { // each has a list of free blocks
            take(size);
        }
    }
    ~NoMemory()
    {
        while (taken != nullptr) {
            std::free(std::exchange(taken, *static_cast<void**>(taken)));
        }
    }
    NoMemory(const NoMemory&) = delete;
    NoMemory& operator=(const NoMemory&) = delete;

private:
    static constexpr size_t kSmall = 1200;

    void take(size_t size)
    {
        while (void* const block = std::malloc(size)) {
            *static_cast<void**>(block) = taken;
            taken = block;
        }
    }

    Limit limit;
    void* taken = nullptr;
};

} // namespace gcltest

#endif // TESTS_SUPPORT_LIMIT_H
