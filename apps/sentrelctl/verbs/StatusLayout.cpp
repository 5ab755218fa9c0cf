// The status in words and for programs.
//
// What must stay so:
// - The word, the protection and the reason follow from the daemon's number alone. What is known besides stands in rows
//   of its own, and nothing of it changes that word: a machine without a rating list is enabled, and says what acts.
// - Texts of the daemon, of hvbd and of lists come from others, so they are made printable.
// - Programs get null for what cannot be known, never a number that looks like an answer.
#include "apps/sentrelctl/verbs/StatusLayout.h"

#include "apps/sentrelctl/preferences/PreferenceLayout.h"
#include "base/PrintableText.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <numeric>

namespace Sentrel::ctl {

using Sentrel::text::narrowed;
using Sentrel::text::printable;
using Sentrel::text::validUtf8;
namespace {

constexpr const wchar_t* kStatusKey = L"ST_DASHBOARD_STATUS_KEY";

/// A status of the dashboard in words.
struct Meaning {
    DashBoardStatus status;
    const char* word;
    bool isManaged;
    bool isProtected;
    const char* reason;
};

constexpr std::array<Meaning, 5> kMeanings{{
    {DASHBOARD_LOCAL_ENABLED, "enabled", false, true, "the preference says on"},
    {DASHBOARD_LOCAL_DISABLED, "disabled", false, false, "the preference says off"},
    {DASHBOARD_MANAGED_ENABLED, "enabled", true, true, "the preference says on"},
    {DASHBOARD_MANAGED_DISABLED, "disabled", true, false, "the preference says off, and no policy says on"},
    {DASHBOARD_MANAGED_AT_RISK, "at risk", true, false, "the policy says on, the preference says off"},
}};

const Meaning* meaningOf(DashBoardStatus status) {
    const auto* const found = std::find_if(kMeanings.begin(), kMeanings.end(),
                                           [status](const Meaning& meaning) { return meaning.status == status; });
    return found == kMeanings.end() ? nullptr : found;
}

const char* yesNo(bool value) {
    return value ? "yes" : "no";
}

std::string healthText(const KnownHealth& health, const Palette& palette) {
    if (!health.error.empty()) {
        return printable(health.state + ": " + health.error);
    }
    const char* color = health.state == "well" ? palette.plain : palette.alarm;
    return fmt::format("{}{}{} since {}", color, printable(health.state), palette.plain, printable(health.since));
}

std::string reportsText(const KnownReports& reports, const Palette& palette) {
    if (!reports.error.empty()) {
        return printable("unknown: " + reports.error);
    }
    const std::string lost = reports.damaged == 0 ? "" : fmt::format(", {} damaged", reports.damaged);
    const char* color = reports.refused + reports.damaged == 0 ? palette.plain : palette.alarm;
    return fmt::format("{} waiting for the hub, {}{} refused{}{}", reports.waiting, color, reports.refused, lost,
                       palette.plain);
}

std::uint64_t hostsIn(const ratings::RatingStatus& ratings) {
    return std::accumulate(ratings.lists.begin(), ratings.lists.end(), std::uint64_t{0},
                           [](std::uint64_t sum, const ratings::ListFacts& list) { return sum + list.count; });
}

/// Without a list the machine is protected by what its administrator has entered, and by nothing else.
std::string ratingsText(const ratings::RatingStatus& ratings, const Palette& palette) {
    if (!ratings.isReachable) {
        return fmt::format("{}out of use{}: {}", palette.alarm, palette.plain, printable(ratings.because));
    }
    if (ratings.lists.empty()) {
        return "none: only your own lists and categories act; 'sentrelctl ratings import' brings a list in";
    }
    const std::size_t count = ratings.lists.size();
    return fmt::format("{} {} with {} hosts", count, count == 1 ? "list" : "lists", hostsIn(ratings));
}

/// The rows that stand whatever the daemon answered.
std::string furtherRows(const KnownBesides& known, const Palette& palette) {
    return rowText("ratings", ratingsText(known.ratings, palette), palette) +
           rowText("health", healthText(known.health, palette), palette) +
           rowText("reports", reportsText(known.reports, palette), palette);
}

/// A version item as the daemon gave it.
std::optional<std::string> item(const AboutBoxData& data, const wchar_t* key) {
    const auto found = data.m_versionItems.find(key);
    return found == data.m_versionItems.end() ? std::nullopt : std::optional(narrowed(found->second));
}

std::string itemText(const AboutBoxData& data, const wchar_t* key) {
    const std::string text = item(data, key).value_or("");
    return text.find_first_not_of(' ') == std::string::npos ? "none" : printable(text);
}

Json itemJson(const AboutBoxData& data, const wchar_t* key) {
    const std::optional<std::string> text = item(data, key);
    return text ? Json(validUtf8(*text)) : Json(nullptr);
}

} // namespace

std::optional<DashBoardDispalyContents> statusLine(const DashBoardData& data) {
    const auto found = data.m_statusItems.find(kStatusKey);
    return found == data.m_statusItems.end() ? std::nullopt : std::optional(found->second);
}

std::string statusText(const DashBoardDispalyContents& line, const KnownBesides& known, const Palette& palette) {
    const Meaning* const meaning = meaningOf(line.m_status);
    if (meaning == nullptr) {
        const std::string what = fmt::format("{} ({})", static_cast<int>(line.m_status), narrowed(line.m_displayText));
        return rowText("status", printable(what), palette) +
               rowText("reason", "this sentrelctl does not know that status", palette) + furtherRows(known, palette);
    }
    const char* color = meaning->isProtected ? palette.plain : palette.alarm;
    return rowText("status", fmt::format("{}{}{}", color, meaning->word, palette.plain), palette) +
           rowText("managed", yesNo(meaning->isManaged), palette) +
           rowText("protection", meaning->isProtected ? "on" : "off", palette) +
           rowText("reason", meaning->reason, palette) + furtherRows(known, palette);
}

Json statusJson(const DashBoardDispalyContents& line, const KnownBesides& besides) {
    const auto& [health, reports, ratings] = besides;
    const Meaning* const meaning = meaningOf(line.m_status);
    const auto known = [meaning](const Json& value) { return meaning != nullptr ? value : Json(nullptr); };
    Json json{{"status", meaning != nullptr ? meaning->word : "unknown"},
              {"code", static_cast<int>(line.m_status)},
              {"token", validUtf8(narrowed(line.m_displayText))}};
    json["managed"] = known(meaning != nullptr && meaning->isManaged);
    json["protection"] = known(meaning != nullptr && meaning->isProtected);
    json["reason"] = known(meaning != nullptr ? meaning->reason : "");
    json["rating_lists"] = ratings.lists.size();
    json["rated_hosts"] = hostsIn(ratings);
    json["ratings_error"] = ratings.isReachable ? Json(nullptr) : Json(validUtf8(ratings.because));
    json["health"] = validUtf8(health.state);
    json["health_since"] = health.since.empty() ? Json(nullptr) : Json(validUtf8(health.since));
    json["health_error"] = health.error.empty() ? Json(nullptr) : Json(validUtf8(health.error));
    const auto count = [isKnown = reports.error.empty()](std::uint64_t number) {
        return isKnown ? Json(number) : Json(nullptr);
    };
    json["reports_waiting"] = count(reports.waiting);
    json["reports_refused"] = count(reports.refused);
    json["reports_damaged"] = count(reports.damaged);
    json["reports_error"] = reports.error.empty() ? Json(nullptr) : Json(validUtf8(reports.error));
    return json;
}

std::string aboutText(const AboutBoxData& data, const Palette& palette) {
    return rowText("version", itemText(data, L"Sentrel_Version"), palette) +
           rowText("service-pack", itemText(data, L"Sentrel_SPVersion"), palette) +
           rowText("hotfixes", itemText(data, L"Sentrel_HF"), palette);
}

Json aboutJson(const AboutBoxData& data) {
    return Json{{"module", data.m_moduleId},
                {"version", itemJson(data, L"Sentrel_Version")},
                {"service_pack", itemJson(data, L"Sentrel_SPVersion")},
                {"hotfixes", itemJson(data, L"Sentrel_HF")}};
}

} // namespace Sentrel::ctl
