#include "apps/sentrelctl/requests/GrantEnding.h"

#include "apps/sentrelctl/terminal/Failure.h"
#include "base/Paths.h"
#include "base/PrintableText.h"
#include "platform/hvbhelpers/AccessCalls.h"

#include <algorithm>
#include <cerrno>
#include <fmt/format.h>
#include <set>
#include <string>

namespace Sentrel::ctl {
namespace {

using HVB::bus::AccessGrant;

/// Those of the entries. What keeps them from being seen goes to @p whyUnseen.
std::vector<AccessGrant> grantsOf(sd_bus& bus, const std::set<std::string>& entries, double timeout,
                                  std::string& whyUnseen) {
    try {
        std::vector<AccessGrant> grants = HVB::bus::readGrants(bus, deadlineAfter(timeout));
        std::erase_if(grants, [&entries](const AccessGrant& each) { return !entries.contains(each.entry); });
        return grants;
    } catch (const HVB::HVBException& error) {
        // Who may not see them may not change the list either, and is told so there.
        whyUnseen = error.code() == -EACCES ? "" : error.message();
        return {};
    }
}

void endGrant(Session& session, sd_bus& bus, const AccessGrant& grant, double timeout) {
    try {
        HVB::bus::revokeGrant(bus, grant.id, deadlineAfter(timeout));
    } catch (const HVB::HVBException& error) {
        throw Failure(ExitCode::Failed, "nothing was entered", fmt::format("grant {} of {}", grant.id, grant.entry),
                      error.message(), "An entry by hand would go with its grant: try again when the grant is over");
    }
    session.err.write(fmt::format("sentrelctl: grant {} of {} is ended, so that the entry stays for good.\n", grant.id,
                                  text::printable(grant.entry)));
}

} // namespace

EndedGrants endGrantsOf(Session& session, const UrlList& changes, double timeout) {
    std::set<std::string> entries;
    for (const ListEntry& entry : changes) {
        if (entry.action == kAllow) {
            entries.insert(entry.url);
        }
    }
    EndedGrants ended;
    if (entries.empty()) {
        return ended;
    }
    try {
        const HVB::bus::BusPtr bus = HVB::bus::openBus(paths::hubSocket(), deadlineAfter(timeout));
        for (const AccessGrant& grant : grantsOf(*bus, entries, timeout, ended.whyUnseen)) {
            endGrant(session, *bus, grant, timeout);
            ended.ids.push_back(grant.id);
        }
    } catch (const HVB::HVBException& error) {
        ended.whyUnseen = error.message();
    }
    return ended;
}

void tellOfUnseenGrants(Session& session, const EndedGrants& grants) {
    if (!grants.whyUnseen.empty()) {
        session.err.write(fmt::format("sentrelctl: whether an entry is that of a grant cannot be seen: {}. Such an "
                                      "entry goes when its grant is over.\n",
                                      text::printable(grants.whyUnseen)));
    }
}

Json endedGrantsJson(const EndedGrants& grants) {
    Json json = Json::array();
    for (const std::uint64_t id : grants.ids) {
        json.push_back(id);
    }
    return json;
}

} // namespace Sentrel::ctl
