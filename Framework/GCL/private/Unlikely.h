// unlikely: a condition whose steps the compiler keeps out of the way of all others.
#ifndef GCL_PRIVATE_UNLIKELY_H
#define GCL_PRIVATE_UNLIKELY_H

namespace gcl {

[[gnu::always_inline]] inline bool unlikely(bool condition)
{
    return __builtin_expect(static_cast<long>(condition), 0) != 0;
}

} // namespace gcl

#endif // GCL_PRIVATE_UNLIKELY_H
