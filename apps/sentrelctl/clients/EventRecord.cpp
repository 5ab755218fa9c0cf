#include "apps/sentrelctl/clients/EventRecord.h"

#include "apps/sentrelctl/terminal/Failure.h"
#include "base/PrintableText.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <fmt/format.h>
#include <system_error>

namespace Sentrel::ctl {

using Sentrel::text::validUtf8;
namespace {

template <std::size_t size>
void copyText(const std::string& text, char (&field)[size], const char* option) {
    if (text.size() >= size) {
        throw Failure(ExitCode::BadUsage, "bad usage", option,
                      fmt::format("the text has {} bytes, the field takes {}", text.size(), size - 1),
                      "Shorten it, or send the bytes with --raw");
    }
    std::copy(text.begin(), text.end(), field);
}

} // namespace

std::string recordBytes(const RecordFields& fields) {
    STEventData record{};
    copyText(fields.eventId, record.eventId, "--event-id");
    copyText(fields.url, record.url, "--url");
    copyText(fields.browser, record.browserProcessName, "--browser");
    record.urlRating = fields.rating;
    record.action = fields.action;
    record.inAllowBlockList = fields.inList;
    record.blockedInAllowBlockList = fields.listBlocks;
    record.blockedInCategory = fields.blockedInCategory;
    record.blockedCategoryId = fields.category;
    record.isPhishing = fields.phishing;
    record.isRpxReachable = fields.reputationReachable;
    record.count = fields.count;
    record.userAction = fields.userAction;
    return {reinterpret_cast<const char*>(&record), sizeof(record)};
}

Json recordJson(const RecordFields& fields) {
    return Json{
        {"event_id", validUtf8(fields.eventId)},
        {"url", validUtf8(fields.url)},
        {"browser", validUtf8(fields.browser)},
        {"rating", fields.rating},
        {"action", fields.action},
        {"in_list", fields.inList},
        {"list_blocks", fields.listBlocks},
        {"blocked_in_category", fields.blockedInCategory},
        {"category", fields.category},
        {"phishing", fields.phishing},
        {"reputation_reachable", fields.reputationReachable},
        {"count", fields.count},
        {"user_action", fields.userAction},
    };
}

std::int32_t actionCode(const std::string& text) {
    constexpr std::array<const char*, 3> words{"allow", "warn", "block"};
    const auto* const word = std::find(words.begin(), words.end(), text);
    if (word != words.end()) {
        return static_cast<std::int32_t>(word - words.begin()) + 1;
    }
    std::int32_t code = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, code);
    if (error != std::errc() || stop != end) {
        throw Failure(ExitCode::BadUsage, "bad usage", "--action", "'" + text + "' is no action",
                      "Use allow, warn, block or a number");
    }
    return code;
}

} // namespace Sentrel::ctl
