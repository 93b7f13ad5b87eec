#include "Framework/VT/private/Output.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Framework/VT/private/TimeStamp.h"

namespace {

static_assert(EAGAIN == EWOULDBLOCK, "a full pipe has one error");

constexpr int64_t kPatienceMs = 100;
constexpr mode_t kFileMode = 0666;
constexpr int kToSyslog = -1;

// Where lines go.
struct Stream {
    int descriptor;
    bool lineUnfinished = false; // the last line written lacks its end
    bool readerStalled = false;  // the last line was given up after kPatienceMs
};

// Standard error has the complaints, and the messages where nothing else is chosen for them.
Stream standardError = {STDERR_FILENO};
// STDOUT_FILENO, a file of the sink's own, or kToSyslog.
Stream chosenStream = {kToSyslog};
Stream* output = &standardError;
pthread_once_t outputChosen = PTHREAD_ONCE_INIT;
pthread_once_t forkPrepared = PTHREAD_ONCE_INIT;

// Lets one line at a time pass, and guards the streams' flags. A child process gets a new one (see
// onForkInChild), which costs it nothing but the order of two lines.
pthread_mutex_t outputMutex = PTHREAD_MUTEX_INITIALIZER;

class OutputLock {
public:
    OutputLock() { static_cast<void>(pthread_mutex_lock(&outputMutex)); }
    ~OutputLock() { static_cast<void>(pthread_mutex_unlock(&outputMutex)); }
    OutputLock(const OutputLock&) = delete;
    OutputLock& operator=(const OutputLock&) = delete;
};

// Keeps the thread from being cancelled half-way through a line.
class NoCancellation {
public:
    NoCancellation() { static_cast<void>(pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before)); }
    ~NoCancellation() { static_cast<void>(pthread_setcancelstate(before, nullptr)); }
    NoCancellation(const NoCancellation&) = delete;
    NoCancellation& operator=(const NoCancellation&) = delete;

private:
    int before = PTHREAD_CANCEL_ENABLE;
};

// Holds back the signals that a failing write raises on its own thread (a pipe without a reader, a
// file at its size limit) and takes away those that came meanwhile. A signal that was pending
// before is somebody else's and stays.
class NoWriteSignals {
public:
    NoWriteSignals()
    {
        sigemptyset(&raised);
        sigaddset(&raised, SIGPIPE);
        sigaddset(&raised, SIGXFSZ);
        static_cast<void>(pthread_sigmask(SIG_BLOCK, &raised, &before));
        // Only what the thread held back before can have been pending.
        if (sigismember(&before, SIGPIPE) == 1 || sigismember(&before, SIGXFSZ) == 1) {
            leaveOutPending();
        }
    }
    ~NoWriteSignals()
    {
        if (writeFailed) {
            const timespec noWait{};
            while (sigtimedwait(&raised, nullptr, &noWait) != -1 || errno == EINTR) {
            }
        }
        static_cast<void>(pthread_sigmask(SIG_SETMASK, &before, nullptr));
    }
    NoWriteSignals(const NoWriteSignals&) = delete;
    NoWriteSignals& operator=(const NoWriteSignals&) = delete;

    void noteFailure() { writeFailed = true; }

private:
    void leaveOutPending()
    {
        sigset_t pending;
        if (sigpending(&pending) != 0) {
            return;
        }
        for (const int number : {SIGPIPE, SIGXFSZ}) {
            if (sigismember(&pending, number) == 1) {
                sigdelset(&raised, number);
            }
        }
    }

    sigset_t raised; // those that only a write of this scope can have raised
    sigset_t before;
    bool writeFailed = false;
};

// Waits until the descriptor takes data again; false when the patience is used up.
bool waitWritable(int descriptor, int64_t untilMs)
{
    const int64_t leftMs = untilMs - vt::monotonicMs();
    if (leftMs <= 0) {
        return false;
    }
    pollfd entry{descriptor, POLLOUT, 0};
    // Whatever poll says, the next write tells more exactly what the descriptor is worth.
    static_cast<void>(poll(&entry, 1, static_cast<int>(leftMs)));
    return true;
}

