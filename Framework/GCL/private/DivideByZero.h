// divideByZero: what becomes of a division by a count of zero that a caller gave.
#ifndef GCL_PRIVATE_DIVIDEBYZERO_H
#define GCL_PRIVATE_DIVIDEBYZERO_H

#include <csignal>
#include <cstdlib>

namespace gcl {

// By contract: some operations divide by zero where a caller constructed the object with a count of
// zero. Not every processor stops there; some go on with a made-up index, which would then be used
// on memory that the object does not have. So the signal is raised here, on all of them alike.
[[noreturn, gnu::cold, gnu::noinline]] inline void divideByZero()
{
    static_cast<void>(std::raise(SIGFPE));
    std::abort(); // the signal is ignored or blocked, or its handler came back
}

} // namespace gcl

#endif // GCL_PRIVATE_DIVIDEBYZERO_H
