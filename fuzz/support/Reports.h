// The trace framework of a fuzz program: it counts the reports, keeps the last one, and notes the
// levels of the messages on trace objects.
#ifndef FUZZ_SUPPORT_REPORTS_H
#define FUZZ_SUPPORT_REPORTS_H

#include <vector>

#include "fuzz/support/Check.h"

namespace fuzz {

// Requires that nothing was reported since the last call of one of the two.
void requireSilence();

// Requires that one message was reported, and that its text ends with `code`, as "code: 0x8008".
void requireReport(uint32_t code);

// The levels of the messages on trace objects since the last call.
std::vector<int> takeLevels();

} // namespace fuzz

#endif // FUZZ_SUPPORT_REPORTS_H
