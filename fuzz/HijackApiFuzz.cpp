// A stream of frames, garbage, interruptions and failures, read by the framed client, beside a
// plain decoder of the same bytes. read(2) is replaced in this process for one descriptor, so that
// nothing but the client's own work takes time.
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "Framework/GCL/HijackApi.h"
#include "Framework/VT/VorTrace.h"
#include "fuzz/support/Reports.h"

namespace {

constexpr int kDescriptor = 77777; // of no file

// --- What the client reads from -----------------------------------------------------------------

// One answer of read(2): up to so many bytes, or an errno.
struct Answer {
    int error;
    size_t limit;
};

struct Stream {
    const uint8_t* data;
    size_t size;
    size_t at;
    std::vector<Answer> answers; // in turn, over and over
    size_t turn;
};

Stream stream;

ssize_t readStream(void* buffer, size_t count)
{
    if (stream.at == stream.size) {
        errno = ECONNRESET; // the end of the input; a closed peer would keep the client reading
        return -1;
    }
    const Answer answer = stream.answers[stream.turn++ % stream.answers.size()];
    if (answer.error != 0) {
        errno = answer.error;
        return -1;
    }
    const size_t bytes = std::min({count, answer.limit, stream.size - stream.at});
    if (bytes > 0) {
        std::memcpy(buffer, stream.data + stream.at, bytes);
    }
    stream.at += bytes;
    return static_cast<ssize_t>(bytes);
}

} // namespace

extern "C" ssize_t read(int descriptor, void* buffer, size_t count)
{
    if (descriptor == kDescriptor) {
        return readStream(buffer, count);
    }
    return syscall(SYS_read, descriptor, buffer, count);
}

// After each time-out; no other thread waits for the processor.
extern "C" int sched_yield()
{
    return 0;
}

namespace {

// --- The plain decoder --------------------------------------------------------------------------

// What the client should have made of the bytes: it reads from `at` on.
struct Decoder {
    const uint8_t* data;
    size_t size;
    size_t at;
    uint32_t syncId;
    uint32_t lastNumber;

    bool word(uint32_t& value)
    {
        if (size - at < 4) {
            at = size;
            return false;
        }
        value = 0;
        for (int i = 0; i < 4; ++i) {
            value = value << 8 | data[at++];
        }
        return true;
    }

    // Finds the sync id: the last four bytes, zeros before the first one.
    bool search()
    {
        uint32_t window = 0;
        while (at < size) {
            window = window << 8 | data[at++];
            if (window == syncId) {
                return true;
            }
        }
        return false;
    }
};

struct Outcome {
    bool result;
    unsigned length;
    std::vector<uint8_t> payload;
    std::vector<int> levels; // of the messages about the frame
};

constexpr unsigned kUntouched = 4711;

Outcome expected(Decoder& decoder, unsigned bufferLength)
{
    Outcome outcome{false, kUntouched, {}, {}};
    uint32_t number = 0;
    uint32_t length = 0;
    // A stream that fails is told by the read itself and by the step that needed it.
    if (!decoder.search() || !decoder.word(number)) {
        outcome.levels = {1, 1};
        return outcome;
    }
    if (number != decoder.lastNumber + 1) {
        outcome.levels.push_back(2);
    }
    decoder.lastNumber = number;
    if (!decoder.word(length)) {
        outcome.levels.insert(outcome.levels.end(), {1, 1});
        return outcome;
    }
    if (length > bufferLength) {
        outcome.length = 0;
        outcome.levels.push_back(1);
        return outcome;
    }
    outcome.levels.push_back(6);
    if (length > 0x7FFFFFFF) {
        // Refused by the read, and yet a message.
        outcome.result = true;
        outcome.length = length;
        outcome.levels.insert(outcome.levels.end(), {1, 6});
        return outcome;
    }
    // A frame without a payload makes one read as well, which the end of the stream fails.
    const size_t rest = decoder.size - decoder.at;
    const bool complete = rest > 0 && rest >= length;
    if (!complete) {
        decoder.at = decoder.size;
        outcome.length = 0;
        outcome.levels.insert(outcome.levels.end(), {1, 1});
        return outcome;
    }
    outcome.result = true;
    outcome.length = length;
    outcome.payload.assign(decoder.data + decoder.at, decoder.data + decoder.at + length);
    decoder.at += length;
    outcome.levels.push_back(6);
    return outcome;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    const auto syncId = input.PickValueInArray<uint32_t>(
        {0xAABBCCDD, 0, 1, 0x01010101, 0x00AB00AB, input.ConsumeIntegral<uint32_t>()});
    // Most buffers are small; a huge one admits the lengths that are negative when read as signed.
    const bool huge = input.ConsumeProbability<float>() < 0.1f;
    const unsigned bufferLength = huge ? 0xFFFFFFFFu : input.ConsumeIntegralInRange(0u, 64u);
    std::vector<Answer> answers;
    const int kinds = input.ConsumeIntegralInRange(1, 8);
    for (int i = 0; i < kinds; ++i) {
        const int error = input.PickValueInArray({0, 0, 0, 0, 0, EINTR, EAGAIN});
        answers.push_back({error, input.ConsumeIntegralInRange<size_t>(0, 16)});
    }
    answers.push_back({0, 64}); // so that it goes on
    const std::vector<uint8_t> bytes = input.ConsumeRemainingBytes<uint8_t>();

    stream = {bytes.data(), bytes.size(), 0, answers, 0};
    static_cast<void>(fuzz::takeLevels());
    VorTrace trace("fuzz", VorTraceLevel7);
    Util::HijackApi client(trace, 1, 0xFFFFFFFF, 1, syncId);
    client.socketFd = kDescriptor;
    Decoder decoder{bytes.data(), bytes.size(), 0, syncId, 0};
    // A huge buffer is only promised: no more is read into it than the stream has.
    std::vector<unsigned char> buffer(huge ? bytes.size() + 1 : bufferLength);
    for (bool more = true; more;) {
        unsigned length = kUntouched;
        const unsigned promised = huge ? bufferLength : static_cast<unsigned>(buffer.size());
        const Outcome outcome = expected(decoder, promised);
        more = decoder.at < bytes.size();
        REQUIRE(client.readFromNet(buffer.data(), promised, &length) == outcome.result);
        REQUIRE(length == outcome.length);
        REQUIRE(stream.at == decoder.at);
        REQUIRE(client.rxSequenceNumber == decoder.lastNumber);
        REQUIRE(std::equal(outcome.payload.begin(), outcome.payload.end(), buffer.begin()));
        // Time-outs may be told at any moment.
        std::vector<int> levels = fuzz::takeLevels();
        levels.erase(std::remove(levels.begin(), levels.end(), 4), levels.end());
        REQUIRE(levels == outcome.levels);
    }
    return 0;
}
