// sentrelctl check: what would happen to a page, and why.
//
// What must stay so:
// - Settings and ratings are those that browsers are told, by the same libraries, so that the answer is the browser's.
// - One option that says something of the site is all that is known of it; lists and options are never mixed.
#include "apps/sentrelctl/Verbs.h"
#include "apps/sentrelctl/decisions/DecisionLayout.h"
#include "apps/sentrelctl/preferences/StoredSettings.h"
#include "apps/sentrelctl/terminal/Failure.h"
#include "apps/sentrelctl/terminal/Input.h"
#include "base/Paths.h"
#include "base/PrintableText.h"
#include "browser/ratings/RatingLists.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <memory>
#include <sstream>

namespace Sentrel::ctl {
namespace {

constexpr const char* kChecking = "cannot check the page";

struct PageCheckOptions {
    std::string url;
    std::string file; ///< with addresses, in place of one
    std::int32_t rating = browsing::kNoRating;
    std::vector<std::string> categories;
    bool isPhishing = false;
    bool isUnreachable = false;
    bool isSaid = false; ///< one of these four, so that they are what is known of the site
    double timeout = kDefaultTimeout;
};

/// What is said of the site on the command line.
ratings::SiteRating ratingIn(const PageCheckOptions& options) {
    browsing::SiteStanding standing{.rating = options.rating,
                                    .categories = {},
                                    .isPhishing = options.isPhishing,
                                    .isReachable = !options.isUnreachable};
    for (const std::string& name : options.categories) {
        standing.categories.push_back({name, 0});
    }
    return {standing, ""};
}

/// What browsers are told of the page's site.
ratings::SiteRating ratingOfThisMachine(const ratings::RatingLists& lists, const std::string& url) {
    const auto reading = browsing::parseWebUrl(url);
    const auto* const page = std::get_if<browsing::WebUrl>(&reading);
    ratings::SiteRating rating;
    rating.standing.isReachable = lists.status().isReachable;
    return page == nullptr ? rating : lists.rate(*page);
}

/// Knows what is known of each page's site.
/// Threads: one. Owner: the verb.
class Rater {
public:
    explicit Rater(const PageCheckOptions& options) : m_lists(paths::ratingDatabase()), m_options(options) {}

    ratings::SiteRating rate(const std::string& url) const {
        return m_options.isSaid ? ratingIn(m_options) : ratingOfThisMachine(m_lists, url);
    }

private:
    const ratings::RatingLists m_lists;
    const PageCheckOptions& m_options;
};

/// The settings that browsers are told, which are the stored ones.
settings::SettingsSnapshot settingsOfThisMachine(double timeout) {
    settings::SettingsSnapshot stored = freshSettings(timeout, kChecking);
    if (stored.state == settings::SnapshotState::None) {
        throw Failure(ExitCode::Failed, kChecking, paths::settingsFile(), stored.reason,
                      "'sentrelctl doctor' looks at the settings file");
    }
    return stored;
}

void refuseWithoutScheme(const std::string& url, const std::string& place) {
    const auto reading = browsing::parseWebUrl(url);
    const auto* const fault = std::get_if<browsing::UrlFault>(&reading);
    if (fault != nullptr && *fault == browsing::UrlFault::NoScheme) {
        constexpr std::size_t longest = 200;
        throw Failure(ExitCode::BadUsage, "not an address", place + text::shortened(text::validUtf8(url), longest),
                      browsing::faultText(*fault), "Give it whole, as a browser shows it");
    }
}

/// The addresses in a file, one a line. Empty lines do not count.
std::vector<std::string> addressesIn(const std::string& file, int inputFd) {
    constexpr std::size_t mostBytes = std::size_t{64} << 20U;
    std::istringstream lines(contentOf(file, inputFd, mostBytes));
    std::vector<std::string> addresses;
    std::string line;
    for (std::size_t number = 1; std::getline(lines, line); ++number) {
        if (!line.empty()) {
            refuseWithoutScheme(line, fmt::format("{}, line {}: ", file, number));
            addresses.push_back(line);
        }
    }
    return addresses;
}

void checkPage(Session& session, const PageCheckOptions& options) {
    refuseWithoutScheme(options.url, "");
    const ratings::SiteRating rating = Rater(options).rate(options.url);
    const settings::SettingsSnapshot stored = settingsOfThisMachine(options.timeout);
    const browsing::PageRules rules(stored);
    const browsing::PageDecision decision = rules.decide(options.url, rating.standing);
    const ExplainedDecision explained{rules, rating.standing, decision, stored.policy, rating.ratedBy};
    session.out.write(session.json == JsonMode::Off ? decisionText(explained, session.palette)
                                                    : jsonText(decisionJson(explained), session.json));
}

/// A line each, or a list of what checkPage shows.
void checkPages(Session& session, const PageCheckOptions& options) {
    const std::vector<std::string> addresses = addressesIn(options.file, session.inputFd);
    const Rater rater(options);
    const settings::SettingsSnapshot stored = settingsOfThisMachine(options.timeout);
    const browsing::PageRules rules(stored);
    Json list = Json::array();
    for (const std::string& address : addresses) {
        const ratings::SiteRating rating = rater.rate(address);
        const browsing::PageDecision decision = rules.decide(address, rating.standing);
        const ExplainedDecision explained{rules, rating.standing, decision, stored.policy, rating.ratedBy};
        if (session.json == JsonMode::Off) {
            session.out.write(decisionLine(decision, session.palette));
        } else {
            list.push_back(decisionJson(explained));
        }
    }
    if (session.json != JsonMode::Off) {
        session.out.write(jsonText(list, session.json));
    }
}

Work describePageCheck(OptionSet& set, Session& session) {
    const auto options = std::make_shared<PageCheckOptions>();
    const Option url = set.add("url", options->url, "The page's address").shownAs("URL");
    const Option from = set.add("--from", options->file, "Checks the addresses in this file, one a line; - reads input")
                            .shownAs("FILE")
                            .excludes(url);
    const std::array said{
        set.add("--rating", options->rating, "The site's rating; -100 when it has none").shownAs("N"),
        set.add("--category", options->categories, "A content category that the site is in; may stand more than once")
            .shownAs("NAME"),
        set.addFlag("--phishing", options->isPhishing, "It is a phishing page"),
        set.addFlag("--unreachable", options->isUnreachable, "Nobody can be asked for ratings"),
    };
    set.addTimeout(options->timeout);
    return [options, url, from, said, &session] {
        options->isSaid = std::any_of(said.begin(), said.end(), [](const Option& each) { return each.isGiven(); });
        if (from.isGiven()) {
            checkPages(session, *options);
        } else if (url.isGiven()) {
            checkPage(session, *options);
        } else {
            throw Failure(ExitCode::BadUsage, "nothing to check", "", "no address was given",
                          "Give one, or a file of them with --from");
        }
    };
}

} // namespace

Verbs checkVerbs() {
    static constexpr std::array<Verb, 1> verbs{{
        {"", "check",
         "Shows what would happen to a page, step by step, and which setting or entry decides. What is known of its "
         "site comes from the rating lists, or from the options when one is given. Nothing is opened, nothing is "
         "reported.",
         "  sentrelctl check https://site.example/page\n  sentrelctl check https://site.example/ --rating 60 "
         "--category Games",
         describePageCheck},
    }};
    return verbs;
}

} // namespace Sentrel::ctl
