// What the policy in store rules, for those who may not read it.
#pragma once

#include "base/FileStamp.h"
#include "platform/settings/SettingsSnapshot.h"

#include <optional>
#include <string>

namespace Sentrel::keeper {

/// Follows the enrolment and the policy that the daemon has saved. Reads them only when they are others than before.
/// Threads: one at a time. Owner: the settings watch.
class PolicyWatch {
public:
    /// @param enrolment agent.json; @param policy where the daemon saves the policy. Neither has to be there.
    PolicyWatch(std::string enrolment, std::string policy);

    /// Looks at both files. @return whether policy() is another one now
    bool look();

    /// None until the first look, and when this user cannot see whether the machine is managed.
    const std::optional<settings::MachinePolicy>& policy() const { return m_policy; }

private:
    std::optional<settings::MachinePolicy> read() const;

    const std::string m_enrolmentFile; ///< constant after construction
    const std::string m_policyFile;    ///< the same
    // Plain, single access.
    bool m_isLookedAt = false;
    std::optional<FileStamp> m_enrolment; ///< as last read
    std::optional<FileStamp> m_stored;    ///< the same
    std::optional<settings::MachinePolicy> m_policy;
};

} // namespace Sentrel::keeper
