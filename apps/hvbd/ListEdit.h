// Changes to the list of allowed and blocked sites, as grants make them. Without the daemon.
#pragma once

#include "apps/hvbd/AccessBook.h"

#include <cstdint>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace HVB::hub {

/// The list as the daemon has it: each entry with its action, in the order that counts. An entry may be there twice.
using EntryList = std::vector<std::pair<std::string, std::int32_t>>;

/// How @p entry stands in @p list. One that is there with both actions counts as allowed.
EntryStanding standingOf(const EntryList& list, const std::string& entry);

/// Makes @p entry an allowed one: in its place, or at the end. @return whether the list is another one now.
bool allowEntry(EntryList& list, const std::string& entry);

/// Undoes what the grants did: an entry that was not there before goes, one that was blocked is blocked again, and one
/// that was allowed by hand stays. What somebody changed meanwhile stays as it is. @return whether the list is another
/// one now.
bool endGrants(EntryList& list, std::span<const GrantEnd> ends);

} // namespace HVB::hub
