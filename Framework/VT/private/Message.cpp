#include "Framework/VT/private/Message.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>

#include "Framework/VT/private/Memory.h"
#include "Framework/VT/private/Output.h"
#include "Framework/VT/private/ThreadEnd.h"
#include "Framework/VT/private/TimeStamp.h"

namespace {

// A line: a newline in front (see emitLine), the text, room for a newline behind it. What does not
// fit into the part of it that every thread has moves to the heap until the line is emitted.
// All zeros is the initial state, so that no code runs for it when a thread starts or ends.
class Line {
public:
    void clear()
    {
        delete[] heap;
        heap = nullptr;
        inlinePart[0] = '\n';
        size = 1;
        capacity = sizeof inlinePart;
    }

    char* data() { return heap != nullptr ? heap : inlinePart; }
    size_t length() const { return size; }

    [[gnu::noinline]] void append(const char* text, size_t length)
    {
        makeRoom(length);
        const size_t fitting = std::min(length, room());
        std::memcpy(data() + size, text, fitting);
        size += fitting;
    }

    // False, with nothing appended, if the text cannot be formatted.
    bool appendFormatted(const char* format, va_list arguments)
    {
        va_list again;
        va_copy(again, arguments);
        int formatted = vsnprintf(data() + size, room() + 1, format, arguments);
        if (formatted > 0 && static_cast<size_t>(formatted) > room()) {
            makeRoom(static_cast<size_t>(formatted));
            formatted = vsnprintf(data() + size, room() + 1, format, again);
        }
        if (formatted > 0) {
            size += std::min(static_cast<size_t>(formatted), room());
        }
        va_end(again);
        return formatted >= 0;
    }

    // Makes one line of the text, which begins at `textStart`: a newline at its end goes, all
    // others become blanks, the line's own follows.
    void finish(size_t textStart)
    {
        char* const line = data();
        if (size > textStart && line[size - 1] == '\n') {
            --size;
        }
        char* newline = line + 1;
        while ((newline = static_cast<char*>(std::memchr(
                    newline, '\n', static_cast<size_t>(line + size - newline)))) != nullptr) {
            *newline = ' ';
        }
        line[size++] = '\n';
    }

private:
    // One byte stays free, for the terminating NUL of vsnprintf and for the newline.
    size_t room() const { return capacity - size - 1; }

    // Where no memory can be had, the room stays as it is.
    void makeRoom(size_t length)
    {
        // No object is larger than half of all addresses, so that the sum does not overflow.
        if (length <= room() || length > SIZE_MAX / 4) {
            return;
        }
        const size_t enough = std::max(2 * capacity, size + length + 1);
        char* const bigger = vt::newChars(enough);
        if (bigger == nullptr) {
            return;
        }
        std::memcpy(bigger, data(), size);
        delete[] heap;
        heap = bigger;
        capacity = enough;
    }

    size_t size;
    size_t capacity;
    char* heap;
    char inlinePart[1024];
};

struct Message {
    bool open;
    int32_t level;
    size_t textStart;
    Line line;
};

thread_local Message message;

// What a thread leaves open when it ends is emitted then.
void onThreadEnd(void*)
{
    vt::completeMessage();
}

vt::ThreadEnd threadEnd(onThreadEnd);
pthread_once_t forkPrepared = PTHREAD_ONCE_INIT;

// The message that the forking thread has open is its parent's to complete.
void onForkInChild()
{
    message.open = false;
}

void prepareFork()
{
    static_cast<void>(pthread_atfork(nullptr, nullptr, onForkInChild));
}

const char* orUnknown(const char* text)
{
    return text != nullptr ? text : "?";
}

// The beginning of a line is put together by hand: the C library's formatting takes its time.
void appendName(const char* name, char next)
{
    message.line.append(name, std::strlen(name));
    message.line.append(&next, 1);
}

void appendNumber(long number, char next)
{
    char digits[24];
    char* const end = std::to_chars(digits, digits + sizeof digits - 1, number).ptr;
    *end = next;
    message.line.append(digits, static_cast<size_t>(end + 1 - digits));
}

} // namespace

namespace vt {

void openMessage(const char* channelName, int32_t level, const VorTraceHeader* header)
{
    completeMessage();
    static_cast<void>(pthread_once(&forkPrepared, prepareFork));
    threadEnd.arm();
    message.open = true;
    message.level = level;
    message.line.clear();
    char time[kTimeStampSize];
    const size_t timeLength = formatTimeStamp(time);
    message.line.append(time, timeLength);
    const VorTraceHeader from = header != nullptr ? *header : VorTraceHeader{nullptr, 0, nullptr};
    message.line.append(" ", 1);
    appendNumber(getpid(), '/');
    appendNumber(syscall(SYS_gettid), ' ');
    appendName(orUnknown(channelName), ' ');
    appendNumber(level, ' ');
    appendName(orUnknown(from.file), ':');
    appendNumber(from.line, ' ');
    appendName(orUnknown(from.function), ':');
    message.line.append(" ", 1);
    message.textStart = message.line.length();
}

void appendText(const char* text, size_t length)
{
    if (message.open) {
        message.line.append(text, length);
    }
}

void appendFormatted(const char* format, va_list arguments)
{
    if (message.open && !message.line.appendFormatted(format, arguments)) {
        message.line.append(format, std::strlen(format));
    }
}

void completeMessage()
{
    if (!message.open) {
        return;
    }
    message.open = false;
    message.line.finish(message.textStart);
    emitLine(message.line.data(), message.line.length(), message.level);
    message.line.clear();
}

} // namespace vt
