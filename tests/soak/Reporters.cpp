// Writers of messages whose levels change meanwhile: each message that its level admits stands in
// the sink's file once, in order, and none of the others does.
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ostream>

#include "Framework/VT/VT.h"
#include "Framework/VT/VorTrace.h"
#include "tests/soak/Soak.h"

namespace soak {
namespace {

constexpr unsigned kWriters = 4;
constexpr char kPrefix[] = "SOAKTEXT";

class ReporterLoad : public Load {
public:
    ReporterLoad() : Load(Kind::reports, "reports")
    {
        for (unsigned i = 0; i < kWriters; ++i) {
            writers[i].name = kPrefix + std::to_string(i);
            writers[i].channel = {7, writers[i].name.c_str()};
            writers[i].object = std::make_unique<VorTrace>(writers[i].name.c_str(), VorTraceLevel7);
        }
    }

    void account(Table& table) const override
    {
        uint64_t written = 0;
        uint64_t found = 0;
        uint64_t dropped = 0;
        for (const Writer& writer : writers) {
            written += writer.admitted;
            found += writer.found;
            dropped += writer.dropped;
        }
        table.same("messages admitted, found in the sink's file", written, found);
        table.note("messages above their level", dropped);
    }

    // A line of one of the writers.
    void take(std::string_view channel, int level, std::string_view text)
    {
        const unsigned index = static_cast<unsigned>(channel.back() - '0');
        if (index >= kWriters || channel != writers[index].name) {
            complain("a message on a channel that nobody has: '%.*s'",
                     static_cast<int>(channel.size()), channel.data());
            return;
        }
        Writer& writer = writers[index];
        ++writer.found;
        char expected[128];
        textOf(expected, index, writer.found, level);
        const std::string_view wanted(expected, std::strlen(expected) - 1); // without the newline
        if (text != wanted) {
            complain("message %llu of %s is '%.*s'", static_cast<unsigned long long>(writer.found),
                     writer.name.c_str(), static_cast<int>(text.size()), text.data());
        }
    }

protected:
    void beginRound() override
    {
        for (unsigned i = 0; i < kWriters; ++i) {
            employ([this, i](Random& random) {
                while (!over) {
                    write(i, random);
                    pauseUs(random.below(8000));
                }
            });
        }
        employ([this](Random& random) {
            // Others' levels: the table is searched while it changes.
            while (!over) {
                VT_setLevel("KIV.CTimer", static_cast<int32_t>(2 + random.below(4)));
                VT_setLevel("SOAKOTHER", static_cast<int32_t>(random.below(8)));
                VT_setLevel("*", static_cast<int32_t>(6 + random.below(2)));
                ++steps;
                pauseUs(2000 + random.below(8000));
            }
        });
    }

private:
    struct Writer {
        std::string name;
        TraceChannel channel{};
        std::unique_ptr<VorTrace> object;
        uint64_t admitted = 0; // the writing thread's; read between two rounds
        uint64_t dropped = 0;
        uint64_t found = 0;
    };

    template <size_t size>
    static void textOf(char (&text)[size], unsigned writer, uint64_t number, int level)
    {
        static_cast<void>(std::snprintf(text, size,
                                        "message %llu of writer %u, level %d, %016llx\n",
                                        static_cast<unsigned long long>(number), writer, level,
                                        static_cast<unsigned long long>(mixed(writer, number))));
    }

    void write(unsigned index, Random& random)
    {
        Writer& writer = writers[index];
        const int limit = static_cast<int>(random.below(8));
        VT_setLevel(writer.name.c_str(), limit);
        if (writer.object->level() != limit) {
            complain("%s: level %d instead of %d", writer.name.c_str(), writer.object->level(),
                     limit);
        }
        for (int level = 1; level <= 7; ++level) {
            const bool admitted = level <= limit;
            char text[128];
            textOf(text, index, writer.admitted + 1, level);
            if (random.oneIn(2)) {
                writeToChannel(writer, level, text);
            } else {
                writeToObject(writer, level, text);
            }
            ++(admitted ? writer.admitted : writer.dropped);
            ++steps;
        }
    }

    static void writeToChannel(Writer& writer, int level, const char* text)
    {
        const VorTraceHeader header = {"Soak", __LINE__, "writer"};
        VT_beginImpl(&writer.channel, level, &header);
        VT_rawprintf(&writer.channel, "%.8s", text);
        VT_rawprintf(&writer.channel, "%s", text + 8);
        VT_endImpl(&writer.channel);
    }

    static void writeToObject(Writer& writer, int level, const char* text)
    {
        const VorTraceHeader header = {"Soak", __LINE__, "writer"};
        writer.object->beginLogMsg(static_cast<VorTraceLevel>(level), header);
        writer.object->stream() << text << std::flush;
    }

    std::array<Writer, kWriters> writers;
};

} // namespace

void addReporters(Loads& loads, Expectations& expectations)
{
    auto reporters = std::make_unique<ReporterLoad>();
    ReporterLoad* const taker = reporters.get();
    expectations.forward(kPrefix,
                         [taker](std::string_view channel, int level, std::string_view text) {
                             taker->take(channel, level, text);
                         });
    loads.push_back(std::move(reporters));
}

} // namespace soak
