// What the parts of the soak share: complaints, the table of accounts, randomness and the shape of
// a load.
//
// A load keeps one part of the library busy in rounds. Between two rounds nothing of it runs, and
// everything that it has done so far is accounted for: that is where descriptors, threads and
// memory are compared. Objects that may last as long as the process stay from round to round.
#ifndef TESTS_SOAK_SOAK_H
#define TESTS_SOAK_SOAK_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace soak {

using Count = std::atomic<uint64_t>;

// Says what is wrong on standard error; the soak then ends and fails. Any thread may call it.
void complain(const char* format, ...) __attribute__((format(printf, 1, 2)));
uint64_t complaints();

int64_t monotonicNs();
// Wall clock minus monotonic clock: it changes where somebody sets the wall clock.
int64_t wallOffsetNs();
void pauseUs(unsigned microseconds);

// A pattern for what is sent and stored, different for each stream and place.
inline uint64_t mixed(uint64_t stream, uint64_t place)
{
    uint64_t word = (stream + 1) * 0x9E3779B97F4A7C15u + place;
    word = (word ^ word >> 30) * 0xBF58476D1CE4E5B9u;
    word = (word ^ word >> 27) * 0x94D049BB133111EBu;
    return word ^ word >> 31;
}

class Random {
public:
    explicit Random(uint32_t seed) : engine(seed % 0x7FFFFFFE + 1) {}
    // 0 to limit - 1
    unsigned below(unsigned limit) { return static_cast<unsigned>(engine() >> 4) % limit; }
    bool oneIn(unsigned count) { return below(count) == 0; }

private:
    std::minstd_rand engine;
};

// What was done beside what was accounted for.
class Table {
public:
    // Both must agree.
    void same(const std::string& what, uint64_t done, uint64_t accounted);
    // For the reader only.
    void note(const std::string& what, uint64_t count);
    void print() const;

private:
    struct Row {
        std::string what;
        uint64_t done;
        uint64_t accounted;
        bool compared;
    };
    std::vector<Row> rows;
};

// What is the same for a whole round.
struct Round {
    uint32_t seed;   // another one for each round
    bool restarting; // the signals' handlers were installed with SA_RESTART
};

enum class Kind { timers, elements, frames, bytes, containers, reports, signals };

class Load {
public:
    Load(Kind loadKind, std::string loadName) : kind(loadKind), name(std::move(loadName)) {}
    virtual ~Load() = default;
    Load(const Load&) = delete;
    Load& operator=(const Load&) = delete;

    void begin(const Round& newRound);
    // Ends the round; whatever still waits is let go on.
    void end();
    // Compares the totals so far.
    virtual void account(Table& table) const = 0;

    const Kind kind;
    const std::string name;
    Count steps{0}; // grows as long as the load gets on

protected:
    virtual void beginRound() = 0;
    // What makes the crew end, beside `over`.
    virtual void askToEnd() {}
    // What is left to do once the crew has ended.
    virtual void endRound() {}

    // Starts a thread of the round.
    void employ(std::function<void(Random&)> work);

    Round round{};
    std::atomic<bool> over{false};

private:
    std::vector<std::thread> crew;
};

// The reports that must stand in the sink's file: how often a text was due, and how often it was
// found. A text that contains another one is expected before it.
class Expectations {
public:
    // `due` is read whenever the file has been read. NULL: any number. Where `orText` is given,
    // both texts together are due so often.
    void expect(const char* channel, const char* text, const Count* due, const char* orText = "");
    // One line of the file, without its end.
    void take(std::string_view line);
    void account(Table& table) const;
    uint64_t lines() const { return total; }

    // Lines on channels that begin with `prefix` go to their writer.
    void forward(std::string prefix, std::function<void(std::string_view, int, std::string_view)>);

private:
    struct Text {
        std::string channel;
        std::string text;
        std::string orText;
        const Count* due;
        uint64_t found;
        uint64_t orFound;
    };
    std::vector<Text> texts;
    std::string forwarded;
    std::function<void(std::string_view channel, int level, std::string_view text)> writer;
    uint64_t total = 0;
};

using Loads = std::vector<std::unique_ptr<Load>>;

// The parts. Each adds its loads, and the reports that they make the library write.
void addTimers(Loads& loads, Expectations& expectations, unsigned count);
void addFifos(Loads& loads, Expectations& expectations);
void addLinks(Loads& loads, Expectations& expectations);
void addSockets(Loads& loads, Expectations& expectations);
void addContainers(Loads& loads, Expectations& expectations);
void addReporters(Loads& loads, Expectations& expectations);
void addSignals(Loads& loads);

// Blocks taken by operator new and not given back.
int64_t liveBlocks();

} // namespace soak

#endif // TESTS_SOAK_SOAK_H
