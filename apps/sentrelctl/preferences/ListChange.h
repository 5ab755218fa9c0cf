// What the verbs that change the allow/block list have in common.
#pragma once

#include "apps/sentrelctl/Session.h"
#include "apps/sentrelctl/preferences/PreferenceClient.h"

namespace Sentrel::ctl {

/// The daemon writes each entry to the disk before it answers, so a long list takes time.
inline constexpr double kListTimeout = 60.0;

/// "1200 of 20000" while somebody replaces the allow/block list and has said how long it will be; otherwise, and when
/// the hub cannot tell, empty. Takes a second at the most.
std::string replacementText(const std::string& socketPath);

/// Makes @p wanted the daemon's list and reads back what came of it. Other clients can change the list between the read
/// from which @p wanted was made and this call; what they changed is lost. When the answer does not come in time, the
/// settings file is followed for as long as the list in it changes.
/// @param timeout seconds that each question may take.
/// @return the list as it is in force now, and stored.
/// @throws Failure when that is not @p wanted: the daemon does not report entries that it could not store.
UrlList replaceList(Session& session, PreferenceClient& client, const UrlList& wanted, double timeout);

} // namespace Sentrel::ctl
