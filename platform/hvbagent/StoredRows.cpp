#include "platform/hvbagent/StoredRows.h"

#include "base/Paths.h"
#include "hub/Exceptions.h"
#include "platform/hvbagent/PolicyDocument.h"
#include "platform/hvbhelpers/BusConnection.h"
#include "platform/hvbhelpers/HubProtocol.h"
#include "platform/hvbhelpers/SnapshotText.h"
#include "policy/PolicyRows.h"

#include <algorithm>
#include <chrono>
#include <exception>

namespace HVBEnterprise::agent {
namespace {

namespace policy = Sentrel::policy;

// The keeper waits for a changing list for 4 s at the most.
constexpr std::chrono::seconds kPatience{6};
constexpr std::chrono::seconds kHubPatience{1};

/// How many of @p wanted, which is sorted and has each once, are not in @p stored.
template <class Wanted, class Stored>
std::size_t countMissing(const Wanted& wanted, Stored stored) {
    std::sort(stored.begin(), stored.end());
    return static_cast<std::size_t>(std::count_if(wanted.begin(), wanted.end(), [&](const auto& row) {
        return !std::binary_search(stored.begin(), stored.end(), row);
    }));
}

std::vector<std::string> namesOf(const std::vector<Sentrel::settings::ListEntry>& entries) {
    std::vector<std::string> names;
    for (const auto& entry : entries) {
        names.push_back(entry.name);
    }
    return names;
}

} // namespace

std::size_t rowsMissing(const SectionsHandle& policy, const Sentrel::settings::SettingsSnapshot& stored) {
    const policy::PolicyRows rows = policy::rowsOf(DocumentValues(policy));
    std::size_t missing = 0;
    if (rows.ranges) {
        missing += countMissing(*rows.ranges, stored.privateRanges);
    }
    if (rows.categories) {
        missing += countMissing(*rows.categories, namesOf(stored.categories));
    }
    if (rows.sites) {
        std::vector<Sentrel::settings::ListEntry> wanted;
        for (const auto& [url, action] : *rows.sites) {
            wanted.push_back({url, action});
        }
        missing += countMissing(wanted, stored.allowBlock);
    }
    return missing;
}

StoredRows compareWithFile(const SectionsHandle& policy, int cancelFd) {
    try {
        const auto deadline = std::chrono::steady_clock::now() + kPatience;
        const auto bus = HVB::bus::openBus(Sentrel::paths::hubSocket(), deadline, cancelFd);
        const auto stored = Sentrel::settings::snapshotOf(
            HVB::bus::askForSettingsAlone(*bus, HVB::bus::kSettingsMember, true, deadline, cancelFd));
        if (stored.state == Sentrel::settings::SnapshotState::None || stored.isChanging) {
            return {{}, stored.isChanging ? "a list is changing" : stored.reason};
        }
        return {rowsMissing(policy, stored), ""};
    } catch (const HVB::HVBException& error) {
        return {{}, error.message()};
    } catch (const std::exception& error) {
        return {{}, error.what()};
    }
}

bool isHubThere(int cancelFd) noexcept {
    try {
        const auto deadline = std::chrono::steady_clock::now() + kHubPatience;
        const auto bus = HVB::bus::openBus(Sentrel::paths::hubSocket(), deadline, cancelFd);
        const auto request = HVB::bus::newCall(*bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                               "org.freedesktop.DBus", "NameHasOwner");
        HVB::bus::check(sd_bus_message_append(request.get(), "s", HVB::bus::kHubName), "cannot ask for the hub");
        int isOwned = 0;
        return sd_bus_message_read(HVB::bus::callAlone(*bus, *request, deadline, cancelFd).get(), "b", &isOwned) > 0 &&
               isOwned != 0;
    } catch (...) {
        return false; // nobody listens, or there is no memory to see it
    }
}

} // namespace HVBEnterprise::agent
