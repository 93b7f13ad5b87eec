// The calling thread's message: opened, filled piece by piece, completed.
// A thread has at most one open message; to open another one completes the first.
#ifndef VT_PRIVATE_MESSAGE_H
#define VT_PRIVATE_MESSAGE_H

#include <cstdarg>
#include <cstddef>
#include <cstdint>

#include "Framework/VT/VT.h"

namespace vt {

// Opens a message; NULL names become "?".
void openMessage(const char* channelName, int32_t level, const VorTraceHeader* header);

// Both do nothing while no message is open. Text for which no memory can be had is cut off.
void appendText(const char* text, size_t length);
void appendFormatted(const char* format, va_list arguments);

// Closes the open message, if there is one, and emits it. One that is begun but that no level
// admits does nothing else.
void completeMessage();

} // namespace vt

#endif // VT_PRIVATE_MESSAGE_H
