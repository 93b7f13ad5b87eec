// libKivGCLFaults.so: fails calls of a program that knows nothing of it, as docs/testing.md tells.
// It is the first library to be initialised, before the C library is: until the program runs it
// uses no memory of the heap and no stream.
#include <dlfcn.h>
#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <unwind.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <new>
#include <type_traits>

#include "Framework/GCL/testing/CallTable.h"
#include "Framework/GCL/testing/FaultInjection.h"

namespace {

constexpr unsigned kMostEntries = 64;
constexpr unsigned kMostCallers = 16;
constexpr unsigned kMostObjects = 512;
constexpr int kRefused = 125; // the exit status where a setting is bad

using gcltest::FailureKind;
using gcltest::NextFunction;

// One function of the table.
struct Row {
    const char* name;
    FailureKind kind;
    int value;
    int usualError;
    std::atomic<bool> hasEntries;
    std::atomic<unsigned> calls;
    std::atomic<unsigned> failures;
};

#define GCLTEST_STRING_OF_NAME(name) #name

enum RowId : unsigned {
#define GCLTEST_ROW_ID(name, symbol, result, parameters, arguments, kind, value, error) row_##name,
    GCLTEST_CALLS(GCLTEST_ROW_ID) GCLTEST_TEXT_CALLS(GCLTEST_ROW_ID)
        GCLTEST_LOG_CALLS(GCLTEST_ROW_ID) GCLTEST_MEMORY_CALLS(GCLTEST_ROW_ID) kRows
};

Row rows[] = {
#define GCLTEST_ROW(name, symbol, result, parameters, arguments, kind, value, error)               \
    {GCLTEST_STRING_OF_NAME(name), FailureKind::kind, value, error, {false}, {0}, {0}},
    GCLTEST_CALLS(GCLTEST_ROW) GCLTEST_TEXT_CALLS(GCLTEST_ROW) GCLTEST_LOG_CALLS(GCLTEST_ROW)
        GCLTEST_MEMORY_CALLS(GCLTEST_ROW)};

// One entry of KIVGCL_FAULTS.
struct Entry {
    unsigned row;
    unsigned nth;
    bool onwards; // all further calls as well
    int error;
};

Entry wantedFaults[kMostEntries];
unsigned entryCount = 0;
const char* countPath = nullptr;
bool everyCaller = false;
char callers[1024] = "libKivGCL.so"; // the beginnings of file names, each ended by a zero byte
unsigned callerCount = 1;
std::atomic<bool> enabled{false};
pid_t loader = 0;

// Set while the library itself is at work on this thread: its calls are made and not counted.
__attribute__((tls_model("initial-exec"))) thread_local bool busy = false;

class Busy {
public:
    Busy() { busy = true; }
    ~Busy() { busy = false; }
};

// The system's calls, past every interposed function.
template <typename... Arguments>
long kernel(long number, Arguments... arguments)
{
    static NextFunction next("syscall");
    return reinterpret_cast<long (*)(long, ...)>(next.get())(number, arguments...);
}

// ---- Whose call it is

enum class Owner { counted, runtime, other, unknown };

struct Object {
    uintptr_t begin;
    uintptr_t end;
    Owner owner;
};

Object objects[kMostObjects];
unsigned objectCount = 0;
std::atomic_flag objectsLocked = ATOMIC_FLAG_INIT;

bool beginsWith(const char* text, const char* beginning)
{
    return strncmp(text, beginning, strlen(beginning)) == 0;
}

Owner ownerByName(const char* path, uintptr_t own, uintptr_t begin, uintptr_t end)
{
    if (own >= begin && own < end) {
        return Owner::runtime; // this library
    }
    const char* const slash = strrchr(path, '/');
    const char* const name = slash == nullptr ? path : slash + 1;
    const char* caller = callers;
    for (unsigned i = 0; i < callerCount; ++i) {
        if (beginsWith(name, caller)) {
            return Owner::counted;
        }
        caller += strlen(caller) + 1;
    }
    // Whatever may stand between a library and the call that is made on its behalf.
    for (const char* const runtime :
         {"libstdc++.so", "libc++.so", "libc++abi.so", "libc.so", "libgcc_s.so", "libm.so",
          "libpthread.so", "libdl.so", "ld-linux", "ld-musl", "libasan.so", "libtsan.so",
          "libubsan.so", "liblsan.so"}) {
        if (beginsWith(name, runtime)) {
            return Owner::runtime;
        }
    }
    return Owner::other;
}

int noteObject(dl_phdr_info* info, size_t, void*)
{
    const auto own = reinterpret_cast<uintptr_t>(&noteObject);
    for (unsigned i = 0; i < info->dlpi_phnum; ++i) {
        const auto& header = info->dlpi_phdr[i];
        if (header.p_type != PT_LOAD || (header.p_flags & PF_X) == 0 ||
            objectCount == kMostObjects) {
            continue;
        }
        const uintptr_t begin = info->dlpi_addr + header.p_vaddr;
        const uintptr_t end = begin + header.p_memsz;
        objects[objectCount++] = {begin, end, ownerByName(info->dlpi_name, own, begin, end)};
    }
    return 0;
}

Owner knownOwnerOf(uintptr_t address)
{
    for (unsigned i = 0; i < objectCount; ++i) {
        if (address >= objects[i].begin && address < objects[i].end) {
            return objects[i].owner;
        }
    }
    return Owner::unknown;
}

// By the thread that holds objectsLocked.
Owner lockedOwnerOf(uintptr_t address)
{
    const Owner owner = knownOwnerOf(address);
    if (owner != Owner::unknown) {
        return owner;
    }
    // A library that was loaded since.
    objectCount = 0;
    dl_iterate_phdr(noteObject, nullptr);
    return knownOwnerOf(address);
}

Owner ownerOf(uintptr_t address)
{
    while (objectsLocked.test_and_set(std::memory_order_acquire)) {
        kernel(SYS_sched_yield);
    }
    const Owner owner = lockedOwnerOf(address);
    objectsLocked.clear(std::memory_order_release);
    return owner;
}

// Forgets what is known of the loaded libraries, because they change.
void forgetObjects()
{
    while (objectsLocked.test_and_set(std::memory_order_acquire)) {
        kernel(SYS_sched_yield);
    }
    objectCount = 0;
    objectsLocked.clear(std::memory_order_release);
}

_Unwind_Reason_Code lookAtFrame(_Unwind_Context* context, void* result)
{
    const Owner owner = ownerOf(static_cast<uintptr_t>(_Unwind_GetIP(context)) - 1);
    *static_cast<Owner*>(result) = owner;
    return owner == Owner::runtime ? _URC_NO_REASON : _URC_END_OF_STACK;
}

// Whether a call is made by a counted library, or by the runtimes on behalf of one.
bool countsFor(const void* returnAddress)
{
    if (everyCaller) {
        return true;
    }
    Owner owner = ownerOf(reinterpret_cast<uintptr_t>(returnAddress) - 1);
    if (owner == Owner::runtime) {
        _Unwind_Backtrace(lookAtFrame, &owner);
    }
    return owner == Owner::counted;
}

// ---- The calls

struct Verdict {
    bool counted = false;
    bool fails = false;
    int error = 0;
};

// Counts a call, and says whether it must fail.
Verdict verdictOn(RowId id, const void* returnAddress)
{
    Verdict verdict;
    Row& row = rows[id];
    if (!enabled.load(std::memory_order_acquire) || busy) {
        return verdict;
    }
    if (id == row_dlclose) {
        forgetObjects();
    }
    if (countPath == nullptr && !row.hasEntries) {
        return verdict;
    }
    const int savedErrno = errno;
    {
        const Busy guard;
        verdict.counted = countsFor(returnAddress);
    }
    errno = savedErrno;
    if (!verdict.counted) {
        return verdict;
    }
    const unsigned number = ++row.calls;
    for (unsigned i = 0; i < entryCount; ++i) {
        const Entry& entry = wantedFaults[i];
        if (entry.row == id && (number == entry.nth || (entry.onwards && number > entry.nth))) {
            ++row.failures;
            verdict.fails = true;
            verdict.error = entry.error;
            break;
        }
    }
    return verdict;
}

template <typename Result>
struct As {
    static Result value(int number) { return static_cast<Result>(number); }
};
template <typename Target>
struct As<Target*> {
    static Target* value(int) { return nullptr; }
};

template <typename Result>
Result failedCall(const Row& row, int error)
{
    switch (row.kind) {
    case FailureKind::byException:
        throw std::bad_alloc();
    case FailureKind::byResult:
        return As<Result>::value(error);
    default:
        if (error != 0) {
            errno = error;
        }
        return As<Result>::value(row.value);
    }
}

// What an interposed function does.
template <typename Signature>
class Dispatch;

template <typename Result, typename... Arguments>
class Dispatch<Result(Arguments...)> {
public:
    Dispatch(RowId rowId, NextFunction& nextFunction, const void* address)
        : id(rowId), next(nextFunction), returnAddress(address)
    {
    }

