// What stays known of the policies that a machine has had, also when the saved one is spoilt.
#pragma once

#include "platform/hvbagent/PolicyDocument.h"
#include "platform/hvbagent/Topics.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace HVBEnterprise::agent {

/// The highest policy that a machine has taken, and for whom. Threads: any. Owner: a value.
struct PolicyRecord {
    std::string site;
    std::string machine;
    std::int64_t epoch = 0;
    std::int64_t version = 0;
    std::string sha256;
    std::optional<PolicyTopic> topic; ///< nothing when that is not known any more
    std::string since;                ///< the time at which it was taken
};

/// Epoch and version, of which the higher is the newer policy.
struct PolicyAge {
    std::int64_t epoch;
    std::int64_t version;
    auto operator<=>(const PolicyAge&) const = default;
};
inline PolicyAge ageOf(const PolicyRecord& record) {
    return {record.epoch, record.version};
}
/// Requires that the version could be read.
inline PolicyAge ageOf(const PolicyIdentity& identity) {
    return {identity.epoch, *identity.version};
}
/// "version 9", and the epoch where it is not the first.
std::string ageText(const PolicyAge& age);

/// The text of the file, and back. @throws DocumentError for what is none.
std::string textOfRecord(const PolicyRecord& record);
PolicyRecord readPolicyRecord(std::string_view text);

/// The file, which is the daemon's own. @return nothing when it is not there.
/// @throws std::system_error when it cannot be read or written, DocumentError when it is none.
std::optional<PolicyRecord> loadPolicyRecord(const std::string& path);
void savePolicyRecord(const std::string& path, const PolicyRecord& record);

} // namespace HVBEnterprise::agent
