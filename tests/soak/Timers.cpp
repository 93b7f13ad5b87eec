// Hundreds of timers, each with a model of what its callback may do.
#include <algorithm>
#include <array>
#include <cstdlib>
#include <mutex>
#include <shared_mutex>
#include <stdexcept>

#include "Framework/GCL/CTimer.h"
#include "tests/soak/Soak.h"

namespace soak {
namespace {

using Milliseconds = std::chrono::milliseconds;

constexpr Milliseconds kForever(24 * 3600 * 1000);
constexpr int64_t kNsPerMs = 1'000'000;
constexpr int64_t kOverdueNs = 30'000 * kNsPerMs;
constexpr int64_t kEarlyNs = kNsPerMs; // the clocks are read one after the other

Count thrown{0};

class TimerLoad : public Load {
public:
    explicit TimerLoad(unsigned count) : Load(Kind::timers, "timers"), slots(count)
    {
        unsigned number = 0;
        for (Slot& slot : slots) {
            slot.type = number % 2 == 0 ? CTimer::NonCyclic : CTimer::Cyclic;
            slot.name = "soak" + std::to_string(number++);
        }
    }

    void account(Table& table) const override
    {
        table.same("timers built, destroyed", built, destroyed);
        table.same("one-shot runs started, fired or stopped before", oneShotRuns,
                   oneShotFired + oneShotStopped);
        table.same("cyclic runs started, stopped or destroyed", cyclicRuns, cyclicEnded);
        table.same("callbacks that came, that belong to a run", callbacks,
                   oneShotFired + cyclicCalls);
    }

protected:
    void beginRound() override
    {
        for (unsigned i = 0; i < kOwners; ++i) {
            employ([this](Random& random) {
                while (!over) {
                    visit(slots[random.below(static_cast<unsigned>(slots.size()))], random);
                    ++steps;
                    if (random.oneIn(4)) {
                        pauseUs(random.below(1000));
                    }
                }
            });
        }
    }

    void endRound() override
    {
        for (Slot& slot : slots) {
            if (slot.timer != nullptr) {
                destroy(slot);
            }
        }
    }

private:
    static constexpr unsigned kOwners = 3;

    // idle: the last run is over, and the library has said so. stopped: stop has returned; one
    // call may still be on its way. fenced: a run that never expires shows that those before it
    // are over.
    enum class State { idle, armed, stopped, fenced };

    struct Slot {
        std::mutex mutex; // held by the thread that uses the timer and the model
        std::unique_ptr<CTimer> timer;
        CTimer::Type type = CTimer::NonCyclic;
        std::string name;
        State state = State::idle;
        uint64_t runs = 0;        // started since the last moment at which all runs were over
        uint64_t callsBefore = 0; // calls at that moment
        uint64_t callsAtStop = 0;
        int64_t armedNs = 0;
        int64_t periodNs = 0;
        uint64_t lastLife = 0;

        // What the callback looks at.
        Count living{0}; // the number of the timer that lives here; 0: none
        Count calls{0};
        std::atomic<bool> quiet{true}; // no run that could call
        std::atomic<int64_t> dueNs{0}; // no call before, 0: not known
        std::atomic<int64_t> wallOffset{0};
    };

    void called(Slot& slot, uint64_t life)
    {
        const int64_t now = monotonicNs();
        const int64_t due = slot.dueNs;
        if (slot.living != life) {
            complain("timer %s: a callback after its destruction", slot.name.c_str());
        }
        if (slot.quiet) {
            complain("timer %s: a callback of a run that is over", slot.name.c_str());
        }
        // Who sets the wall clock moves a wait's end.
        const int64_t stepNs = std::abs(wallOffsetNs() - slot.wallOffset);
        if (due != 0 && now + stepNs + kEarlyNs < due) {
            complain("timer %s: called %lld us early", slot.name.c_str(),
                     static_cast<long long>((due - now) / 1000));
        }
        ++callbacks;
        if (++slot.calls % 64 == 0) {
            ++thrown;
            throw std::runtime_error("soak");
        }
    }

    void build(Slot& slot)
    {
        const uint64_t life = ++slot.lastLife;
        slot.living = life;
        slot.quiet = true;
        slot.timer = std::make_unique<CTimer>([this, &slot, life](void*) { called(slot, life); },
                                              nullptr, slot.name, slot.type);
        slot.state = State::idle;
        slot.runs = 0;
        slot.callsBefore = slot.calls;
        ++built;
    }

    void destroy(Slot& slot)
    {
        slot.timer.reset();
        slot.living = 0;
        settle(slot);
        ++destroyed;
    }

