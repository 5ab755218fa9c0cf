// The settings file as one text, which the settings keeper makes and hvbd serves.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace Sentrel::settings {

/// Largest text of a snapshot, in bytes: what two commands can have stored, and what JSON puts around it.
inline constexpr std::size_t kMaxSnapshotBytes = (std::size_t{2} * 64 + 32) << 20U;
/// Most entries of all three lists together: what a policy may set, and a half more.
inline constexpr std::size_t kMaxSnapshotEntries = 300'000;

/// A text that is no snapshot, or a snapshot that no text may hold. Its words are printable, and say where.
class SnapshotError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A row of a list. Threads: a plain value. Owner: its snapshot.
struct ListEntry {
    std::string name; ///< bytes as the file has them
    /// Of a category: its action, 0 when the row has none. Of a URL: 0 allowed, any other value blocked.
    std::int32_t value = 0;

    auto operator<=>(const ListEntry&) const = default;
};

/// The proxy as the hub gave it last. A member is missing when the file has no such row.
/// Threads: a plain value. Owner: its snapshot.
struct ProxySettings {
    std::optional<std::string> host; ///< bytes
    std::optional<std::string> user; ///< bytes
    /// Whether a password is stored.
    bool hasPassword = false;
    /// The password where it is a text of the site's own cipher; any other one is never shown.
    std::optional<std::string> cipheredPassword;
    std::optional<std::int32_t> port;
    std::optional<std::int32_t> type;
    std::optional<std::int32_t> authentication;

    bool operator==(const ProxySettings&) const = default;
};

/// What the keeper's look at every page of the file came to. Threads: a plain value. Owner: its snapshot.
struct FileCheck {
    std::int64_t at = 0; ///< microseconds since the epoch
    std::string trouble; ///< printable; empty: the file is sound

    bool operator==(const FileCheck&) const = default;
};

/// A list that somebody said is being replaced. Threads: a plain value. Owner: its snapshot.
struct Replacement {
    std::string list;         ///< "allow_block", "categories" or "private_ranges"
    std::uint64_t of = 0;     ///< rows that there will be
    std::uint64_t stored = 0; ///< rows that there are

    bool operator==(const Replacement&) const = default;
};

/// What is known of the policy that the management server gave this machine. Threads: a plain value. Owner: its
/// snapshot.
struct MachinePolicy {
    bool isManaged = false;
    std::optional<std::int64_t> version; ///< of the policy in store; none when there is none
    std::string trouble;                 ///< printable; why the policy in store cannot be read
    /// Keys of the settings that it rules; "allow_block" and "private_ranges" stand for those lists.
    std::vector<std::string> rules;
    /// Whether the enrolment of a managed machine lets its administrators grant what users ask for.
    bool allowsLocalGrants = false;

    bool operator==(const MachinePolicy&) const = default;
};

enum class SnapshotState {
    Whole, ///< every list is as a whole change left it
    Short, ///< the daemon ended while a list was replaced; what is there is what it reads at its next start
    None,  ///< there is no file, or it cannot be read; the reason says why, and there are no values
};

/// The word for a state in the text and on the bus: "whole", "short", "none".
std::string_view stateWord(SnapshotState state);

/// Everything in the settings file that has a meaning, as it was at one time. Texts are the bytes of the file.
/// Threads: a plain value. Owner: the holder.
struct SettingsSnapshot {
    std::int64_t readAt = 0; ///< microseconds since the epoch: when the file was read and had this content
    SnapshotState state = SnapshotState::None;
    std::string reason;             ///< printable; why the state is not Whole
    std::optional<FileCheck> check; ///< none before the first one
    /// A list is changing. The lists are as they last were whole; everything else is as the file has it.
    bool isChanging = false;
    std::optional<Replacement> replacement;
    std::optional<MachinePolicy> policy; ///< none: not known

    std::map<std::string, std::int32_t> numbers; ///< of kNumberKeys; a missing row is missing here
    std::vector<std::string> unreadable;         ///< keys whose row holds no number of four bytes
    std::vector<ListEntry> categories;
    std::vector<ListEntry> allowBlock; ///< in the file's order, which is not yet the one that decides
    std::vector<std::string> privateRanges;
    ProxySettings proxy;

    bool operator==(const SettingsSnapshot&) const = default;
    bool hasListsOf(const SettingsSnapshot& other) const {
        return categories == other.categories && allowBlock == other.allowBlock && privateRanges == other.privateRanges;
    }
};

/// The text of a snapshot, in JSON (docs/formats.md). @throws SnapshotError beyond the bounds above.
std::string textOf(const SettingsSnapshot& snapshot);

/// The snapshot of a text. Strict: an unknown or missing member, another type, a name twice or a text beyond the bounds
/// is refused. @throws SnapshotError
SettingsSnapshot snapshotOf(std::string_view text);

/// Whether a stored password is a text of the site's own cipher, by its form.
bool isCipherText(std::string_view password);

} // namespace Sentrel::settings
