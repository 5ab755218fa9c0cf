#include "apps/sentrelctl/PreferenceClient.h"

#include "apps/sentrelctl/PreferenceNames.h"
#include "daemon/Paths.h"
#include "hub/HVBCommBroker.h"
#include "platform/hvbhelpers/HubProtocol.h"

#include <cerrno>
#include <cmath>
#include <exception>
#include <fmt/format.h>
#include <new>
#include <utility>

namespace Sentrel::ctl {
namespace {

using HVB::MODULE_SENTREL;

constexpr const char* kCannotRead = "cannot read the preferences";
constexpr const char* kCannotChange = "cannot change the preferences";
constexpr const char* kCannotReset = "cannot reset the preferences";

/// A command over the hub that failed, told as one of preferences.
Failure commandFailure(const HVB::HVBException& error, const char* what, const std::string& socketPath, bool isWrite) {
    if (error.code() == -ETIMEDOUT && isWrite) {
        return {ExitCode::TimedOut, what, "", error.message(),
                "The daemon may still do it: look with 'sentrelctl prefs show', or give it longer with --timeout"};
    }
    // What comes from the daemon itself: its exception left the handler, or it does not know the command.
    if (exitCodeOfHub(error.code()) == ExitCode::Failed) {
        const bool isConfiguration = error.message().find("HVConfig.xml") != std::string::npos;
        return {
            ExitCode::Failed, what, "the daemon", error.message(),
            isConfiguration
                ? fmt::format("See that the daemon's user can read {}, then try again", paths::moduleConfiguration())
                : fmt::format("The daemon's trace log {} says more, if tracing is on", paths::traceLog())};
    }
    return hubFailure(error, what, socketPath);
}

Failure unreadable(const char* what, const char* why) {
    return {ExitCode::Failed, what, "the daemon's answer cannot be read", why,
            "Use a sentrelctl of the daemon's version"};
}

/// Takes the one value out of @p result.
template <class Value>
Value payloadOf(HVB::CommandResult& result, const char* what) {
    if (result.m_pInArchive == nullptr) {
        throw unreadable(what, "it has no payload");
    }
    Value value{};
    try {
        result.readPayload(value);
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception& error) {
        throw unreadable(what, error.what());
    }
    return value;
}

Snapshot snapshotOf(STPreferences values) {
    Snapshot snapshot;
    try {
        for (auto& [url, action] : values.getAllowBlockDetails()) {
            snapshot.list.push_back({url, action});
        }
    } catch (const std::exception& error) {
        throw unreadable(kCannotRead, error.what());
    }
    values.m_allowBlockDetails.clear();
    snapshot.values = std::move(values);
    return snapshot;
}

/// The hub takes no larger message; the broker would say so too, but not what to do.
void refuseTooLarge(const HVB::CommandData& command, const char* what) {
    const std::size_t bytes = command.m_pOutStream->str().size() * sizeof(wchar_t);
    if (bytes > HVB::bus::kMaxPayloadBytes) {
        throw Failure(ExitCode::Failed, what, "the list is too large for the hub",
                      fmt::format("{} bytes, at most {}", bytes, HVB::bus::kMaxPayloadBytes),
                      "Nothing was sent; shorten the list");
    }
}

} // namespace

PreferenceClient::PreferenceClient(double timeout)
    : m_socketPath(paths::hubSocket()), m_timeout(static_cast<int>(std::ceil(timeout))) {}

PreferenceClient::~PreferenceClient() {
    HVB::HVBCommBroker::releaseInstance();
}

void PreferenceClient::send(HVB::CommandData& command, HVB::CommandResult& result, const char* what,
                            bool isWrite) const {
    try {
        HVB::HVBCommBroker::getInstance(m_socketPath)->sendCommand(command, &result, true, m_timeout);
    } catch (const HVB::HVBException& error) {
        throw commandFailure(error, what, m_socketPath, isWrite);
    }
}

/// A change is answered with a code; the flags say only whether there is an answer.
void PreferenceClient::sendChange(HVB::CommandData& command, const char* what) const {
    HVB::CommandResult result;
    send(command, result, what, true);
    if (!result.m_bSucceeded || !result.m_bValid) {
        throw Failure(ExitCode::Failed, what, "the daemon", "it says that the command failed",
                      fmt::format("Its trace log {} says more, if tracing is on", paths::traceLog()));
    }
    const int error = payloadOf<int>(result, what);
    if (error != ST_ERROR_NONE) {
        throw refusal(error, what);
    }
}

Snapshot PreferenceClient::readAll() {
    HVB::CommandData command(ST_GET_PREFS, MODULE_SENTREL, true);
    HVB::CommandResult result;
    send(command, result, kCannotRead, false);
    if (!result.m_bSucceeded || !result.m_bValid) {
        throw refusal(ST_ERROR_GENERIC, kCannotRead);
    }
    return snapshotOf(payloadOf<STPreferences>(result, kCannotRead));
}

Snapshot PreferenceClient::read(STPrefType type) {
    HVB::CommandData command(ST_GET_PREFS_INDIVIDUAL, MODULE_SENTREL, true);
    command.writePayload(static_cast<int>(type));
    HVB::CommandResult result;
    send(command, result, kCannotRead, false);
    if (!result.m_bSucceeded || !result.m_bValid) {
        throw refusal(ST_ERROR_INVALID_PREFERENCE, kCannotRead);
    }
    return snapshotOf(payloadOf<STPreferences>(result, kCannotRead));
}

void PreferenceClient::write(STPrefType type, STPreferences values) {
    values.m_prefType = type;
    values.m_bIndividual = true;
    HVB::CommandData command(ST_SET_PREFS_INDIVIDUAL, MODULE_SENTREL, true);
    command.writePayload(values);
    refuseTooLarge(command, kCannotChange);
    sendChange(command, kCannotChange);
}

void PreferenceClient::writeList(const UrlList& list) {
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
    sendChange(command, kCannotReset);
}

} // namespace Sentrel::ctl
