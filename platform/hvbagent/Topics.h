// The topics of a machine, and what may stand in them.
#pragma once

#include "platform/hvbagent/AgentLimits.h"

#include <algorithm>
#include <compare>
#include <optional>
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

/// What an error says of a text that is no part of a topic.
std::string whyNoTopicPart();

/// Which of a machine's topics a policy came to. Threads: any. Owner: a value.
struct PolicyTopic {
    std::string group; ///< empty: the machine's own

    bool isOwn() const { return group.empty(); }
    /// "machine" or "group/<name>", as documents say it.
    std::string text() const { return isOwn() ? "machine" : "group/" + group; }
    /// The other way round; nothing for another text.
    static std::optional<PolicyTopic> ofText(std::string_view text);

    /// Whether of two policies of one version this topic's is taken: the machine's own before a group's, a group's
    /// before the site's, and of two groups the one whose name comes first.
    bool isNearerThan(const PolicyTopic& other) const;

    bool operator==(const PolicyTopic& other) const = default;
    auto operator<=>(const PolicyTopic& other) const = default; ///< for containers
};

/// The client id of a machine: its topic's two names, so that two machines have one only when they have one topic. A
/// broker can be told to take it from that machine's user alone.
inline std::string clientIdOf(std::string_view site, std::string_view machine) {
    return "sentrel/" + std::string(site) + "/" + std::string(machine);
}

/// The topics of one machine.
class Topics {
public:
    /// Requires that each of them is a topic part.
    Topics(std::string_view site, std::string_view machine)
        : m_site("orvanta/v1/" + std::string(site) + "/"), m_machine(m_site + std::string(machine) + "/") {}

    std::string policy() const { return m_machine + "policy"; }
    std::string groupPolicy(const std::string& group) const { return m_site + "group/" + group + "/policy"; }
    std::string policyOf(const PolicyTopic& topic) const { return topic.isOwn() ? policy() : groupPolicy(topic.group); }
    /// Requires one of those two.
    PolicyTopic policyTopicOf(std::string_view topic) const;
    std::string result() const { return m_machine + "policy/result"; }
    std::string properties() const { return m_machine + "properties"; }
    std::string collect() const { return m_machine + "collect"; }
    std::string state() const { return m_machine + "state"; }

private:
    std::string m_site;
    std::string m_machine;
};

} // namespace HVBEnterprise::agent
