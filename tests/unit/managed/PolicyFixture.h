// The policy passes over doubles of the preference controller, the agent's library and the system's log. Real: the
// wrapper, the controller of the process and the trace log.
#pragma once

#include "daemon/Trace.h"
#include "daemon/VXControllerDaemon.h"
#include "managed/VXHVBAgentWrapper.h"
#include "managed/VXPolicyEnforcementImpl.h"
#include "tests/support/FlowLines.h"
#include "tests/support/Lines.h"
#include "tests/support/RecordingController.h"
#include "tests/unit/daemon/DaemonRoot.h"
#include "tests/unit/managed/AgentDouble.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace testing_support {

/// What LogMsg was given, as "7 text". One a process.
Lines& systemLog();

constexpr const wchar_t* kGeneralFeature = L"KPF_General";
constexpr const wchar_t* kContentFeature = L"KPF_ContentFiltering";
constexpr const wchar_t* kListFeature = L"KPF_BlockAndAllowList";

/// Threads: the test's. Owner: the test.
class PolicyFixture : public testing::Test {
protected:
    PolicyFixture() {
        Sentrel::VXController::getInstance(); // first, as in the daemon: the controller's end releases the wrapper
        Sentrel::VXHVBAgentWrapper::getInstance();
    }
    ~PolicyFixture() override { Sentrel::VXController::releaseInstance(); }

    void general(const wchar_t* section, const wchar_t* key, const std::wstring& value) {
        policy.insertForFeature(kGeneralFeature, section, key, value);
    }
    void content(const wchar_t* section, const wchar_t* key, const std::wstring& value) {
        policy.insertForFeature(kContentFeature, section, key, value);
    }
    void list(const std::wstring& key, const std::wstring& value) {
        policy.insertForFeature(kListFeature, L"BlockAndAllowList", key, value);
    }
    /// What a category pass needs, with two categories, and a rating value.
    void wholeContent(const std::wstring& overall = L"0") {
        content(L"ContentActions", L"bEnableCategorization", L"1");
        content(L"ContentActions", L"uiBitCount", L"2");
        content(L"ContentActions", L"szActionCodes", L"10");
        content(L"ContentActions", L"uiContentBitCodes", L"al,ga");
        content(L"RatingActions", L"uiOverall", overall);
    }

    /// The lines on mgsFlow of @p act, each with the level that it needs; it is run once for each level.
    template <class Act>
    Lines leveled(Act act) {
        return leveledLines(mgsFlowvalue, [&] {
            store.calls.clear();
            systemLog().clear();
            act();
        });
    }

    static Sentrel::VXController& controller() { return *Sentrel::VXController::getInstance(); }
    static bool policyReceived() { return controller().agentWrapper()->policyReceived(); }

    DaemonRoot root; // first: the others ask for paths
    PreferenceRecording& store = PreferenceRecording::instance();
    HVBEnterprise::SectionsHandle policy;
    Sentrel::VXPolicyEnforcementImpl enforcement;
};

} // namespace testing_support
