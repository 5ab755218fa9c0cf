#include "apps/sentrelctl/preferences/PreferenceLayout.h"

#include "base/PrintableText.h"

#include <algorithm>
#include <fmt/format.h>
#include <iterator>

namespace Sentrel::ctl {

using Sentrel::text::printable;
using Sentrel::text::validUtf8;
namespace {

constexpr std::size_t kMaxChangedLines = 20; // a list that was replaced must not bury the rest

std::string categoriesText(std::size_t count) {
    return fmt::format("{} {}", count, count == 1 ? "category" : "categories");
}

/// What is in @p all and not in @p others. Both are sorted.
template <class List>
List without(const List& all, const List& others) {
    List rest;
    std::set_difference(all.begin(), all.end(), others.begin(), others.end(), std::back_inserter(rest));
    return rest;
}

template <class List>
List sorted(List list) {
    std::sort(list.begin(), list.end());
    return list;
}

std::string shownLine(const ListEntry& entry) {
    return printable(listLine(entry));
}
std::string shownLine(const std::string& name) {
    return printable(name);
}
Json shownJson(const ListEntry& entry) {
    return entryJson(entry);
}
Json shownJson(const std::string& name) {
    return Json(validUtf8(name));
}

template <class List>
Json listJson(const List& list) {
    Json json = Json::array();
    for (const auto& each : list) {
        json.push_back(shownJson(each));
    }
    return json;
}

template <class List>
std::string changedLines(const char* sign, const List& list) {
    std::string text;
    for (std::size_t i = 0; i < std::min(list.size(), kMaxChangedLines); ++i) {
        text += fmt::format("    {} {}\n", sign, shownLine(list[i]));
    }
    if (list.size() > kMaxChangedLines) {
        text += fmt::format("    {} … and {} more\n", sign, list.size() - kMaxChangedLines);
    }
    return text;
}

template <class List>
void addListChange(std::vector<Change>& changes, const char* name, const List& before, const List& after) {
    const List removed = without(sorted(before), sorted(after));
    const List added = without(sorted(after), sorted(before));
    if (removed.empty() && added.empty()) {
        return;
    }
    changes.push_back({fmt::format("  {}\n", name) + changedLines("-", removed) + changedLines("+", added),
                       Json{{"name", name}, {"removed", listJson(removed)}, {"added", listJson(added)}}});
}

} // namespace

std::string rowText(std::string_view name, const std::string& value, const Palette& palette) {
    return fmt::format("{}{:<18}{} {}\n", palette.strong, name, palette.plain, value);
}

std::string snapshotText(const Snapshot& snapshot, const Palette& palette) {
    std::string text;
    for (const Preference& preference : allPreferences()) {
        text += rowText(preference.name, valueText(snapshot.values, preference), palette);
    }
    text += rowText("list", countText(snapshot.list), palette);
    return text + rowText("categories", categoriesText(snapshot.values.m_categoryBlockDetails.size()), palette);
}

Json snapshotJson(const Snapshot& snapshot) {
    Json json = Json::object();
    for (const Preference& preference : allPreferences()) {
        json[std::string(preference.jsonName)] = valueJson(snapshot.values, preference);
    }
    json["list"] = listJson(snapshot.list);
    json["categories"] = namesJson(categoryNames(snapshot.values));
    return json;
}

std::vector<std::string> categoryNames(const STPreferences& values) {
    std::vector<std::string> names;
    for (const auto& [name, action] : values.m_categoryBlockDetails) {
        names.push_back(name);
    }
    return names;
}

Json namesJson(const std::vector<std::string>& names) {
    return listJson(names);
}

std::vector<Change> changesBetween(const Snapshot& before, const Snapshot& after) {
    std::vector<Change> changes;
    for (const Preference& preference : allPreferences()) {
        const std::string old = valueText(before.values, preference);
        const std::string now = valueText(after.values, preference);
        if (old != now) {
            changes.push_back({fmt::format("  {:<18} {} -> {}\n", preference.name, old, now),
                               Json{{"name", preference.jsonName},
                                    {"before", valueJson(before.values, preference)},
                                    {"after", valueJson(after.values, preference)}}});
        }
    }
    addListChange(changes, "list", before.list, after.list);
    addListChange(changes, "categories", categoryNames(before.values), categoryNames(after.values));
    return changes;
}

} // namespace Sentrel::ctl
