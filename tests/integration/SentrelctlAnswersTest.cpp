// sentrelctl and answers that a healthy daemon does not give. Real: the program, the bus with the shipped policy, the
// broker. Not real: the module, which answers each command as the test says.
#include "hub/STPreferences.h"
#include "tests/integration/AnsweringModule.h"

#include <gtest/gtest.h>
#include <utility>

namespace testing_support {
namespace {

using Sentrel::STPreferences;

TEST_F(AModuleThatAnswers, IsQuotedWithTheErrorThatItGives) {
    const std::vector<std::pair<int, std::string>> errors{
        {180001, "the daemon met an unexpected error: ST_ERROR_GENERIC (180001). The daemon's trace log "},
        {180003, "the daemon cannot write the settings file: ST_ERROR_DATABASE (180003). Make its tables with "},
        {180004, "the daemon did not take it for a preference: ST_ERROR_INVALID_PREFERENCE (180004). The daemon does "},
        {180006, "a setter of the daemon failed: ST_ERROR_PREFERENCES_EXCEPTION (180006). The daemon's trace log "},
        {7, "the daemon refused: 7. The daemon's trace log "}};
    for (const auto& [code, text] : errors) {
        expectFailure(answerWith(code), {"prefs", "set", "protection", "on"}, "cannot change the preferences: " + text);
        expectFailure(answerWith(code), {"prefs", "reset"}, "cannot reset the preferences: " + text);
    }
}

TEST_F(AModuleThatAnswers, HasFailedUnlessBothFlagsAreTrue) {
    for (const auto& [succeeded, valid] : {std::pair(false, true), std::pair(true, false), std::pair(false, false)}) {
        const Answer answer = [succeeded = succeeded, valid = valid](HVB::CommandResult& result) {
            result.m_bSucceeded = succeeded;
            result.m_bValid = valid;
            result.writePayload(180000);
        };
        expectFailure(answer, {"prefs", "set", "protection", "on"},
                      "cannot change the preferences: the daemon: it says that the command failed. ");
        expectFailure(answer, {"list", "show"},
                      "cannot read the preferences: the daemon did not take it for a preference: ");
        expectFailure(answer, {"prefs", "show"}, "cannot read the preferences: ");
    }
}

TEST_F(AModuleThatAnswers, IsNotBelievedWithoutAPayloadThatCanBeRead) {
    const std::string unreadable = "cannot read the preferences: the daemon's answer cannot be read: ";
    const Answer nothing = [](HVB::CommandResult&) {};
    expectFailure(nothing, {"prefs", "show"}, unreadable + "it has no payload. ");
    expectFailure(nothing, {"prefs", "reset"},
                  "cannot reset the preferences: the daemon's answer cannot be read: it has no payload. ");
    expectFailure(answerWith(std::string("\x1b[2J")), {"prefs", "show"}, unreadable);
    STPreferences preferences;
    preferences.m_allowBlockDetails.emplace("!", 1);
    expectFailure(answerWith(preferences), {"list", "show"}, unreadable);
}

TEST_F(AModuleThatAnswers, IsNotBelievedWhenAnotherValueIsInForce) {
    const Answer answer = [](HVB::CommandResult& result) {
        if (result.m_commandData.m_commandId == Sentrel::ST_SET_PREFS_INDIVIDUAL) {
            result.writePayload(180000);
        } else {
            result.writePayload(STPreferences());
        }
    };
    const CtlResult result = useWith(answer, {"prefs", "set", "red-sites", "warn"});
    EXPECT_EQ(result.code, 1);
    EXPECT_EQ(result.out, "red-sites          block\n") << "it shows what is in force";
    EXPECT_EQ(result.err,
              "sentrelctl: not what was asked for: red-sites: it is block now. Somebody else may have set it "
              "at the same time; try again.\n");
    expectFailure(answer, {"list", "allow", "a"}, "the list was not stored whole: 1 of 1 entries are missing: ");
}

TEST_F(AModuleThatAnswers, IsSeenThroughWhenTheListHasMoreThanWasAskedFor) {
    const Answer answer = [](HVB::CommandResult& result) {
        if (result.m_commandData.m_commandId == Sentrel::ST_SET_PREFS_INDIVIDUAL) {
            result.writePayload(180000);
        } else {
            STPreferences preferences;
            Sentrel::AllowBlockDetails list;
            list.emplace("b", 1);
            preferences.setAllowBlockDetails(list);
            result.writePayload(preferences);
        }
    };
    expectFailure(answer, {"list", "remove", "--all"},
                  "not what was asked for: the list has 1 more than that: the first is b. ");
}

TEST_F(AModuleThatAnswers, IsQuotedHarmlesslyWhenItsHandlerThrows) {
    expectFailure([](HVB::CommandResult&) { throw std::runtime_error("broken\x1b[2J"); }, {"prefs", "show"},
                  "cannot read the preferences: the daemon: broken?[2J. The daemon's trace log ");
    expectFailure([](HVB::CommandResult&) { throw std::runtime_error("broken"); }, {"prefs", "reset"},
                  "cannot reset the preferences: the daemon: broken. The daemon's trace log ");
}

TEST_F(AModuleThatAnswers, CannotDriveTheTerminal) {
    STPreferences preferences;
    preferences.m_categoryBlockDetails = {{"\x1b[2J\n", 1}};
    Sentrel::AllowBlockDetails list;
    list.emplace("\x1b]0;x\x07", 1);
    preferences.setAllowBlockDetails(list);
    EXPECT_EQ(useWith(answerWith(preferences), {"categories", "show"}).out, "\\x1b[2J\\x0a\n");
    EXPECT_EQ(useWith(answerWith(preferences), {"list", "show"}).out, "block  \\x1b]0;x\\x07\n");
}

using AModuleThatKnowsNothing = AModuleThatAnswers;

TEST_F(AModuleThatKnowsNothing, IsQuoted) {
    expectFailure(nullptr, {"prefs", "show"},
                  "cannot read the preferences: the daemon: the module does not know this command. ");
}

} // namespace
} // namespace testing_support
