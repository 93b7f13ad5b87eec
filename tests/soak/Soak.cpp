#include "tests/soak/Soak.h"

#include <time.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <new>

namespace soak {
namespace {

Count complaintCount{0};
std::atomic<int64_t> blocks{0};

int64_t clockNs(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

} // namespace

void complain(const char* format, ...)
{
    constexpr uint64_t kShown = 20;
    if (++complaintCount > kShown) {
        return; // one cause has many effects
    }
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    static_cast<void>(std::vsnprintf(text, sizeof text, format, arguments));
    va_end(arguments);
    std::fprintf(stderr, "soak: %s\n", text);
}

uint64_t complaints()
{
    return complaintCount;
}

int64_t monotonicNs()
{
    return clockNs(CLOCK_MONOTONIC);
}

int64_t wallOffsetNs()
{
    return clockNs(CLOCK_REALTIME) - clockNs(CLOCK_MONOTONIC);
}

void pauseUs(unsigned microseconds)
{
    std::this_thread::sleep_for(std::chrono::microseconds(microseconds));
}

int64_t liveBlocks()
{
    return blocks;
}

// --- The table ---------------------------------------------------------------------------------

void Table::same(const std::string& what, uint64_t done, uint64_t accounted)
{
    rows.push_back({what, done, accounted, true});
    if (done != accounted) {
        complain("%s: %llu, accounted for: %llu", what.c_str(),
                 static_cast<unsigned long long>(done), static_cast<unsigned long long>(accounted));
    }
}

void Table::note(const std::string& what, uint64_t count)
{
    rows.push_back({what, count, 0, false});
}

void Table::print() const
{
    std::printf("\n%-58s %14s %14s\n", "", "done", "accounted for");
    for (const Row& row : rows) {
        std::printf("%-58s %14llu", row.what.c_str(), static_cast<unsigned long long>(row.done));
        if (row.compared) {
            std::printf(" %14llu%s", static_cast<unsigned long long>(row.accounted),
                        row.done == row.accounted ? "" : "  WRONG");
        }
        std::printf("\n");
    }
}

// --- A load ------------------------------------------------------------------------------------

void Load::begin(const Round& newRound)
{
    round = newRound;
    over = false;
    beginRound();
}

void Load::end()
{
    over = true;
    askToEnd();
    for (std::thread& thread : crew) {
        thread.join();
    }
    crew.clear();
    crew.shrink_to_fit();
    endRound();
}

void Load::employ(std::function<void(Random&)> work)
{
    const auto number = static_cast<uint32_t>(crew.size());
    const auto place = static_cast<uint32_t>(std::hash<std::string>{}(name));
    const uint32_t seed = round.seed ^ place ^ number * 0x9E3779B9u;
    crew.emplace_back([work = std::move(work), seed] {
        Random random(seed);
        work(random);
    });
}

// --- What stands in the sink's file --------------------------------------------------------------

void Expectations::expect(const char* channel, const char* text, const Count* due,
                          const char* orText)
{
    texts.push_back({channel, text, orText, due, 0, 0});
}

void Expectations::forward(std::string prefix,
                           std::function<void(std::string_view, int, std::string_view)> toWriter)
{
    forwarded = std::move(prefix);
    writer = std::move(toWriter);
}

// Takes the part of the line up to the next blank.
static std::string_view field(std::string_view& line)
{
    const size_t end = line.find(' ');
    const std::string_view found = line.substr(0, end);
    line.remove_prefix(end == std::string_view::npos ? line.size() : end + 1);
    return found;
}

void Expectations::take(std::string_view line)
{
    ++total;
    const std::string shown(line.substr(0, 200));
    const std::string_view time = field(line);
    const std::string_view ids = field(line);
    const std::string_view channel = field(line);
    const std::string_view level = field(line);
    const std::string pid = std::to_string(getpid()) + "/";
    if (time.size() != 27 || time.back() != 'Z' || ids.substr(0, pid.size()) != pid ||
        level.size() != 1) {
        complain("a line of the sink is not whole: '%s'", shown.c_str());
        return;
    }
    if (!forwarded.empty() && channel.substr(0, forwarded.size()) == forwarded) {
        static_cast<void>(field(line)); // file and line
        static_cast<void>(field(line)); // function
        writer(channel, level[0] - '0', line);
        return;
    }
    for (Text& text : texts) {
        if (channel != text.channel) {
            continue;
        }
        if (line.find(text.text) != std::string_view::npos) {
            ++text.found;
            return;
        }
        if (!text.orText.empty() && line.find(text.orText) != std::string_view::npos) {
            ++text.orFound;
            return;
        }
    }
    complain("an unexpected report: '%s'", shown.c_str());
}

void Expectations::account(Table& table) const
{
    for (const Text& text : texts) {
        const std::string what = text.channel + ": \"" + text.text + "\"";
        if (text.due == nullptr) {
            table.note(what, text.found);
        } else if (text.orText.empty()) {
            table.same(what, *text.due, text.found);
        } else {
            table.note(what, text.found);
            table.same(text.channel + ": \"" + text.orText + "\"", *text.due,
                       text.found + text.orFound);
        }
    }
}

} // namespace soak

// What has been freed the sanitizer keeps for a while, by default much more than the rest of the
// process has: the resident memory would tell nothing.
extern "C" __attribute__((used, visibility("default"))) const char* __asan_default_options();
const char* __asan_default_options()
{
    return "quarantine_size_mb=16";
}

// --- Every block of the process is counted, those of the library too -----------------------------

static void* take(size_t size)
{
    void* const block = std::malloc(size == 0 ? 1 : size);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    soak::blocks.fetch_add(1, std::memory_order_relaxed);
    return block;
}

static void giveBack(void* block) noexcept
{
    if (block != nullptr) {
        soak::blocks.fetch_sub(1, std::memory_order_relaxed);
        std::free(block);
    }
}

void* operator new(size_t size)
{
    return take(size);
}
void* operator new[](size_t size)
{
    return take(size);
}
void operator delete(void* block) noexcept
{
    giveBack(block);
}
void operator delete[](void* block) noexcept
{
    giveBack(block);
}
void operator delete(void* block, size_t) noexcept
{
    giveBack(block);
}
void operator delete[](void* block, size_t) noexcept
{
    giveBack(block);
}
