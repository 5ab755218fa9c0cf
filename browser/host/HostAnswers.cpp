// The host's messages as JSON texts.
//
// What must stay so:
// - Entries are bytes of the settings file. They are made valid UTF-8 where a text is written, and nowhere before: what
//   decides is what the file has.
// - The entries of the list are written one by one. As one tree of JSON a hundred thousand of them take ten times the
//   memory of their text.
#include "browser/host/HostAnswers.h"

#include "platform/hvbagent/Encoding.h"
#include "platform/settings/SettingsSnapshot.h"

#include <fmt/chrono.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <chrono>
#include <optional>
#include <string_view>
#include <utility>
#include <variant>

namespace Sentrel::host {
namespace {

using browsing::PageDecision;
using browsing::PageRules;
using nlohmann::json;

/// On one line, with U+FFFD for each byte that is not UTF-8.
std::string lineOf(const json& value) {
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

std::string timeOf(std::int64_t microseconds) {
    const std::chrono::system_clock::time_point time{std::chrono::microseconds(microseconds)};
    return fmt::format("{:%Y-%m-%dT%H:%M:%SZ}", fmt::gmtime(std::chrono::system_clock::to_time_t(time)));
}

/// Adds members, which are JSON already, to the text of an object that has some.
void addMember(std::string& object, std::string_view name, std::string_view value) {
    object.pop_back();
    object += fmt::format(R"(,"{}":{}}})", name, value);
}

template <class List, class Shown>
std::string arrayOf(const List& list, Shown shown) {
    std::string text = "[";
    for (const auto& each : list) {
        text += text.size() > 1 ? "," : "";
        text += lineOf(shown(each));
    }
    return text + "]";
}

json entryArray(const settings::ListEntry& entry) {
    const bool allows = entry.value == 0;
    const auto reading = browsing::parseSitePattern(entry.name);
    const auto* const pattern = std::get_if<browsing::SitePattern>(&reading);
    return pattern == nullptr ? json::array({allows, entry.name})
                              : json::array({allows, entry.name, pattern->scheme, pattern->host,
                                             pattern->coversNamesBelow, pattern->port, pattern->target});
}

json rangeArray(const std::string& text) {
    const auto range = browsing::parseAddressRange(text);
    return range ? json::array({text, range->first, range->last}) : json::array({text});
}

std::string rulesText(const PageRules& rules) {
    std::string text = lineOf(json{{"protecting", rules.isProtecting()},
                                   {"allowsFirst", rules.allowsFirst()},
                                   {"blocksCategories", rules.blocksCategories()},
                                   {"blocksUncategorised", rules.blocksUncategorised()},
                                   {"reportsGreen", rules.reportsGreen()},
                                   {"reportsAllowed", rules.reportsAllowed()},
                                   {"searchesSafely", rules.searchesSafely()},
                                   {"actions", rules.actions()}});
    addMember(text, "entries", arrayOf(rules.entries(), entryArray));
    addMember(text, "ranges", arrayOf(rules.ranges(), rangeArray));
    addMember(text, "categories", arrayOf(rules.categories(), [](const std::string& name) { return json(name); }));
    return text;
}

constexpr std::array<const char*, 3> kStateWords{"waiting", "current", "kept"};
constexpr std::array<const char*, 4> kActionWords{"", "allow", "warn", "block"};
constexpr std::array<const char*, 3> kReportingWords{"never", "at once", "when answered"};
constexpr std::array<const char*, 5> kOutcomeWords{"asked", "known", "told", "refused", "away"};
constexpr std::array<const char*, 8> kStageWords{"address",      "protection", "list",     "private range",
                                                 "reachability", "category",   "phishing", "rating"};

json entryIn(const PageRules& rules, std::size_t place) {
    if (place == browsing::SiteList::kNone) {
        return nullptr;
    }
    const settings::ListEntry& entry = rules.entries()[place];
    return json{{"place", place}, {"text", entry.name}, {"allows", entry.value == 0}};
}

json summaryOf(const WholeSettings* whole) {
    const PageRules* const rules = whole != nullptr ? &whole->rules : nullptr;
    return json{{"entries", rules != nullptr ? rules->entries().size() : 0},
                {"ranges", rules != nullptr ? rules->ranges().size() : 0},
                {"categories", rules != nullptr ? rules->categories().size() : 0},
                {"numbers", whole != nullptr ? json(whole->numbers) : json::object()}};
}

json ratingsOf(const ratings::RatingStatus& status) {
    json lists = json::array();
    for (const ratings::ListFacts& list : status.lists) {
        lists.push_back(json{{"name", list.name},
                             {"source", list.source},
                             {"date", timeOf(std::chrono::microseconds(list.date.time_since_epoch()).count())},
                             {"count", list.count},
                             {"licence", list.licence}});
    }
    return json{{"reachable", status.isReachable}, {"because", status.because}, {"lists", std::move(lists)}};
}

/// The numbers that @p take gives of each name, the lowest byte first, in base64.
template <class Take>
std::string columnOf(const std::vector<ratings::RatedName>& names, Take take) {
    using Number = decltype(take(names.front()));
    std::string bytes;
    bytes.reserve(names.size() * sizeof(Number));
    for (const ratings::RatedName& name : names) {
        std::uint64_t rest = take(name);
        for (std::size_t byte = 0; byte < sizeof(Number); ++byte, rest >>= 8U) {
            bytes += static_cast<char>(rest & 0xFFU);
        }
    }
    return HVBEnterprise::agent::base64Of(bytes);
}

json classesOf(const std::vector<ratings::SiteRating>& classes) {
    json list = json::array();
    for (const ratings::SiteRating& each : classes) {
        json categories = json::array();
        for (const browsing::SiteCategory& category : each.standing.categories) {
            categories.push_back(json{{"name", category.name}, {"number", category.number}});
        }
        list.push_back(json{{"rating", each.standing.rating},
                            {"categories", std::move(categories)},
                            {"phishing", each.standing.isPhishing},
                            {"ratedBy", each.ratedBy}});
    }
    return list;
}

/// The keys of the settings that the policy rules; null when that is not known.
json ruledKeys(const std::optional<settings::MachinePolicy>& policy) {
    return policy && policy->trouble.empty() ? json(policy->rules) : json(nullptr);
}

/// Whether the policy rules what decided; null when that is not known.
json ruledOf(const PageDecision& decision, const std::optional<settings::MachinePolicy>& policy) {
    if (!policy || !policy->trouble.empty()) {
        return nullptr;
    }
    const std::string_view key = decision.decidedBy() == browsing::Stage::List           ? "allow_block"
                                 : decision.decidedBy() == browsing::Stage::PrivateRange ? "private_ranges"
                                                                                         : decision.setting;
    return std::find(policy->rules.begin(), policy->rules.end(), key) != policy->rules.end();
}

} // namespace

std::string welcomeText(const std::string& release) {
    return lineOf(json{{"type", "welcome"}, {"version", kProtocolVersion}, {"host", release}});
}

std::string errorText(const RequestError& error) {
    json message{{"type", "error"}, {"code", error.code()}, {"text", error.what()}};
    if (error.id()) {
        message["id"] = *error.id();
    }
    if (error.code() == std::string_view("version")) {
        message["version"] = kProtocolVersion;
    }
    return lineOf(message);
}

std::string settingsText(const HeldSettings& held, const ratings::RatingStatus& status, std::uint64_t generation,
                         bool rules) {
    const WholeSettings* const whole = held.whole.get();
    const std::optional<settings::MachinePolicy> policy = whole != nullptr ? whole->policy : std::nullopt;
    std::string text = lineOf(json{{"type", "settings"},
                                   {"state", kStateWords.at(static_cast<std::size_t>(held.state))},
                                   {"because", held.because},
                                   {"generation", generation},
                                   {"since", whole != nullptr ? timeOf(whole->readAt) : ""},
                                   {"protecting", whole == nullptr || whole->rules.isProtecting()},
                                   {"managed", policy ? json(policy->isManaged) : json(nullptr)},
                                   {"ruled", ruledKeys(policy)},
                                   {"ratings", ratingsOf(status)},
                                   {"summary", summaryOf(whole)}});
    if (rules && whole != nullptr) {
        addMember(text, "rules", rulesText(whole->rules));
    }
    return text;
}

std::string ratingsText(const ratings::RatingTable& table, bool isReachable) {
    const std::string_view key(reinterpret_cast<const char*>(table.key.data()), table.key.size());
    std::string text = lineOf(json{{"type", "ratings"},
                                   {"reachable", isReachable},
                                   {"key", HVBEnterprise::agent::base64Of(key)},
                                   {"classes", classesOf(table.classes)}});
    const auto add = [&](const char* name, auto take) {
        addMember(text, name, '"' + columnOf(table.names, take) + '"');
    };
    add("hashes", [](const ratings::RatedName& name) { return name.hash; });
    add("itself", [](const ratings::RatedName& name) { return name.itself; });
    add("below", [](const ratings::RatedName& name) { return name.below; });
    return text;
}

std::string decisionText(std::uint64_t id, const WholeSettings& whole, const PageDecision& decision,
                         const std::string& ratedBy) {
    const PageRules& rules = whole.rules;
    json message{{"type", "decision"},
                 {"id", id},
                 {"url", decision.url},
                 {"action", kActionWords.at(static_cast<std::size_t>(decision.action()))},
                 {"by", kStageWords.at(static_cast<std::size_t>(decision.decidedBy()))},
                 {"reporting", kReportingWords.at(static_cast<std::size_t>(decision.reporting))},
                 {"setting", decision.setting},
                 {"entry", entryIn(rules, decision.entry)},
                 {"overruled", entryIn(rules, decision.overruled)},
                 {"range", nullptr},
                 {"category", nullptr},
                 {"rating", decision.record.urlRating},
                 {"ratingName", NPlgHelper::GetRatingStr(decision.record.urlRating)},
                 {"ratedBy", ratedBy},
                 {"safeSearch", decision.safeSearch.value_or("")},
                 {"ruled", ruledOf(decision, whole.policy)}};
    if (decision.range != browsing::PrivateRanges::kNone) {
        message["range"] = json{{"place", decision.range}, {"text", rules.ranges()[decision.range]}};
    }
    if (decision.category) {
        message["category"] = json{{"name", decision.category->name}, {"number", decision.category->number}};
    }
    return lineOf(message);
}

std::string waitText(const DecideRequest& request) {
    const auto reading = browsing::parseWebUrl(request.url);
    const auto* const url = std::get_if<browsing::WebUrl>(&reading);
    return lineOf(json{{"type", "decision"},
                       {"id", request.id},
                       {"url", url != nullptr ? url->text() : request.url},
                       {"action", "wait"},
                       {"by", ""},
                       {"reporting", "never"},
                       {"setting", ""},
                       {"entry", nullptr},
                       {"overruled", nullptr},
                       {"range", nullptr},
                       {"category", nullptr},
                       {"rating", browsing::kNoRating},
                       {"ratingName", NPlgHelper::GetRatingStr(browsing::kNoRating)},
                       {"ratedBy", ""},
                       {"safeSearch", ""},
                       {"ruled", nullptr}});
}

std::string reportedText(std::uint64_t id, const char* outcome, std::uint64_t lost) {
    return lineOf(json{{"type", "reported"}, {"id", id}, {"outcome", outcome}, {"lost", lost}});
}

std::string requestedText(const AccessAnswer& answer) {
    const auto timeOrNone = [](std::int64_t microseconds) { return microseconds == 0 ? "" : timeOf(microseconds); };
    const LastRequest& last = answer.last;
    return lineOf(json{{"type", "requested"},
                       {"id", answer.id},
                       {"outcome", kOutcomeWords.at(static_cast<std::size_t>(answer.outcome))},
                       {"url", answer.url},
                       {"number", answer.number},
                       {"because", answer.because},
                       {"last", last.number == 0 ? json(nullptr)
                                                 : json{{"number", last.number},
                                                        {"state", last.state},
                                                        {"asked", timeOrNone(last.askedAt)},
                                                        {"answered", timeOrNone(last.answeredAt)},
                                                        {"answer", last.answer},
                                                        {"until", timeOrNone(last.until)}}}});
}

std::string requestsChangedText() {
    return lineOf(json{{"type", "requests-changed"}});
}

} // namespace Sentrel::host