// Writes all of it, as one write where the descriptor plays along; returns what was not written.
size_t writeAll(Stream& stream, const char* data, size_t size)
{
    NoWriteSignals noSignals;
    int64_t untilMs = -1;
    while (size > 0) {
        const ssize_t written = write(stream.descriptor, data, size);
        if (written > 0) {
            stream.readerStalled = false;
            data += written;
            size -= static_cast<size_t>(written);
        } else if (written < 0 && errno == EAGAIN) {
            // A reader that has not kept up once is not waited for until it reads again.
            if (stream.readerStalled) {
                break;
            }
            untilMs = untilMs < 0 ? vt::monotonicMs() + kPatienceMs : untilMs;
            if (!waitWritable(stream.descriptor, untilMs)) {
                stream.readerStalled = true;
                break;
            }
        } else if (written == 0 || errno != EINTR) { // an interrupted write is tried again
            noSignals.noteFailure();
            break;
        }
    }
    return size;
}

// The mutex may be held by a thread that the child does not have.
void onForkInChild()
{
    static_cast<void>(pthread_mutex_init(&outputMutex, nullptr));
}

void prepareFork()
{
    static_cast<void>(pthread_atfork(nullptr, nullptr, onForkInChild));
}

void writeLine(Stream& stream, const char* line, size_t size)
{
    static_cast<void>(pthread_once(&forkPrepared, prepareFork));
    const OutputLock lock;
    const size_t skipped = stream.lineUnfinished ? 0 : 1;
    const size_t wanted = size - skipped;
    const size_t left = writeAll(stream, line + skipped, wanted);
    if (left < wanted) {
        // A lone newline in front has only finished the line before.
        const bool onlyNewline = stream.lineUnfinished && left == size - 1;
        stream.lineUnfinished = left > 0 && !onlyNewline;
    }
}

int syslogPriority(int32_t level)
{
    if (level <= 1) {
        return LOG_ERR;
    }
    if (level == 2) {
        return LOG_WARNING;
    }
    if (level == 3) {
        return LOG_NOTICE;
    }
    return level <= 5 ? LOG_INFO : LOG_DEBUG;
}

// Opens a file of the sink's own; -1 with errno on failure. It never takes the place of a standard
// stream that the process has closed, and never waits for the other end of a named pipe.
int openFile(const char* path)
{
    const int descriptor =
        open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK | O_LARGEFILE,
             kFileMode);
    if (descriptor < 0 || descriptor > STDERR_FILENO) {
        return descriptor;
    }
    const int moved = fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int error = errno;
    static_cast<void>(close(descriptor));
    errno = error;
    return moved;
}

void chooseOutput()
{
    const char* const variable = secure_getenv("VT_OUTPUT");
    if (variable == nullptr || *variable == '\0' || std::strcmp(variable, "stderr") == 0) {
        return; // as it is from the beginning
    }
    if (std::strcmp(variable, "stdout") == 0) {
        chosenStream.descriptor = STDOUT_FILENO;
    } else if (std::strcmp(variable, "syslog") != 0) {
        const int file = openFile(variable);
        if (file == -1) {
            vt::complain(
                "VT_OUTPUT: \"%.300s\" cannot be opened (errno: %d), standard error is used",
                variable, errno);
            return;
        }
        chosenStream.descriptor = file;
    }
    output = &chosenStream;
}

} // namespace

namespace vt {

void emitLine(char* line, size_t size, int32_t level)
{
    const NoCancellation noCancellation;
    static_cast<void>(pthread_once(&outputChosen, chooseOutput));
    if (output->descriptor == kToSyslog) {
        line[size - 1] = '\0';
        syslog(syslogPriority(level), "%s", line + 1);
    } else {
        writeLine(*output, line, size);
    }
}

void complain(const char* format, ...)
{
    const NoCancellation noCancellation;
    constexpr char kWho[] = "\nVorTrace: ";
    constexpr size_t kWhoLength = sizeof kWho - 1;
    char line[512];
    std::memcpy(line, kWho, kWhoLength);
    va_list arguments;
    va_start(arguments, format);
    const int formatted =
        vsnprintf(line + kWhoLength, sizeof line - kWhoLength - 1, format, arguments);
    va_end(arguments);
    if (formatted < 0) {
        return;
    }
    size_t length = std::strlen(line);
    std::replace(line + kWhoLength, line + length, '\n', ' ');
    line[length++] = '\n';
    writeLine(standardError, line, length);
}

} // namespace vt
