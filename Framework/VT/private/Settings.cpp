#include "Framework/VT/private/Settings.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>
#include <system_error>

#include "Framework/VT/private/Memory.h"
#include "Framework/VT/private/Output.h"

namespace {

constexpr std::string_view kBlanks = " \t";
constexpr size_t kMaxNamed = 300; // bytes of a bad entry that the complaint repeats

struct Setting {
    Setting* next;    // fixed once the setting is in the list
    const char* name; // owned, never freed
    std::atomic<int32_t> level;
};

// New settings come in front. The list is never taken down: trace objects may be asked for their
// level after the program's own objects are gone.
std::atomic<Setting*> settings{nullptr};
pthread_once_t environmentRead = PTHREAD_ONCE_INIT;

Setting* find(Setting* first, const char* name)
{
    Setting* setting = first;
    while (setting != nullptr && std::strcmp(setting->name, name) != 0) {
        setting = setting->next;
    }
    return setting;
}

Setting* newSetting(const char* name, int32_t level)
{
    char* const copy = vt::copyText(name);
    if (copy == nullptr) {
        return nullptr;
    }
    try {
        return new Setting{nullptr, copy, {level}};
    } catch (const std::bad_alloc&) {
        delete[] copy;
        return nullptr;
    }
}

void addSetting(const char* name, int32_t level)
{
    Setting* const added = newSetting(name, level);
    if (added == nullptr) {
        return;
    }
    Setting* first = settings.load(std::memory_order_acquire);
    do {
        // Another thread may have been faster.
        if (Setting* const known = find(first, name)) {
            known->level.store(level, std::memory_order_relaxed);
            delete[] added->name;
            delete added;
            return;
        }
        added->next = first;
    } while (!settings.compare_exchange_weak(first, added, std::memory_order_release,
                                             std::memory_order_acquire));
}

void storeLevel(const char* name, int32_t level)
{
    if (Setting* const known = find(settings.load(std::memory_order_acquire), name)) {
        known->level.store(level, std::memory_order_relaxed);
    } else {
        addSetting(name, level);
    }
}

std::string_view trimmed(std::string_view text)
{
    const size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

// Takes one "name=level"; false if it is none. The name ends at the last '='.
bool takeEntry(std::string_view entry)
{
    const size_t equals = entry.rfind('=');
    if (equals == std::string_view::npos) {
        return false;
    }
    const std::string_view name = trimmed(entry.substr(0, equals));
    const std::string_view number = trimmed(entry.substr(equals + 1));
    int32_t level{};
    const char* const end = number.data() + number.size();
    const auto [rest, error] = std::from_chars(number.data(), end, level);
    if (name.empty() || error != std::errc{} || rest != end) {
        return false;
    }
    char* const copy = vt::newChars(name.size() + 1);
    if (copy != nullptr) {
        copy[name.copy(copy, name.size())] = '\0';
        storeLevel(copy, level);
        delete[] copy;
    }
    return true;
}

void readEnvironment()
{
    const char* const variable = secure_getenv("VT_LEVELS");
    if (variable == nullptr || *variable == '\0') {
        return;
    }
    std::string_view rest = variable;
    for (bool more = true; more;) {
        const size_t comma = rest.find(',');
        const std::string_view entry = trimmed(rest.substr(0, comma));
        if (!takeEntry(entry)) {
            vt::complain("VT_LEVELS: \"%.*s\" is not name=level and is ignored",
                         static_cast<int>(std::min(entry.size(), kMaxNamed)), entry.data());
        }
        more = comma != std::string_view::npos;
        rest.remove_prefix(more ? comma + 1 : rest.size());
    }
}

} // namespace

namespace vt {

int32_t levelFor(const char* name, int32_t unset)
{
    static_cast<void>(pthread_once(&environmentRead, readEnvironment));
    Setting* const first = settings.load(std::memory_order_acquire);
    const Setting* setting = find(first, name);
    if (setting == nullptr) {
        setting = find(first, "*");
    }
    return setting == nullptr ? unset : setting->level.load(std::memory_order_relaxed);
}

void setLevel(const char* name, int32_t level)
{
    static_cast<void>(pthread_once(&environmentRead, readEnvironment));
    storeLevel(name, level);
}

} // namespace vt
