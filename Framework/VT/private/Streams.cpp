#include "Framework/VT/private/Streams.h"

#include <new>
#include <ostream>
#include <streambuf>

#include "Framework/GCL/private/ErrnoSaver.h"
#include "Framework/VT/private/Message.h"
#include "Framework/VT/private/ThreadEnd.h"

namespace {

class MessageBuffer : public std::streambuf {
    int_type overflow(int_type character) override
    {
        if (!traits_type::eq_int_type(character, traits_type::eof())) {
            const gcl::ErrnoSaver keepErrno;
            const char text = traits_type::to_char_type(character);
            vt::appendText(&text, 1);
        }
        return traits_type::not_eof(character);
    }

    std::streamsize xsputn(const char* text, std::streamsize length) override
    {
        const gcl::ErrnoSaver keepErrno;
        vt::appendText(text, static_cast<size_t>(length));
        return length;
    }

    int sync() override
    {
        const gcl::ErrnoSaver keepErrno;
        vt::completeMessage();
        return 0;
    }
};

class DiscardBuffer : public std::streambuf {
    int_type overflow(int_type character) override { return traits_type::not_eof(character); }
    std::streamsize xsputn(const char*, std::streamsize length) override { return length; }
};

struct Streams {
    MessageBuffer messageBuffer;
    DiscardBuffer discardBuffer;
    std::ostream message{&messageBuffer};
    std::ostream discard{&discardBuffer};
};

// The place of a thread's streams is part of the thread, so that no memory is asked for them; they
// are built and destroyed by hand, because a thread_local object's destructor would come too early.
struct Place {
    bool built;
    alignas(Streams) unsigned char bytes[sizeof(Streams)];

    Streams* streams() { return std::launder(reinterpret_cast<Streams*>(bytes)); }
};

thread_local Place place;

void onThreadEnd(void*)
{
    // It was asked for when they were built, and comes once each time.
    place.built = false;
    place.streams()->~Streams();
}

vt::ThreadEnd threadEnd(onThreadEnd);

Streams& streams()
{
    if (!place.built) {
        const gcl::ErrnoSaver keepErrno;
        new (place.bytes) Streams;
        place.built = true;
        threadEnd.arm();
    }
    return *place.streams();
}

} // namespace

namespace vt {

std::ostream& messageStream()
{
    return streams().message;
}

std::ostream& discardStream()
{
    return streams().discard;
}

void mendMessageStream()
{
    if (place.built) {
        place.streams()->message.clear();
    }
}

} // namespace vt
