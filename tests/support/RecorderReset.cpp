// What one case has written and set is not for the next one.
#include <gtest/gtest.h>

#include "Framework/GCL/testing/TraceCapture.h"

namespace {

class ResetListener : public testing::EmptyTestEventListener {
    void OnTestEnd(const testing::TestInfo&) override { gcltest::resetRecorder(); }
};

[[maybe_unused]] const bool resets = [] {
    testing::UnitTest::GetInstance()->listeners().Append(new ResetListener);
    return true;
}();

} // namespace
