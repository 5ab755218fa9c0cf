// Entries of grants that an administrator enters by hand.
#pragma once

#include "apps/sentrelctl/Session.h"
#include "apps/sentrelctl/preferences/UrlList.h"
#include "apps/sentrelctl/terminal/Json.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Sentrel::ctl {

/// What became of grants. Threads: a plain value. Owner: the verb.
struct EndedGrants {
    std::vector<std::uint64_t> ids;
    std::string whyUnseen; ///< why the hub does not say which grants there are; empty when it does
};

/// Ends the grants of the entries that @p changes allow. The hub cannot tell such an entry from that of the grant, and
/// would take it out when the grant is over. Tells each on the session's standard error.
/// @param timeout seconds that each question may take. @throws Failure when one cannot be ended.
EndedGrants endGrantsOf(Session& session, const UrlList& changes, double timeout);

/// Says, once the entries are made, what can become of them when the grants were not seen.
void tellOfUnseenGrants(Session& session, const EndedGrants& grants);

/// The ids.
Json endedGrantsJson(const EndedGrants& grants);

} // namespace Sentrel::ctl
