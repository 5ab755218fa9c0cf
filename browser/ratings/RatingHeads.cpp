#include "browser/ratings/RatingHeads.h"

#include "base/PrintableText.h"
#include "platform/hvbagent/DocumentError.h"
#include "platform/hvbagent/StrictJson.h"

#include <algorithm>
#include <limits>
#include <nlohmann/json.hpp>

namespace Sentrel::ratings {
namespace {

using nlohmann::json;

constexpr int kForm = 1; // of both texts; a later one is refused
constexpr HVBEnterprise::agent::JsonBounds kBounds{std::size_t{16} << 20U, 4, 4'000'000};
constexpr std::size_t kMaxClasses = std::numeric_limits<std::uint16_t>::max();

json jsonOf(const ListFacts& facts) {
    return {{"name", text::validUtf8(facts.name)},
            {"source", text::validUtf8(facts.source)},
            {"licence", text::validUtf8(facts.licence)},
            {"date", facts.date.time_since_epoch().count()},
            {"count", facts.count},
            {"rating", facts.rating},
            {"categories", facts.categories},
            {"phishing", facts.isPhishing}};
}

/// A date by which ages can be reckoned in any unit. @throws UnusableList for another one.
std::chrono::sys_seconds dateIn(const json& value) {
    const bool isUsable = value.is_number_integer() && value >= 0 && value <= kLatestDate.time_since_epoch().count();
    if (!isUsable) {
        throw UnusableList("it is damaged: its date is none");
    }
    return std::chrono::sys_seconds(std::chrono::seconds(value.get<std::int64_t>()));
}

ListFacts factsIn(const json& value) {
    return {.name = value.at("name").get<std::string>(),
            .source = value.at("source").get<std::string>(),
            .licence = value.at("licence").get<std::string>(),
            .date = dateIn(value.at("date")),
            .count = value.at("count").get<std::uint64_t>(),
            .rating = value.at("rating").get<std::int32_t>(),
            .categories = value.at("categories").get<std::vector<std::string>>(),
            .isPhishing = value.at("phishing").get<bool>()};
}

/// What @p read makes of the text, with every failure as the one kind.
template <class Read>
auto readJson(std::string_view text, const Read& read) {
    try {
        const json value = HVBEnterprise::agent::readStrictJson(text, kBounds);
        if (value.at("form").get<int>() != kForm) {
            throw UnusableList("it was made by another version");
        }
        return read(value);
    } catch (const HVBEnterprise::agent::DocumentError&) {
        throw UnusableList("it is damaged: its head is no JSON");
    } catch (const json::exception&) {
        throw UnusableList("it is damaged: its head lacks a member");
    }
}

/// Whether the classes are what a database of so many lists can have.
bool areUsable(const DatabaseHead& head) {
    const auto isUsable = [&head](const ListPlaces& places) {
        return places.size() <= head.lists.size() &&
               std::all_of(places.begin(), places.end(), [&head](std::size_t at) { return at < head.lists.size(); });
    };
    return head.lists.size() <= kMaxLists && !head.classes.empty() && head.classes.size() <= kMaxClasses &&
           head.classes.front().empty() && std::all_of(head.classes.begin(), head.classes.end(), isUsable);
}

} // namespace

std::string textOf(const ListHead& head) {
    json value = jsonOf(head.facts);
    value["form"] = kForm;
    value["format"] = nameOfFormat(head.format);
    value["file"] = text::validUtf8(head.file);
    return value.dump();
}

std::string textOf(const DatabaseHead& head) {
    json lists = json::array();
    for (const ListFacts& facts : head.lists) {
        lists.push_back(jsonOf(facts));
    }
    return json{{"form", kForm}, {"key", head.key}, {"lists", lists}, {"classes", head.classes}}.dump();
}

ListHead readListHead(std::string_view text) {
    return readJson(text, [](const json& value) {
        const auto format = formatNamed(value.at("format").get<std::string>());
        if (!format) {
            throw UnusableList("it is damaged: it has no format");
        }
        return ListHead{factsIn(value), *format, value.at("file").get<std::string>()};
    });
}

DatabaseHead readDatabaseHead(std::string_view text) {
    return readJson(text, [](const json& value) {
        DatabaseHead head{value.at("key").get<NameKey>(), {}, value.at("classes").get<std::vector<ListPlaces>>()};
        for (const json& facts : value.at("lists")) {
            head.lists.push_back(factsIn(facts));
        }
        if (!areUsable(head)) {
            throw UnusableList("it is damaged: its classes are none");
        }
        return head;
    });
}

SiteRating ratingBy(const std::vector<ListFacts>& lists, const ListPlaces& places) {
    SiteRating result;
    for (const std::size_t place : places) {
        const ListFacts& list = lists.at(place);
        if (result.ratedBy.empty() || list.rating > result.standing.rating) {
            result.standing.rating = list.rating;
            result.ratedBy = list.name;
        }
        for (const std::string& name : list.categories) {
            auto& categories = result.standing.categories;
            if (std::none_of(categories.begin(), categories.end(),
                             [&](const auto& each) { return each.name == name; })) {
                categories.push_back({name, 0});
            }
        }
        result.standing.isPhishing = result.standing.isPhishing || list.isPhishing;
    }
    return result;
}

} // namespace Sentrel::ratings
