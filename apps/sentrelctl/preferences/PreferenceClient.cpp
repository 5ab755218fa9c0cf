#include "apps/sentrelctl/preferences/PreferenceClient.h"

#include "apps/sentrelctl/preferences/PreferenceNames.h"
#include "platform/hvbhelpers/HubProtocol.h"
#include "policy/PolicyLimits.h"

#include <exception>
#include <fmt/format.h>
#include <utility>

namespace Sentrel::ctl {
namespace {

using HVB::MODULE_SENTREL;

constexpr const char* kAfterTimeout =
    "The daemon may still do it: look with 'sentrelctl prefs show', or give it longer with --timeout";
constexpr CommandPurpose kReading{"cannot read the preferences"};
constexpr CommandPurpose kChanging{"cannot change the preferences", kAfterTimeout};
constexpr CommandPurpose kResetting{"cannot reset the preferences", kAfterTimeout};

Snapshot snapshotOf(STPreferences values) {
    Snapshot snapshot;
    try {
        for (auto& [url, action] : values.getAllowBlockDetails()) {
            snapshot.list.push_back({url, action});
        }
    } catch (const std::exception& error) {
        throw unreadableAnswer(kReading.what, error.what());
    }
    values.m_allowBlockDetails.clear();
    snapshot.values = std::move(values);
    return snapshot;
}

/// What is stored must also be read again, by every client.
void refuseTooLong(const UrlList& list) {
    if (std::cmp_greater(list.size(), policy::kMaxPolicyEntries)) {
        throw Failure(ExitCode::Failed, kChanging.what, "the list is too long",
                      fmt::format("{} entries, at most {}", list.size(), policy::kMaxPolicyEntries),
                      "Nothing was sent; shorten the list");
    }
}

/// The hub takes no larger payload; the broker would say so too, but not what to do.
void refuseTooLarge(const HVB::CommandData& command, const char* what) {
    const std::size_t bytes = command.m_pOutStream->str().size(); // whose characters are bytes
    if (bytes > HVB::bus::kMaxPayloadBytes) {
        throw Failure(ExitCode::Failed, what, "the list is too large for the hub",
                      fmt::format("{} bytes, at most {}", bytes, HVB::bus::kMaxPayloadBytes),
                      "Nothing was sent; shorten the list");
    }
}

} // namespace

PreferenceClient::PreferenceClient(double timeout) : m_channel(timeout) {}

/// A change is answered with a code; the flags say only whether there is an answer.
void PreferenceClient::sendChange(HVB::CommandData& command, const CommandPurpose& purpose) const {
    HVB::CommandResult result;
    m_channel.sendAndCheck(command, result, purpose);
    const int error = payloadOf<int>(result, purpose.what);
    if (error != ST_ERROR_NONE) {
        throw refusal(error, purpose.what);
    }
}

Snapshot PreferenceClient::readAll() {
    HVB::CommandData command(ST_GET_PREFS, MODULE_SENTREL, true);
    HVB::CommandResult result;
    m_channel.send(command, result, kReading);
    if (!result.m_bSucceeded || !result.m_bValid) {
        throw refusal(ST_ERROR_GENERIC, kReading.what);
    }
    return snapshotOf(payloadOf<STPreferences>(result, kReading.what));
}

Snapshot PreferenceClient::read(STPrefType type) {
    HVB::CommandData command(ST_GET_PREFS_INDIVIDUAL, MODULE_SENTREL, true);
    command.writePayload(static_cast<int>(type));
    HVB::CommandResult result;
    m_channel.send(command, result, kReading);
    if (!result.m_bSucceeded || !result.m_bValid) {
        throw refusal(ST_ERROR_INVALID_PREFERENCE, kReading.what);
    }
    return snapshotOf(payloadOf<STPreferences>(result, kReading.what));
}

void PreferenceClient::write(STPrefType type, STPreferences values) {
    values.m_prefType = type;
    values.m_bIndividual = true;
    HVB::CommandData command(ST_SET_PREFS_INDIVIDUAL, MODULE_SENTREL, true);
    command.writePayload(values);
    refuseTooLarge(command, kChanging.what);
    sendChange(command, kChanging);
}

void PreferenceClient::writeList(const UrlList& list) {
    refuseTooLong(list);
    AllowBlockDetails details;
    for (const ListEntry& entry : list) {
        details.emplace(entry.url, entry.action);
    }
    STPreferences values;
    values.setAllowBlockDetails(details);
    write(ST_ALLOW_BLOCK_LIST, std::move(values));
}

void PreferenceClient::reset() {
    HVB::CommandData command(ST_RESET_PREFS, MODULE_SENTREL, true);
    sendChange(command, kResetting);
}

} // namespace Sentrel::ctl
