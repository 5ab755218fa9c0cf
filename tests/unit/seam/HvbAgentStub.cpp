// The management agent's client library as the daemon may ask for it: declared here a second time, and not from the
// headers that the daemon includes. It links; it does nothing.
#include <cstdint>
#include <map>
#include <memory>
#include <string>

namespace HVBEnterprise {

class IAgentPropertyCollection;
class IAgentPolicyEnforcement;
struct PolicySetting;
enum AgentLogCategory : std::int32_t;
enum RqdMsgBusEnterpriseAgentImpl : std::uint32_t;

class MsgBusEnterpriseAgent {
public:
    static MsgBusEnterpriseAgent* createInstance(const std::string& moduleId, const std::string& agentId,
                                                 void (*logger)(AgentLogCategory, const wchar_t*),
                                                 RqdMsgBusEnterpriseAgentImpl services);
    bool registerPropertyCollectionService(std::unique_ptr<IAgentPropertyCollection>&& service);
    bool registerPolicyEnforcementService(std::unique_ptr<IAgentPolicyEnforcement>&& service);
    bool getAgentInformation(const int& informationId, std::wstring& answer);
    void decryptMessage(std::string& message, int kind, std::string& clearText);
    void releaseInstance();
};

class HvbAgentUtils {
public:
    static std::string wstringToString(const std::wstring& text);
};

class SectionsHandle {
public:
    bool getPropValue(const PolicySetting& setting, const std::wstring& section, const std::wstring& key,
                      std::wstring& value) const;
    bool getPropValue(const std::wstring& section, const std::wstring& key, std::wstring& value) const;
    bool getSectionDataUsingSectionName(const std::wstring& section, std::map<std::wstring, std::wstring>& data) const;
    void insert(const std::wstring& section, const std::wstring& key, const std::wstring& value);
};

MsgBusEnterpriseAgent* MsgBusEnterpriseAgent::createInstance(const std::string& /*moduleId*/,
                                                             const std::string& /*agentId*/,
                                                             void (* /*logger*/)(AgentLogCategory, const wchar_t*),
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
void MsgBusEnterpriseAgent::decryptMessage(std::string& /*message*/, int /*kind*/, std::string& /*clearText*/) {}
void MsgBusEnterpriseAgent::releaseInstance() {}

std::string HvbAgentUtils::wstringToString(const std::wstring& /*text*/) {
    return {};
}

bool SectionsHandle::getPropValue(const PolicySetting& /*setting*/, const std::wstring& /*section*/,
                                  const std::wstring& /*key*/, std::wstring& /*value*/) const {
    return false;
}
bool SectionsHandle::getPropValue(const std::wstring& /*section*/, const std::wstring& /*key*/,
                                  std::wstring& /*value*/) const {
    return false;
}
bool SectionsHandle::getSectionDataUsingSectionName(const std::wstring& /*section*/,
                                                    std::map<std::wstring, std::wstring>& /*data*/) const {
    return false;
}
void SectionsHandle::insert(const std::wstring& /*section*/, const std::wstring& /*key*/,
                            const std::wstring& /*value*/) {}

} // namespace HVBEnterprise
