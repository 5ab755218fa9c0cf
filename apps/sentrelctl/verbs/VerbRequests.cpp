// sentrelctl requests: what users ask for, and what is granted.
//
// hvbd keeps both, and makes and ends the entries of grants. Here an entry is made of a request's address, and what
// came of the grant is looked at as a browser would: an allow entry is of no use where a block entry wins.
//
// Who may read everybody's requests is the hub's to say: it is asked for all of them first, and for this user's own
// when it refuses.
#include "apps/sentrelctl/Verbs.h"
#include "apps/sentrelctl/preferences/ListChange.h"
#include "apps/sentrelctl/preferences/StoredSettings.h"
#include "apps/sentrelctl/requests/RequestLayout.h"
#include "apps/sentrelctl/terminal/Failure.h"
#include "apps/sentrelctl/terminal/Times.h"
#include "base/Paths.h"
#include "base/PrintableText.h"
#include "browser/decision/PageDecision.h"
#include "platform/hvbhelpers/HubProtocol.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <fmt/format.h>
#include <memory>

namespace Sentrel::ctl {
namespace {

using text::printable;
using text::validUtf8;

constexpr const char* kReadingRequests = "cannot read the requests";
constexpr const char* kGranting = "cannot grant the request";

struct RequestOptions {
    std::string url;
    std::string reason;
    std::uint64_t id = 0;
    std::string length;
    bool isAll = false;
    bool isHost = false;
    bool isPage = false;
    double timeout = kDefaultTimeout;
};

std::int64_t timeNow() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

/// Runs @p work on a connection to the hub. What the hub itself refuses has a text for the user.
template <class Work>
auto askHub(double timeout, const char* what, const Work& work) {
    try {
        const HVB::bus::BusPtr bus = HVB::bus::openBus(paths::hubSocket(), deadlineAfter(timeout));
        return work(*bus, deadlineAfter(timeout));
    } catch (const HVB::bus::CallError& error) {
        const std::string& name = error.name();
        if (name.starts_with("com.orvanta.hvb1.Error.")) {
            throw Failure(ExitCode::Failed, what, "", error.message(), "");
        }
        throw hubFailure(error, what);
    } catch (const HVB::HVBException& error) {
        throw hubFailure(error, what);
    }
}

/// Those of everybody, or of this user where the hub tells no more.
struct SeenRequests {
    std::vector<AccessRequest> requests;
    bool isOwn = false;
};

SeenRequests seenRequests(double timeout) {
    return askHub(timeout, kReadingRequests, [](sd_bus& bus, HVB::bus::Deadline deadline) -> SeenRequests {
        try {
            return {HVB::bus::readRequests(bus, deadline), false};
        } catch (const HVB::bus::CallError& error) {
            if (error.code() != -EACCES) {
                throw;
            }
            return {HVB::bus::readOwnRequests(bus, deadline), true};
        }
    });
}

AccessRequest requestOf(const std::vector<AccessRequest>& requests, std::uint64_t id, const char* what) {
    const auto found =
        std::find_if(requests.begin(), requests.end(), [id](const AccessRequest& each) { return each.id == id; });
    if (found == requests.end()) {
        throw Failure(ExitCode::Failed, what, fmt::format("request {}", id), "there is none",
                      "'sentrelctl requests list --all' tells which there are");
    }
    return *found;
}

void listRequests(Session& session, const RequestOptions& options) {
    SeenRequests seen = seenRequests(options.timeout);
    if (!options.isAll) {
        std::erase_if(seen.requests,
                      [](const AccessRequest& each) { return each.state != HVB::bus::RequestState::Open; });
    }
    const std::int64_t now = timeNow();
    if (session.json == JsonMode::Off) {
        session.out.write(requestsText(seen.requests, now, session.palette));
        return;
    }
    Json json = Json::array();
    for (const AccessRequest& request : seen.requests) {
        json.push_back(requestJson(request, now));
    }
    session.out.write(jsonText(json, session.json));
}

void showRequest(Session& session, const RequestOptions& options) {
    const AccessRequest request = requestOf(seenRequests(options.timeout).requests, options.id, kReadingRequests);
    const std::int64_t now = timeNow();
    session.out.write(session.json == JsonMode::Off ? requestText(request, now, session.palette)
                                                    : jsonText(requestJson(request, now), session.json));
}

void askForPage(Session& session, const RequestOptions& options) {
    const std::uint64_t id =
        askHub(options.timeout, "cannot ask for access", [&](sd_bus& bus, HVB::bus::Deadline deadline) {
            return HVB::bus::askForAccess(bus, options.url, options.reason, deadline);
        });
    session.out.write(
        session.json == JsonMode::Off
            ? fmt::format("Asked: request {}. 'sentrelctl requests show {}' tells what becomes of it.\n", id, id)
            : jsonText(Json{{"id", id}}, session.json));
}

/// The entry that a grant of this address makes.
std::string entryFor(const std::string& address, bool isPage) {
    const auto reading = browsing::parseWebUrl(address);
    const auto* const url = std::get_if<browsing::WebUrl>(&reading);
    if (url == nullptr) {
        throw Failure(ExitCode::Failed, kGranting, printable(address),
                      browsing::faultText(std::get<browsing::UrlFault>(reading)),
                      "No entry can name it: deny the request");
    }
    std::string entry = isPage ? url->text() : url->host;
    if (entry.size() > HVB::bus::kMaxGrantEntryBytes) {
        throw Failure(ExitCode::Failed, kGranting, "", "its address is too long for an entry", "Use --host");
    }
    return entry;
}

std::uint64_t secondsOf(const std::string& length) {
    if (length.empty()) {
        return 0;
    }
    const std::optional<std::int64_t> seconds = durationMeant(length);
    if (!seconds || *seconds < 1 || std::cmp_greater(*seconds, HVB::bus::kMaxGrantSeconds)) {
        throw Failure(ExitCode::BadUsage, "no length of time", validUtf8(length), "it is not between 1s and ten years",
                      "Give it as 30min, 1h, 1d or 2w; without --for it is for good");
    }
    return static_cast<std::uint64_t>(*seconds);
}

/// What keeps a grant from having its effect.
struct Obstacles {
    std::string blocker;            ///< a block entry that wins over it; empty: none
    bool doesPolicySetList = false; ///< so that its next change takes the entry out
};

Obstacles obstaclesOf(const std::string& address, double timeout) {
    const settings::SettingsSnapshot stored = freshSettings(timeout, "cannot look at what the grant came to");
    Obstacles obstacles;
    if (stored.policy) {
        const auto& rules = stored.policy->rules;
        obstacles.doesPolicySetList = std::find(rules.begin(), rules.end(), "allow_block") != rules.end();
    }
    if (stored.state == settings::SnapshotState::None) {
        return obstacles;
    }
    const browsing::PageRules pageRules(stored);
    const browsing::PageDecision decision = pageRules.decide(address, browsing::SiteStanding{});
    if (decision.action() == browsing::PageAction::Block && decision.decidedBy() == browsing::Stage::List) {
        obstacles.blocker = pageRules.entries().at(decision.entry).name;
    }
    return obstacles;
}

std::string grantedText(const AccessGrant& grant, const Obstacles& obstacles, const Palette& palette) {
    std::string text = fmt::format("Granted {}: {} is allowed (grant {}).\n", untilText(grant.until),
                                   printable(grant.entry), grant.id);
    if (!obstacles.blocker.empty()) {
        text +=
            fmt::format("{0}The page stays blocked{1}: the block entry {2} wins, since allow-over-block is off. Take "
                        "it out ('sentrelctl list remove {2}'), or have a policy put allow entries first.\n",
                        palette.caution, palette.plain, printable(obstacles.blocker));
    }
    if (obstacles.doesPolicySetList) {
        text +=
            fmt::format("{}The policy of this machine sets the list{}: when it is enforced again, the entry goes.\n",
                        palette.caution, palette.plain);
    }
    return text;
}

void grantRequest(Session& session, const RequestOptions& options) {
    const std::uint64_t seconds = secondsOf(options.length);
    const auto [grant, url] = askHub(options.timeout, kGranting, [&](sd_bus& bus, HVB::bus::Deadline deadline) {
        const AccessRequest request = requestOf(HVB::bus::readRequests(bus, deadline), options.id, kGranting);
        const std::string entry = entryFor(request.url, options.isPage);
        AccessGrant made = HVB::bus::grantRequest(bus, options.id, entry, seconds, deadline);
        made.entry = entry;
        made.request = options.id;
        return std::pair(made, request.url);
    });
    const Obstacles obstacles = obstaclesOf(url, options.timeout);
    if (session.json == JsonMode::Off) {
        session.out.write(grantedText(grant, obstacles, session.palette));
        return;
    }
    session.out.write(
        jsonText(Json{{"id", grant.id},
                      {"request", grant.request},
                      {"entry", grant.entry},
                      {"until", grant.until == 0 ? Json(nullptr) : Json(utcTime(grant.until))},
                      {"blocked_by", obstacles.blocker.empty() ? Json(nullptr) : Json(validUtf8(obstacles.blocker))},
                      {"policy_sets_list", obstacles.doesPolicySetList}},
                 session.json));
}

void denyRequest(Session& session, const RequestOptions& options) {
    askHub(options.timeout, "cannot deny the request", [&](sd_bus& bus, HVB::bus::Deadline deadline) {
        HVB::bus::denyRequest(bus, options.id, options.reason, deadline);
    });
    session.out.write(session.json == JsonMode::Off
                          ? fmt::format("Denied: request {}.\n", options.id)
                          : jsonText(Json{{"request", options.id}, {"state", "denied"}}, session.json));
}

void listGrants(Session& session, const RequestOptions& options) {
    const std::vector<AccessGrant> grants =
        askHub(options.timeout, "cannot read the grants",
               [](sd_bus& bus, HVB::bus::Deadline deadline) { return HVB::bus::readGrants(bus, deadline); });
    if (session.json == JsonMode::Off) {
        session.out.write(grantsText(grants, session.palette));
        return;
    }
    Json json = Json::array();
    for (const AccessGrant& grant : grants) {
        json.push_back(grantJson(grant));
    }
    session.out.write(jsonText(json, session.json));
}

void revokeGrant(Session& session, const RequestOptions& options) {
    askHub(options.timeout, "cannot revoke the grant",
           [&](sd_bus& bus, HVB::bus::Deadline deadline) { HVB::bus::revokeGrant(bus, options.id, deadline); });
    session.out.write(session.json == JsonMode::Off ? fmt::format("Revoked: grant {}.\n", options.id)
                                                    : jsonText(Json{{"grant", options.id}}, session.json));
}

Work describeRequestList(OptionSet& set, Session& session) {
    const auto options = std::make_shared<RequestOptions>();
    set.addFlag("--all", options->isAll, "Those that were answered, too");
    set.addTimeout(options->timeout);
    return [options, &session] { listRequests(session, *options); };
}

Work describeRequestShow(OptionSet& set, Session& session) {
    const auto options = std::make_shared<RequestOptions>();
    set.add("id", options->id, "The request's number").required().shownAs("ID");
    set.addTimeout(options->timeout);
    return [options, &session] { showRequest(session, *options); };
}

Work describeAsk(OptionSet& set, Session& session) {
    const auto options = std::make_shared<RequestOptions>();
    set.add("url", options->url, "The page's address").required().shownAs("URL");
    set.add("--reason", options->reason, "Why, for who answers").shownAs("TEXT");
    set.addTimeout(options->timeout);
    return [options, &session] { askForPage(session, *options); };
}

Work describeGrant(OptionSet& set, Session& session) {
    const auto options = std::make_shared<RequestOptions>();
    options->timeout = kListTimeout;
    set.add("id", options->id, "The request's number").required().shownAs("ID");
    set.add("--for", options->length, "How long, as 30min, 1h, 1d, 2w (default: for good)").shownAs("TIME");
    const Option host = set.addFlag("--host", options->isHost, "Allow the whole host of the page (the default)");
    set.addFlag("--page", options->isPage, "Allow the page, and those below it, alone").excludes(host);
    set.addTimeout(options->timeout);
    return [options, &session] { grantRequest(session, *options); };
}

Work describeDeny(OptionSet& set, Session& session) {
    const auto options = std::make_shared<RequestOptions>();
    set.add("id", options->id, "The request's number").required().shownAs("ID");
    set.add("--reason", options->reason, "Why, for who asked").shownAs("TEXT");
    set.addTimeout(options->timeout);
    return [options, &session] { denyRequest(session, *options); };
}

Work describeGrants(OptionSet& set, Session& session) {
    const auto options = std::make_shared<RequestOptions>();
    set.addTimeout(options->timeout);
    return [options, &session] { listGrants(session, *options); };
}

Work describeRevoke(OptionSet& set, Session& session) {
    const auto options = std::make_shared<RequestOptions>();
    options->timeout = kListTimeout;
    set.add("id", options->id, "The grant's number").required().shownAs("ID");
    set.addTimeout(options->timeout);
    return [options, &session] { revokeGrant(session, *options); };
}

} // namespace

Verbs requestVerbs() {
    static constexpr std::array<Verb, 7> verbs{{
        {"requests", "list", "Lists the open requests: everybody's for administrators, one's own for others.",
         "  sentrelctl requests list --all", describeRequestList},
        {"requests", "show", "Shows a request, and what became of it.", "  sentrelctl requests show 5",
         describeRequestShow},
        {"requests", "ask", "Asks for access to a page, as the block page's button does.",
         "  sentrelctl requests ask https://site.example/page --reason 'for the report'", describeAsk},
        {"requests", "grant",
         "Grants a request: its site is entered in the list as allowed, and taken out again when the time is over.",
         "  sentrelctl requests grant 5 --for 1d", describeGrant},
        {"requests", "deny", "Denies a request.", "  sentrelctl requests deny 5 --reason 'not at work'", describeDeny},
        {"requests", "grants", "Lists what is granted, and until when.", "  sentrelctl requests grants",
         describeGrants},
        {"requests", "revoke", "Ends a grant now: its entry is taken out of the list.",
         "  sentrelctl requests revoke 3", describeRevoke},
    }};
    return verbs;
}

} // namespace Sentrel::ctl
