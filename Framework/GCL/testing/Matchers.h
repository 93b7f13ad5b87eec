// Matchers: GoogleMock matchers for the messages of TraceCapture.h. This header needs GoogleMock;
// no other one does.
//
//     EXPECT_THAT(takeReports(), ElementsAre(AllOf(OnChannel("KIV.GCL"), AtLevel(1),
//                                                  InFunction("CList_GetNext"),
//                                                  WithText(HasSubstr("pThis is NULL!")))));
//     EXPECT_THAT(takeReports(), Contains(Matching(inFunction("CList_GetNext") && atLevel(1))));
//
// Each takes a value or a matcher for it.
#ifndef GCL_TESTING_MATCHERS_H
#define GCL_TESTING_MATCHERS_H

#include <gmock/gmock.h>

#include <ostream>
#include <string>

#include "Framework/GCL/testing/TraceCapture.h"

namespace gcltest {

// The channel's name, such as "KIV.GCL", or the name of the VorTrace object.
inline testing::Matcher<const Report&> OnChannel(const testing::Matcher<std::string>& channel)
{
    return testing::Field("channel", &Report::channel, channel);
}

inline testing::Matcher<const Report&> AtLevel(const testing::Matcher<int>& level)
{
    return testing::Field("level", &Report::level, level);
}

// The source file as the header record has it, without extension.
inline testing::Matcher<const Report&> InFile(const testing::Matcher<std::string>& file)
{
    return testing::Field("file", &Report::file, file);
}

inline testing::Matcher<const Report&> InFunction(const testing::Matcher<std::string>& function)
{
    return testing::Field("function", &Report::function, function);
}

inline testing::Matcher<const Report&> WithText(const testing::Matcher<std::string>& text)
{
    return testing::Field("text", &Report::text, text);
}

// The plain matchers of TraceCapture.h, and what is joined of them.
class ReportMatcherAdapter : public testing::MatcherInterface<const Report&> {
public:
    explicit ReportMatcherAdapter(const ReportMatcher& adaptedMatcher) : matcher(adaptedMatcher) {}
    bool MatchAndExplain(const Report& report, testing::MatchResultListener*) const override
    {
        return matcher(report);
    }
    void DescribeTo(std::ostream* out) const override { *out << matcher.description(); }

private:
    const ReportMatcher matcher;
};

inline testing::Matcher<const Report&> Matching(const ReportMatcher& matcher)
{
    return testing::MakeMatcher(new ReportMatcherAdapter(matcher));
}

} // namespace gcltest

#endif // GCL_TESTING_MATCHERS_H
