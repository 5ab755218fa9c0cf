// What a policy would do to a machine, told without one: the frame of the check, and the general settings.
//
// The check reads through the same functions in policy/ as the enforcement. PolicyFindings is a policy::PolicySource
// that also takes notes: it returns what the daemon would read, and adds a problem when that differs from how the value
// looks. So a pass here is the daemon's pass with words in place of setters.
//
// What must stay so:
// - What a value does is decided in policy/ and not here. The check once had rules of its own, and they drifted: a
//   category code that was cut in two counted as whole, and a name with blanks around it counted twice. A unit test now
//   holds check and enforcement against each other, with generated policies.
// - "Fatal" is what makes the daemon report a failure. All else is a warning, however odd it looks.
// - The third pass is checked also when the second fails and the daemon would not reach it, so that one look shows its
//   problems too. Its effect is then that the sites stay. With enforcement switched off no pass runs: nothing is fatal,
//   and there are no effects.
#include "apps/sentrelctl/policy/PolicyCheck.h"

#include "apps/sentrelctl/policy/PolicyFindings.h"
#include "apps/sentrelctl/policy/PolicyPlaces.h"
#include "base/PrintableText.h"
#include "policy/PolicyLimits.h"

#include <algorithm>
#include <fmt/format.h>

namespace Sentrel::ctl {

using HVBEnterprise::HvbAgentUtils;
using policy::PolicyKey;
namespace keys = policy::keys;
namespace {

constexpr std::size_t kMaxQuotedValue = 60;

std::string quoted(const std::string& value) {
    return "'" + text::shortened(text::validUtf8(value), kMaxQuotedValue) + "'";
}

void flagEffect(PolicyFindings& findings, const PolicyKey& key, const char* whenOn, const char* whenOff) {
    if (const auto value = findings.flag(key)) {
        findings.effect(*value ? whenOn : whenOff);
    }
}

void checkUnverified(PolicyFindings& findings) {
    const auto value = findings.number(keys::kUnverified);
    if (!value) {
        return;
    }
    constexpr int lastKnown = 2;
    if (*value < 0 || *value > lastKnown) {
        findings.warn(keys::kUnverified, fmt::format("is {}, which means allow: 0 is block, 1 allow, 2 warn", *value));
    }
    findings.effect(fmt::format("unverified sites: {}", actionWord(policy::unverifiedAction(*value))));
}

void checkRanges(PolicyFindings& findings) {
    const auto declared = findings.number(keys::kRangeCount);
    if (!declared) {
        return;
    }
    const int count = findings.bounded(keys::kRangeCount, *declared);
    const policy::TextEntries ranges = policy::readTexts(findings, keys::kRange, count);
    findings.warnOfEntries(keys::kRange, ranges);
    for (const policy::TextEntry& range : ranges.found) {
        if (range.narrow && policy::isVersion6Range(*range.narrow)) {
            findings.warn(keys::kRange, "is an IPv6 range, which the daemon leaves out", range.index);
        }
    }
    findings.warnOfSurplus(keys::kRange, keys::kRangeCount, count);
    const std::size_t stored = policy::storedRanges(ranges).size();
    findings.effect(fmt::format("{} private address {}", stored, stored == 1 ? "range" : "ranges"));
}

/// What the policy says of its own enforcement. A policy that says nothing is enforced.
bool checkEnforced(PolicyFindings& findings) {
    const auto status = findings.number(keys::kEnforce);
    if (policy::isEnforced(status)) {
        return true;
    }
    findings.warn(keys::kEnforce, fmt::format("is {}, so nothing of this policy is put into force", *status));
    return false;
}

} // namespace

const char* actionWord(policy::VisitAction action) {
    switch (action) {
    case policy::VisitAction::Allow:
        return "allow";
    case policy::VisitAction::Warn:
        return "warn";
    default:
        return "block";
    }
}

std::optional<int> PolicyFindings::number(const PolicyKey& key, int index) const {
    const auto value = HVBEnterprise::agent::policyValue(m_document, key, index);
    if (!value) {
        return std::nullopt;
    }
    const policy::PolicyNumber read = policy::readNumber(*value);
    if (!read.isWhole) {
        note(false, key,
             fmt::format("is no number: the daemon reads {} as {}", quoted(HvbAgentUtils::wstringToString(*value)),
                         read.value),
             index);
    }
    return read.value;
}

std::optional<policy::PolicyText> PolicyFindings::text(const PolicyKey& key, int index) const {
    const auto value = HVBEnterprise::agent::policyValue(m_document, key, index);
    return value ? std::optional(policy::readText(*value)) : std::nullopt;
}

std::optional<bool> PolicyFindings::flag(const PolicyKey& key) {
    const auto value = number(key);
    if (value && (*value < 0 || *value > 1)) {
        warn(key, fmt::format("is {}, which means off: only 1 is on", *value));
    }
    return value ? std::optional(policy::isOn(*value)) : std::nullopt;
}

int PolicyFindings::bounded(const PolicyKey& key, int declared) {
    const int count = policy::boundedCount(declared);
    if (count < declared) {
        warn(key, fmt::format("is {}: the daemon looks for {} entries at the most", declared, count));
    }
    return count;
}

void PolicyFindings::warnOfMissing(const PolicyKey& key, const std::vector<int>& indices) {
    constexpr std::size_t told = 100;
    for (std::size_t at = 0; at < std::min(indices.size(), told); ++at) {
        const bool hasMore = at + 1 == told && indices.size() > told;
        warn(key,
             hasMore ? fmt::format("is missing, and so are {} more entries of the list", indices.size() - told)
                     : "is missing",
             indices[at]);
    }
}

void PolicyFindings::warnOfEntries(const PolicyKey& key, const policy::TextEntries& entries) {
    warnOfMissing(key, entries.missing);
    for (const policy::TextEntry& entry : entries.found) {
        if (!entry.narrow) {
            warn(key, fmt::format("is longer than {} bytes, so it is left out", policy::kMaxNarrowBytes), entry.index);
        } else if (entry.narrow->empty()) {
            warn(key, "is empty, so it is left out", entry.index);
        }
    }
}

void PolicyFindings::warnOfSurplus(const PolicyKey& key, const PolicyKey& countKey, int count) {
    HVBEnterprise::SectionsHandle::Section section;
    if (!m_document.getSectionDataUsingSectionName(policy::wide(key.section), section)) {
        return;
    }
    for (const auto& [name, value] : section) {
        const auto index = policy::indexIn(key, HvbAgentUtils::wstringToString(name));
        if (index && *index >= count) {
            warn(key, fmt::format("is not read: {} is {}", countKey.name, count), *index);
        }
    }
}

void PolicyFindings::noteGap(const PolicyKey& missing, const PolicyKey& there, int index) {
    m_check.gap = fmt::format("{}: is missing, and {} is there: from it on, sites and actions do not fit",
                              placeOf(m_document, missing, index), policy::nameOf(there, index));
}

void PolicyFindings::note(bool isFatal, const PolicyKey& key, std::string what, int index) const {
    m_check.problems.push_back({isFatal, placeOf(m_document, key, index), std::move(what)});
}

void checkGeneral(PolicyFindings& findings) {
    flagEffect(findings, keys::kEnable, "protection on", "protection off");
    flagEffect(findings, keys::kLogGreen, "green sites: logged", "green sites: not logged");
    flagEffect(findings, keys::kLogAllowed, "allowed entries of the list: logged",
               "allowed entries of the list: not logged");
    checkUnverified(findings);
    flagEffect(findings, keys::kPhishing, "phishing pages: block", "phishing pages: allow");
    flagEffect(findings, keys::kUnreachable, "while the reputation service is away: block",
               "while the reputation service is away: allow");
    checkRanges(findings);
}

bool PolicyCheck::isWhole() const {
    return std::none_of(problems.begin(), problems.end(), [](const PolicyProblem& each) { return each.isFatal; });
}

PolicyCheck checkPolicy(const HVBEnterprise::SectionsHandle& document) {
    PolicyCheck check;
    PolicyFindings findings(document, check);
    check.isEnforced = checkEnforced(findings);
    checkGeneral(findings);
    const bool areSitesReached = checkCategoriesAndRatings(findings);
    checkSites(findings, areSitesReached);
    checkNames(findings);
    if (!check.isEnforced) { // then no pass runs that could fail
        check.effects.clear();
        check.gap.clear();
        for (PolicyProblem& problem : check.problems) {
            problem.isFatal = false;
        }
    }
    return check;
}

} // namespace Sentrel::ctl
