#include "platform/hvbagent/PolicyStore.h"

#include "base/FileReading.h"
#include "base/FileWriting.h"
#include "platform/hvbagent/AgentLimits.h"

#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace HVBEnterprise::agent {

std::optional<std::string> PolicyStore::load() const {
    try {
        return Sentrel::readRegularFile(m_path, kMaxPolicyMessageBytes, Sentrel::FileAccess::OwnerWrites);
    } catch (const std::system_error& error) {
        if (error.code().value() == ENOENT) {
            return std::nullopt;
        }
        throw;
    }
}

void PolicyStore::save(std::string_view message) const {
    Sentrel::replaceFile(m_path, message, Sentrel::Replace::AsPrivate);
}

bool PolicyInForce::restore() {
    const std::optional<std::string> message = m_store.load();
    if (!message) {
        return false;
    }
    PolicyReading reading = readPolicyMessage(*message, m_key);
    if (!reading.refused.empty()) {
        throw std::runtime_error(m_store.path() + ": " + reading.refused);
    }
    m_reading = std::move(reading);
    m_isThere = true;
    m_enforced.reset();
    return true;
}

std::string PolicyInForce::whyNotAfter(const PolicyIdentity& next) const {
    const PolicyIdentity& current = m_reading.identity;
    if (!m_isThere || next.version > current.version) {
        return {};
    }
    const std::string version = std::to_string(*current.version);
    if (next.version < current.version) {
        return "it is older than the policy in force, which has version " + version;
    }
    return next.sha256 == current.sha256 ? "" : "a policy with other content is in force as version " + version;
}

PolicyDecision PolicyInForce::take(std::string_view message) {
    PolicyReading reading = readPolicyMessage(message, m_key);
    PolicyDecision decision{
        .verdict = PolicyVerdict::Refused, .identity = reading.identity, .refused = reading.refused};
    if (decision.refused.empty()) {
        decision.refused = whyNotAfter(reading.identity);
    }
    if (!decision.refused.empty()) {
        return decision;
    }
    const bool again = m_isThere && reading.identity.version == m_reading.identity.version;
    if (!again) {
        try {
            m_store.save(message);
        } catch (const std::system_error& error) {
            decision.refused = std::string("it cannot be saved: ") + error.what();
            return decision;
        }
        m_reading = std::move(reading);
        m_isThere = true;
        m_enforced.reset();
    }
    decision.verdict = m_enforced.value_or(false) ? PolicyVerdict::AlreadyThere : PolicyVerdict::Enforce;
    return decision;
}

} // namespace HVBEnterprise::agent
