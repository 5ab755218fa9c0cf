// A decision on a page, as people and as programs read it.
//
// What must stay so:
// - The words are of what the decision has. Nothing is decided here, so that what is shown is what a browser would do.
// - A stage behind the one that decided was not looked at, and has no row.
// - The words of a stage, an action and of reporting are fields of the JSON: they are added to, never changed.
#include "apps/sentrelctl/decisions/DecisionLayout.h"

#include "apps/sentrelctl/preferences/StoredSettings.h"
#include "apps/sentrelctl/preferences/UrlList.h"
#include "base/PrintableText.h"

#include <array>
#include <fmt/format.h>

namespace Sentrel::ctl {
namespace {

using browsing::PageAction;
using browsing::PageDecision;
using browsing::PageRules;
using browsing::Reporting;
using browsing::SiteList;
using browsing::Stage;
using text::printable;
using text::validUtf8;

const char* stageWord(Stage stage) {
    static constexpr std::array words{"address",      "protection", "list",     "private range",
                                      "reachability", "category",   "phishing", "rating"};
    return words.at(static_cast<std::size_t>(stage));
}

const char* pageActionWord(PageAction action) {
    return action == PageAction::Block ? "block" : action == PageAction::Warn ? "warn" : "allow";
}

const char* reportingWord(Reporting reporting) {
    switch (reporting) {
    case Reporting::AtOnce:
        return "at once";
    case Reporting::WhenAnswered:
        return "once the user has answered";
    case Reporting::Never:
        break;
    }
    return "never";
}

/// The name by which sentrelctl knows a row of the settings file.
std::string settingName(std::string_view key) {
    for (const StoredPreference& preference : storedPreferences()) {
        if (preference.key == key) {
            return std::string(preference.name);
        }
    }
    return std::string(key);
}

ListEntry entryAt(const PageRules& rules, std::size_t place) {
    const settings::ListEntry& entry = rules.entries()[place];
    return {entry.name, entry.value};
}

std::string entryWords(const PageRules& rules, std::size_t place) {
    const ListEntry entry = entryAt(rules, place);
    return fmt::format("{} {}", actionWord(entry.action), printable(entry.url));
}

std::string addressWords(const ExplainedDecision& explained) {
    return explained.decision.fault ? browsing::faultText(*explained.decision.fault) : "one of the web";
}

std::string listWords(const ExplainedDecision& explained) {
    const PageDecision& decision = explained.decision;
    const std::size_t unreadable = explained.rules.list().unreadable().size();
    std::string words = decision.entry == SiteList::kNone
                            ? fmt::format("none of {} entries names the page", explained.rules.entries().size())
                            : "the entry " + entryWords(explained.rules, decision.entry);
    if (decision.overruled != SiteList::kNone) {
        words +=
            fmt::format("; it wins over {}, as allow-over-block is {}", entryWords(explained.rules, decision.overruled),
                        explained.rules.allowsFirst() ? "on" : "off");
    }
    return unreadable == 0 ? words : fmt::format("{}; {} can name no page, being no address", words, unreadable);
}

std::string rangeWords(const ExplainedDecision& explained) {
    return explained.decision.range == browsing::PrivateRanges::kNone
               ? fmt::format("the host is in none of {}", explained.rules.ranges().size())
               : "the host is in " + printable(explained.rules.ranges()[explained.decision.range]);
}

std::string categoryWords(const ExplainedDecision& explained) {
    if (explained.decision.category) {
        return explained.decision.category->name.empty() ? "the site is in none, and block-uncategorised is on"
                                                         : printable(explained.decision.category->name) + " is blocked";
    }
    if (!explained.rules.blocksCategories()) {
        return "category-blocking is off";
    }
    std::string words;
    for (const browsing::SiteCategory& category : explained.standing.categories) {
        words += (words.empty() ? "" : ", ") + printable(category.name);
    }
    return words.empty() ? "none is known of the site" : words + ": not blocked";
}

std::string switchWords(bool applies, const char* otherwise, const char* words, std::string_view setting,
                        bool decided) {
    return applies ? fmt::format("{}, and {} is {}", words, settingName(setting), decided ? "on" : "off") : otherwise;
}

std::string ratingWords(const ExplainedDecision& explained) {
    const std::int32_t rating = explained.decision.record.urlRating;
    const std::string name = NPlgHelper::GetRatingStr(rating) +
                             (explained.ratedBy.empty() ? "" : " by the list " + printable(explained.ratedBy));
    const std::string_view setting = browsing::settingOfRating(rating);
    return setting.empty() ? fmt::format("{} is {}, which is allowed", rating, name)
                           : fmt::format("{} is {}, and {} is {}", rating, name, settingName(setting),
                                         pageActionWord(explained.decision.action()));
}

std::string wordsOf(const ExplainedDecision& explained, const browsing::Step& step) {
    switch (step.stage) {
    case Stage::Address:
        return addressWords(explained);
    case Stage::Protection:
        return explained.rules.isProtecting() ? "on" : "off";
    case Stage::List:
        return listWords(explained);
    case Stage::PrivateRange:
        return rangeWords(explained);
    case Stage::Reachability:
        return switchWords(!explained.standing.isReachable, "ratings can be had", "nobody can rate the site",
                           "GenPolicyRPXUnReachableAction", step.decided);
    case Stage::Category:
        return categoryWords(explained);
    case Stage::Phishing:
        return switchWords(explained.standing.isPhishing, "no", "yes", "GenPolicyBlockPhishingAction", step.decided);
    case Stage::Rating:
        break;
    }
    return ratingWords(explained);
}

std::string rowOf(bool isMarked, const char* name, const std::string& words, const Palette& palette) {
    return fmt::format("{}{} {:<15}{}{}\n", isMarked ? palette.strong : "", isMarked ? '>' : ' ', name, words,
                       isMarked ? palette.plain : "");
}

Json entryOrNull(const PageRules& rules, std::size_t place) {
    return place == SiteList::kNone ? Json(nullptr) : entryJson(entryAt(rules, place));
}

Json stepsJson(const ExplainedDecision& explained) {
    Json steps = Json::array();
    for (const browsing::Step& step : explained.decision.steps) {
        steps.push_back(Json{{"stage", stageWord(step.stage)},
                             {"decided", step.decided},
                             {"text", validUtf8(wordsOf(explained, step))}});
    }
    return steps;
}

} // namespace

std::string_view ruledSetting(const PageDecision& decision) {
    switch (decision.decidedBy()) {
    case Stage::List:
        return "allow_block";
    case Stage::PrivateRange:
        return "private_ranges";
    default:
        return decision.setting;
    }
}

std::string decisionText(const ExplainedDecision& explained, const Palette& palette) {
    const PageDecision& decision = explained.decision;
    const char* color = decision.action() == PageAction::Allow ? palette.plain : palette.caution;
    std::string text =
        fmt::format("{}{}{}  {}\n", color, pageActionWord(decision.action()), palette.plain, printable(decision.url));
    for (const browsing::Step& step : decision.steps) {
        text += rowOf(step.decided, stageWord(step.stage), wordsOf(explained, step), palette);
    }
    if (decision.safeSearch) {
        text += rowOf(false, "safe search", "goes to " + printable(*decision.safeSearch), palette);
    }
    text += rowOf(false, "report", reportingWord(decision.reporting), palette);
    return text + rowOf(false, "policy", rulingOf(ruledSetting(decision), explained.policy).text, palette);
}

std::string decisionLine(const PageDecision& decision, const Palette& palette) {
    const char* color = decision.action() == PageAction::Allow ? palette.plain : palette.caution;
    return fmt::format("{}{:<5}{}  {:<13}  {}\n", color, pageActionWord(decision.action()), palette.plain,
                       stageWord(decision.decidedBy()), printable(decision.url));
}

Json decisionJson(const ExplainedDecision& explained) {
    const PageDecision& decision = explained.decision;
    const PageRules& rules = explained.rules;
    const auto textOrNull = [](bool isThere, const std::string& text) {
        return isThere ? Json(validUtf8(text)) : Json(nullptr);
    };
    const bool hasRange = decision.range != browsing::PrivateRanges::kNone;
    return Json{
        {"url", validUtf8(decision.url)},
        {"action", pageActionWord(decision.action())},
        {"decided_by", stageWord(decision.decidedBy())},
        {"setting", textOrNull(!decision.setting.empty(), settingName(decision.setting))},
        {"entry", entryOrNull(rules, decision.entry)},
        {"overruled", entryOrNull(rules, decision.overruled)},
        {"private_range", textOrNull(hasRange, hasRange ? rules.ranges()[decision.range] : "")},
        {"category", textOrNull(decision.category.has_value(), decision.category ? decision.category->name : "")},
        {"rating", decision.record.urlRating},
        {"rating_name", NPlgHelper::GetRatingStr(decision.record.urlRating)},
        {"rated_by", textOrNull(!explained.ratedBy.empty(), explained.ratedBy)},
        {"report", reportingWord(decision.reporting)},
        {"safe_search", textOrNull(decision.safeSearch.has_value(), decision.safeSearch.value_or(""))},
        {"unreadable_entries", rules.list().unreadable().size()},
        {"policy", rulingJson(rulingOf(ruledSetting(decision), explained.policy), explained.policy)},
        {"steps", stepsJson(explained)}};
}

} // namespace Sentrel::ctl
