// The daemon's connection to the management agent. Real: the wrapper and the trace log. Not real: the agent's library,
// which is scripted.
#include "managed/VXHVBAgentWrapper.h"

#include "daemon/Trace.h"
#include "daemon/VXControllerDaemon.h"
#include "tests/support/FlowLines.h"
#include "tests/unit/managed/AgentDouble.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <barrier>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using HVBEnterprise::AgentLogCategory;
using Sentrel::VXHVBAgentWrapper;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing_support::AgentDouble;
using testing_support::expectLineAt;
using testing_support::kAllLevels;
using testing_support::linesOf;

constexpr const char* kCreated = "createInstance NODE_ST_1070UNIX MGSAGENT3700UNIX 8191";
constexpr const char* kProperties = "registerPropertyCollectionService";
constexpr const char* kPolicy = "registerPolicyEnforcementService";
constexpr const char* kManagedLine = "VXHVBAgentWrapper - Product is in managed mode";
constexpr const char* kUnmanagedLine = "VXHVBAgentWrapper - Product is in unmanaged mode";

class AnAgentWrapper : public testing::Test {
protected:
    AnAgentWrapper() { Sentrel::VXController::getInstance(); } // first, as in the daemon
    ~AnAgentWrapper() override {
        VXHVBAgentWrapper::releaseInstance();
        EXPECT_EQ(agent.clients, 0) << "every client is released";
        agent.present = agent.answers = true;
        agent.beforeCreate = nullptr;
        agent.beforeEnforcement = nullptr;
        agent.decrypt = nullptr;
        agent.answer.reset();
    }

    static VXHVBAgentWrapper& wrapper() { return *VXHVBAgentWrapper::getInstance(); }

    void readStatus(const std::wstring& answer, bool answers = true) {
        agent.answer = answer;
        agent.answers = answers;
        wrapper().updateManagedStatus();
    }
    /// The calls since the last time this was asked.
    std::vector<std::string> newCalls() {
        const auto all = agent.calls();
        std::vector<std::string> fresh(all.begin() + seen, all.end());
        seen = static_cast<std::ptrdiff_t>(all.size());
        return fresh;
    }

    AgentDouble& agent = AgentDouble::instance();
    std::ptrdiff_t seen = static_cast<std::ptrdiff_t>(AgentDouble::instance().calls().size());
};

// Loading and the singleton.

TEST_F(AnAgentWrapper, AsksForTheClientOnceWithItsIdsItsLoggerAndAllServices) {
    EXPECT_EQ(&wrapper(), &wrapper());
    EXPECT_THAT(newCalls(), ElementsAre(kCreated, kProperties, kPolicy));
    EXPECT_EQ(agent.logger, &VXHVBAgentWrapper::agentLogger);
}

TEST_F(AnAgentWrapper, BeginsUnmanagedUnknownAndWithoutAPolicy) {
    EXPECT_FALSE(wrapper().managed());
    EXPECT_FALSE(wrapper().managedKnown());
    EXPECT_FALSE(wrapper().policyReceived());
    EXPECT_THAT(newCalls(), ElementsAre(kCreated, kProperties, kPolicy))
        << "the status is not asked for before somebody wants it";
}

TEST_F(AnAgentWrapper, IsOneInstanceWhenTwoThreadsAskForItAtFirst) {
    std::barrier start(2);
    VXHVBAgentWrapper* given[2] = {};
    const auto ask = [&](int index) {
        start.arrive_and_wait();
        given[index] = VXHVBAgentWrapper::getInstance();
    };
    std::thread other(ask, 1);
    ask(0);
    other.join();
    EXPECT_NE(given[0], nullptr);
    EXPECT_EQ(given[0], given[1]);
    EXPECT_THAT(newCalls(), ElementsAre(kCreated, kProperties, kPolicy));
}

TEST_F(AnAgentWrapper, ReleasesItsClientWhenItIsReleasedAndMayComeAgain) {
    wrapper();
    VXHVBAgentWrapper::releaseInstance();
    VXHVBAgentWrapper::releaseInstance();
    wrapper();
    EXPECT_THAT(newCalls(),
                ElementsAre(kCreated, kProperties, kPolicy, "releaseInstance", kCreated, kProperties, kPolicy));
}

TEST_F(AnAgentWrapper, PassesOnAnExceptionOfItsConstructionAndIsNotThere) {
    agent.beforeCreate = [] { throw std::runtime_error("library"); };
    EXPECT_THROW(VXHVBAgentWrapper::getInstance(), std::runtime_error);
    EXPECT_EQ(Sentrel::VXController::getInstance()->agentWrapper(), nullptr);
    agent.beforeCreate = nullptr;
    wrapper();
    EXPECT_THAT(newCalls(), ElementsAre(kCreated, kCreated, kProperties, kPolicy));
}

