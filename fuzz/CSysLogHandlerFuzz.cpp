// Lines for the system's log, beside the text that they should have. syslog(3) is replaced in this
// process.
#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <string>

#include "Framework/GCL/CSysLogHandler.h"
#include "fuzz/support/Reports.h"

namespace {

unsigned lines = 0;
int lastPriority = -1;
std::string lastLine;

constexpr size_t kMessageRoom = 383; // characters that a message keeps

} // namespace

extern "C" void syslog(int priority, const char* format, ...)
{
    char text[4096];
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    REQUIRE(length > 0 && length < static_cast<int>(sizeof text));
    ++lines;
    lastPriority = priority;
    lastLine = text;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    const auto level = input.PickValueInArray<uint32_t>(
        {0, 0x900, 0xFFF, 0x1000, 0x8000, 0xFFFFFFFF, input.ConsumeIntegral<uint32_t>()});
    const auto code = input.PickValueInArray<uint32_t>(
        {0, 0x8FF, 0x900, 0xFFF, 0x1000, 0x7FFF, 0x8000, input.ConsumeIntegral<uint32_t>()});
    const auto line = input.ConsumeIntegral<int32_t>();
    const std::string label = input.ConsumeRandomLengthString(60).c_str();
    const std::string file = input.ConsumeRandomLengthString(200).c_str();
    const std::string text = input.ConsumeRemainingBytesAsString().substr(0, 2000).c_str();

    lines = 0;
    CSysLogHandler_SetLogLevel(level);
    uint32_t stored = 0;
    CSysLogHandler_GetLogLevel(&stored);
    REQUIRE(stored == level);
    CSysLogHandler_Log(label.c_str(), file.c_str(), line, code, "%s!%d", text.c_str(), line);
    fuzz::requireSilence();
    if (code < level && (code < 0x900 || code > 0xFFF)) {
        REQUIRE(lines == 0);
        return 0;
    }
    const size_t slash = file.rfind('/');
    char codeText[16];
    std::snprintf(codeText, sizeof codeText, "%x", static_cast<unsigned>(code));
    const std::string message = text + "!" + std::to_string(line);
    const std::string expected =
        label + ": " + (slash == std::string::npos ? file : file.substr(slash + 1)) + " (" +
        std::to_string(line) + "): " + message.substr(0, kMessageRoom) + ", code: " + codeText +
        "\n";
    REQUIRE(lines == 1);
    REQUIRE(lastLine == expected);
    REQUIRE(lastPriority == (code >= 0x8000 ? LOG_ERR : code >= 0x1000 ? LOG_WARNING : LOG_NOTICE));
    return 0;
}
