// sentrelctl status and about: what the daemon says of itself.
#include "apps/sentrelctl/Verbs.h"
#include "apps/sentrelctl/clients/CommandChannel.h"
#include "apps/sentrelctl/clients/HubClient.h"
#include "apps/sentrelctl/verbs/StatusLayout.h"
#include "base/Paths.h"
#include "browser/ratings/RatingLists.h"
#include "hub/HubIds.h"
#include "platform/hvbhelpers/HubProtocol.h"
#include "platform/hvbhelpers/SpoolHead.h"

#include <array>
#include <cerrno>
#include <memory>
#include <optional>

namespace Sentrel::ctl {
namespace {

constexpr CommandPurpose kAskingStatus{"cannot read the status"};
constexpr CommandPurpose kAskingVersions{.what = "cannot read the versions", .readsConfiguration = true};

struct StatusOptions {
    double timeout = kDefaultTimeout;
};

KnownHealth unknownHealth(std::string why) {
    return {"unknown", "", std::move(why)};
}

KnownHealth healthIn(const std::optional<ModuleHealth>& daemon) {
    const bool isChecked = daemon && daemon->state != HVB::bus::kStateUnknown;
    return isChecked ? KnownHealth{daemon->state, daemon->since, ""} : unknownHealth("hvbd has not checked it yet");
}

/// The status is the daemon's answer; a hub that does not tell of its health takes nothing away from it.
KnownHealth health(double timeout) {
    try {
        return healthIn(HubClient(paths::hubSocket(), timeout).daemonHealth());
    } catch (const HVB::HVBException& error) {
        switch (error.code()) {
        case -EACCES:
            return unknownHealth("hvbd tells it to root and the administrators");
        case -EHOSTUNREACH:
            return unknownHealth("hvbd is not running");
        case -ETIMEDOUT:
            return unknownHealth("hvbd does not answer");
        default:
            return unknownHealth(error.message());
        }
    }
}

/// The spool is the daemon's alone, and this program reads its head without asking the daemon.
KnownReports waitingReports() {
    try {
        const auto counts = HVB::detail::spoolCounts(paths::reportSpool());
        if (!counts) {
            return {.error = "the daemon has made no spool yet"};
        }
        return {counts->waiting, counts->refusedFull + counts->refusedByHub, counts->damaged, ""};
    } catch (const HVB::HVBException& error) {
        return {.error = error.code() == -EACCES ? "root and the daemon's user may see them" : error.message()};
    }
}

template <class Data>
Data ask(CommandId id, const CommandPurpose& purpose, double timeout) {
    const CommandChannel channel(timeout);
    HVB::CommandData command(id, HVB::MODULE_SENTREL, true);
    HVB::CommandResult result;
    channel.sendAndCheck(command, result, purpose);
    return payloadOf<Data>(result, purpose.what);
}

void status(Session& session, const StatusOptions& options) {
    const auto line = statusLine(ask<DashBoardData>(CMD_DASH_BOARD_REQUEST, kAskingStatus, options.timeout));
    if (!line) {
        throw unreadableAnswer(kAskingStatus.what, "it has no status line");
    }
    const KnownBesides known{health(options.timeout), waitingReports(),
                             ratings::RatingLists(paths::ratingDatabase()).status()};
    session.out.write(session.json == JsonMode::Off ? statusText(*line, known, session.palette)
                                                    : jsonText(statusJson(*line, known), session.json));
}

void about(Session& session, const StatusOptions& options) {
    const auto data = ask<AboutBoxData>(CMD_ABOUT_BOX_REQUEST, kAskingVersions, options.timeout);
    session.out.write(session.json == JsonMode::Off ? aboutText(data, session.palette)
                                                    : jsonText(aboutJson(data), session.json));
}

Work describeStatus(OptionSet& set, Session& session) {
    const auto options = std::make_shared<StatusOptions>();
    set.addTimeout(options->timeout);
    return [options, &session] { status(session, *options); };
}

Work describeAbout(OptionSet& set, Session& session) {
    const auto options = std::make_shared<StatusOptions>();
    set.addTimeout(options->timeout);
    return [options, &session] { about(session, *options); };
}

} // namespace

Verbs statusVerbs() {
    static constexpr std::array<Verb, 2> verbs{{
        {"", "status",
         "Shows whether the machine is protected and managed, why, what rates sites, the daemon's health, and which "
         "reports wait.",
         "  sentrelctl status\n  sentrelctl status --json=short | jq -r .status", describeStatus},
        {"", "about", "Shows the daemon's version, its service pack and its hotfixes.", "  sentrelctl about",
         describeAbout},
    }};
    return verbs;
}

} // namespace Sentrel::ctl
