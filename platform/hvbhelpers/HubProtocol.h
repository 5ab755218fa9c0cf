// The hub on D-Bus: every name, signature and limit that its two sides share, each once. docs/hub.md explains them.
#pragma once

#include <bit>
#include <charconv>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace HVB::bus {

// The bus itself, as the D-Bus specification has it.
inline constexpr const char* kDriver = "org.freedesktop.DBus";
inline constexpr const char* kDriverPath = "/org/freedesktop/DBus";
/// Asked for the user behind a connection.
inline constexpr const char* kGetConnectionUnixUserMember = "GetConnectionUnixUser";

// The version stands in every name from the first day.
inline constexpr const char* kModuleInterface = "com.orvanta.hvb1.Module";
inline constexpr const char* kEventsInterface = "com.orvanta.hvb1.Events";
inline constexpr const char* kEventsPath = "/com/orvanta/hvb1/Events";
inline constexpr const char* kHubName = "com.orvanta.hvb1.Hub";
inline constexpr const char* kHubPath = "/com/orvanta/hvb1/Hub";
inline constexpr const char* kHubInterface = "com.orvanta.hvb1.Hub";

inline std::string moduleName(int moduleId) {
    return "com.orvanta.hvb1.Module" + std::to_string(moduleId);
}
inline std::string modulePath(int moduleId) {
    return "/com/orvanta/hvb1/Module" + std::to_string(moduleId);
}
inline std::string commandMember(int commandId) {
    return "Command" + std::to_string(commandId);
}
inline std::string eventMember(int eventId) {
    return "Event" + std::to_string(eventId);
}

/// The id in a member such as "Command1003", given the prefix "Command". None when it is not such a member.
inline std::optional<int> memberId(std::string_view member, std::string_view prefix) {
    if (!member.starts_with(prefix)) {
        return std::nullopt;
    }
    member.remove_prefix(prefix.size());
    int id = 0;
    const auto [end, error] = std::from_chars(member.data(), member.data() + member.size(), id);
    if (error != std::errc() || end != member.data() + member.size() || member.empty()) {
        return std::nullopt;
    }
    return id;
}

// Command<id>: token, source, target, flag, sequence, has payload, payload → succeeded, valid, has payload, payload.
// A payload above kMaxTextBytes is a memory file and its bytes a character.
inline constexpr const char* kCommandSignature = "tiibibay";
inline constexpr const char* kLargeCommandSignature = "tiibibhy";
inline constexpr const char* kCommandReplySignature = "bbbay";
inline constexpr const char* kLargeCommandReplySignature = "bbbhy";
// Event<id>: sequence, has payload, payload.
inline constexpr const char* kEventSignature = "ibay";
// HealthCheck: nothing → well.
inline constexpr const char* kHealthCheckMember = "HealthCheck";
// Log: source, type, text, detail, count → id of the stored record.
inline constexpr const char* kLogMember = "Log";
inline constexpr const char* kLogSignature = "iiayayi";
inline constexpr const char* kLogReplySignature = "t";
// LogNumbered: the sender's instance and the record's number in it, then as Log → id of the stored record, or
// kAlreadyStored. Numbers of an instance rise; one that is not above the last one stored was stored before.
inline constexpr const char* kLogNumberedMember = "LogNumbered";
inline constexpr const char* kLogNumberedSignature = "ttiiayayi";
inline constexpr std::uint64_t kAlreadyStored = 0; ///< in place of an id; no record has this one
// LogMessage: module, its name, type, level, line → nothing.
inline constexpr const char* kLogMessageMember = "LogMessage";
inline constexpr const char* kLogMessageSignature = "iayiiay";
// ReadLog: after this id, at most so many, the newest of them (else the oldest) → records in ascending order, each:
// id, time stored in microseconds since the epoch, source, type, text, detail, count.
inline constexpr const char* kReadLogMember = "ReadLog";
inline constexpr const char* kReadLogSignature = "tub";
inline constexpr const char* kReadLogReplySignature = "a(txiiayayi)";
// Status: nothing → the modules that hvbd has seen or has a configuration file of, each: id, state, since when (ISO
// 8601, empty with the state "unknown"), why the module cannot use its configuration file (empty when it can).
inline constexpr const char* kStatusMember = "Status";
inline constexpr const char* kStatusReplySignature = "a(isss)";
inline constexpr const char* kStatusEntry = "(isss)";
inline constexpr const char* kStateUnknown = "unknown"; ///< hvbd has not checked the module yet
// LogStored: the id of a record that ReadLog gives from now on. A signal of the hub's interface.
inline constexpr const char* kLogStoredMember = "LogStored";
inline constexpr const char* kLogStoredSignature = "t";
// Settings: whether the file is to be read first → generation, the snapshot's text: `s`, or `h` above
// kMaxInlineSettingsBytes. LastWholeSettings: nothing → the same, of the last snapshot whose state was "whole".
inline constexpr const char* kSettingsMember = "Settings";
inline constexpr const char* kSettingsSignature = "b";
inline constexpr const char* kLastWholeSettingsMember = "LastWholeSettings";
inline constexpr const char* kSettingsReplySignature = "tv";
// SettingsChanged: the generation that Settings gives from now on. A signal of the hub's interface.
inline constexpr const char* kSettingsChangedMember = "SettingsChanged";
inline constexpr const char* kSettingsChangedSignature = "t";
// HandInSettings, from the settings keeper: the snapshot's state, its text as above → the generation that it got.
inline constexpr const char* kHandInSettingsMember = "HandInSettings";
inline constexpr const char* kHandInSettingsSignature = "sv";
inline constexpr const char* kHandInSettingsReplySignature = "t";
inline constexpr const char* kStateWhole = "whole"; ///< the one state that the hub asks for

