#include "apps/settings-keeper/PolicyWatch.h"

#include "base/PrintableText.h"
#include "platform/hvbagent/AgentConfiguration.h"
#include "platform/hvbagent/PolicyDocument.h"
#include "platform/hvbagent/PolicyStore.h"
#include "policy/RuledSettings.h"

#include <cerrno>
#include <exception>
#include <unistd.h>
#include <utility>

namespace Sentrel::keeper {
namespace {

namespace agent = HVBEnterprise::agent;

} // namespace

PolicyWatch::PolicyWatch(std::string enrolment, std::string policy)
    : m_enrolmentFile(std::move(enrolment)), m_policyFile(std::move(policy)) {}

bool PolicyWatch::look() {
    const std::optional<FileStamp> enrolment = stampOf(m_enrolmentFile);
    const std::optional<FileStamp> stored = stampOf(m_policyFile); // before the content, so that a change is seen
    if (m_isLookedAt && enrolment == m_enrolment && stored == m_stored) {
        return false;
    }
    m_isLookedAt = true;
    m_enrolment = enrolment;
    m_stored = stored;
    const auto before = std::exchange(m_policy, read());
    return before != m_policy;
}

std::optional<settings::MachinePolicy> PolicyWatch::read() const {
    settings::MachinePolicy known;
    if (::access(m_enrolmentFile.c_str(), F_OK) != 0) {
        return errno == ENOENT ? std::optional(known) : std::nullopt;
    }
    known.isManaged = true;
    known.allowsLocalGrants = agent::enrolmentAllowsLocalGrants(m_enrolmentFile);
    try {
        const std::optional<std::string> message = agent::PolicyStore(m_policyFile).load();
        if (!message) {
            return known;
        }
        // Whether the daemon takes it, with a signature or without, is the daemon's to say: this is the one in store.
        const agent::PolicyReading reading = agent::readPolicyMessage(*message, {});
        known.trouble = reading.refused;
        known.version = reading.identity.version;
        if (reading.refused.empty()) {
            for (const std::string_view setting : policy::ruledSettings(agent::DocumentValues(reading.sections))) {
                known.rules.emplace_back(setting);
            }
        }
    } catch (const std::exception& error) {
        known.trouble = text::printable(error.what());
    }
    return known;
}

} // namespace Sentrel::keeper
