// The record of a browser decision, made from what the user asked for.
#pragma once

#include "apps/sentrelctl/terminal/Json.h"
#include "apps/sentrelctl/terminal/Output.h"
#include "events/STEventData.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace Sentrel::ctl {

/// The fields of a record. The defaults make a sample that the daemon reports: a red site that was blocked.
struct RecordFields {
    std::string eventId = "sentrelctl";
    std::string url = "https://blocked.example/";
    std::string browser = "sentrelctl";
    std::int32_t rating = 50;
    std::int32_t action = 3;
    std::int32_t inList = 0;
    std::int32_t listBlocks = 0;
    std::int32_t blockedInCategory = 0;
    std::int32_t category = 0;
    std::int32_t phishing = 0;
    std::int32_t reputationReachable = 1;
    std::int32_t count = 1;
    std::int32_t userAction = 0;
};

// The longest text of each field in bytes; one more is its NUL.
inline constexpr std::size_t kMaxEventIdBytes = sizeof(STEventData::eventId) - 1;
inline constexpr std::size_t kMaxUrlBytes = sizeof(STEventData::url) - 1;
inline constexpr std::size_t kMaxBrowserBytes = sizeof(STEventData::browserProcessName) - 1;

/// The record as it travels, 392 bytes, zeros behind each text.
/// @throws Failure (bad usage) naming the field and its limit when a text does not fit.
std::string recordBytes(const RecordFields& fields);

/// The fields under the names of their options.
Json recordJson(const RecordFields& fields);

/// The code of an action: 1, 2, 3 or allow, warn, block. Any other number is taken as it is.
/// @throws Failure (bad usage) when it is none of these.
std::int32_t actionCode(const std::string& text);

} // namespace Sentrel::ctl
