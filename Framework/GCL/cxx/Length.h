// Length.h: lengths, counts and indexes in this layer are size_t. One that does not fit the plain
// interface's 32 bits is refused before the plain function is called, and not reported; nothing is
// ever cut off.
#ifndef GCL_CXX_LENGTH_H
#define GCL_CXX_LENGTH_H

#include <cstddef>
#include <cstdint>
#include <limits>

namespace gcl::detail {

// fits is true if `length` is not above the largest `Number`.
template <typename Number>
constexpr bool fits(std::size_t length) noexcept
{
    constexpr std::uint64_t limit{std::numeric_limits<Number>::max()};
    return std::uint64_t{length} <= limit;
}

} // namespace gcl::detail

#endif // GCL_CXX_LENGTH_H