// Requests for access to pages that are blocked, and what is granted: an object of its own, of the hub's name. The
// caller's user is the one that the bus tells. Times are microseconds since the epoch.
inline constexpr const char* kRequestsPath = "/com/orvanta/hvb1/Requests";
inline constexpr const char* kRequestsInterface = "com.orvanta.hvb1.Requests";
// AskForAccess: URL, reason → id of the request. The same URL of the same user, while it is open: the same request.
inline constexpr const char* kAskForAccessMember = "AskForAccess";
inline constexpr const char* kAskForAccessSignature = "ss";
inline constexpr const char* kAskForAccessReplySignature = "t";
// ReadOwnRequests and ReadRequests: after this id, at most so many → requests in ascending order, each: id, user, when
// asked, URL, reason, state, when answered (0: not yet), answer, until when it is granted (0: for good, or not at all).
inline constexpr const char* kReadOwnRequestsMember = "ReadOwnRequests";
inline constexpr const char* kReadRequestsMember = "ReadRequests";
inline constexpr const char* kReadPageSignature = "tu";
inline constexpr const char* kReadRequestsReplySignature = "a(tuxsssxsx)";
// GrantRequest: id, entry for the list of allowed and blocked sites, seconds (0: for good) → id of the grant, its end.
inline constexpr const char* kGrantRequestMember = "GrantRequest";
inline constexpr const char* kGrantRequestSignature = "tst";
inline constexpr const char* kGrantRequestReplySignature = "tx";
// DenyRequest: id, why → nothing.
inline constexpr const char* kDenyRequestMember = "DenyRequest";
inline constexpr const char* kDenyRequestSignature = "ts";
// ReadGrants: after this id, at most so many → grants in ascending order, each: id, request, user who asked, entry,
// when granted, end (0: for good), whether its entry is being taken out.
inline constexpr const char* kReadGrantsMember = "ReadGrants";
inline constexpr const char* kReadGrantsReplySignature = "a(ttusxxb)";
// RevokeGrant: id → nothing, when the entry is taken out.
inline constexpr const char* kRevokeGrantMember = "RevokeGrant";
inline constexpr const char* kRevokeGrantSignature = "t";
// RequestsChanged: a number that rises with each change of a request or a grant. Everybody hears it, so it says no
// more.
inline constexpr const char* kRequestsChangedMember = "RequestsChanged";
inline constexpr const char* kRequestsChangedSignature = "t";
/// Most bytes of a request's URL and reason together, and of an answer.
inline constexpr std::size_t kMaxRequestBytes = 500;
/// Longest entry of a grant, in bytes: as in a policy.
inline constexpr std::size_t kMaxGrantEntryBytes = 1023;
/// Longest time of a grant that ends, in seconds: ten years.
inline constexpr std::uint64_t kMaxGrantSeconds = 315'360'000;
/// Most requests or grants of one reply. With the longest texts they stay below half of a message.
inline constexpr std::uint32_t kMaxRequestsOfReply = 200;

