// Sequences of operations on a FIFO of any mode, beside a ring of slots. The model carries the
// sharp edges: a full ring that drops its oldest element, an empty one that hands out what a slot
// last held and counts as full from then on. Calls that would wait are left out.
#include <algorithm>
#include <vector>

#include "Framework/GCL/CFifoBuffer.h"
#include "Framework/GCL/ResultCodes.h"
#include "fuzz/support/Reports.h"

namespace {

using Element = std::vector<unsigned char>;

class Comparison {
public:
    Comparison(uint32_t mode, uint32_t elementSize, uint32_t capacity)
        : fifo(), eMode(static_cast<ETaskingMode>(mode)), bytes(elementSize), slots(capacity)
    {
        refusals();
        CFifoBuffer_Construct(&fifo, elementSize, capacity, eMode);
        // The ring is not cleared; what an empty one hands out is known this way.
        std::fill_n(fifo.pBuffer, size_t{elementSize} * capacity, static_cast<unsigned char>(0));
        std::fill(slots.begin(), slots.end(), Element(elementSize, 0));
    }

    ~Comparison() { CFifoBuffer_Destruct(&fifo); }

    void step(FuzzedDataProvider& input)
    {
        switch (input.ConsumeIntegralInRange(0, 4)) {
        case 0:
        case 1:
            put(input.ConsumeIntegral<unsigned char>());
            break;
        case 2:
        case 3:
            get();
            break;
        default:
            statistics();
            break;
        }
        fuzz::requireSilence();
        REQUIRE(fifo.uiReadIndex == readIndex);
        REQUIRE(fifo.uiWriteIndex == writeIndex);
        REQUIRE(fifo.uiCurrentSize == held);
        REQUIRE(CFifoBuffer_IsEmpty(&fifo) == (held == 0 ? 1u : 0u));
    }

private:
    uint32_t next(uint32_t index) const
    {
        return (index + 1) % static_cast<uint32_t>(slots.size());
    }

    void put(unsigned char value)
    {
        const bool full = held >= slots.size();
        const Element element(bytes, value);
        switch (eMode) {
        case eTaskingModeSemaphore:
            if (full) {
                return; // it would wait
            }
            break;
        case eTaskingModeNone:
            if (full) {
                REQUIRE(CFifoBuffer_Put(&fifo, element.data()) == GCL_FIFO_FULL);
                return;
            }
            break;
        case eTaskingModeMutex:
            if (full) {
                readIndex = next(readIndex);
                --held;
            }
            break;
        default:
            REQUIRE(CFifoBuffer_Put(&fifo, element.data()) == GCL_FAILURE);
            fuzz::requireReport(GCL_FAILURE);
            return;
        }
        REQUIRE(CFifoBuffer_Put(&fifo, element.data()) == GCL_OK);
        slots[writeIndex] = element;
        writeIndex = next(writeIndex);
        ++held;
    }

    void get()
    {
        Element element(bytes, 0xEE);
        switch (eMode) {
        case eTaskingModeSemaphore:
            if (held == 0) {
                return; // it would wait
            }
            break;
        case eTaskingModeNone:
            if (held == 0) {
                REQUIRE(CFifoBuffer_Get(&fifo, element.data()) == GCL_FIFO_EMPTY);
                fuzz::requireReport(GCL_FIFO_EMPTY);
                REQUIRE(element == Element(bytes, 0xEE));
                return;
            }
            break;
        case eTaskingModeMutex:
            break;
        default:
            REQUIRE(CFifoBuffer_Get(&fifo, element.data()) == GCL_FAILURE);
            fuzz::requireReport(GCL_FAILURE);
            return;
        }
        REQUIRE(CFifoBuffer_Get(&fifo, element.data()) == GCL_OK);
        REQUIRE(element == slots[readIndex]);
        readIndex = next(readIndex);
        --held;
    }

    void statistics()
    {
        uint32_t figures[3] = {};
        REQUIRE(CFifoBuffer_GetStatistics(&fifo, &figures[0], &figures[1], &figures[2]) == GCL_OK);
        REQUIRE(figures[0] == held);
        REQUIRE(figures[1] == bytes);
        REQUIRE(figures[2] == slots.size());
        REQUIRE(CFifoBuffer_GetStatistics(&fifo, nullptr, &figures[1], &figures[2]) ==
                GCL_INVALID_ARGUMENT);
    }

    // Before its construction.
    void refusals()
    {
        unsigned char element = 0;
        REQUIRE(CFifoBuffer_Put(&fifo, &element) == GCL_FIFO_NOT_INITIALIZED);
        fuzz::requireReport(GCL_FIFO_NOT_INITIALIZED);
        REQUIRE(CFifoBuffer_Get(&fifo, &element) == GCL_FIFO_NOT_INITIALIZED);
        fuzz::requireReport(GCL_FIFO_NOT_INITIALIZED);
        REQUIRE(CFifoBuffer_IsEmpty(&fifo) == 1);
        fuzz::requireReport(GCL_FIFO_NOT_INITIALIZED);
    }

    CFifoBuffer fifo; // cleared, as its users do
    ETaskingMode eMode;
    uint32_t bytes;
    std::vector<Element> slots;
    uint32_t readIndex = 0;
    uint32_t writeIndex = 0;
    uint32_t held = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    // Mostly the modes that there are.
    const auto mode = input.ConsumeBool() ? input.ConsumeIntegralInRange<uint32_t>(0, 2)
                                          : input.ConsumeIntegral<uint32_t>();
    const auto elementSize = input.ConsumeIntegralInRange<uint32_t>(1, 40);
    const auto capacity = input.ConsumeIntegralInRange<uint32_t>(1, 9);
    Comparison comparison(mode, elementSize, capacity);
    for (int steps = 0; steps < 300 && input.remaining_bytes() > 0; ++steps) {
        comparison.step(input);
    }
    return 0;
}
