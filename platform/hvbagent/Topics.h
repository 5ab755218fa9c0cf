// The topics of a machine, and what may stand in them.
#pragma once

#include "platform/hvbagent/AgentLimits.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

namespace HVBEnterprise::agent {

/// The group that every machine of a site is in.
inline constexpr const char* kEveryMachine = "all";

/// Whether @p text can be one level of a topic: no wildcard, no separator, nothing that a broker's access rules
/// would have to escape.
inline bool isTopicPart(std::string_view text) {
    constexpr std::string_view others = "_.-";
    return !text.empty() && text.size() <= kMaxTopicPart && std::all_of(text.begin(), text.end(), [&](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               others.find(c) != std::string_view::npos;
    });
}

/// The topics of one machine.
class Topics {
public:
    /// Requires that each of them is a topic part.
    Topics(std::string_view site, std::string_view machine)
        : m_site("orvanta/v1/" + std::string(site) + "/"), m_machine(m_site + std::string(machine) + "/") {}

    std::string policy() const { return m_machine + "policy"; }
    std::string groupPolicy(const std::string& group) const { return m_site + "group/" + group + "/policy"; }
    std::string result() const { return m_machine + "policy/result"; }
    std::string properties() const { return m_machine + "properties"; }
    std::string collect() const { return m_machine + "collect"; }
    std::string state() const { return m_machine + "state"; }

private:
    std::string m_site;
    std::string m_machine;
};

} // namespace HVBEnterprise::agent
