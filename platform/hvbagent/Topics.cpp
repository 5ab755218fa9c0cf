#include "platform/hvbagent/Topics.h"

#include <tuple>

namespace HVBEnterprise::agent {
namespace {

constexpr std::string_view kOwnTopic = "machine";
constexpr std::string_view kGroupTopic = "group/";
constexpr std::string_view kPolicyEnd = "/policy";

} // namespace

std::string whyNoTopicPart() {
    return "is not 1 to " + std::to_string(kMaxTopicPart) + R"( characters out of letters, digits, "_", "." and "-")";
}

std::optional<PolicyTopic> PolicyTopic::ofText(std::string_view text) {
    if (text == kOwnTopic) {
        return PolicyTopic{};
    }
    if (text.starts_with(kGroupTopic) && isTopicPart(text.substr(kGroupTopic.size()))) {
        return PolicyTopic{std::string(text.substr(kGroupTopic.size()))};
    }
    return std::nullopt;
}

bool PolicyTopic::isNearerThan(const PolicyTopic& other) const {
    const auto distance = [](const PolicyTopic& topic) {
        return std::make_tuple(!topic.isOwn(), topic.group == kEveryMachine, std::string_view(topic.group));
    };
    return distance(*this) < distance(other);
}

PolicyTopic Topics::policyTopicOf(std::string_view topic) const {
    if (topic == policy()) {
        return {};
    }
    const std::string_view group = topic.substr(m_site.size() + kGroupTopic.size());
    return {std::string(group.substr(0, group.size() - kPolicyEnd.size()))};
}

} // namespace HVBEnterprise::agent
