#include "managed/VXPropertyCollectionImpl.h"

#include "daemon/Trace.h"
#include "daemon/VXControllerDaemon.h"
#include "managed/VXHVBAgentWrapper.h"
#include "managed/VersionTexts.h"
#include "platform/macutils/MacUtils.h"
#include "store/STPreferenceController.h"

#include <memory>

namespace Sentrel {
namespace {

constexpr const wchar_t* kGeneral = L"General";

/// The text of @p fetched, and deletes the array. Empty for null.
std::wstring takeText(wchar_t* fetched) {
    const std::unique_ptr<wchar_t[]> text(fetched);
    return text != nullptr ? text.get() : L"";
}

bool isEnabled() {
    return STPreferenceController::getInstance()->getEnableSentrel();
}

/// Whether the enable state is the one that the policy demands. Before any policy every state is.
bool complies() {
    const bool isOn = isEnabled();
    const VXController* controller = VXController::getInstance();
    const VXHVBAgentWrapper* wrapper = controller->agentWrapper();
    return !wrapper->policyReceived() || controller->policyEnabled() == isOn;
}

} // namespace

bool VXPropertyCollectionImpl::collectProperties(bool full, HVBEnterprise::SectionsHandle& properties) {
    ST_TRACE(mgsFlow, 1, L"VXPropertyCollectionImpl::collectProperties - Entered\n");
    m_bFullProps = full;
    try {
        addProperties(properties);
    } catch (...) {
        ST_TRACE(mgsFlow, 1, L"Other exception\n");
        return true;
    }
    ST_TRACE(mgsFlow, 1, L"VXPropertyCollectionImpl::collectProperties - Exiting\n");
    return true;
}

void VXPropertyCollectionImpl::addProperties(HVBEnterprise::SectionsHandle& properties) {
    addPropertyToSectionData(properties, L"CustomProps", L"bComplianceStatus", complies() ? L"1" : L"0");
    addPropertyToSectionData(properties, kGeneral, L"LoadableIE", L"1");
    addPropertyToSectionData(properties, kGeneral, L"LoadableFF", L"1");
    addPropertyToSectionData(properties, kGeneral, L"LoadableCH", L"2");
    addPropertyToSectionData(properties, kGeneral, L"LoadableSafari", L"2");
    addPropertyToSectionData(properties, kGeneral, L"szInstallDir", L"/usr/local/Orvanta/Sentrel");
    addPropertyToSectionData(properties, kGeneral, L"Language", MacUtils::CFHelper::GetLanguage());
    addPropertyToSectionData(properties, kGeneral, L"szProductVer", takeText(getVersionString()));
    const bool isOn = isEnabled();
    ST_TRACE(mgsFlow, 3, L"VXPropertyCollectionImpl::collectProperties - Enable Status = %d\n", isOn ? 1 : 0);
    addPropertyToSectionData(properties, L"Options", L"bSTEnabled", isOn ? L"1" : L"0");
    ST_TRACE(mgsFlow, 3, L"VXPropertyCollectionImpl::collectProperties - Getting Patch version\n");
    addPropertyToSectionData(properties, kGeneral, L"Patch", takeText(getPatchVersion()));
    ST_TRACE(mgsFlow, 3, L"VXPropertyCollectionImpl::collectProperties - Getting Hotfix version\n");
    addPropertyToSectionData(properties, kGeneral, L"Hotfixes", takeText(getHFVersion()));
}

bool VXPropertyCollectionImpl::isSoftwareExists(const std::wstring /*softwareId*/) {
    return true;
}

// NOLINTBEGIN(performance-unnecessary-value-param): the interface has them so
void VXPropertyCollectionImpl::addPropertyToSectionData(HVBEnterprise::SectionsHandle& properties,
                                                        const std::wstring section, const std::wstring key,
                                                        const std::wstring value) {
    // NOLINTEND(performance-unnecessary-value-param)
    if (m_bFullProps || section == kGeneral) {
        properties.insert(section, key, value);
    }
}

} // namespace Sentrel
