// The streams of the calling thread. They exist from their first use to the thread's very end, in
// the main thread to the end of the process.
#ifndef VT_PRIVATE_STREAMS_H
#define VT_PRIVATE_STREAMS_H

#include <iosfwd>

namespace vt {

// Writes into the thread's open message; a flush completes it.
std::ostream& messageStream();
// Takes text and drops it.
std::ostream& discardStream();

// Makes the thread's message stream take text again after a failed insertion.
void mendMessageStream();

} // namespace vt

#endif // VT_PRIVATE_STREAMS_H
