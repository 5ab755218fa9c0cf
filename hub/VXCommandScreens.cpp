// The commands behind two screens of the hub's user interface: the about box and the dashboard.
#include "base/Paths.h"
#include "daemon/Trace.h"
#include "daemon/VXControllerDaemon.h"
#include "hub/CommandReply.h"
#include "hub/Payloads.h"
#include "hub/VXCommandImpl.h"
#include "managed/VXHVBAgentWrapper.h"
#include "platform/hvbutils/LibXmlWrapper.h"

#include <cwchar>
#include <string>

namespace Sentrel {
namespace {

using VersionItems = std::map<std::wstring, std::wstring>;

/// A version text as the about box takes it: at most 99 characters; what is longer is cut.
template <class... Args>
std::wstring versionText(const wchar_t* format, const Args&... args) {
    constexpr std::size_t room = 100;
    wchar_t text[room] = L"";
    // The result tells only that the text did not fit; what fits stands in the buffer.
    static_cast<void>(std::swprintf(text, room, format, args.c_str()...));
    text[room - 1] = L'\0';
    return text;
}

std::wstring productVersion(LibXmlWrapper& configuration) {
    std::string build;
    std::string version;
    std::string patch;
    try {
        build = configuration.getXPathStringValue("/HVConfiguration/BuildNumber");
        version = configuration.getXPathStringValue("/HVConfiguration/HVVersion");
        patch = configuration.getXPathStringValue("/HVConfiguration/PatchVersion");
    } catch (...) {
        ST_TRACE(stCmdFlow, 2, L"VXCommandImpl::handleAboutBox - Recieve xml exception while version\n");
    }
    return patch.empty() ? versionText(L"%s (%s)", version, build) : versionText(L"%s %s (%s)", version, patch, build);
}

/// A version text that need not be there.
struct OptionalItem {
    const char* xpath;
    const wchar_t* key;
    const char* traceClass; ///< the two lines differ in more than their last words; people search for them
    const char* traceWords;
};

constexpr OptionalItem kServicePack{"/HVConfiguration/ServicePack", L"Sentrel_SPVersion", "VXCommandImpl",
                                    "SP version"};
constexpr OptionalItem kHotfixes{"/HVConfiguration/Hotfixes", L"Sentrel_HF", "CommandImpl", "HF version"};

void add(const OptionalItem& item, LibXmlWrapper& configuration, VersionItems& items) {
    try {
        const std::string value = configuration.getXPathStringValue(item.xpath);
        if (value != " ") { // which is how the configuration file says that there is none
            items[item.key] = versionText(L"%s", value);
        }
    } catch (...) {
        ST_TRACE(stCmdFlow, 2, L"%s::handleAboutBox - Recieve xml exception while %s\n", item.traceClass,
                 item.traceWords);
    }
}

/// The preference decides first. It is read anew at each step: one that turns on between two of them means at risk.
DashBoardStatus managedStatus(const VXHVBAgentWrapper& wrapper) {
    if (preferences().getEnableSentrel()) {
        return DASHBOARD_MANAGED_ENABLED;
    }
    if (preferences().getEnableSentrel()) {
        return DASHBOARD_MANAGED_AT_RISK;
    }
    const bool shouldBeOn =
        wrapper.policyReceived() ? VXController::getInstance()->policyEnabled() : preferences().getEnableSentrel();
    return shouldBeOn ? DASHBOARD_MANAGED_AT_RISK : DASHBOARD_MANAGED_DISABLED;
}

DashBoardStatus currentStatus() {
    VXHVBAgentWrapper* wrapper = VXController::getInstance()->agentWrapper();
    if (wrapper != nullptr && !wrapper->managedKnown()) {
        wrapper->updateManagedStatus();
    }
    if (wrapper != nullptr && wrapper->managed()) {
        return managedStatus(*wrapper);
    }
    return preferences().getEnableSentrel() ? DASHBOARD_LOCAL_ENABLED : DASHBOARD_LOCAL_DISABLED;
}

/// How a status is shown, and its name in the trace log.
struct StatusText {
    DashBoardStatus status;
    const wchar_t* token;
    const char* name;
};

const StatusText& textOf(DashBoardStatus status) {
    static constexpr const wchar_t* enabled = L"ENABLED_STRING";
    static constexpr const wchar_t* disabled = L"DISABLED_STRING";
    static constexpr StatusText texts[] = {
        {DASHBOARD_LOCAL_ENABLED, enabled, "LOCAL-ENABLED"}, {DASHBOARD_LOCAL_DISABLED, disabled, "LOCAL-DISABLED"},
        {DASHBOARD_MANAGED_ENABLED, enabled, "MGS-ENABLED"}, {DASHBOARD_MANAGED_DISABLED, disabled, "MGS-DISABLED"},
        {DASHBOARD_MANAGED_AT_RISK, disabled, "MGS-RISK"},
    };
    const StatusText* text = texts;
    while (text->status != status) { // each has a row
        ++text;
    }
    return *text;
}

} // namespace

void VXCommandImpl::handleAboutBox(HVB::CommandData& data) {
    ST_TRACE(stCmdFlow, 2, L"VXCommandImpl::handleAboutBox- Entered\n");
    LibXmlWrapper configuration(paths::moduleConfiguration());
    AboutBoxData about;
    about.m_moduleId = HVB::MODULE_SENTREL;
    about.m_versionItems[L"Sentrel_Version"] = productVersion(configuration);
    add(kServicePack, configuration, about.m_versionItems);
    add(kHotfixes, configuration, about.m_versionItems);
    detail::replyWith(data, about);
    ST_TRACE(stCmdFlow, 3, L"VXCommandImpl::handleAboutBox - Sent response through HVBCommBroker\n");
}

void VXCommandImpl::handleDashBoard(HVB::CommandData& data) {
    ST_TRACE(stCmdFlow, 2, L"VXCommandImpl::handleDashBoard- Entered\n");
    const StatusText& text = textOf(currentStatus());
    ST_TRACE(stCmdFlow, 2, L"CommandImpl::handleDashBoard- setting %s\n", text.name);
    DashBoardData board;
    board.m_moduleId = HVB::MODULE_SENTREL;
    DashBoardDispalyContents& line = board.m_statusItems[L"ST_DASHBOARD_STATUS_KEY"];
    line.m_displayText = text.token;
    line.m_status = text.status;
    detail::replyWith(data, board);
    ST_TRACE(stCmdFlow, 3, L"VXCommandImpl::handleDashBoard - Sent response through HVBCommBroker\n");
}

} // namespace Sentrel