// The settings keeper, which reads the settings file for the hub.
inline constexpr const char* kKeeperName = "com.orvanta.hvb1.SettingsKeeper";
inline constexpr const char* kKeeperPath = "/com/orvanta/hvb1/SettingsKeeper";
inline constexpr const char* kKeeperInterface = "com.orvanta.hvb1.SettingsKeeper";
// ReadNow: nothing → nothing, when the hub has what the file held when this was called, or later.
inline constexpr const char* kReadNowMember = "ReadNow";
// NoteReplacement: list ("allow_block", "categories", "private_ranges"; empty: no note any more), rows that there will
// be → nothing.
inline constexpr const char* kNoteReplacementMember = "NoteReplacement";
inline constexpr const char* kNoteReplacementSignature = "st";

// What a sender learns when it gets no ordinary reply.
inline constexpr const char* kErrorUnknownCommand = "com.orvanta.hvb1.Error.UnknownCommand"; ///< the handler gave false
inline constexpr const char* kErrorFailed = "com.orvanta.hvb1.Error.Failed";   ///< an exception left the handler
inline constexpr const char* kErrorNoReply = "com.orvanta.hvb1.Error.NoReply"; ///< the handler did not answer
inline constexpr const char* kErrorStopped = "com.orvanta.hvb1.Error.Stopped"; ///< the module takes nothing any more
inline constexpr const char* kErrorBadMessage = "com.orvanta.hvb1.Error.BadMessage"; ///< the message is malformed
inline constexpr const char* kErrorBusy = "com.orvanta.hvb1.Error.Busy"; ///< too many calls wait for a worker
inline constexpr const char* kErrorNoSettings = "com.orvanta.hvb1.Error.NoSettings"; ///< the hub has no such snapshot
inline constexpr const char* kErrorKeeper = "com.orvanta.hvb1.Error.Keeper"; ///< the settings keeper cannot read now
inline constexpr const char* kErrorLogStore = "com.orvanta.hvb1.Error.LogStore";     ///< the record could not be stored
inline constexpr const char* kErrorLogRefused = "com.orvanta.hvb1.Error.LogRefused"; ///< it can never be stored
inline constexpr const char* kErrorRequestRefused = "com.orvanta.hvb1.Error.RequestRefused"; ///< cannot be done so
inline constexpr const char* kErrorRequestStore = "com.orvanta.hvb1.Error.RequestStore"; ///< their file cannot be used

/// Largest text inside a message, in bytes. What a user can make the bus hold is a multiple of a message.
inline constexpr std::size_t kMaxTextBytes = std::size_t{256} << 10U;
/// Largest message that the bus passes: two texts, or a page of the log, and room for the header.
inline constexpr std::size_t kMaxMessageBytes = std::size_t{1} << 20U;
/// Largest payload of a command, in bytes of its memory file: 100,000 URLs of 650 characters.
inline constexpr std::size_t kMaxPayloadBytes = std::size_t{64} << 20U;
/// Largest payload of a reply: what two commands have stored, the list and the categories, fits into one snapshot.
inline constexpr std::size_t kMaxReplyPayloadBytes = 2 * kMaxPayloadBytes + (std::size_t{1} << 20U);
/// Largest text of a settings snapshot inside a message. Small, since as many messages may leave at once as calls wait.
inline constexpr std::size_t kMaxInlineSettingsBytes = std::size_t{32} << 10U;
/// Largest text of a settings snapshot, in its file.
inline constexpr std::size_t kMaxSettingsBytes = std::size_t{160} << 20U;
/// Longest wait of any operation but a command: an event that meets a stopped hub is given up within two seconds.
inline constexpr std::chrono::milliseconds kCallTimeout{1500};

static_assert(std::endian::native == std::endian::little && sizeof(wchar_t) == 4,
              "payloads travel as UCS-4LE, which is this machine's own wide text");

/// A wide text as the bytes that travel. Every wchar_t value goes through unchanged, whether or not it is a character.
inline std::string_view asBytes(std::wstring_view text) {
    return {reinterpret_cast<const char*>(text.data()), text.size() * sizeof(wchar_t)};
}

/// The wide text of bytes that arrived. None when their number is not a whole number of wide characters.
inline std::optional<std::wstring> fromBytes(const void* bytes, std::size_t size) {
    if (size % sizeof(wchar_t) != 0 || size > kMaxTextBytes) {
        return std::nullopt;
    }
    std::wstring text(size / sizeof(wchar_t), L'\0');
    if (size > 0) {
        __builtin_memcpy(text.data(), bytes, size);
    }
    return text;
}

} // namespace HVB::bus
