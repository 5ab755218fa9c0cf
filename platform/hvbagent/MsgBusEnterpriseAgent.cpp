#include "platform/hvbagent/MsgBusEnterpriseAgent.h"

#include <boost/locale/utf.hpp>

#include <bit>
#include <iterator>

namespace HVBEnterprise {
// A machine without an agent is a state that the callers know. The client over a real broker takes this place.
MsgBusEnterpriseAgent* MsgBusEnterpriseAgent::createInstance(const std::string& /*moduleId*/,
                                                             const std::string& /*agentId*/, AgentLogger /*logger*/,
                                                             RqdMsgBusEnterpriseAgentImpl /*services*/) {
    return nullptr;
}

bool MsgBusEnterpriseAgent::registerPropertyCollectionService(std::unique_ptr<IAgentPropertyCollection>&& /*service*/) {
    return false;
}

bool MsgBusEnterpriseAgent::registerPolicyEnforcementService(std::unique_ptr<IAgentPolicyEnforcement>&& /*service*/) {
    return false;
}

bool MsgBusEnterpriseAgent::getAgentInformation(const int& /*informationId*/, std::wstring& /*answer*/) {
    return false;
}

void MsgBusEnterpriseAgent::decryptMessage(std::string& /*message*/, int /*kind*/, std::string& clearText) {
    clearText.clear();
}

void MsgBusEnterpriseAgent::releaseInstance() {}

std::string HvbAgentUtils::wstringToString(const std::wstring& text) {
    namespace utf = boost::locale::utf;
    constexpr utf::code_point replacement = 0xFFFD;
    std::string out;
    out.reserve(text.size());
    for (const wchar_t c : text) {
        const auto value = std::bit_cast<utf::code_point>(c);
        utf::utf_traits<char>::encode(utf::is_valid_codepoint(value) ? value : replacement, std::back_inserter(out));
    }
    return out;
}

} // namespace HVBEnterprise
