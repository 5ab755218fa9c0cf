#include "platform/hvbagent/PropertyDocument.h"

#include "platform/hvbagent/AgentLimits.h"
#include "platform/hvbagent/StrictJson.h"

#include <nlohmann/json.hpp>

namespace HVBEnterprise::agent {
namespace {

using nlohmann::json;

std::string textOf(const json& document) {
    return document.dump(-1, ' ', false, json::error_handler_t::replace);
}

} // namespace

std::string propertyDocument(const SectionsHandle& properties, bool full, const std::string& time) {
    json sections = json::object();
    for (const auto& [name, keys] : properties.sections()) {
        json& section = sections[HvbAgentUtils::wstringToString(name)] = json::object();
        for (const auto& [key, value] : keys) {
            section[HvbAgentUtils::wstringToString(key)] = HvbAgentUtils::wstringToString(value);
        }
    }
    return textOf({{"time", time}, {"full", full}, {"sections", std::move(sections)}});
}

// Not by the JSON library: its objects need memory also to end, and the network thread must outlive a want of it.
std::string stateDocument(bool online, const std::string& time) {
    return std::string(R"({"state":")") + (online ? "online" : "offline") + R"(","time":")" + time + R"("})";
}

bool readCollectRequest(std::string_view text) {
    const json request =
        readStrictJson(text, {.bytes = kMaxCollectBytes, .depth = kMaxSmallDepth, .values = kMaxSmallValues});
    if (!request.is_object() || request.size() != 1 || !request.contains("full") || !request["full"].is_boolean()) {
        throw DocumentError("", R"(is neither {"full": true} nor {"full": false})");
    }
    return request["full"].get<bool>();
}

} // namespace HVBEnterprise::agent
