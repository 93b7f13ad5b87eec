// Word.h: how a value travels in the machine word that the plain lists, tables and stacks hold.
//
// A value lies in the low bytes of the word and zeros lie above it, whatever its sign: -1 of a
// 32-bit type is 0xFFFFFFFF in a 64-bit word. Plain code that casts a negative number to
// unsigned long makes another word; both are read back as -1, but they are not the same item.
#ifndef GCL_CXX_WORD_H
#define GCL_CXX_WORD_H

#include <cstring>
#include <memory>
#include <type_traits>

namespace gcl::detail {

template <typename T>
struct Word {
    static_assert(std::is_same_v<T, std::remove_cv_t<std::remove_reference_t<T>>>,
                  "gcl: T must be neither const nor volatile nor a reference");
    static_assert(std::is_trivially_copyable_v<T>,
                  "gcl: T must be trivially copyable: the container copies its bytes");
    static_assert(sizeof(T) <= sizeof(unsigned long),
                  "gcl: T must fit a machine word (unsigned long); store a pointer to it instead");
    static_assert(std::is_default_constructible_v<T>,
                  "gcl: T must be default constructible: its bytes are then filled in");
    static_assert(sizeof(unsigned long) == sizeof(void*));
    static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the low bytes are the first ones");

    static unsigned long of(const T& value) noexcept
    {
        unsigned long word = 0;
        std::memcpy(&word, std::addressof(value), sizeof(T));
        return word;
    }

    static void store(unsigned long word, T& value) noexcept
    {
        std::memcpy(static_cast<void*>(std::addressof(value)), &word, sizeof(T));
    }

    static T value(unsigned long word) noexcept
    {
        T result;
        store(word, result);
        return result;
    }
};

// What is searched by its bytes must not have bytes that differ between equal values.
template <typename T>
constexpr bool equalByBytes() noexcept
{
    static_assert(std::has_unique_object_representations_v<T>,
                  "gcl: items are compared by their bytes, but equal values of T may differ in "
                  "them (padding, floating point); use a predicate");
    return true;
}

} // namespace gcl::detail

#endif // GCL_CXX_WORD_H
