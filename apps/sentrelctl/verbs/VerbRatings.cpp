// sentrelctl ratings: the lists of rated sites of this machine.
//
// What must stay so:
// - Files are read and written here, by the rights of who calls: root alone may write the directory, everybody may ask.
//   Neither hub nor daemon takes part.
// - Bad lines are told on standard error with their numbers, never with their bytes: who may read the file is not
//   everybody who sees the message.
// - What is shown of a site is what programs that decide on pages get, by the same library.
#include "apps/sentrelctl/Verbs.h"
#include "apps/sentrelctl/terminal/Failure.h"
#include "apps/sentrelctl/terminal/Progress.h"
#include "apps/sentrelctl/terminal/Times.h"
#include "base/Paths.h"
#include "base/PrintableText.h"
#include "browser/ratings/ListStore.h"
#include "browser/ratings/RatingLists.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <memory>
#include <system_error>

namespace Sentrel::ctl {
namespace {

using ratings::ListFacts;
using ratings::ListReport;
using ratings::ListStore;
using text::printable;
using text::validUtf8;

constexpr const char* kNextStep = "'sentrelctl ratings list' shows what is there";

struct RatingOptions {
    std::string name;
    std::string file;
    std::string url;
    std::string format;
    std::int32_t rating = 0;
    std::vector<std::string> categories;
    bool isPhishing = false;
    std::string source;
    std::string licence;
};

/// What @p work gives, with its failures as the user reads them.
template <class Work>
auto withStore(const char* what, const std::string& where, const Work& work) {
    ListStore store(paths::ratingsDirectory());
    try {
        return work(store);
    } catch (const ratings::UnusableList& error) {
        throw Failure(ExitCode::Failed, what, where, printable(error.what()), kNextStep);
    } catch (const std::system_error& error) {
        const int code = error.code().value();
        const bool isRefused = code == EACCES || code == EPERM;
        throw Failure(isRefused ? ExitCode::NoAccess : ExitCode::Failed, what, "", printable(error.what()),
                      isRefused ? "Rating lists are changed by root" : "");
    }
}

std::string ratingWords(std::int32_t rating) {
    return fmt::format("{} {}", rating, NPlgHelper::GetRatingStr(rating));
}

std::string dateOf(const ListFacts& facts) {
    constexpr std::int64_t microseconds = 1'000'000;
    return utcTime(facts.date.time_since_epoch().count() * microseconds);
}

std::string joined(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) {
        text += (text.empty() ? "" : ", ") + printable(word);
    }
    return text;
}

Json validTexts(const std::vector<std::string>& texts) {
    Json list = Json::array();
    for (const std::string& each : texts) {
        list.push_back(validUtf8(each));
    }
    return list;
}

Json factsJson(const ListFacts& facts) {
    return Json{{"name", validUtf8(facts.name)},
                {"source", validUtf8(facts.source)},
                {"licence", validUtf8(facts.licence)},
                {"date", dateOf(facts)},
                {"count", facts.count},
                {"rating", facts.rating},
                {"categories", validTexts(facts.categories)},
                {"phishing", facts.isPhishing}};
}

void tellBadLines(Output& err, const std::string& file, const ListReport& report) {
    std::string text;
    for (const ratings::BadLine& bad : report.firstBad) {
        text += fmt::format("sentrelctl: {}: line {} {}.\n", printable(file), bad.number, bad.fault);
    }
    if (report.bad > report.firstBad.size()) {
        text += fmt::format("sentrelctl: {}: and {} bad lines more.\n", printable(file),
                            report.bad - report.firstBad.size());
    }
    err.write(text);
}

std::string reportText(const char* done, const ListReport& report) {
    return fmt::format("{} {}: {} hosts, rating {}; {} lines passed over, {} bad.\n", done,
                       printable(report.facts.name), report.facts.count, ratingWords(report.facts.rating),
                       report.passedOver, report.bad);
}

Json reportJson(const ListReport& report) {
    Json json = factsJson(report.facts);
    Json lines = Json::array();
    for (const ratings::BadLine& bad : report.firstBad) {
        lines.push_back(Json{{"line", bad.number}, {"why", bad.fault}});
    }
    json["passed_over"] = report.passedOver;
    json["bad"] = report.bad;
    json["bad_lines"] = std::move(lines);
    return json;
}

/// Whether ratings can be had, in words.
std::string reachText(const ratings::RatingStatus& status) {
    return status.because.empty() ? "Ratings can be had.\n"
           : status.isReachable   ? fmt::format("Nobody rates sites here: {}.\n", status.because)
                                  : fmt::format("Ratings cannot be had: {}.\n", status.because);
}

/// Says it when what is there now does not rate.
std::string unreachableText() {
    const ratings::RatingStatus status = ratings::RatingLists(paths::ratingDatabase()).status();
    return status.because.empty() ? "" : reachText(status);
}

[[noreturn]] void refuse(const std::string& why, const char* nextStep) {
    throw Failure(ExitCode::BadUsage, "bad usage", "", why, nextStep);
}

ratings::ListHead headIn(const RatingOptions& options) {
    constexpr std::size_t longest = 1000; // bytes
    constexpr std::size_t mostCategories = 32;
    const auto format = ratings::formatNamed(options.format);
    if (!format) {
        refuse(fmt::format("'{}' is no format", printable(options.format)),
               "There are hosts, domains, rpz and adblock");
    }
    if (!ratings::isListName(options.name)) {
        refuse("a list cannot be called so", "Give letters, digits, '-', '_' and '.', at most 64, no '.' or '-' first");
    }
    std::vector<std::string> texts = options.categories;
    texts.insert(texts.end(), {options.source, options.licence});
    const auto isLong = [](const std::string& each) { return each.size() > longest; };
    if (std::any_of(texts.begin(), texts.end(), isLong) || options.categories.size() > mostCategories) {
        refuse("a text has more than 1000 bytes, or there are more than 32 categories", "Give less");
    }
    ratings::ListHead head;
    head.facts.name = options.name;
    head.facts.source = validUtf8(options.source);
    head.facts.licence = validUtf8(options.licence);
    head.facts.rating = options.rating;
    for (const std::string& category : options.categories) {
        head.facts.categories.push_back(validUtf8(category));
    }
    head.facts.isPhishing = options.isPhishing;
    head.format = *format;
    head.file = options.file == "-" ? "" : options.file;
    return head;
}

void importRatings(Session& session, const RatingOptions& options) {
    const std::string file = options.file == "-" ? "standard input" : options.file;
    const ratings::ListHead head = headIn(options);
    const ListReport report = withStore("nothing was imported", file, [&](ListStore& store) {
        const Progress progress(session.err, "Importing");
        return store.import(head, session.inputFd);
    });
    tellBadLines(session.err, file, report);
    session.out.write(session.json == JsonMode::Off ? reportText("Imported", report) + unreachableText()
                                                    : jsonText(reportJson(report), session.json));
}

std::string listText(const ratings::RatingStatus& status) {
    std::string text;
    for (const ListFacts& facts : status.lists) {
        text += fmt::format("{:<16} {:<17} {:>9} hosts  {:.10}  {}{}{}{}\n", printable(facts.name),
                            ratingWords(facts.rating), facts.count, dateOf(facts), facts.isPhishing ? "phishing  " : "",
                            facts.categories.empty() ? "" : joined(facts.categories) + "  ", printable(facts.source),
                            facts.licence.empty() ? "" : " (" + printable(facts.licence) + ")");
        text.erase(text.find_last_not_of(" \n") + 1);
        text += '\n';
    }
    return text + reachText(status);
}

void listRatings(Session& session) {
    const ratings::RatingStatus status = ratings::RatingLists(paths::ratingDatabase()).status();
    Json lists = Json::array();
    for (const ListFacts& facts : status.lists) {
        lists.push_back(factsJson(facts));
    }
    const Json json{{"reachable", status.isReachable}, {"because", validUtf8(status.because)}, {"lists", lists}};
    session.out.write(session.json == JsonMode::Off ? listText(status) : jsonText(json, session.json));
}

/// A page of the site; a host alone stands for one.
browsing::WebUrl pageMeant(const std::string& typed) {
    const auto reading = browsing::parseWebUrl(browsing::hasScheme(typed) ? typed : "http://" + typed);
    if (const auto* const fault = std::get_if<browsing::UrlFault>(&reading)) {
        throw Failure(ExitCode::BadUsage, "not an address", printable(typed), browsing::faultText(*fault),
                      "Give a host, or an address as a browser shows it");
    }
    return std::get<browsing::WebUrl>(reading);
}

std::vector<std::string> namesOf(const ratings::RatingLists& lists, const browsing::WebUrl& page) {
    const ratings::RatingDatabase* const database = lists.database();
    const ratings::SiteRating* const found = database == nullptr ? nullptr : database->find(page);
    std::vector<std::string> names;
    for (const std::size_t place : found == nullptr ? ratings::ListPlaces() : database->listsOf(*found)) {
        names.push_back(database->lists()[place].name);
    }
    return names;
}

void showRating(Session& session, const RatingOptions& options) {
    const browsing::WebUrl page = pageMeant(options.url);
    const ratings::RatingLists lists(paths::ratingDatabase());
    const ratings::SiteRating site = lists.rate(page);
    const std::vector<std::string> names = namesOf(lists, page);
    std::vector<std::string> categories;
    for (const browsing::SiteCategory& category : site.standing.categories) {
        categories.push_back(category.name);
    }
    const std::string because = lists.status().because;
    if (session.json != JsonMode::Off) {
        const Json by = site.ratedBy.empty() ? Json(nullptr) : Json(validUtf8(site.ratedBy));
        session.out.write(jsonText(Json{{"host", validUtf8(page.host)},
                                        {"rating", site.standing.rating},
                                        {"rating_name", NPlgHelper::GetRatingStr(site.standing.rating)},
                                        {"rated_by", by},
                                        {"categories", validTexts(categories)},
                                        {"phishing", site.standing.isPhishing},
                                        {"lists", validTexts(names)},
                                        {"reachable", site.standing.isReachable},
                                        {"because", validUtf8(because)}},
                                   session.json));
        return;
    }
    const auto orNone = [](const std::string& words) { return words.empty() ? "none" : words; };
    session.out.write(
        fmt::format("{}\n  rating         {}{}\n  categories     {}\n  phishing       {}\n  lists          "
                    "{}\n  reachable      {}\n",
                    printable(page.host), ratingWords(site.standing.rating),
                    site.ratedBy.empty() ? "" : ", by " + printable(site.ratedBy), orNone(joined(categories)),
                    site.standing.isPhishing ? "yes" : "no", orNone(joined(names)),
                    site.standing.isReachable ? "yes" : "no: " + because));
}

void updateRatings(Session& session, const RatingOptions& options) {
    const std::vector<ratings::UpdateReport> reports =
        withStore("nothing was updated", options.name, [&](ListStore& store) {
            const Progress progress(session.err, "Updating");
            return store.update(options.name);
        });
    Json json = Json::array();
    std::string text;
    std::size_t failed = 0;
    for (const ratings::UpdateReport& each : reports) {
        failed += each.report ? 0U : 1U;
        text += each.report ? reportText("Updated", *each.report)
                            : fmt::format("{} stays as it was: {}.\n", printable(each.name), printable(each.why));
        Json row = each.report ? reportJson(*each.report) : Json{{"name", validUtf8(each.name)}};
        row["error"] = each.report ? Json(nullptr) : Json(validUtf8(each.why));
        json.push_back(std::move(row));
        if (each.report) {
            tellBadLines(session.err, each.name, *each.report);
        }
    }
    session.out.write(session.json == JsonMode::Off ? text + unreachableText() : jsonText(json, session.json));
    if (failed > 0) {
        throw Failure(ExitCode::Failed, "not every rating list was updated", "",
                      fmt::format("{} of {} failed", failed, reports.size()), "The others are in force");
    }
}

void removeRatings(Session& session, const RatingOptions& options) {
    const bool wasThere =
        withStore("nothing was removed", options.name, [&](ListStore& store) { return store.remove(options.name); });
    if (!wasThere) {
        throw Failure(ExitCode::Failed, "nothing was removed", printable(options.name), "there is no such list",
                      kNextStep);
    }
    session.out.write(session.json == JsonMode::Off
                          ? fmt::format("Removed {}.\n", printable(options.name)) + unreachableText()
                          : jsonText(Json{{"removed", validUtf8(options.name)}}, session.json));
}

Work describeRatingImport(OptionSet& set, Session& session) {
    constexpr std::int64_t lowest = -100;
    constexpr std::int64_t highest = 100;
    const auto options = std::make_shared<RatingOptions>();
    set.add("name", options->name, "What the list is called; one of that name is replaced").required().shownAs("NAME");
    set.add("file", options->file, "The file; -: standard input").required().shownAs("FILE|-");
    set.add("--format", options->format, "hosts, domains, rpz or adblock").required().shownAs("FORMAT");
    set.add("--rating", options->rating, "The rating of its sites; -100: it gives none")
        .required()
        .between(lowest, highest)
        .shownAs("N");
    set.add("--category", options->categories, "A content category that its sites are in; may stand more than once")
        .shownAs("NAME");
    set.addFlag("--phishing", options->isPhishing, "Its sites are phishing sites");
    set.add("--source", options->source, "Where the list comes from").shownAs("TEXT");
    set.add("--licence", options->licence, "Under which licence it is").shownAs("TEXT");
    return [options, &session] { importRatings(session, *options); };
}

Work describeRatingList(OptionSet& /*set*/, Session& session) {
    return [&session] { listRatings(session); };
}

Work describeRatingShow(OptionSet& set, Session& session) {
    const auto options = std::make_shared<RatingOptions>();
    set.add("url", options->url, "A page's address, or a host").required().shownAs("URL");
    return [options, &session] { showRating(session, *options); };
}

Work describeRatingUpdate(OptionSet& set, Session& session) {
    const auto options = std::make_shared<RatingOptions>();
    set.add("name", options->name, "The list; without it: all").shownAs("[NAME]");
    return [options, &session] { updateRatings(session, *options); };
}

Work describeRatingRemove(OptionSet& set, Session& session) {
    const auto options = std::make_shared<RatingOptions>();
    set.add("name", options->name, "The list").required().shownAs("NAME");
    return [options, &session] { removeRatings(session, *options); };
}

} // namespace

Verbs ratingVerbs() {
    static constexpr std::array<Verb, 5> verbs{{
        {"ratings", "import", "Takes in a list of sites with one rating.",
         "  sentrelctl ratings import ads easylist.txt --format adblock --rating 30 --category Ads\n"
         "  sentrelctl ratings import phish phishing.txt --format domains --rating 80 --phishing",
         describeRatingImport},
        {"ratings", "list", "Shows the rating lists, and whether ratings can be had.", "  sentrelctl ratings list",
         describeRatingList},
        {"ratings", "show", "Shows what the lists say of a site.", "  sentrelctl ratings show https://site.example/",
         describeRatingShow},
        {"ratings", "update", "Imports the lists anew from the files that they came from.",
         "  sentrelctl ratings update", describeRatingUpdate},
        {"ratings", "remove", "Takes a list out.", "  sentrelctl ratings remove ads", describeRatingRemove},
    }};
    return verbs;
}

} // namespace Sentrel::ctl