    Result operator()(Arguments... arguments) const
    {
        const Verdict verdict = verdictOn(id, returnAddress);
        if (verdict.fails) {
            return failedCall<Result>(rows[id], verdict.error);
        }
        return reinterpret_cast<Result (*)(Arguments...)>(next.get())(arguments...);
    }

private:
    RowId id;
    NextFunction& next;
    const void* returnAddress;
};

} // namespace

#define GCLTEST_DISPATCH(name)                                                                     \
    Dispatch<signature_##name>(row_of_##name, next_of_##name, __builtin_return_address(0))
#define GCLTEST_DISPATCH_BY(name, id)                                                              \
    Dispatch<signature_##name>(row_##name, next_##id, __builtin_return_address(0))
#include "Framework/GCL/testing/private/Interposers.h"

namespace {

#define GCLTEST_NEXT(name, symbol, result, parameters, arguments, kind, value, error)              \
    using signature_##name = result parameters;                                                    \
    constexpr RowId row_of_##name = row_##name;                                                    \
    NextFunction next_of_##name(GCLTEST_STRING_OF(symbol));
GCLTEST_CALLS(GCLTEST_NEXT)
GCLTEST_TEXT_CALLS(GCLTEST_NEXT)
GCLTEST_MEMORY_CALLS(GCLTEST_NEXT)

using signature_syslog = void(int, const char*);
constexpr RowId row_of_syslog = row_syslog;
NextFunction next_of_syslog("syslog", gcltest::findLogFunction);

#if __SIZEOF_POINTER__ == 4
#define GCLTEST_NEXT_TIME64(name, function, symbol, result, parameters, arguments)                 \
    using signature_##name = result parameters;                                                    \
    constexpr RowId row_of_##name = row_##function;                                                \
    NextFunction next_of_##name(GCLTEST_STRING_OF(symbol));
GCLTEST_TIME64_CALLS(GCLTEST_NEXT_TIME64)
#endif

} // namespace

