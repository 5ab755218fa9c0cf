// What the verbs that change the allow/block list have in common.
#pragma once

#include "apps/sentrelctl/Session.h"
#include "apps/sentrelctl/preferences/PreferenceClient.h"

namespace Sentrel::ctl {

/// The daemon writes each entry to the disk before it answers, so a long list takes time.
inline constexpr double kListTimeout = 60.0;

/// Makes @p wanted the daemon's list and reads back what came of it. Other clients can change the list between the read
/// from which @p wanted was made and this call; what they changed is lost.
/// @return the list as it is in force now.
/// @throws Failure when that is not @p wanted: the daemon does not report entries that it could not store.
UrlList replaceList(Session& session, PreferenceClient& client, const UrlList& wanted);

} // namespace Sentrel::ctl
