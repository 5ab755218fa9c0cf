#include "platform/hvbagent/PolicyRecord.h"

#include "base/FileReading.h"
#include "base/FileWriting.h"
#include "platform/hvbagent/AgentLimits.h"
#include "platform/hvbagent/StrictJson.h"

#include <nlohmann/json.hpp>

#include <cerrno>
#include <limits>
#include <system_error>

namespace HVBEnterprise::agent {
namespace {

using nlohmann::json;

std::string textMember(const json& record, const char* name) {
    const auto found = record.find(name);
    if (found == record.end() || !found->is_string()) {
        throw DocumentError(memberPlace("", name), "is no text");
    }
    return found->get<std::string>();
}

std::int64_t numberMember(const json& record, const char* name) {
    const auto found = record.find(name);
    if (found == record.end() || !found->is_number_unsigned() ||
        found->get<std::uint64_t>() > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
        throw DocumentError(memberPlace("", name), "is no number");
    }
    return found->get<std::int64_t>();
}

} // namespace

std::string ageText(const PolicyAge& age) {
    return "version " + std::to_string(age.version) +
           (age.epoch == kFirstEpoch ? "" : " of epoch " + std::to_string(age.epoch));
}

std::string textOfRecord(const PolicyRecord& record) {
    return json{{"site", record.site},     {"machine", record.machine},
                {"epoch", record.epoch},   {"version", record.version},
                {"sha256", record.sha256}, {"topic", record.topic ? json(record.topic->text()) : json(nullptr)},
                {"since", record.since}}
               .dump() +
           "\n";
}

PolicyRecord readPolicyRecord(std::string_view text) {
    const json record =
        readStrictJson(text, {.bytes = kMaxConfigurationBytes, .depth = kMaxSmallDepth, .values = kMaxSmallValues});
    if (!record.is_object()) {
        throw DocumentError("", "is not an object");
    }
    std::optional<PolicyTopic> topic;
    if (const auto found = record.find("topic"); found == record.end() || !found->is_null()) {
        topic = PolicyTopic::ofText(textMember(record, "topic"));
        if (!topic) {
            throw DocumentError("/topic", "names no topic");
        }
    }
    return {.site = textMember(record, "site"),
            .machine = textMember(record, "machine"),
            .epoch = numberMember(record, "epoch"),
            .version = numberMember(record, "version"),
            .sha256 = textMember(record, "sha256"),
            .topic = topic,
            .since = textMember(record, "since")};
}

std::optional<PolicyRecord> loadPolicyRecord(const std::string& path) {
    try {
        return readPolicyRecord(
            Sentrel::readRegularFile(path, kMaxConfigurationBytes, Sentrel::FileAccess::OwnerWrites));
    } catch (const std::system_error& error) {
        if (error.code().value() == ENOENT) {
            return std::nullopt;
        }
        throw;
    }
}

void savePolicyRecord(const std::string& path, const PolicyRecord& record) {
    Sentrel::replaceFile(path, textOfRecord(record), Sentrel::Replace::AsPrivate);
}

} // namespace HVBEnterprise::agent