GCLTEST_DEFINE_INTERPOSERS

// ---- Memory

namespace {

// The blocks that counted callers were given and nobody has freed: a table of addresses, each at or
// behind the place that it hashes to, without a gap between.
class Blocks {
public:
    void add(const void* block)
    {
        const Lock lock(busyNow);
        if (known == kMost - 1) {
            overflown = true; // one place stays empty, for the ends of searches
            return;
        }
        table[placeFor(block)] = block;
        ++known;
    }

    // Whether it was there.
    bool remove(const void* block)
    {
        if (block == nullptr || known == 0) {
            return false;
        }
        const Lock lock(busyNow);
        unsigned gap = placeFor(block);
        if (table[gap] == nullptr) {
            return false;
        }
        --known;
        for (unsigned place = next(gap); table[place] != nullptr; place = next(place)) {
            // Those that do not hash to a place behind the gap move into it.
            const unsigned home = homeOf(table[place]);
            if ((place - home) % kMost >= (place - gap) % kMost) {
                table[gap] = table[place];
                gap = place;
            }
        }
        table[gap] = nullptr;
        return true;
    }

    // False where there were too many.
    bool count(unsigned& number) const
    {
        number = known;
        return !overflown;
    }

private:
    static constexpr unsigned kMost = 1U << 15;

