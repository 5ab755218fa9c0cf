// A policy while it is being checked: values as the daemon reads them, and notes on those that it reads otherwise than
// they look. For the sources of the check alone.
#pragma once

#include "apps/sentrelctl/policy/PolicyCheck.h"
#include "apps/sentrelctl/policy/PolicyKeys.h"

#include <optional>
#include <string>

namespace Sentrel::ctl {

/// What the daemon has for the narrow form of a text, and for how many entries of a list it looks.
inline constexpr std::size_t kMaxPolicyText = 1023;
inline constexpr std::size_t kMaxPolicyCharacters = 8191;
inline constexpr int kMaxPolicyEntries = 50'000;

/// Threads: plain, single access. Owner: checkPolicy; the policy outlives it.
class PolicyFindings {
public:
    PolicyFindings(const HVBEnterprise::SectionsHandle& policy, PolicyCheck& check)
        : m_policy(policy), m_check(check) {}

    const HVBEnterprise::SectionsHandle& policy() const { return m_policy; }
    void effect(std::string words) { m_check.effects.push_back(std::move(words)); }
    void warn(const PolicyKey& key, std::string what, int index = 0) { note(false, key, std::move(what), index); }
    void fail(const PolicyKey& key, std::string what, int index = 0) { note(true, key, std::move(what), index); }
    void warnAt(std::string place, std::string what) {
        m_check.problems.push_back({false, std::move(place), std::move(what)});
    }

    /// The number that the daemon reads; a note when the text is another.
    std::optional<int> number(const PolicyKey& key, int index = 0);
    /// The same for a switch.
    std::optional<bool> flag(const PolicyKey& key);
    /// A text of a list's entry. None, with a note, when it is missing or the daemon leaves it out for its length.
    std::optional<std::string> entry(const PolicyKey& key, int index);
    /// A declared number of entries as far as the daemon looks for them; a note when that is less.
    int bounded(const PolicyKey& key, int declared);
    /// Notes on entries of @p key with an index that @p count does not reach.
    void warnOfSurplus(const PolicyKey& key, const PolicyKey& countKey, int count);

private:
    void note(bool isFatal, const PolicyKey& key, std::string what, int index);

    const HVBEnterprise::SectionsHandle& m_policy;
    PolicyCheck& m_check;
};

// The passes, in the daemon's order. Each adds its effects and problems.
// The second tells whether it would succeed: otherwise the third is not reached.
void checkGeneral(PolicyFindings& findings);
bool checkCategoriesAndRatings(PolicyFindings& findings);
void checkSites(PolicyFindings& findings, bool isReached);

/// Notes on names that nothing reads.
void checkNames(PolicyFindings& findings);

} // namespace Sentrel::ctl