TEST_F(AnAgentWrapper, LeavesNoServiceBehindThatLooksForItWhenItsConstructionFails) {
    agent.beforeEnforcement = [] { throw std::runtime_error("library"); };
    EXPECT_THROW(VXHVBAgentWrapper::getInstance(), std::runtime_error);
    EXPECT_EQ(agent.properties, nullptr);
    EXPECT_THAT(newCalls(), ElementsAre(kCreated, kProperties, kPolicy, "releaseInstance"));
}

TEST_F(AnAgentWrapper, ReplacesTheClientOnAReloadAndKeepsItsFlags) {
    readStatus(L"1");
    wrapper().setPolicyReceived();
    newCalls();
    wrapper().reloadOAPlugins();
    EXPECT_THAT(newCalls(), ElementsAre("releaseInstance", kCreated, kProperties, kPolicy));
    EXPECT_TRUE(wrapper().managed());
    EXPECT_TRUE(wrapper().policyReceived());
    wrapper().updateManagedStatus(); // reaches the new client: the old one is gone
    EXPECT_TRUE(wrapper().managed());
}

TEST_F(AnAgentWrapper, RunsWithoutAnAgentWhenTheLibraryGivesNoClient) {
    agent.present = false;
    EXPECT_THAT(linesOf(mgsFlowvalue, 4, [] { wrapper(); }), IsEmpty()) << "nothing is reported";
    EXPECT_EQ(wrapper().decrpytPass("secret"), "");
    wrapper().unloadOAPlugins();
    EXPECT_THAT(newCalls(), ElementsAre(kCreated));
}

TEST_F(AnAgentWrapper, LosesItsAgentOnAReloadThatFindsNone) {
    wrapper();
    agent.present = false;
    wrapper().reloadOAPlugins();
    EXPECT_EQ(wrapper().decrpytPass("secret"), "");
    EXPECT_THAT(newCalls(), ElementsAre(kCreated, kProperties, kPolicy, "releaseInstance", kCreated));
}

TEST_F(AnAgentWrapper, RegistersNoPolicyWithAnAgentThatRefusesTheProperties) {
    agent.takesProperties = false;
    wrapper();
    EXPECT_THAT(newCalls(), ElementsAre(kCreated, kProperties));
    EXPECT_EQ(agent.enforcement, nullptr);
    agent.takesProperties = true;
}

TEST_F(AnAgentWrapper, IsKnownToTheControllerBeforeItsServicesAreRegistered) {
    const VXHVBAgentWrapper* known = nullptr;
    agent.beforeCreate = [&known] { known = Sentrel::VXController::getInstance()->agentWrapper(); };
    wrapper();
    EXPECT_EQ(known, &wrapper());
}

// The managed status.

TEST_F(AnAgentWrapper, AsksForInformationZero) {
    readStatus(L"1");
    EXPECT_THAT(newCalls(), ElementsAre(kCreated, kProperties, kPolicy, "getAgentInformation 0"));
}

TEST_F(AnAgentWrapper, IsManagedWhenTheAnswerIsOneOrTwo) {
    for (const wchar_t* answer : {L"1", L"2"}) {
        readStatus(L"0");
        readStatus(answer);
        EXPECT_TRUE(wrapper().managed()) << answer;
    }
}

TEST_F(AnAgentWrapper, IsUnmanagedWhenTheAnswerIsAnythingElse) {
    for (const wchar_t* answer : {L"12", L"0", L"", L"3", L"11", L" 1", L"1 ", L"2\n", L"a", L"-1"}) {
        readStatus(L"1");
        readStatus(answer);
        EXPECT_FALSE(wrapper().managed()) << answer;
    }
    readStatus(L"1");
    readStatus(std::wstring(L"1\0", 2));
    EXPECT_FALSE(wrapper().managed()) << "a length of two";
}

TEST_F(AnAgentWrapper, IsUnmanagedAndForgetsThePolicyWhenTheQuestionFails) {
    readStatus(L"1");
    wrapper().setPolicyReceived();
    readStatus(L"1", false);
    EXPECT_FALSE(wrapper().managed());
    EXPECT_FALSE(wrapper().policyReceived());
}

TEST_F(AnAgentWrapper, ForgetsThePolicyWhenTheMachineIsUnmanaged) {
    readStatus(L"1");
    wrapper().setPolicyReceived();
    readStatus(L"0");
    EXPECT_FALSE(wrapper().policyReceived());
}

TEST_F(AnAgentWrapper, KeepsThePolicyWhileTheMachineIsManaged) {
    wrapper().setPolicyReceived();
    readStatus(L"1");
    readStatus(L"2");
    EXPECT_TRUE(wrapper().policyReceived());
}

TEST_F(AnAgentWrapper, ThatTurnsManagedHasNoPolicyUntilOneHasCome) {
    readStatus(L"0");
    readStatus(L"1");
    EXPECT_TRUE(wrapper().managed());
    EXPECT_FALSE(wrapper().policyReceived());
}

