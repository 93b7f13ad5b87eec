// The frame of the bench programs. A case is one operation at one setting. It is measured on
// several sides: ours, the floor, and the peers. Google Benchmark runs the repetitions of all sides
// in random order (--benchmark_enable_random_interleaving), so that what disturbs the machine for a
// while disturbs all of them alike; bench/report.py compares the medians.
//
// A module's <Module>Bench.cpp defines bench::addCases:
//
//     bench::Case("CStack_Push", {1.05, 0.75}).at("depth", 100)
//         .ours(pushOurs).floor(pushFloor).peer("GPtrArray", pushGlib);
//
// Each side is a function of a benchmark::State that says by setOperations how many operations one
// round of its loop makes.
#ifndef KIVGCL_BENCH_SUPPORT_BENCH_H
#define KIVGCL_BENCH_SUPPORT_BENCH_H

#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace bench {

using Side = std::function<void(benchmark::State&)>;

// How much of the floor's time and of the best peer's time an operation may take; 0 for no target.
struct Targets {
    double ofFloor;
    double ofPeer;
};

class Case {
public:
    // `operationName` names the row in the tables. All cases of an operation have the same targets.
    Case(std::string operationName, Targets targets);
    Case(const Case&) = delete;
    Case& operator=(const Case&) = delete;
    ~Case() = default;

    // One coordinate of the setting, such as "length", 100. All of them come before the first side.
    Case& at(const std::string& axis, double value);

    // The sides time themselves: they hand the time of each round to State::SetIterationTime.
    Case& manualTime();
    // The time on the clock counts, not the processor time of the calling thread.
    Case& realTime();

    // A fixed number of rounds, where the time of a few does not foretell that of many.
    Case& rounds(int64_t count);

    Case& ours(const Side& side);
    Case& floor(const Side& side);
    // A peer that the target holds for.
    Case& peer(const std::string& name, const Side& side);
    // A peer with a target of its own, whether or not it is the best one.
    Case& peer(const std::string& name, double ofPeer, const Side& side);
    // A peer that is shown without being the measure, and why.
    Case& shown(const std::string& name, const std::string& why, const Side& side);

private:
    Case& add(const std::string& name, const std::string& label, const Side& side);
    Case& addSide(const std::string& name, const std::string& label, const Side& side);

    std::string operation;
    std::string setting;
    bool timedBySide = false;
    bool timedByClock = false;
    int64_t fixedRounds = 0;
};

// The number of operations in one round of the loop.
inline void setOperations(benchmark::State& state, double perRound)
{
    using benchmark::Counter;
    state.counters["operation"] =
        Counter(perRound, Counter::kIsIterationInvariantRate | Counter::kInvert);
}

// Ends a side whose operations did not do what they should; the run then fails.
inline void require(benchmark::State& state, bool condition, const char* what)
{
    if (!condition) {
        state.SkipWithError(what);
    }
}

// For manualTime: the seconds that `work` took.
template <typename Work>
double secondsOf(const Work& work)
{
    const auto begin = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

// For manualTime: the rounds of one side. Their median is what counts, so that a round in which the
// machine did something else does not.
class Rounds {
public:
    void add(benchmark::State& state, double seconds)
    {
        state.SetIterationTime(seconds);
        times.push_back(seconds);
    }
    // In place of setOperations.
    void finish(benchmark::State& state, double perRound);

private:
    std::vector<double> times;
};

// Registers the cases of the module; each bench program defines it.
void addCases();

} // namespace bench

#endif // KIVGCL_BENCH_SUPPORT_BENCH_H
