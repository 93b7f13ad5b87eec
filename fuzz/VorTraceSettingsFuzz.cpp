// The sink's environment variable VT_LEVELS, with any text, beside a plain reading of it. The
// source file is included: it reads the variable once in a process, and here once for each input.
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "Framework/VT/private/Settings.cpp"
#include "fuzz/support/Check.h"

namespace {

unsigned complaints = 0;

std::string withoutBlanks(const std::string& text)
{
    const size_t first = text.find_first_not_of(" \t");
    return first == std::string::npos
               ? ""
               : text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// A decimal number of 32 bits, with a minus sign or without any.
bool readNumber(const std::string& text, int32_t& value)
{
    const size_t digits = !text.empty() && text[0] == '-' ? 1 : 0;
    if (text.size() == digits ||
        text.find_first_not_of("0123456789", digits) != std::string::npos) {
        return false;
    }
    int64_t sum = 0;
    for (size_t i = digits; i < text.size(); ++i) {
        sum = sum * 10 + (text[i] - '0');
        if (sum > int64_t{1} << 40) {
            return false;
        }
    }
    sum = digits == 1 ? -sum : sum;
    value = static_cast<int32_t>(sum);
    return sum == value;
}

// Reads the variable plainly; returns the number of bad entries.
unsigned readPlainly(const std::string& variable, std::map<std::string, int32_t>& levels)
{
    unsigned bad = 0;
    for (size_t at = 0; !variable.empty() && at != std::string::npos;) {
        const size_t comma = variable.find(',', at);
        const std::string entry = variable.substr(at, comma - at);
        const size_t equals = entry.rfind('=');
        int32_t level = 0;
        if (equals == std::string::npos || withoutBlanks(entry.substr(0, equals)).empty() ||
            !readNumber(withoutBlanks(entry.substr(equals + 1)), level)) {
            ++bad;
        } else {
            levels[withoutBlanks(entry.substr(0, equals))] = level;
        }
        at = comma == std::string::npos ? comma : comma + 1;
    }
    return bad;
}

// As a new process begins.
void forgetSettings()
{
    Setting* setting = settings.exchange(nullptr);
    while (setting != nullptr) {
        Setting* const next = setting->next;
        delete[] setting->name;
        delete setting;
        setting = next;
    }
    environmentRead = PTHREAD_ONCE_INIT;
    complaints = 0;
}

} // namespace

void vt::complain(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    char text[512];
    const int length = std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    REQUIRE(length > 0 && length < static_cast<int>(sizeof text));
    ++complaints;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    const std::string asked = input.ConsumeRandomLengthString(20).c_str();
    const std::string variable = input.ConsumeRemainingBytesAsString().c_str();
    forgetSettings();
    REQUIRE(setenv("VT_LEVELS", variable.c_str(), 1) == 0);
    std::map<std::string, int32_t> levels;
    const unsigned bad = readPlainly(variable, levels);
    levels.emplace(asked, levels.count("*") == 1 ? levels["*"] : 4711);
    for (const auto& [name, level] : levels) {
        REQUIRE(vt::levelFor(name.c_str(), 4711) == level);
    }
    REQUIRE(complaints == bad);
    // A level that is set later takes the place of the variable's.
    vt::setLevel("set later", 3);
    vt::setLevel("set later", 5);
    REQUIRE(vt::levelFor("set later", 4711) == 5);
    return 0;
}