    class Lock {
    public:
        explicit Lock(std::atomic_flag& toTake) : flag(toTake)
        {
            while (flag.test_and_set(std::memory_order_acquire)) {
                kernel(SYS_sched_yield);
            }
        }
        ~Lock() { flag.clear(std::memory_order_release); }
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;

    private:
        std::atomic_flag& flag;
    };

    static unsigned next(unsigned place) { return (place + 1) % kMost; }
    static unsigned homeOf(const void* block)
    {
        return (static_cast<uint32_t>(reinterpret_cast<uintptr_t>(block) / 8) * 2654435761U) >> 17;
    }
    // Where the block is, or else would be.
    unsigned placeFor(const void* block) const
    {
        unsigned place = homeOf(block);
        while (table[place] != nullptr && table[place] != block) {
            place = next(place);
        }
        return place;
    }

    std::atomic_flag busyNow = ATOMIC_FLAG_INIT;
    const void* table[kMost] = {};
    std::atomic<unsigned> known{0};
    bool overflown = false;
};

Blocks unfreed;

// What malloc, calloc and realloc do.
template <typename Signature, typename... Arguments>
void* allocated(RowId id, NextFunction& next, const void* returnAddress, void* before,
                Arguments... arguments)
{
    const Verdict verdict = verdictOn(id, returnAddress);
    if (verdict.fails) {
        return failedCall<void*>(rows[id], verdict.error);
    }
    // Before another thread can be given the address.
    const bool wasKnown = unfreed.remove(before);
    void* const block = reinterpret_cast<Signature*>(next.get())(arguments...);
    if (block != nullptr && countPath != nullptr && (verdict.counted || wasKnown)) {
        unfreed.add(block);
    } else if (block == nullptr && wasKnown) {
        unfreed.add(before);
    }
    return block;
}

NextFunction next_of_free("free");

} // namespace

GCLTEST_DEFINE_INTERPOSER(malloc, malloc, void*, (size_t size))
{
    return allocated<signature_malloc>(row_of_malloc, next_of_malloc, __builtin_return_address(0),
                                       nullptr, size);
}
GCLTEST_DEFINE_INTERPOSER(calloc, calloc, void*, (size_t count, size_t size))
{
    return allocated<signature_calloc>(row_of_calloc, next_of_calloc, __builtin_return_address(0),
                                       nullptr, count, size);
}
GCLTEST_DEFINE_INTERPOSER(realloc, realloc, void*, (void* memory, size_t size))
{
    return allocated<signature_realloc>(row_of_realloc, next_of_realloc,
                                        __builtin_return_address(0), memory, memory, size);
}
GCLTEST_DEFINE_INTERPOSER(free, free, void, (void* memory))
{
    // The look-up frees memory, which is kept.
    __attribute__((tls_model("initial-exec"))) static thread_local bool lookingUp = false;
    if (lookingUp) {
        return;
    }
    lookingUp = true;
    void* const function = next_of_free.get();
    lookingUp = false;
    unfreed.remove(memory);
    reinterpret_cast<void (*)(void*)>(function)(memory);
}

// For programs that ask while they run, by dlsym: the calls of a function of the table so far, and
// the failures of all.
extern "C" __attribute__((visibility("default"), used)) unsigned
kivgclFaultsCalls(const char* function)
{
    for (const Row& row : rows) {
        if (strcmp(row.name, function) == 0) {
            return row.calls;
        }
    }
    return 0;
}
extern "C" __attribute__((visibility("default"), used)) unsigned kivgclFaultsFailures()
{
    unsigned failures = 0;
    for (const Row& row : rows) {
        failures += row.failures;
    }
    return failures;
}

