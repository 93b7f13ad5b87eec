// CHashTable beside its floor, GLib's and APR's hash tables, uthash and std::unordered_map.
#include "Framework/GCL/CHashTable.h"

#include <algorithm>
#include <apr_general.h>
#include <apr_hash.h>
#include <apr_strings.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <glib.h>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <unordered_map>
#include <uthash.h>
#include <vector>

#include "Framework/GCL/cxx/HashTable.h"
#include "bench/floor/CHashTableFloor.h"
#include "bench/support/Bench.h"

namespace {

constexpr uint32_t kBuckets = 128;
constexpr size_t kBatch = 32; // pairs that are removed and set again in a round

// The tables behind one face. Every one copies the keys that it is given, APR's excepted; the value
// of a key is never 0. They are used as templates' arguments: no call is made by a pointer.

class Ours {
public:
    Ours() { CHashTable_Construct(&table, kBuckets); }
    Ours(const Ours&) = delete;
    Ours& operator=(const Ours&) = delete;
    ~Ours() { CHashTable_Destruct(&table); }
    void set(const std::string& key, unsigned long value)
    {
        static_cast<void>(CHashTable_Set(&table, key.c_str(), value));
    }
    unsigned long get(const std::string& key)
    {
        unsigned long value = 0;
        static_cast<void>(CHashTable_Get(&table, key.c_str(), &value));
        return value;
    }
    void unset(const std::string& key)
    {
        unsigned long value = 0;
        static_cast<void>(CHashTable_Unset(&table, key.c_str(), &value));
    }

private:
    CHashTable table{};
};

class Cxx {
public:
    void set(const std::string& key, unsigned long value)
    {
        static_cast<void>(table.set(key.c_str(), value));
    }
    unsigned long get(const std::string& key)
    {
        unsigned long value = 0;
        static_cast<void>(table.get(key.c_str(), value));
        return value;
    }
    void unset(const std::string& key)
    {
        unsigned long value = 0;
        static_cast<void>(table.unset(key.c_str(), value));
    }

private:
    gcl::HashTable<unsigned long> table{kBuckets};
};

class Floor {
public:
    Floor() { floorTableConstruct(&table, kBuckets); }
    Floor(const Floor&) = delete;
    Floor& operator=(const Floor&) = delete;
    ~Floor() { floorTableDestruct(&table); }
    void set(const std::string& key, unsigned long value)
    {
        static_cast<void>(floorTableSet(&table, key.c_str(), value));
    }
    unsigned long get(const std::string& key)
    {
        unsigned long value = 0;
        static_cast<void>(floorTableGet(&table, key.c_str(), &value));
        return value;
    }
    void unset(const std::string& key)
    {
        unsigned long value = 0;
        static_cast<void>(floorTableUnset(&table, key.c_str(), &value));
    }

protected:
    FloorTable table{};
};

class ByteByByte : public Floor {
public:
    unsigned long get(const std::string& key)
    {
        unsigned long value = 0;
        static_cast<void>(floorTableGetByBytes(&table, key.c_str(), &value));
        return value;
    }
};

class Glib {
public:
    Glib() : table(g_hash_table_new_full(g_str_hash, g_str_equal, g_free, nullptr)) {}
    Glib(const Glib&) = delete;
    Glib& operator=(const Glib&) = delete;
    ~Glib() { g_hash_table_destroy(table); }
    void set(const std::string& key, unsigned long value)
    {
        g_hash_table_insert(table, g_strdup(key.c_str()), GSIZE_TO_POINTER(value));
    }
    unsigned long get(const std::string& key)
    {
        return GPOINTER_TO_SIZE(g_hash_table_lookup(table, key.c_str()));
    }
    void unset(const std::string& key) { g_hash_table_remove(table, key.c_str()); }

private:
    GHashTable* table;
};

class Apr {
public:
    Apr()
    {
        apr_pool_create(&pool, nullptr);
        table = apr_hash_make(pool);
    }
    Apr(const Apr&) = delete;
    Apr& operator=(const Apr&) = delete;
    ~Apr() { apr_pool_destroy(pool); }
    void set(const std::string& key, unsigned long value)
    {
        apr_hash_set(table, key.c_str(), APR_HASH_KEY_STRING, GSIZE_TO_POINTER(value));
    }
    unsigned long get(const std::string& key)
    {
        return GPOINTER_TO_SIZE(apr_hash_get(table, key.c_str(), APR_HASH_KEY_STRING));
    }
    void unset(const std::string& key)
    {
        apr_hash_set(table, key.c_str(), APR_HASH_KEY_STRING, nullptr);
    }

private:
    apr_pool_t* pool = nullptr;
    apr_hash_t* table = nullptr;
};

class Uthash {
public:
    Uthash() = default;
    Uthash(const Uthash&) = delete;
    Uthash& operator=(const Uthash&) = delete;
    ~Uthash()
    {
        Pair* pair = nullptr;
        Pair* next = nullptr;
        HASH_ITER(hh, table, pair, next)
        {
            HASH_DEL(table, pair);
            std::free(pair);
        }
    }
    void set(const std::string& key, unsigned long value)
    {
        Pair* pair = find(key);
        if (pair == nullptr) {
            const size_t size = std::strlen(key.c_str()) + 1;
            pair = static_cast<Pair*>(std::malloc(sizeof(Pair) + size));
            char* const copy = reinterpret_cast<char*>(pair + 1);
            std::memcpy(copy, key.c_str(), size);
            HASH_ADD_KEYPTR(hh, table, copy, size - 1, pair);
        }
        pair->value = value;
    }
    unsigned long get(const std::string& key)
    {
        const Pair* const pair = find(key);
        return pair == nullptr ? 0 : pair->value;
    }
    void unset(const std::string& key)
    {
        Pair* const pair = find(key);
        if (pair != nullptr) {
            HASH_DEL(table, pair);
            std::free(pair);
        }
    }

private:
    struct Pair {
        unsigned long value;
        UT_hash_handle hh;
    };
    Pair* find(const std::string& key)
    {
        Pair* pair = nullptr;
        HASH_FIND_STR(table, key.c_str(), pair);
        return pair;
    }
    Pair* table = nullptr;
};

// Its keys are views, so that a text is looked for without making a string of it; the copies stand
// beside the values.
class Std {
public:
    void set(const std::string& key, unsigned long value)
    {
        const std::string_view given(key.c_str());
        const auto found = table.find(given);
        if (found != table.end()) {
            found->second.value = value;
            return;
        }
        std::unique_ptr<char[]> copy(new char[given.size()]);
        std::memcpy(copy.get(), given.data(), given.size());
        const std::string_view stored(copy.get(), given.size());
        table.emplace(stored, Stored{std::move(copy), value});
    }
    unsigned long get(const std::string& key)
    {
        const auto found = table.find(std::string_view(key.c_str()));
        return found == table.end() ? 0 : found->second.value;
    }
    void unset(const std::string& key)
    {
        const auto found = table.find(std::string_view(key.c_str()));
        if (found != table.end()) {
            table.erase(found);
        }
    }

private:
    struct Stored {
        std::unique_ptr<char[]> copy;
        unsigned long value;
    };
    std::unordered_map<std::string_view, Stored> table;
};

// The same with strings as keys, which are made beforehand.
class StdOfStrings {
public:
    void set(const std::string& key, unsigned long value) { table[key] = value; }
    unsigned long get(const std::string& key)
    {
        const auto found = table.find(key);
        return found == table.end() ? 0 : found->second;
    }
    void unset(const std::string& key) { table.erase(key); }

private:
    std::unordered_map<std::string, unsigned long> table;
};

// Keys of one length that differ in their last characters, as names of figures do.
std::string keyOf(size_t length, size_t number)
{
    std::string key;
    while (key.size() < length) {
        key += "unit/board/figure/";
    }
    char digits[16];
    static_cast<void>(std::snprintf(digits, sizeof digits, "%05zu", number));
    return key.replace(length - 5, std::string::npos, digits);
}

// The keys that a case asks for are not the buffers that it stored.
struct Scene {
    Scene(size_t length, double load, size_t firstAsked)
        : pairs(static_cast<size_t>(load * kBuckets))
    {
        for (size_t i = 0; i < pairs; ++i) {
            stored.push_back(keyOf(length, i * 7));
        }
        std::mt19937 random(1);
        for (size_t i = 0; i < 512; ++i) {
            asked.push_back(keyOf(length, firstAsked + random() % pairs * 7));
        }
        std::shuffle(stored.begin(), stored.end(), random);
    }
    template <typename Table>
    void fill(Table& table) const
    {
        for (size_t i = 0; i < pairs; ++i) {
            table.set(stored[i], i + 1);
        }
    }
    size_t pairs;
    std::vector<std::string> stored;
    std::vector<std::string> asked;
};

template <typename Table>
void getPresent(benchmark::State& state, size_t length, double load)
{
    const Scene scene(length, load, 0);
    Table table;
    scene.fill(table);
    bool found = true;
    for (auto _ : state) {
        for (const std::string& key : scene.asked) {
            found &= table.get(key) != 0;
        }
    }
    bench::require(state, found, "a key was not found");
    bench::setOperations(state, static_cast<double>(scene.asked.size()));
}

template <typename Table>
void getAbsent(benchmark::State& state, size_t length, double load)
{
    const Scene scene(length, load, 3); // no stored number has this remainder
    Table table;
    scene.fill(table);
    unsigned long found = 0;
    for (auto _ : state) {
        for (const std::string& key : scene.asked) {
            found |= table.get(key);
        }
    }
    bench::require(state, found == 0, "a key was found");
    bench::setOperations(state, static_cast<double>(scene.asked.size()));
}

template <typename Table>
void setPresent(benchmark::State& state, size_t length, double load)
{
    const Scene scene(length, load, 0);
    Table table;
    scene.fill(table);
    unsigned long value = 0;
    for (auto _ : state) {
        for (const std::string& key : scene.asked) {
            table.set(key, ++value);
        }
    }
    bench::require(state, table.get(scene.asked.back()) == value, "a value was not stored");
    bench::setOperations(state, static_cast<double>(scene.asked.size()));
}

// The first pairs are removed and set again; one of the two is timed.
template <typename Table>
void setOrUnset(benchmark::State& state, size_t length, double load, bool set)
{
    const Scene scene(length, load, 0);
    Table table;
    scene.fill(table);
    bench::Rounds rounds;
    for (auto _ : state) {
        const double unsetTime = bench::secondsOf([&] {
            for (size_t i = 0; i < kBatch; ++i) {
                table.unset(scene.stored[i]);
            }
        });
        const bool gone = table.get(scene.stored[0]) == 0;
        const double setTime = bench::secondsOf([&] {
            for (size_t i = 0; i < kBatch; ++i) {
                table.set(scene.stored[i], i + 1);
            }
        });
        if (!gone || table.get(scene.stored[kBatch - 1]) != kBatch) {
            state.SkipWithError("a pair was not removed and set again");
            break;
        }
        rounds.add(state, set ? setTime : unsetTime);
    }
    rounds.finish(state, kBatch);
}

// `Measure` is one of the functions above, for one table.
template <typename Measure>
void addSides(bench::Case& sides, const Measure& measure, bool insertsShortKey)
{
    const auto side = [&](auto table) {
        return [measure, table](benchmark::State& state) { measure(table, state); };
    };
    sides.ours(side(static_cast<Ours*>(nullptr)))
        .floor(side(static_cast<Floor*>(nullptr)))
        .shown("gcl::HashTable", "the C++ layer, which calls the same functions",
               side(static_cast<Cxx*>(nullptr)))
        .peer("GHashTable", side(static_cast<Glib*>(nullptr)))
        .peer("uthash (inlined)", side(static_cast<Uthash*>(nullptr)))
        .peer("std::unordered_map (inlined)", side(static_cast<Std*>(nullptr)))
        .shown("std::unordered_map of std::string",
               "inlined, and its caller knows each key's length",
               side(static_cast<StdOfStrings*>(nullptr)));
    if (insertsShortKey) {
        sides.shown("apr_hash", "keeps the caller's key instead of a copy",
                    side(static_cast<Apr*>(nullptr)));
    } else {
        sides.peer("apr_hash", side(static_cast<Apr*>(nullptr)));
    }
}

template <typename Pointer>
using TableOf = std::remove_pointer_t<Pointer>;

void addKey(size_t length)
{
    const auto key = static_cast<double>(length);
    for (const double load : {0.5, 1.0, 2.0, 4.0}) {
        bench::Case get("CHashTable_Get of a present key", {1.05, 0.95});
        get.at("key", key).at("load", load);
        addSides(
            get,
            [=](auto* table, benchmark::State& state) {
                getPresent<TableOf<decltype(table)>>(state, length, load);
            },
            false);
        get.shown("byte by byte", "the floor with djb2 done byte by byte, and strcmp",
                  [=](benchmark::State& state) { getPresent<ByteByByte>(state, length, load); });
    }
    for (const double load : {1.0, 4.0}) {
        bench::Case set("CHashTable_Set of a new key", {1.05, 1.0});
        set.at("key", key).at("load", load).manualTime();
        addSides(
            set,
            [=](auto* table, benchmark::State& state) {
                setOrUnset<TableOf<decltype(table)>>(state, length, load, true);
            },
            length < 64);
    }
    for (const double load : {1.0, 4.0}) {
        bench::Case unset("CHashTable_Unset", {1.05, 1.0});
        unset.at("key", key).at("load", load).manualTime();
        addSides(
            unset,
            [=](auto* table, benchmark::State& state) {
                setOrUnset<TableOf<decltype(table)>>(state, length, load, false);
            },
            false);
    }
    bench::Case absent("CHashTable_Get of an absent key", {1.05, 0.95});
    absent.at("key", key).at("load", 1);
    addSides(
        absent,
        [=](auto* table, benchmark::State& state) {
            getAbsent<TableOf<decltype(table)>>(state, length, 1);
        },
        false);
    bench::Case set("CHashTable_Set of a present key", {1.05, 1.0});
    set.at("key", key).at("load", 1);
    addSides(
        set,
        [=](auto* table, benchmark::State& state) {
            setPresent<TableOf<decltype(table)>>(state, length, 1);
        },
        false);
}

} // namespace

void bench::addCases()
{
    apr_initialize();
    for (const size_t length : {16, 64, 200}) {
        addKey(length);
    }
}
