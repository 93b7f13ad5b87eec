// Leaving a function that raises a signal, for tests that go on in the same process: a death test
// that ends by a signal leaves nothing to be counted.
#ifndef TESTS_SUPPORT_SIGNALJUMP_H
#define TESTS_SUPPORT_SIGNALJUMP_H

#include <setjmp.h>
#include <signal.h>

namespace gcltest {

inline sigjmp_buf& signalJump()
{
    static sigjmp_buf place;
    return place;
}

// Whether `body` raises the signal, whose handler then leaves it. Nothing that `body` has called
// may have objects to destroy by then.
template <typename Body>
bool raises(int number, Body body)
{
    struct sigaction jump = {};
    struct sigaction before = {};
    jump.sa_handler = [](int) { siglongjmp(signalJump(), 1); };
    sigaction(number, &jump, &before);
    volatile bool raised = true;
    if (sigsetjmp(signalJump(), 1) == 0) {
        body();
        raised = false;
    }
    sigaction(number, &before, nullptr);
    return raised;
}

} // namespace gcltest

#endif // TESTS_SUPPORT_SIGNALJUMP_H
