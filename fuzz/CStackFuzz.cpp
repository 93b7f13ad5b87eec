// Sequences of operations on a stack and its status, beside a vector.
#include <vector>

#include "Framework/GCL/CStack.h"
#include "Framework/GCL/ResultCodes.h"
#include "fuzz/support/Reports.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    const auto capacity = input.ConsumeIntegralInRange<uint32_t>(0, 12);
    char places[16];
    CStack stack;
    CStack_Construct(&stack, capacity);
    std::vector<void*> model;
    for (int steps = 0; steps < 400 && input.remaining_bytes() > 0; ++steps) {
        // A status that is a failure when read as a signed number shuts the stack.
        const bool shut = stack.uiStatus >= 0x8000u && stack.uiStatus <= 0x7FFFFFFFu;
        void* const entry = &places[input.ConsumeIntegralInRange(0, 15)];
        void* out = places;
        switch (input.ConsumeIntegralInRange(0, 5)) {
        case 0:
        case 1: {
            const bool full = model.size() == capacity;
            const uint32_t result = CStack_Push(&stack, entry);
            REQUIRE(result == (shut ? stack.uiStatus : full ? GCL_STACK_FULL : GCL_OK));
            if (result == GCL_OK) {
                model.push_back(entry);
            }
            break;
        }
        case 2: {
            const uint32_t result = CStack_Pop(&stack, &out);
            REQUIRE(result == (shut ? stack.uiStatus : model.empty() ? GCL_STACK_EMPTY : GCL_OK));
            REQUIRE(out == (result == GCL_OK ? model.back() : places));
            if (result == GCL_OK) {
                model.pop_back();
            }
            break;
        }
        case 3:
            REQUIRE(CStack_IsEmpty(&stack) == (shut ? stack.uiStatus : model.empty() ? 1u : 0u));
            break;
        case 4:
            REQUIRE(CStack_GetCurrentSize(&stack) == (shut ? stack.uiStatus : model.size()));
            break;
        default:
            stack.uiStatus = input.ConsumeBool() ? 0 : input.ConsumeIntegral<uint32_t>();
            break;
        }
        REQUIRE(stack.iTop == static_cast<int32_t>(model.size()) - 1);
        REQUIRE(stack.uiCapacity == capacity);
        fuzz::requireSilence();
    }
    CStack_Destruct(&stack);
    REQUIRE(stack.pEntries == nullptr);
    return 0;
}
