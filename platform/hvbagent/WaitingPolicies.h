// The policies that came and that nobody has looked at yet.
#pragma once

#include "platform/hvbagent/PolicyInForce.h"

#include <cstddef>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <variant>
#include <vector>

namespace HVBEnterprise::agent {

/// A message that is too large to keep.
struct OversizedPolicy {
    std::string sha256;
    std::size_t bytes;
};
/// The topic's message was taken away.
struct ClearedPolicy {};

/// Of each topic the last message, which is all that counts. Threads: plain, single access. Owner: the worker, whose
/// lock guards it.
class WaitingPolicies {
public:
    using Message = std::variant<std::string, OversizedPolicy, ClearedPolicy>;
    using Messages = std::map<PolicyTopic, Message>;

    /// What is taken at once.
    struct Arrivals {
        Messages messages;
        std::optional<std::set<PolicyTopic>>
            all; ///< at the end of a round: the topics on which the broker has something
    };

    /// Keeps the message in place of an earlier one of its topic. Where there is no room for it the topic is noted.
    void arrived(const PolicyTopic& topic, Message message);

    /// The broker delivers all that it retains, from the beginning.
    void beginRound() { m_round.emplace(); }

    bool isEmpty() const { return m_last.empty(); }
    /// Whether there is something to take: messages, or the end of a round.
    bool isDue() const { return !isEmpty() || m_round; }
    /// All that wait, which wait no longer; and once a round its topics.
    Arrivals takeAll();

    /// Notes that a topic's message is needed once more.
    void want(const PolicyTopic& topic) { m_wanted.insert(topic); }
    /// The topics whose messages have to be asked for again: none while others wait, for which there may be no room.
    std::vector<PolicyTopic> takeWanted();

private:
    void forget(const PolicyTopic& topic);

    Messages m_last;
    std::optional<std::set<PolicyTopic>> m_round; ///< topics that had a message since its beginning
    std::size_t m_bytes = 0;
    std::set<PolicyTopic> m_wanted;
};

} // namespace HVBEnterprise::agent