    // All runs are over: their calls are final.
    void settle(Slot& slot)
    {
        slot.quiet = true;
        const uint64_t came = slot.calls - slot.callsBefore;
        if (slot.type == CTimer::Cyclic) {
            cyclicCalls += came;
            cyclicEnded += slot.runs;
        } else {
            if (came > slot.runs) {
                complain("timer %s: %llu calls for %llu one-shot runs", slot.name.c_str(),
                         static_cast<unsigned long long>(came),
                         static_cast<unsigned long long>(slot.runs));
            }
            oneShotFired += came;
            oneShotStopped += slot.runs - came;
        }
        slot.runs = 0;
        slot.callsBefore = slot.calls;
    }

    void start(Slot& slot, Milliseconds duration)
    {
        const int64_t durationNs = duration.count() * kNsPerMs;
        // After a stop a call of the stopped run may still look at the moment.
        slot.dueNs = 0;
        if (slot.state == State::idle) {
            slot.wallOffset = wallOffsetNs();
            slot.dueNs = monotonicNs() + durationNs;
        }
        slot.quiet = false;
        slot.periodNs = durationNs;
        if (!slot.timer->start(duration)) {
            complain("timer %s: a start was refused", slot.name.c_str());
        }
        slot.armedNs = monotonicNs();
        ++slot.runs;
        ++(slot.type == CTimer::Cyclic ? cyclicRuns : oneShotRuns);
        slot.state = State::armed;
    }

    void stop(Slot& slot)
    {
        slot.timer->stop();
        slot.callsAtStop = slot.calls;
        if (slot.timer->isRunning()) {
            complain("timer %s: runs after stop", slot.name.c_str());
        }
        slot.state = State::stopped;
    }

    void visit(Slot& slot, Random& random)
    {
        const std::lock_guard<std::mutex> lock(slot.mutex);
        const Milliseconds duration(slot.type == CTimer::Cyclic ? 4 + random.below(60)
                                                                : random.below(60));
        if (slot.timer == nullptr) {
            build(slot);
            return;
        }
        if (random.oneIn(32)) { // the timer moves to another object and back, running or not
            CTimer elsewhere(std::move(*slot.timer));
            *slot.timer = std::move(elsewhere);
        }
        switch (slot.state) {
        case State::idle:
            if (random.oneIn(16)) {
                destroy(slot);
            } else {
                start(slot, duration);
            }
            break;
        case State::armed:
            visitArmed(slot, random, duration);
            break;
        case State::stopped:
            visitStopped(slot, random, duration);
            break;
        case State::fenced:
            if (!slot.timer->isRunning()) {
                complain("timer %s: ended a run of a day", slot.name.c_str());
            }
            stop(slot);
            // It cannot be on its way: a day has not passed.
            slot.state = State::idle;
            settle(slot);
            break;
        }
    }

    void visitArmed(Slot& slot, Random& random, Milliseconds duration)
    {
        if (random.oneIn(16)) {
            destroy(slot);
            return;
        }
        // The calls are read last: who was not running before has called before.
        const bool running = slot.timer->isRunning();
        const uint64_t came = slot.calls - slot.callsBefore;
        if (slot.type == CTimer::NonCyclic && !running) {
            if (came == 0 || came > slot.runs) {
                complain("timer %s: ended after %llu calls for %llu runs", slot.name.c_str(),
                         static_cast<unsigned long long>(came),
                         static_cast<unsigned long long>(slot.runs));
            }
            slot.state = State::idle;
            settle(slot);
            return;
        }
        if (!running) {
            complain("cyclic timer %s: stopped by itself", slot.name.c_str());
        }
        if (came == 0 && monotonicNs() > slot.armedNs + slot.periodNs + kOverdueNs) {
            complain("timer %s: has not called for %lld ms", slot.name.c_str(),
                     static_cast<long long>((monotonicNs() - slot.armedNs) / kNsPerMs));
        }
        if (random.oneIn(3)) {
            stop(slot);
        } else if (slot.type == CTimer::Cyclic && random.oneIn(4)) {
            slot.dueNs = 0; // the period changes with the next wait, which may be the first
            slot.periodNs = std::max(slot.periodNs, duration.count() * kNsPerMs);
            if (slot.timer->start(duration)) {
                complain("cyclic timer %s: was started while it ran", slot.name.c_str());
            }
        }
    }

