// The saved policy, and which policy is in force.
#pragma once

#include "platform/hvbagent/PolicyDocument.h"

#include <optional>
#include <string>
#include <string_view>

namespace HVBEnterprise::agent {

/// The file with the policy message in force, as it came: a signature is checked again whenever it is read.
class PolicyStore {
public:
    explicit PolicyStore(std::string path) : m_path(std::move(path)) {}

    const std::string& path() const { return m_path; }

    /// The message, or nothing when none was saved. @throws std::system_error when it cannot be read.
    std::optional<std::string> load() const;

    /// Saves the message whole. @throws std::system_error; what was saved before stays.
    void save(std::string_view message) const;

private:
    std::string m_path;
};

/// What to do with a policy that came.
enum class PolicyVerdict {
    Refused,      ///< what was in force stays
    Enforce,      ///< it is in store and in force now; enforcement is due
    AlreadyThere, ///< it is in force, and was enforced
};

struct PolicyDecision {
    PolicyVerdict verdict = PolicyVerdict::Refused;
    PolicyIdentity identity;
    std::string refused; ///< why
};

/// The rules by which one policy replaces another. The policy in force is the one in store: a new one is in force when
/// it is saved, whatever the result of its enforcement is.
/// Threads: plain, single access. Owner: the callback thread.
class PolicyInForce {
public:
    PolicyInForce(PolicyStore store, std::optional<PublicKey> key) : m_store(std::move(store)), m_key(key) {}

    /// Takes the saved policy. @return whether there is one. @throws std::runtime_error when it cannot be read; then no
    /// policy is in force, and the file stays as it is until another policy replaces it.
    bool restore();

    /// Decides on a message. An older version than that in force is refused, and so is the same version with other
    /// content. The same again is enforced only when its last enforcement failed.
    PolicyDecision take(std::string_view message);

    /// Notes the result of enforcing the policy in force.
    void noteEnforced(bool enforced) { m_enforced = enforced; }

    /// Requires that restore or take said that there is one.
    const SectionsHandle& sections() const { return m_reading.sections; }
    const PolicyIdentity& identity() const { return m_reading.identity; }

private:
    std::string whyNotAfter(const PolicyIdentity& next) const;

    PolicyStore m_store;
    std::optional<PublicKey> m_key;
    bool m_isThere = false;
    PolicyReading m_reading; ///< of the policy in force
    std::optional<bool> m_enforced;
};

} // namespace HVBEnterprise::agent
