// A policy while it is being checked: values as the daemon reads them, and notes on those that it reads otherwise than
// they look. For the sources of the check alone.
#pragma once

#include "apps/sentrelctl/policy/PolicyCheck.h"
#include "policy/PolicyLists.h"

#include <optional>
#include <string>
#include <vector>

namespace Sentrel::ctl {

/// Threads: plain, single access. Owner: checkPolicy; the policy outlives it.
class PolicyFindings : public policy::PolicySource {
public:
    using PolicyKey = policy::PolicyKey;

    PolicyFindings(const HVBEnterprise::SectionsHandle& document, PolicyCheck& check)
        : m_document(document), m_check(check) {}

    const HVBEnterprise::SectionsHandle& document() const { return m_document; }
    void effect(std::string words) { m_check.effects.push_back(std::move(words)); }
    void warn(const PolicyKey& key, std::string what, int index = 0) { note(false, key, std::move(what), index); }
    void fail(const PolicyKey& key, std::string what, int index = 0) { note(true, key, std::move(what), index); }
    /// Notes that the actions of the list do not fit its sites, from an entry on of which only one of the two is there.
    void noteGap(const PolicyKey& missing, const PolicyKey& there, int index);
    void warnAt(std::string place, std::string what) {
        m_check.problems.push_back({false, std::move(place), std::move(what)});
    }

    /// As everywhere; a note when the text is another than the number.
    std::optional<int> number(const PolicyKey& key, int index = 0) const override;
    std::optional<policy::PolicyText> text(const PolicyKey& key, int index = 0) const override;
    /// The same for a switch.
    std::optional<bool> flag(const PolicyKey& key);

    /// A declared number of entries as far as it is looked through; a note when that is less.
    int bounded(const PolicyKey& key, int declared);
    /// Notes on the entries of a list that are missing, or left out for what they are.
    void warnOfEntries(const PolicyKey& key, const policy::TextEntries& entries);
    /// Notes on these entries, of a long row of them on the first only, and how many there are.
    void warnOfMissing(const PolicyKey& key, const std::vector<int>& indices);
    /// Notes on entries of @p key with an index that @p count does not reach.
    void warnOfSurplus(const PolicyKey& key, const PolicyKey& countKey, int count);

private:
    void note(bool isFatal, const PolicyKey& key, std::string what, int index) const;

    const HVBEnterprise::SectionsHandle& m_document;
    PolicyCheck& m_check;
};

// The passes, in the daemon's order. Each adds its effects and problems.
// The second tells whether it would succeed: otherwise the third is not reached.
void checkGeneral(PolicyFindings& findings);
bool checkCategoriesAndRatings(PolicyFindings& findings);
void checkSites(PolicyFindings& findings, bool isReached);

/// "allow", "warn" or "block".
const char* actionWord(policy::VisitAction action);

/// Notes on names that nothing reads.
void checkNames(PolicyFindings& findings);

} // namespace Sentrel::ctl
