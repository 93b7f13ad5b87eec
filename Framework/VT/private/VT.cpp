#include "Framework/VT/VT.h"

#include <cstdarg>
#include <cstdint>

#include "Framework/GCL/private/ErrnoSaver.h"
#include "Framework/VT/private/Message.h"
#include "Framework/VT/private/Settings.h"

namespace {

constexpr int32_t kNoResult = 0; // what every function returns; it says nothing

} // namespace

int32_t VT_beginImpl(TraceChannel* channel, int32_t level, const VorTraceHeader* header)
{
    const gcl::ErrnoSaver keepErrno;
    const char* const name = channel != nullptr && channel->name != nullptr ? channel->name : "?";
    if (level <= vt::levelFor(name, INT32_MAX)) {
        vt::openMessage(name, level, header);
    } else {
        vt::completeMessage();
    }
    return kNoResult;
}

int32_t VT_rawprintf(TraceChannel*, const char* format, ...)
{
    const gcl::ErrnoSaver keepErrno;
    va_list arguments;
    va_start(arguments, format);
    if (format != nullptr) {
        vt::appendFormatted(format, arguments);
    } else {
        vt::appendText("?", 1);
    }
    va_end(arguments);
    return kNoResult;
}

int32_t VT_endImpl(TraceChannel*)
{
    const gcl::ErrnoSaver keepErrno;
    vt::completeMessage();
    return kNoResult;
}

void VT_setLevel(const char* name, int32_t level)
{
    const gcl::ErrnoSaver keepErrno;
    if (name != nullptr && *name != '\0') {
        vt::setLevel(name, level);
    }
}
