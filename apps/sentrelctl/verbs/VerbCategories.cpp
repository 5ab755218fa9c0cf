// sentrelctl categories: the content categories that are blocked.
//
// The daemon knows one command for them, which replaces the whole list. So `add` and `remove` read the list, change it,
// and write it whole. Nobody holds other clients back meanwhile: what they change in between is lost.
//
// What must stay so:
// - The daemon reports success also when it drops the list, which it does while category blocking is off. So each
//   change reads back what is in force, compares it, and says why when it differs.
// - Nothing is sent unless every name is good. `remove` removes all of its names, or none.
// - `set` without names is refused, and blocking no category takes --none: a script whose variable is empty must not
//   unblock everything.
#include "apps/sentrelctl/Verbs.h"
#include "apps/sentrelctl/preferences/PreferenceClient.h"
#include "apps/sentrelctl/preferences/PreferenceLayout.h"
#include "apps/sentrelctl/preferences/StoredSettings.h"
#include "apps/sentrelctl/preferences/UrlList.h"
#include "apps/sentrelctl/terminal/Failure.h"
#include "base/PrintableText.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <memory>

namespace Sentrel::ctl {

using Sentrel::text::printable;
using Sentrel::text::validUtf8;
namespace {

constexpr int kBlocked = 1; // that a name is there is what counts; 0 would be left out

struct CategoriesOptions {
    std::vector<std::string> names;
    bool none = false;
    double timeout = kDefaultTimeout;
};

void answer(Session& session, const STPreferences& values) {
    const std::vector<std::string> names = categoryNames(values);
    if (session.json != JsonMode::Off) {
        session.out.write(jsonText(namesJson(names), session.json));
        return;
    }
    std::string text;
    for (const std::string& name : names) {
        text += printable(name) + "\n";
    }
    session.out.write(text);
}

STPreferences read(PreferenceClient& client) {
    return client.read(ST_CATEGORY_BLOCK_LIST).values;
}

void refuseFaultyNames(const std::vector<std::string>& names) {
    for (const std::string& name : names) {
        if (const std::optional<std::string> fault = faultOfCategory(name)) {
            throw Failure(ExitCode::BadUsage, "not the name of a category",
                          text::shortened(validUtf8(name), kMaxNameBytes), *fault, "Nothing was changed");
        }
    }
}

/// Says why the list that is in force is not the one that was sent. The daemon itself says nothing.
Failure droppedFailure(PreferenceClient& client, std::size_t wanted, std::size_t now) {
    if (!client.read(ST_CATEGORY_BLOCKING).values.m_bCategoryBlocking) {
        return {ExitCode::Failed, "nothing was changed", "",
                "the daemon drops a category list while category blocking is off",
                "Switch it on with 'sentrelctl prefs set category-blocking on', then try again"};
    }
    return {ExitCode::Failed, "the categories were not stored as asked for", "",
            fmt::format("{} were sent, {} are in force", wanted, now),
            "Run 'sentrelctl settings init'; if no table is missing, the file may be locked or the disk full"};
}

/// Replaces the list whole and shows what is in force then.
void replace(Session& session, PreferenceClient& client, const CategoryBlockDetails& wanted, double timeout) {
    STPreferences values;
    values.m_categoryBlockDetails = wanted;
    client.write(ST_CATEGORY_BLOCK_LIST, values);
    const STPreferences now = read(client);
    if (categoryNames(now) != categoryNames(values)) {
        throw droppedFailure(client, wanted.size(), now.m_categoryBlockDetails.size());
    }
    answer(session, now);
    needStored(session, timeout, "the categories", shortfallOfCategories(wanted),
               [&] { return categoryNames(read(client)) == categoryNames(values); });
}

void categoriesShow(Session& session, const CategoriesOptions& options) {
    PreferenceClient client(options.timeout);
    answer(session, read(client));
}

void categoriesSet(Session& session, const CategoriesOptions& options) {
    if (options.names.empty() == !options.none) {
        throw Failure(ExitCode::BadUsage, "bad usage", "", "name the categories to block, or --none alone",
                      "See 'sentrelctl categories set --help'");
    }
    refuseFaultyNames(options.names);
    CategoryBlockDetails wanted;
    for (const std::string& name : options.names) {
        wanted.emplace(name, kBlocked);
    }
    PreferenceClient client(options.timeout);
    replace(session, client, wanted, options.timeout);
}

void categoriesAdd(Session& session, const CategoriesOptions& options) {
    refuseFaultyNames(options.names);
    PreferenceClient client(options.timeout);
    CategoryBlockDetails wanted = read(client).m_categoryBlockDetails;
    for (const std::string& name : options.names) {
        wanted.emplace(name, kBlocked);
    }
    replace(session, client, wanted, options.timeout);
}

void categoriesRemove(Session& session, const CategoriesOptions& options) {
    PreferenceClient client(options.timeout);
    CategoryBlockDetails wanted = read(client).m_categoryBlockDetails;
    const CategoryBlockDetails before = wanted;
    for (const std::string& name : options.names) {
        if (!before.contains(name)) {
            throw Failure(ExitCode::Failed, "nothing was removed", text::shortened(validUtf8(name), kMaxNameBytes),
                          "it is not in the list", "'sentrelctl categories show' tells what is");
        }
        wanted.erase(name);
    }
    replace(session, client, wanted, options.timeout);
}

Work describeCategoriesShow(OptionSet& set, Session& session) {
    const auto options = std::make_shared<CategoriesOptions>();
    set.addTimeout(options->timeout);
    return [options, &session] { categoriesShow(session, *options); };
}

Option addNames(OptionSet& set, CategoriesOptions& options) {
    return set.add("name", options.names, "The categories, by their names").shownAs("NAME...");
}

Work describeCategoriesSet(OptionSet& set, Session& session) {
    const auto options = std::make_shared<CategoriesOptions>();
    set.addTimeout(options->timeout);
    addNames(set, *options);
    set.addFlag("--none", options->none, "Blocks no category");
    return [options, &session] { categoriesSet(session, *options); };
}

template <void (*change)(Session&, const CategoriesOptions&)>
Work describeChange(OptionSet& set, Session& session) {
    const auto options = std::make_shared<CategoriesOptions>();
    set.addTimeout(options->timeout);
    addNames(set, *options).required();
    return [options, &session] { change(session, *options); };
}

} // namespace

Verbs categoryVerbs() {
    static constexpr std::array<Verb, 4> verbs{{
        {"categories", "show", "Shows the blocked categories.", "  sentrelctl categories show", describeCategoriesShow},
        {"categories", "set", "Blocks these categories and no others.", "  sentrelctl categories set Gambling",
         describeCategoriesSet},
        {"categories", "add", "Blocks these categories besides the others.", "  sentrelctl categories add Gambling",
         describeChange<categoriesAdd>},
        {"categories", "remove", "Blocks these categories no more: all, or none.",
         "  sentrelctl categories remove Gambling", describeChange<categoriesRemove>},
    }};
    return verbs;
}

} // namespace Sentrel::ctl
