#include "platform/hvbagent/WaitingPolicies.h"

#include "platform/hvbagent/AgentLimits.h"

#include <utility>

namespace HVBEnterprise::agent {
namespace {

std::size_t bytesOf(const WaitingPolicies::Message& message) {
    const auto* const text = std::get_if<std::string>(&message);
    return text != nullptr ? text->size() : 0;
}

} // namespace

void WaitingPolicies::forget(const PolicyTopic& topic) {
    if (const auto found = m_last.find(topic); found != m_last.end()) {
        m_bytes -= bytesOf(found->second);
        m_last.erase(found);
    }
}

void WaitingPolicies::arrived(const PolicyTopic& topic, Message message) {
    forget(topic);
    m_wanted.erase(topic);
    if (m_round && !std::holds_alternative<ClearedPolicy>(message)) {
        m_round->insert(topic);
    }
    const std::size_t bytes = bytesOf(message);
    if (!m_last.empty() && m_bytes + bytes > kMaxWaitingPolicyBytes) {
        want(topic);
        return;
    }
    m_bytes += bytes;
    m_last.emplace(topic, std::move(message));
}

WaitingPolicies::Arrivals WaitingPolicies::takeAll() {
    m_bytes = 0;
    return {std::exchange(m_last, {}), std::exchange(m_round, std::nullopt)};
}

std::vector<PolicyTopic> WaitingPolicies::takeWanted() {
    if (!isEmpty()) {
        return {};
    }
    const std::set<PolicyTopic> wanted = std::exchange(m_wanted, {});
    return {wanted.begin(), wanted.end()};
}

} // namespace HVBEnterprise::agent
