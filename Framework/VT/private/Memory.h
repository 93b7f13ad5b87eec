// Allocation for code that goes on without memory: NULL instead of an exception.
#ifndef VT_PRIVATE_MEMORY_H
#define VT_PRIVATE_MEMORY_H

#include <cstddef>
#include <cstring>
#include <new>

namespace vt {

inline char* newChars(size_t count)
{
    try {
        return new char[count];
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

// A copy of the text, NULL without memory; it is freed with delete[].
inline char* copyText(const char* text)
{
    const size_t size = std::strlen(text) + 1;
    char* const copy = newChars(size);
    if (copy != nullptr) {
        std::memcpy(copy, text, size);
    }
    return copy;
}

} // namespace vt

#endif // VT_PRIVATE_MEMORY_H
