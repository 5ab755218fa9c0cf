// What the verbs that change the allow/block list have in common.
#pragma once

#include "apps/sentrelctl/Session.h"
#include "apps/sentrelctl/preferences/PreferenceClient.h"

namespace Sentrel::ctl {

/// The daemon writes each entry to the disk before it answers: a long list takes it long.
inline constexpr double kListTimeout = 60.0;

/// Makes @p wanted the daemon's list and reads back what came of it. Between the read that @p wanted was made from and
/// this nobody holds other clients back; what they changed meanwhile is lost.
/// @return the list as it is in force now.
/// @throws Failure when that is not @p wanted: the daemon does not tell of entries that it could not store.
UrlList replaceList(Session& session, PreferenceClient& client, const UrlList& wanted);

} // namespace Sentrel::ctl
