#include "apps/sentrelctl/preferences/ListChange.h"

#include "apps/sentrelctl/clients/HubClient.h"
#include "apps/sentrelctl/preferences/StoredSettings.h"
#include "apps/sentrelctl/terminal/Progress.h"
#include "base/Paths.h"

#include <fmt/format.h>
#include <memory>

namespace Sentrel::ctl {
namespace {

constexpr const char* kAllowBlockList = "allow_block"; // as the settings keeper calls it
constexpr double kLookTimeout = 1;

void refuseDifference(const UrlList& wanted, const UrlList& now) {
    const UrlList missing = missingFrom(now, wanted);
    const UrlList unexpected = missingFrom(wanted, now);
    if (!missing.empty()) {
        throw Failure(
            ExitCode::Failed, "the list was not stored whole",
            fmt::format("{} of {} entries are missing", missing.size(), wanted.size()),
            fmt::format("the first is {}", missing.front().url),
            "Run 'sentrelctl settings init'; if no table is missing, the file may be locked or the disk full");
    }
    if (!unexpected.empty()) {
        throw Failure(ExitCode::Failed, "not what was asked for",
                      fmt::format("the list has {} more than that", unexpected.size()),
                      fmt::format("the first is {}", unexpected.front().url),
                      "Somebody else may have changed it at the same time; try again");
    }
}

/// Looks at the file while the list in it changes. Returns when it is all there. @throws @p failure when it came to
/// rest before, or nothing can be seen.
void followToTheEnd(const Failure& failure, const Shortfall& shortfall) {
    constexpr double freshTimeout = 15; // a look waits for a changing list itself, for some seconds
    constexpr int looksAtRest = 2;      // one may fall between two rows that wait for the disk
    try {
        HubClient hub(paths::hubSocket(), freshTimeout);
        for (int atRest = 0; atRest < looksAtRest;) {
            const settings::SettingsSnapshot stored = hub.settings(true);
            if (!stored.isChanging && shortfall(stored) == std::string()) {
                return;
            }
            atRest = stored.isChanging ? 0 : atRest + 1;
        }
    } catch (const HVB::HVBException&) {
        throw failure; // what it says is still all that is known
    }
    throw failure;
}

/// Tells the settings keeper of a long list while it lives; without a keeper nobody is told how far it is.
std::unique_ptr<HubClient> noteOf(const UrlList& wanted) {
    constexpr std::size_t isLong = 500; // a shorter one is stored before anybody could look
    if (wanted.size() < isLong) {
        return nullptr;
    }
    try {
        auto hub = std::make_unique<HubClient>(paths::hubSocket(), kLookTimeout);
        hub->noteReplacement(kAllowBlockList, wanted.size());
        return hub;
    } catch (const HVB::HVBException&) {
        return nullptr;
    }
}

} // namespace

std::string replacementText(const std::string& socketPath) {
    try {
        const settings::SettingsSnapshot stored = HubClient(socketPath, kLookTimeout).settings(false);
        return !stored.replacement || stored.replacement->list != kAllowBlockList
                   ? ""
                   : fmt::format("{} of {}", stored.replacement->stored, stored.replacement->of);
    } catch (const HVB::HVBException&) {
        return "";
    }
}

UrlList replaceList(Session& session, PreferenceClient& client, const UrlList& wanted, double timeout) {
    const std::unique_ptr<HubClient> note = noteOf(wanted);
    const Progress progress(session.err, fmt::format("Storing {}", countText(wanted)), [socket = paths::hubSocket()] {
        const std::string stored = replacementText(socket);
        return stored.empty() ? stored : fmt::format(", {} stored", stored);
    });
    try {
        client.writeList(wanted);
    } catch (const Failure& failure) {
        if (failure.code() != ExitCode::TimedOut) {
            throw;
        }
        followToTheEnd(failure, shortfallOfList(wanted));
    }
    UrlList now = client.read(ST_ALLOW_BLOCK_LIST).list;
    refuseDifference(wanted, now);
    needStored(session, timeout, "the list", shortfallOfList(wanted), [&] {
        const UrlList last = client.read(ST_ALLOW_BLOCK_LIST).list;
        return missingFrom(last, wanted).empty() && missingFrom(wanted, last).empty();
    });
    return now;
}

} // namespace Sentrel::ctl
