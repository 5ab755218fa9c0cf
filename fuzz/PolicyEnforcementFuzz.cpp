// Feeds a policy message as it comes from the broker, and puts into force what reads as one. Whatever comes, the
// controller is asked a bounded number of times, and is never handed more than the message brought.
#include "daemon/Trace.h"
#include "daemon/VXControllerDaemon.h"
#include "fuzz/Require.h"
#include "managed/VXHVBAgentWrapper.h"
#include "managed/VXPolicyEnforcementImpl.h"
#include "platform/hvbagent/PolicyDocument.h"
#include "tests/support/RecordingController.h"

#include <clocale>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

using fuzz::require;
using Sentrel::VXPolicyEnforcementImpl;

/// There is no settings file.
bool prepare() {
    setenv("SENTREL_INSTALL_ROOT", "/dev/null", 1); // nothing can be made below it
    std::setlocale(LC_CTYPE, "C.UTF-8");
    Sentrel::VXController::getInstance();
    Sentrel::VXHVBAgentWrapper::getInstance();
    logFilePtr = std::fopen("/dev/null", "a"); // openTraceLog would change the mode of what it opens
    traceInited = 1;
    return logFilePtr != nullptr;
}

/// The most that one enforcement calls when every key is there, with room for a signal behind each setter.
constexpr std::size_t kMaxCalls = 40;
/// Names of setters, separators and numbers that do not come from the message.
constexpr std::size_t kMaxOwnText = 200;

void checkEnforcement(const HVBEnterprise::SectionsHandle& policy, std::size_t messageSize) {
    testing_support::PreferenceRecording& recording = testing_support::PreferenceRecording::instance();
    recording.calls.clear();
    static VXPolicyEnforcementImpl enforcement;
    enforcement.enforcePolicy(L"SENTREL_1000", policy);
    require(recording.calls.size() <= kMaxCalls);
    for (const std::string& call : recording.calls) {
        require(call.size() <= messageSize + kMaxOwnText);
    }
}

/// The lists have as many entries as the policy has keys at the most, whatever it declares.
void checkLists(const HVBEnterprise::SectionsHandle& policy, int declared) {
    VXPolicyEnforcementImpl::Section section;
    static_cast<void>(policy.getSectionDataUsingSectionName(L"BlockAndAllowList", section));
    std::vector<std::wstring> sites;
    std::vector<int> actions;
    std::string checksumText;
    VXPolicyEnforcementImpl::getAllowBlockListFromMap(section, sites, declared, checksumText);
    VXPolicyEnforcementImpl::getAllowBlockActionListFromMap(section, actions, declared, checksumText);
    require(sites.size() + actions.size() <= section.size());
    for (const std::wstring& site : sites) {
        require(site.size() < Sentrel::kPolicyTextCharacters);
    }
}

} // namespace

/// In the place of the system's log.
void LogMsg(int /*level*/, const char* format, ...) {
    constexpr std::size_t lineBytes = 1024;
    char line[lineBytes] = "";
    std::va_list args;
    va_start(args, format);
    static_cast<void>(std::vsnprintf(line, sizeof line, format, args));
    va_end(args);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool prepared = prepare();
    require(prepared);
    mgsFlowvalue = size % 4 == 0 ? 5 : 0; // formatting every line takes most of the time
    const auto reading = HVBEnterprise::agent::readPolicyMessage({reinterpret_cast<const char*>(data), size}, {});
    if (reading.refused.empty()) {
        checkEnforcement(reading.sections, size);
        constexpr std::size_t declarations = 256;
        checkLists(reading.sections, static_cast<int>(size % declarations) - 1);
    }
    return 0;
}
