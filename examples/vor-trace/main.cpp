// VorTrace: a named trace object, for classes that write their diagnostics through a stream.
#include <cstdlib>
#include <ostream>

#include "Framework/VT/VT.h"
#include "Framework/VT/VorTrace.h"

namespace {

// [stream]
// Opens a message and returns the stream that takes its text; a flush completes it. What the
// object's level does not admit goes to a stream that drops it.
std::ostream& message(VorTrace& trace, VorTraceLevel level, const VorTraceHeader& header)
{
    if (!trace.hasImpl() || trace.level() < level) {
        return trace.discardStream();
    }
    trace.beginLogMsg(level, header);
    return trace.stream();
}

#define TRACE(trace, level) message(trace, level, {"Carriers/Amplifier", __LINE__, __func__})

class Amplifier {
public:
    explicit Amplifier(VorTrace& traceObject) : trace(traceObject) {}

    void setTemperature(int celsius)
    {
        TRACE(trace, VorTraceLevel5) << "temperature " << celsius << std::endl;
        if (celsius > 85) {
            TRACE(trace, VorTraceLevel2) << "too hot: " << celsius << " degrees" << std::endl;
        }
    }

private:
    VorTrace& trace; // outlives the amplifier
};
// [stream end]

} // namespace

int main()
{
    VorTrace trace("KIV.AMPLIFIER", VorTraceLevel3);
    Amplifier amplifier(trace);
    amplifier.setTemperature(60); // level 5: not written
    amplifier.setTemperature(90);

    VT_setLevel("KIV.AMPLIFIER", 5); // libVorTrace's own function; so does VT_LEVELS
    amplifier.setTemperature(61);

    // [pieces]
    // The same without a stream: a message in pieces.
    trace.beginLogMsg(VorTraceLevel1, {"Carriers/Amplifier", __LINE__, __func__});
    trace.logMsgData("no ", 3);
    trace.logMsgData("answer", 6);
    trace.endLogMsg();
    // [pieces end]
    return trace.level() == 5 ? EXIT_SUCCESS : EXIT_FAILURE;
}