    void visitStopped(Slot& slot, Random& random, Milliseconds duration)
    {
        if (slot.calls > slot.callsAtStop + 1) {
            complain("timer %s: %llu callbacks after stop", slot.name.c_str(),
                     static_cast<unsigned long long>(slot.calls - slot.callsAtStop));
        }
        if (random.oneIn(16)) {
            destroy(slot);
        } else if (random.oneIn(2)) {
            start(slot, duration);
        } else {
            start(slot, kForever);
            --slot.runs; // this one is not over
            settle(slot);
            slot.runs = 1;
            slot.state = State::fenced;
        }
    }

    std::vector<Slot> slots;
    Count built{0};
    Count destroyed{0};
    Count callbacks{0};
    Count oneShotRuns{0};
    Count oneShotFired{0};
    Count oneShotStopped{0};
    Count cyclicRuns{0};
    Count cyclicEnded{0};
    Count cyclicCalls{0};
};

// A few timers on which several threads call everything at the same time.
class StormLoad : public Load {
public:
    StormLoad() : Load(Kind::timers, "contended timers") {}

    void account(Table& table) const override
    {
        table.same("contended timers built, destroyed", built, destroyed);
        table.note("contended timers: callbacks", callbacks);
    }

protected:
    void beginRound() override
    {
        for (unsigned i = 0; i < 3; ++i) {
            employ([this](Random& random) {
                while (!over) {
                    visit(slots[random.below(kSlots)], random);
                    ++steps;
                    if (random.oneIn(4)) {
                        pauseUs(random.below(1000));
                    }
                }
            });
        }
    }

    void endRound() override
    {
        for (Slot& slot : slots) {
            destroy(slot);
        }
    }

private:
    static constexpr unsigned kSlots = 8;

    struct Slot {
        std::shared_mutex mutex; // held alone to build and destroy
        std::unique_ptr<CTimer> timer;
        CTimer* self = nullptr; // what the callback calls
        CTimer::Type type = CTimer::Cyclic;
        uint64_t lastLife = 0;
        Count living{0};
        Count starts{0}; // of the timer that lives here
        Count calls{0};
    };

    void called(Slot& slot, uint64_t life)
    {
        if (slot.living != life) {
            complain("a contended timer: a callback after its destruction");
        }
        ++callbacks;
        switch (++slot.calls % 8) {
        case 0:
            slot.self->stop();
            break;
        case 1:
            if (slot.self->start(Milliseconds(1))) {
                complain("a timer was started in its own callback");
            }
            break;
        case 2:
            ++thrown;
            throw 1;
        default:
            static_cast<void>(slot.self->isRunning());
            break;
        }
    }

    void destroy(Slot& slot)
    {
        if (slot.timer != nullptr) {
            slot.timer.reset();
            slot.living = 0;
            // Of two starts that wait for the same stop, both may be told that they succeeded.
            if (slot.type == CTimer::NonCyclic && slot.calls > slot.starts) {
                complain("a contended timer: %llu calls for %llu one-shot runs",
                         static_cast<unsigned long long>(slot.calls),
                         static_cast<unsigned long long>(slot.starts));
            }
            ++destroyed;
        }
    }

    void visit(Slot& slot, Random& random)
    {
        if (slot.living == 0 || random.oneIn(64)) {
            const std::lock_guard<std::shared_mutex> lock(slot.mutex);
            destroy(slot);
            slot.type = random.oneIn(2) ? CTimer::Cyclic : CTimer::NonCyclic;
            const uint64_t life = ++slot.lastLife;
            slot.starts = 0;
            slot.calls = 0;
            slot.living = life;
            slot.timer =
                std::make_unique<CTimer>([this, &slot, life](void*) { called(slot, life); },
                                         nullptr, "contended", slot.type);
            slot.self = slot.timer.get();
            ++built;
            return;
        }
        const std::shared_lock<std::shared_mutex> lock(slot.mutex);
        switch (random.below(4)) {
        case 0:
        case 1:
            slot.starts += slot.timer->start(Milliseconds(1 + random.below(5))) ? 1 : 0;
            break;
        case 2:
            slot.timer->stop();
            break;
        default:
            static_cast<void>(slot.timer->isRunning());
            break;
        }
    }

    std::array<Slot, kSlots> slots;
    Count built{0};
    Count destroyed{0};
    Count callbacks{0};
};

} // namespace

void addTimers(Loads& loads, Expectations& expectations, unsigned count)
{
    // The level of this channel goes up and down, but never below 2.
    expectations.expect("KIV.CTimer", "callback raised exception", &thrown);
    expectations.expect("KIV.CTimer", "must not call start() from callback context", nullptr);
    expectations.expect("KIV.CTimer", "(): ", nullptr);
    loads.push_back(std::make_unique<TimerLoad>(count));
    loads.push_back(std::make_unique<StormLoad>());
}

} // namespace soak
