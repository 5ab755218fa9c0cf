#include "tests/integration/TraceTranscript.h"
#include "tests/support/PrivateRoot.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <stdexcept>

namespace testing_support {
namespace {

using testing::HasSubstr;
using testing::Optional;

class ATranscript : public testing::Test {
protected:
    Step step(const std::string& voices) { return steps("== a step\n" + voices).at(0); }
    std::vector<Step> steps(const std::string& text) {
        std::ofstream(root.file("transcript")) << text;
        return readTranscript(root.file("transcript"));
    }

    PrivateRoot root;
};

TEST_F(ATranscript, TakesEveryInterleavingOfItsVoices) {
    const Step two = step("-- one\na\nb\n-- two\nc\nd\n");
    EXPECT_EQ(whyNot({"a", "b", "c", "d"}, two), std::nullopt);
    EXPECT_EQ(whyNot({"c", "a", "d", "b"}, two), std::nullopt);
}

TEST_F(ATranscript, FindsTheWayThroughVoicesThatBeginAlike) {
    EXPECT_EQ(whyNot({"a", "a", "c", "b"}, step("-- one\na\nb\n-- two\na\nc\n")), std::nullopt);
}

TEST_F(ATranscript, RefusesAnotherOrderAnotherLineAndALineThatIsMissing) {
    const Step two = step("-- one\na\nb\n-- two\nc\n");
    EXPECT_THAT(whyNot({"b", "a", "c"}, two), Optional(HasSubstr("line 1 of \"a step\" is\n  b\n")));
    EXPECT_THAT(whyNot({"a", "b", "c", "c"}, two), Optional(HasSubstr("where there may be\n  nothing")));
    EXPECT_THAT(whyNot({"a", "c"}, two), Optional(HasSubstr("after 2 lines \"a step\" still lacks\n  one: b")));
    EXPECT_TRUE(whyNot({}, two).has_value());
}

TEST_F(ATranscript, CountsAVoiceThatComesSeveralTimes) {
    const Step counted = step("-- one (1 to 2 times)\na\nb\n");
    EXPECT_TRUE(whyNot({}, counted).has_value());
    EXPECT_EQ(whyNot({"a", "b"}, counted), std::nullopt);
    EXPECT_EQ(whyNot({"a", "b", "a", "b"}, counted), std::nullopt);
    EXPECT_TRUE(whyNot({"a", "b", "a"}, counted).has_value());
    EXPECT_TRUE(whyNot({"a", "b", "a", "b", "a", "b"}, counted).has_value());
}

TEST_F(ATranscript, TakesAVoiceOfAnyTimeInEachLaterStep) {
    const std::vector<Step> both = steps("# a comment\n== first\n-- hub (at any time)\nh\ni\n\n== second\n-- one\na\n");
    ASSERT_EQ(both.size(), 2U);
    EXPECT_EQ(whyNot({}, both[0]), std::nullopt);
    EXPECT_EQ(whyNot({"h", "a", "i", "h", "i"}, both[1]), std::nullopt);
    EXPECT_TRUE(whyNot({"a", "h"}, both[1]).has_value());
}

TEST_F(ATranscript, CannotBeReadFromAFileThatIsNone) {
    EXPECT_THROW(readTranscript(root.file("none")), std::runtime_error);
    EXPECT_THROW(steps("a line\n"), std::runtime_error);
    EXPECT_THROW(steps("-- a voice\na\n"), std::runtime_error);
    EXPECT_THROW(steps("== a step\n-- a voice\n-- another\na\n"), std::runtime_error);
}

} // namespace
} // namespace testing_support