TEST_F(AnAgentWrapper, NeverTakesItsStatusForKnown) {
    for (const wchar_t* answer : {L"1", L"0", L"2"}) {
        readStatus(answer);
        EXPECT_FALSE(wrapper().managedKnown()) << answer;
    }
}

TEST_F(AnAgentWrapper, IsUnmanagedWithoutAnAgent) {
    agent.present = false;
    wrapper().setPolicyReceived();
    readStatus(L"1");
    EXPECT_FALSE(wrapper().managed());
    EXPECT_FALSE(wrapper().policyReceived());
    EXPECT_THAT(newCalls(), ElementsAre(kCreated));
}

TEST_F(AnAgentWrapper, TracesItsStatusAtLevelFive) {
    expectLineAt(mgsFlowvalue, 5, kManagedLine, [this] { readStatus(L"1"); });
    expectLineAt(mgsFlowvalue, 5, kUnmanagedLine, [this] { readStatus(L"12"); });
    expectLineAt(mgsFlowvalue, 5, kUnmanagedLine, [this] { readStatus(L"1", false); });
}

// Decryption.

TEST_F(AnAgentWrapper, GivesTheClearTextOfAMessageOfKindThree) {
    agent.decrypt = [](const std::string&, std::string& clearText) { clearText = "clear"; };
    EXPECT_EQ(wrapper().decrpytPass("secret"), "clear");
    EXPECT_THAT(newCalls(), ElementsAre(kCreated, kProperties, kPolicy, "decryptMessage secret 3"));
}

TEST_F(AnAgentWrapper, HandsTheLibraryAnEmptyResult) {
    agent.decrypt = [](const std::string&, std::string& clearText) { clearText = clearText.empty() ? "yes" : "no"; };
    EXPECT_EQ(wrapper().decrpytPass("one"), "yes");
    EXPECT_EQ(wrapper().decrpytPass("two"), "yes");
}

TEST_F(AnAgentWrapper, GivesWhatTheLibraryHadWrittenWhenItThrew) {
    agent.decrypt = [](const std::string& message, std::string& clearText) {
        clearText = "half";
        if (message == "number") {
            throw 1;
        }
        throw std::runtime_error("library");
    };
    EXPECT_EQ(wrapper().decrpytPass("secret"), "half");
    EXPECT_EQ(wrapper().decrpytPass("number"), "half");
    expectLineAt(mgsFlowvalue, 5, "VXHVBAgentWrapper - Exception caught in decrpytPass",
                 [] { wrapper().decrpytPass("secret"); });
}

// The library's log.

TEST_F(AnAgentWrapper, PutsTheLibrarysLinesAtTheLevelOfTheirCategory) {
    const std::vector<std::pair<int, int>> levels{{2, 2}, {3, 4}, {4, 5}, {-1, 1}, {0, 1}, {1, 1}, {5, 1}, {100, 1}};
    for (const auto& [category, level] : levels) {
        SCOPED_TRACE(category);
        expectLineAt(mgsFlowvalue, level, "from the agent", [category = category] {
            VXHVBAgentWrapper::agentLogger(static_cast<AgentLogCategory>(category), L"from the agent");
        });
    }
}

TEST_F(AnAgentWrapper, WritesOneLineForALineOfTheLibrary) {
    const auto log = [] { VXHVBAgentWrapper::agentLogger(HVBEnterprise::AGENT_LOG_DEBUG, L"100%s\tof\n it"); };
    EXPECT_THAT(linesOf(mgsFlowvalue, kAllLevels, log), ElementsAre("100%s\\x09of\\x0a it"));
}

TEST_F(AnAgentWrapper, DropsALineOfTheLibraryWhenTheLogIsClosed) {
    testing_support::setAllFlows(kAllLevels);
    EXPECT_NO_THROW(VXHVBAgentWrapper::agentLogger(HVBEnterprise::AGENT_LOG_WARNING, L"nowhere"));
    EXPECT_EQ(traceInited, 0);
}

// Entries.

TEST_F(AnAgentWrapper, TracesTheEntryOfEachOperationAtLevelFive) {
    const auto all = [] {
        wrapper().reloadOAPlugins();
        wrapper().updateManagedStatus();
        wrapper().decrpytPass("secret");
        VXHVBAgentWrapper::releaseInstance();
    };
    const auto lines = linesOf(mgsFlowvalue, 5, all);
    for (const char* operation :
         {"getInstance", "VXHVBAgentWrapper", "loadOAPlugins", "reloadOAPlugins", "unloadOAPlugins",
          "updateManagedStatus", "decrpytPass", "releaseInstance", "~VXHVBAgentWrapper"}) {
        EXPECT_THAT(lines, Contains(std::string("VXHVBAgentWrapper::") + operation + " - Entered"));
    }
    for (const std::string& line : linesOf(mgsFlowvalue, 4, all)) {
        EXPECT_FALSE(line.starts_with("VXHVBAgentWrapper")) << line;
    }
}

} // namespace
