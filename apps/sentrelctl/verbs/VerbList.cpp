// sentrelctl list: the entries of the allow/block list, one by one.
//
// The hub carries the list whole, so each change reads it, changes it and sends it back. An entry that is allowed here
// stays for good: a grant of the same entry is ended first, as its end would take the entry out. What is refused is
// refused before anything is changed.
#include "apps/sentrelctl/Verbs.h"
#include "apps/sentrelctl/preferences/ListChange.h"
#include "apps/sentrelctl/requests/GrantEnding.h"
#include "apps/sentrelctl/terminal/Failure.h"
#include "base/Paths.h"
#include "base/PrintableText.h"

#include <array>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <memory>

namespace Sentrel::ctl {

using Sentrel::text::printable;
using Sentrel::text::validUtf8;
namespace {

struct ListOptions {
    std::vector<std::string> urls;
    bool all = false;
    double timeout = kDefaultTimeout;
};

/// The entries of a listing are padded, so that the URLs stand below each other.
std::string entryText(const ListEntry& entry, const Palette& palette) {
    const char* color = entry.action == kAllow ? palette.plain : palette.caution;
    return fmt::format("{}{}{}  {}\n", color, actionWord(entry.action), palette.plain, printable(entry.url));
}

void listShow(Session& session, const ListOptions& options) {
    const UrlList list = PreferenceClient(options.timeout).read(ST_ALLOW_BLOCK_LIST).list;
    if (const std::string stored = replacementText(paths::hubSocket()); !stored.empty()) {
        session.err.write(fmt::format("sentrelctl: the list is being replaced: {} entries are stored.\n", stored));
    }
    if (session.json == JsonMode::Off) {
        std::string text;
        for (const ListEntry& entry : list) {
            text += entryText(entry, session.palette);
        }
        session.out.write(text);
        return;
    }
    Json json = Json::array();
    for (const ListEntry& entry : list) {
        json.push_back(entryJson(entry));
    }
    session.out.write(jsonText(json, session.json));
}

void refuseFaultyUrls(const std::vector<std::string>& urls) {
    for (const std::string& url : urls) {
        if (const std::optional<std::string> fault = faultOfUrl(url)) {
            throw Failure(ExitCode::BadUsage, "not a URL", text::shortened(validUtf8(url), kMaxNameBytes), *fault,
                          "Nothing was changed");
        }
    }
}

/// What was done besides the list. Threads: a plain value. Owner: the verb.
struct Named {
    UrlList entries;
    EndedGrants endedGrants;
};

/// Shows those that were named, as they are in force, and how large the list is now.
void answer(Session& session, const Named& named, const UrlList& list) {
    if (session.json == JsonMode::Off) {
        std::string text;
        for (const ListEntry& entry : named.entries) {
            text += entryText(entry, session.palette);
        }
        session.out.write(text + fmt::format("The list has {}.\n", countText(list)));
        return;
    }
    Json json = countJson(list);
    json["changed"] = Json::array();
    for (const ListEntry& entry : named.entries) {
        json["changed"].push_back(entryJson(entry));
    }
    json["ended_grants"] = endedGrantsJson(named.endedGrants);
    session.out.write(jsonText(json, session.json));
}

void listPut(Session& session, const ListOptions& options, int action) {
    refuseFaultyUrls(options.urls);
    Named named;
    for (const std::string& url : options.urls) {
        named.entries.push_back({url, action});
    }
    named.endedGrants = endGrantsOf(session, named.entries, options.timeout);
    PreferenceClient client(options.timeout);
    UrlList list = client.read(ST_ALLOW_BLOCK_LIST).list;
    applyChanges(list, named.entries);
    const UrlList now = replaceList(session, client, list, options.timeout);
    tellOfUnseenGrants(session, named.endedGrants);
    answer(session, named, now);
}

void listRemove(Session& session, const ListOptions& options) {
    if (options.urls.empty() == !options.all) {
        throw Failure(ExitCode::BadUsage, "bad usage", "", "name the URLs to remove, or --all alone",
                      "See 'sentrelctl list remove --help'");
    }
    PreferenceClient client(options.timeout);
    UrlList list;
    if (!options.all) {
        list = client.read(ST_ALLOW_BLOCK_LIST).list;
        const std::vector<std::string> absent = removeFrom(list, options.urls);
        if (!absent.empty()) {
            throw Failure(ExitCode::Failed, "nothing was removed",
                          text::shortened(validUtf8(absent.front()), kMaxNameBytes), "it is not in the list",
                          "'sentrelctl list show' tells what is");
        }
    }
    answer(session, {}, replaceList(session, client, list, options.timeout));
}

template <int action>
Work describePut(OptionSet& set, Session& session) {
    const auto options = std::make_shared<ListOptions>();
    options->timeout = kListTimeout;
    set.add("url", options->urls, "The URLs").required().shownAs("URL...");
    set.addTimeout(options->timeout);
    return [options, &session] { listPut(session, *options, action); };
}

Work describeListShow(OptionSet& set, Session& session) {
    const auto options = std::make_shared<ListOptions>();
    set.addTimeout(options->timeout);
    return [options, &session] { listShow(session, *options); };
}

Work describeRemove(OptionSet& set, Session& session) {
    const auto options = std::make_shared<ListOptions>();
    options->timeout = kListTimeout;
    set.add("url", options->urls, "The URLs").shownAs("URL...");
    set.addFlag("--all", options->all, "Every entry");
    set.addTimeout(options->timeout);
    return [options, &session] { listRemove(session, *options); };
}

} // namespace

Verbs listVerbs() {
    static constexpr std::array<Verb, 4> verbs{{
        {"list", "show", "Shows the list in the order in which the daemon looks at it.", "  sentrelctl list show",
         describeListShow},
        {"list", "allow", "Enters URLs to allow, or changes their entries.",
         "  sentrelctl list allow http://site.example/", describePut<kAllow>},
        {"list", "block", "Enters URLs to block, or changes their entries.",
         "  sentrelctl list block http://site.example/", describePut<kBlock>},
        {"list", "remove", "Takes URLs out of the list: all that are named, or none.",
         "  sentrelctl list remove http://site.example/", describeRemove},
    }};
    return verbs;
}

} // namespace Sentrel::ctl
