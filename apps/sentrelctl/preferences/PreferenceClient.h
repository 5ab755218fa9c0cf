// The preferences as a client of the daemon reads and changes them: the five commands, each with its answer checked.
#pragma once

#include "apps/sentrelctl/clients/CommandChannel.h"
#include "apps/sentrelctl/preferences/UrlList.h"
#include "hub/HVBMessages.h"
#include "hub/STPreferences.h"

namespace Sentrel::ctl {

/// The preferences at one moment, with the list's keys as they are typed.
struct Snapshot {
    STPreferences values; ///< its own list is empty
    UrlList list;
};

/// Sends the preference commands over the hub. Each operation is one command and waits for its answer.
/// Threads: one at a time. Owner: the verb; there is one in a process, since the broker ends with it.
class PreferenceClient {
public:
    /// Does not connect yet. @param timeout seconds that each command may take; a part of one counts as a whole.
    explicit PreferenceClient(double timeout);

    /// All preferences. @throws Failure when there is no answer or none that can be read; so do those below.
    Snapshot readAll();

    /// One preference; the others keep their defaults.
    Snapshot read(STPrefType type);

    /// Changes the preference @p type to what it is in @p values; the others in it do not count.
    /// @throws Failure also when the daemon refuses, and before anything is sent when a list is too large.
    void write(STPrefType type, STPreferences values);

    /// Replaces the allow/block list whole.
    void writeList(const UrlList& list);

    /// Gives eight preferences their first values; the list is among them.
    void reset();

private:
    void sendChange(HVB::CommandData& command, const CommandPurpose& purpose) const;

    CommandChannel m_channel;
};

} // namespace Sentrel::ctl
