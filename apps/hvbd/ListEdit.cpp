#include "apps/hvbd/ListEdit.h"

#include <algorithm>

namespace HVB::hub {
namespace {

bool endGrant(EntryList& list, const GrantEnd& end) {
    if (end.before.isAllowed() || !standingOf(list, end.entry).isAllowed()) {
        return false;
    }
    const auto isGrants = [&end](const auto& each) { return each.second == 0 && each.first == end.entry; };
    if (!end.before.isThere) {
        return std::erase_if(list, isGrants) > 0;
    }
    for (auto& each : list) {
        each.second = isGrants(each) ? end.before.action : each.second;
    }
    return true;
}

} // namespace

EntryStanding standingOf(const EntryList& list, const std::string& entry) {
    EntryStanding standing;
    for (const auto& [name, action] : list) {
        if (name == entry && !standing.isAllowed()) {
            standing = {true, action};
        }
    }
    return standing;
}

bool allowEntry(EntryList& list, const std::string& entry) {
    const EntryStanding standing = standingOf(list, entry);
    if (standing.isAllowed()) {
        return false;
    }
    if (!standing.isThere) {
        list.emplace_back(entry, 0);
        return true;
    }
    for (auto& [name, action] : list) {
        action = name == entry ? 0 : action;
    }
    return true;
}

bool endGrants(EntryList& list, std::span<const GrantEnd> ends) {
    bool isChanged = false;
    for (const GrantEnd& end : ends) {
        isChanged = endGrant(list, end) || isChanged;
    }
    return isChanged;
}

} // namespace HVB::hub
