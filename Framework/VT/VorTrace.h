// VorTrace: a named trace object of the unit's trace framework, for classes that write their
// diagnostics by pieces or through a stream.
//
// Like the functions of VT.h it belongs to the process: a platform brings its own, any other
// process links libVorTrace. All operations but construction and destruction may be called by any
// thread at any time; a message belongs to the thread that opened it, and a thread has at most one
// open message (to open another one completes the first). What VT.h says of libVorTrace's lines,
// environment variables, output and limits holds for this class as well.
#ifndef VT_VORTRACE_H
#define VT_VORTRACE_H

#include <iosfwd>

#include "Framework/VT/VT.h"

// The severity of a message, 1 the most urgent. A trace object writes a message if its own level
// is at least the message's.
enum VorTraceLevel {
    VorTraceLevel1 = 1, // a failure
    VorTraceLevel2 = 2, // a warning
    VorTraceLevel3 = 3, // something worth knowing
    VorTraceLevel4 = 4, // a refused or repeated request
    VorTraceLevel5 = 5, // the normal course of events
    VorTraceLevel6 = 6, // the same, in detail
    VorTraceLevel7 = 7  // every step
};

class VT_API VorTrace {
public:
    // Builds a trace object called `name` (copied) that starts at `level`, unless the process's
    // configuration names another level for it. Never throws: without memory the object has no
    // implementation and writes nothing.
    VorTrace(const char* name, VorTraceLevel level);

    // Ends the object; nobody may use it meanwhile or later. A message that a thread has opened
    // through it stays with the thread, which emits it as any other.
    ~VorTrace();

    // A trace object is one outlet under one name; it is shared by reference, not copied.
    VorTrace(const VorTrace&) = delete;
    VorTrace& operator=(const VorTrace&) = delete;

    // Opens a message, or, if the object's level is below `level` or it has no implementation,
    // drops what follows until the next one. `header` is used only during the call.
    void beginLogMsg(VorTraceLevel level, const VorTraceHeader& header);
    // Appends `length` bytes of text to the opened message; NULL data is ignored.
    void logMsgData(const char* data, unsigned length);
    // Closes the opened message and emits it. Without an opened message it does nothing.
    void endLogMsg();

    // True when the object is backed by an implementation, that is, when it can write.
    bool hasImpl() const;
    // The current level: messages above it are dropped. 0 without an implementation.
    int level() const;

    // The stream that writes into the calling thread's opened message; a flush completes and emits
    // it. Text inserted while no message is open is dropped.
    //
    // Each thread has a stream of its own, shared by all trace objects, and must not hand it to
    // another thread. It lasts as long as the thread. Formatting that the caller has set stays set.
    // A stream in a failed state takes neither text nor a flush: its message is emitted, as far as
    // it goes, when the thread opens its next one, which also makes the stream good again.
    std::ostream& stream();
    // A stream of the calling thread that takes text and drops it; it lasts as long as the thread.
    std::ostream& discardStream();

private:
    class Impl;
    Impl* impl; // owned; NULL when there is no implementation
};

#endif // VT_VORTRACE_H