namespace {

// ---- The settings

// A text that grows without memory of the heap; append returns false where it does not fit.
class Text {
public:
    bool append(const char* addition, size_t length)
    {
        if (length >= sizeof text - used) {
            return false;
        }
        memcpy(text + used, addition, length);
        used += length;
        text[used] = '\0';
        return true;
    }
    bool append(const char* addition) { return append(addition, strlen(addition)); }
    bool append(unsigned number)
    {
        char digits[10];
        char* const end = digits + sizeof digits;
        char* first = end;
        do {
            *--first = static_cast<char>('0' + number % 10);
            number /= 10;
        } while (number > 0);
        return append(first, static_cast<size_t>(end - first));
    }
    const char* get() const { return text; }
    size_t size() const { return used; }

private:
    char text[4096] = "";
    size_t used = 0;
};

// Writes to standard error, past every interposed function.
void say(const char* text)
{
    static_cast<void>(kernel(SYS_write, 2, text, strlen(text)));
}

void complain(const char* variable, std::initializer_list<const char*> texts)
{
    say("libKivGCLFaults: ");
    say(variable);
    say(": ");
    for (const char* const text : texts) {
        say(text);
    }
    say("\n");
}

struct ErrorName {
    const char* name;
    int number;
};

// Errors whose names strerrorname_np does not know: those of getaddrinfo, and second names.
constexpr ErrorName kFurtherErrors[] = {
    {"EWOULDBLOCK", EWOULDBLOCK},
    {"EOPNOTSUPP", EOPNOTSUPP},
    {"ENOTSUP", ENOTSUP},
    {"EDEADLOCK", EDEADLOCK},
    {"EAI_ADDRFAMILY", EAI_ADDRFAMILY},
    {"EAI_AGAIN", EAI_AGAIN},
    {"EAI_BADFLAGS", EAI_BADFLAGS},
    {"EAI_FAIL", EAI_FAIL},
    {"EAI_FAMILY", EAI_FAMILY},
    {"EAI_MEMORY", EAI_MEMORY},
    {"EAI_NODATA", EAI_NODATA},
    {"EAI_NONAME", EAI_NONAME},
    {"EAI_OVERFLOW", EAI_OVERFLOW},
    {"EAI_SERVICE", EAI_SERVICE},
    {"EAI_SOCKTYPE", EAI_SOCKTYPE},
    {"EAI_SYSTEM", EAI_SYSTEM},
};

constexpr int kErrorsEnd = 134; // Linux has errors from 1 to 133

// A number from 1 on of nothing but digits; 0 for anything else.
unsigned numberIn(const char* text)
{
    unsigned long value = 0;
    for (const char* digit = text; *digit != '\0'; ++digit) {
        if (*digit < '0' || *digit > '9' || digit - text > 8) {
            return 0;
        }
        value = value * 10 + static_cast<unsigned long>(*digit - '0');
    }
    return static_cast<unsigned>(value);
}

// 0 for a name that is none.
int errorCalled(const char* name)
{
    for (const ErrorName& further : kFurtherErrors) {
        if (strcmp(further.name, name) == 0) {
            return further.number;
        }
    }
    for (int error = 1; error < kErrorsEnd; ++error) {
        const char* const known = strerrorname_np(error);
        if (known != nullptr && strcmp(known, name) == 0) {
            return error;
        }
    }
    return static_cast<int>(numberIn(name));
}

// The part of `text` up to the separator, which becomes its end; `text` moves behind it, or to
// NULL.
char* cut(char*& text, char separator)
{
    char* const part = text;
    // cppcheck-suppress nullPointerRedundantCheck
    char* const found = strchr(text, separator);
    if (found == nullptr) {
        text = nullptr;
    } else {
        *found = '\0';
        text = found + 1;
    }
    return part;
}

constexpr char kFaults[] = "KIVGCL_FAULTS";
constexpr char kCallers[] = "KIVGCL_FAULTS_CALLERS";
constexpr char kCountFile[] = "KIVGCL_FAULTS_COUNT";

bool refuse(const char* entry, const char* reason, const char* part = "")
{
    complain(kFaults, {"'", entry, "': ", reason, part});
    return false;
}

unsigned rowCalled(const char* name)
{
    unsigned row = 0;
    while (row < kRows && strcmp(rows[row].name, name) != 0) {
        ++row;
    }
    return row;
}

// Takes one entry of KIVGCL_FAULTS: name:n[+][:error]
bool takeEntry(const char* entry)
{
    char parts[100];
    const size_t size = strlen(entry) + 1;
    if (size > sizeof parts) {
        return refuse(entry, "this is too long");
    }
    memcpy(parts, entry, size);
    char* rest = parts;
    const char* const name = cut(rest, ':');
    const unsigned row = rowCalled(name);
    if (row == kRows) {
        return refuse(entry, "no such function; KIVGCL_FAULTS=help lists them: ", name);
    }
    if (rows[row].kind == FailureKind::never) {
        return refuse(entry, "this function cannot fail");
    }
    if (rest == nullptr) {
        return refuse(entry, "the number of the call is missing");
    }
    char* const number = cut(rest, ':');
    const size_t length = strlen(number);
    const bool onwards = length > 0 && number[length - 1] == '+';
    if (onwards) {
        number[length - 1] = '\0';
    }
    const unsigned nth = numberIn(number);
    if (nth == 0) {
        return refuse(entry, "the number of the call must be from 1 to 999999999, not ", number);
    }
    int error = rows[row].usualError;
    if (rest != nullptr) {
        if (rows[row].kind == FailureKind::byException) {
            return refuse(entry, "this function throws std::bad_alloc and takes no error");
        }
        error = errorCalled(rest);
        if (error == 0) {
            return refuse(entry, "no such error: ", rest);
        }
    }
    if (entryCount == kMostEntries) {
        return refuse(entry, "there may be 64 entries at most");
    }
    wantedFaults[entryCount++] = {row, nth, onwards, error};
    rows[row].hasEntries = true;
    return true;
}

bool takeFaults(const char* list)
{
    bool good = true;
    for (const char* begin = list;;) {
        const size_t length = strcspn(begin, ",");
        char entry[256];
        const size_t kept = length < sizeof entry ? length : sizeof entry - 1;
        memcpy(entry, begin, kept);
        entry[kept] = '\0';
        good = takeEntry(entry) && good;
        if (begin[length] == '\0') {
            return good;
        }
        begin += length + 1;
    }
}

// A list of file names, or "all".
bool takeCallers(const char* list)
{
    if (strcmp(list, "all") == 0) {
        everyCaller = true;
        return true;
    }
    const size_t size = strlen(list) + 1;
    if (size > sizeof callers) {
        complain(kCallers, {"this is too long"});
        return false;
    }
    memcpy(callers, list, size);
    callerCount = 0;
    char* rest = callers;
    do {
        if (*cut(rest, ',') == '\0' || callerCount == kMostCallers) {
            complain(kCallers,
                     {"'", list, "' is neither 'all' nor a list of up to 16 names of libraries"});
            return false;
        }
        ++callerCount;
    } while (rest != nullptr);
    return true;
}

const char* kindInWords(const Row& row)
{
    switch (row.kind) {
    case FailureKind::byException:
        return "throws std::bad_alloc";
    case FailureKind::byResult:
        return "returns the error";
    case FailureKind::never:
        return "cannot fail; its calls are counted";
    default:
        return row.value == 0 ? "returns 0 or NULL, the error in errno"
                              : "returns -1, the error in errno";
    }
}

// The functions, one a line: name, how it fails, usual error.
void list()
{
    for (const Row& row : rows) {
        for (const char* const text :
             {row.name, ": ", kindInWords(row), row.usualError > 0 ? ", by default " : "",
              row.usualError > 0 ? strerrorname_np(row.usualError) : "", "\n"}) {
            static_cast<void>(kernel(SYS_write, 1, text, strlen(text)));
        }
    }
}

// ---- The counts

// The file's name, with the process's id for "%p".
bool countFileName(Text& name)
{
    const long process = kernel(SYS_getpid);
    const char* const place = strstr(countPath, "%p");
    if (place == nullptr) {
        // A child of fork leaves the file to its parent.
        return process == loader && name.append(countPath);
    }
    return name.append(countPath, static_cast<size_t>(place - countPath)) &&
           name.append(static_cast<unsigned>(process)) && name.append(place + 2);
}

bool lineOf(const char* name, unsigned first, unsigned second, Text& line)
{
    return line.append(name) && line.append(" ") && line.append(first) && line.append(" ") &&
           line.append(second) && line.append("\n");
}

void writeCounts()
{
    if (!enabled || countPath == nullptr) {
        return;
    }
    Text name;
    if (!countFileName(name)) {
        return;
    }
    const long file =
        kernel(SYS_openat, AT_FDCWD, name.get(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    bool written = file >= 0;
    const auto write = [&](const Text& line) {
        written = written && kernel(SYS_write, file, line.get(), line.size()) ==
                                 static_cast<long>(line.size());
    };
    for (const Row& row : rows) {
        Text line;
        if (row.calls > 0 && lineOf(row.name, row.calls, row.failures, line)) {
            write(line);
        }
    }
    Text line;
    unsigned blocks = 0;
    if (unfreed.count(blocks) && lineOf("unfreed", blocks, 0, line)) {
        write(line);
    }
    if (file >= 0) {
        kernel(SYS_close, file);
    }
    if (!written) {
        complain(kCountFile, {"cannot write '", name.get(), "': ", strerrorname_np(errno)});
    }
}

// The value of a variable in the environment that the process was started with; the C library knows
// of it later.
const char* settingOf(const char* variable, char** environment)
{
    const size_t length = strlen(variable);
    for (char** entry = environment; *entry != nullptr; ++entry) {
        if (strncmp(*entry, variable, length) == 0 && (*entry)[length] == '=') {
            return *entry + length + 1;
        }
    }
    return nullptr;
}

__attribute__((constructor)) void begin(int, char**, char** environment)
{
    const char* const faults = settingOf(kFaults, environment);
    if (faults != nullptr && strcmp(faults, "help") == 0) {
        list();
        kernel(SYS_exit_group, 0);
    }
    const char* const callerList = settingOf(kCallers, environment);
    const bool goodFaults = faults == nullptr || *faults == '\0' || takeFaults(faults);
    const bool goodCallers = callerList == nullptr || takeCallers(callerList);
    if (!goodFaults || !goodCallers) {
        kernel(SYS_exit_group, kRefused);
    }
    const char* const path = settingOf(kCountFile, environment);
    countPath = path != nullptr && *path != '\0' ? path : nullptr;
    loader = static_cast<pid_t>(kernel(SYS_getpid));
    enabled = true;
}

__attribute__((destructor)) void end()
{
    writeCounts();
}

template <typename Function>
[[noreturn]] void endProcessBy(const char* symbol, Function call)
{
    writeCounts();
    NextFunction next(symbol);
    call(next.get());
    __builtin_unreachable();
}

void exitBy(void* function, int status)
{
    reinterpret_cast<void (*)(int)>(function)(status);
}

} // namespace

// Ends of the process that skip the destructor.
GCLTEST_DEFINE_INTERPOSER(exit_at_once, _exit, void, (int status))
{
    endProcessBy("_exit", [status](void* function) { exitBy(function, status); });
}
GCLTEST_DEFINE_INTERPOSER(exit_at_once_c, _Exit, void, (int status))
{
    endProcessBy("_Exit", [status](void* function) { exitBy(function, status); });
}
GCLTEST_DEFINE_INTERPOSER(quick_exit, quick_exit, void, (int status))
{
    endProcessBy("quick_exit", [status](void* function) { exitBy(function, status); });
}
GCLTEST_DEFINE_INTERPOSER(abort, abort, void, ())
{
    endProcessBy("abort", [](void* function) { reinterpret_cast<void (*)()>(function)(); });
}
