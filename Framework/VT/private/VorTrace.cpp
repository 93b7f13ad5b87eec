#include "Framework/VT/VorTrace.h"

#include <cstdint>
#include <new>

#include "Framework/GCL/private/ErrnoSaver.h"
#include "Framework/VT/private/Memory.h"
#include "Framework/VT/private/Message.h"
#include "Framework/VT/private/Settings.h"
#include "Framework/VT/private/Streams.h"

class VorTrace::Impl {
public:
    // NULL without memory.
    static Impl* create(const char* name, int32_t level)
    {
        char* const copy = vt::copyText(name != nullptr ? name : "?");
        if (copy == nullptr) {
            return nullptr;
        }
        try {
            return new Impl(copy, level);
        } catch (const std::bad_alloc&) {
            delete[] copy;
            return nullptr;
        }
    }
    ~Impl() { delete[] name; }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    // Looked up each time: the settings may change, and there are few.
    int32_t level() const { return vt::levelFor(name, initialLevel); }

    const char* const name; // owned

private:
    Impl(const char* ownedName, int32_t level) : name(ownedName), initialLevel(level) {}

    const int32_t initialLevel;
};

VorTrace::VorTrace(const char* name, VorTraceLevel level) : impl(nullptr)
{
    const gcl::ErrnoSaver keepErrno;
    impl = Impl::create(name, level);
}

VorTrace::~VorTrace()
{
    const gcl::ErrnoSaver keepErrno;
    delete impl;
}

void VorTrace::beginLogMsg(VorTraceLevel level, const VorTraceHeader& header)
{
    const gcl::ErrnoSaver keepErrno;
    if (impl != nullptr && level <= impl->level()) {
        vt::openMessage(impl->name, level, &header);
        vt::mendMessageStream();
    } else {
        vt::completeMessage();
    }
}

void VorTrace::logMsgData(const char* data, unsigned length)
{
    const gcl::ErrnoSaver keepErrno;
    if (data != nullptr) {
        vt::appendText(data, length);
    }
}

void VorTrace::endLogMsg()
{
    const gcl::ErrnoSaver keepErrno;
    vt::completeMessage();
}

bool VorTrace::hasImpl() const
{
    return impl != nullptr;
}

int VorTrace::level() const
{
    const gcl::ErrnoSaver keepErrno;
    return impl != nullptr ? impl->level() : 0;
}

std::ostream& VorTrace::stream()
{
    return vt::messageStream();
}

std::ostream& VorTrace::discardStream()
{
    return vt::discardStream();
}
