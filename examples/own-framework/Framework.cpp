// The trace framework of this process: the functions of VT.h and the class VorTrace. It writes each
// message to standard output, in a form of its own.
//
// The library builds a VorTrace object while it is loaded, before the static objects of this file
// would be built. So there are none: all that a message needs is the reporting thread's.
#include <cstdarg>
#include <cstdio>
#include <ostream>
#include <sstream>
#include <string>

#include "Framework/VT/VT.h"
#include "Framework/VT/VorTrace.h"

namespace {

// The message that a thread has open.
struct Message {
    std::string intro;
    std::string text;
};

Message& openMessage()
{
    thread_local Message message;
    return message;
}

void begin(const char* name, int level, const VorTraceHeader& header)
{
    Message& message = openMessage();
    message.intro =
        std::string(name) + " | level " + std::to_string(level) + " | " + header.function + " | ";
    message.text.clear();
}

void end()
{
    Message& message = openMessage();
    while (!message.text.empty() && message.text.back() == '\n') {
        message.text.pop_back();
    }
    // One call, so that the lines of two threads do not mix.
    std::printf("%s%s\n", message.intro.c_str(), message.text.c_str());
}

// The stream of an opened message: a flush completes it.
class MessageBuffer final : public std::stringbuf {
    int sync() override
    {
        openMessage().text = str();
        str("");
        end();
        return 0;
    }
};

} // namespace

// [functions]
int32_t VT_beginImpl(TraceChannel* channel, int32_t level, const VorTraceHeader* header)
{
    begin(channel->name, level, *header);
    return 0;
}

int32_t VT_rawprintf(TraceChannel*, const char* format, ...)
{
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    openMessage().text += text;
    return 0;
}

int32_t VT_endImpl(TraceChannel*)
{
    end();
    return 0;
}
// [functions end]

// [class]
class VorTrace::Impl {
public:
    std::string name;
    int level;
};

VorTrace::VorTrace(const char* name, VorTraceLevel level) : impl(new Impl{name, level}) {}

VorTrace::~VorTrace()
{
    delete impl;
}

void VorTrace::beginLogMsg(VorTraceLevel level, const VorTraceHeader& header)
{
    begin(impl->name.c_str(), level, header);
}

void VorTrace::logMsgData(const char* data, unsigned length)
{
    openMessage().text.append(data, length);
}

void VorTrace::endLogMsg()
{
    end();
}

bool VorTrace::hasImpl() const
{
    return true;
}

int VorTrace::level() const
{
    return impl->level;
}

std::ostream& VorTrace::stream()
{
    thread_local MessageBuffer buffer;
    thread_local std::ostream stream(&buffer);
    return stream;
}

std::ostream& VorTrace::discardStream()
{
    thread_local std::ostream stream(nullptr);
    return stream;
}
// [class end]
