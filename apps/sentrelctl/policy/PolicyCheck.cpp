// The check of a policy: the frame, and the general settings. It follows the daemon's own passes step by step: what
// they read, in which order, and what keeps the later ones from running.
#include "apps/sentrelctl/policy/PolicyCheck.h"

#include "apps/sentrelctl/policy/PolicyFindings.h"
#include "base/PrintableText.h"
#include "platform/hvbagent/MsgBusEnterpriseAgent.h"

#include <algorithm>
#include <fmt/format.h>

namespace Sentrel::ctl {
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
    constexpr int block = 0;
    constexpr int warn = 2;
    if (*value < block || *value > warn) {
        findings.warn(keys::kUnverified, fmt::format("is {}, which means allow: 0 is block, 1 allow, 2 warn", *value));
    }
    const char* const action = *value == block ? "block" : *value == warn ? "warn" : "allow";
    findings.effect(fmt::format("unverified sites: {}", action));
}

void checkRanges(PolicyFindings& findings) {
    const auto declared = findings.number(keys::kRangeCount);
    if (!declared) {
        return;
    }
    const int count = findings.bounded(keys::kRangeCount, *declared);
    int taken = 0;
    for (int index = 0; index < count; ++index) {
        const auto range = findings.entry(keys::kRange, index);
        const bool isVersion6 = range && range->find(':') != std::string::npos;
        if (isVersion6) {
            findings.warn(keys::kRange, "is an IPv6 range, which the daemon leaves out", index);
        }
        taken += range && !isVersion6 ? 1 : 0;
    }
    findings.warnOfSurplus(keys::kRange, keys::kRangeCount, count);
    findings.effect(fmt::format("{} private address {}", taken, taken == 1 ? "range" : "ranges"));
}

/// What the policy says of its own enforcement. A policy that says nothing is enforced.
bool checkEnforced(PolicyFindings& findings) {
    const auto value = findings.number(keys::kEnforce);
    if (!value || *value > 0) {
        return true;
    }
    findings.warn(keys::kEnforce, fmt::format("is {}, so nothing of this policy is put into force", *value));
    return false;
}

} // namespace

std::optional<int> PolicyFindings::number(const PolicyKey& key, int index) {
    const auto value = policyValue(m_policy, key, index);
    if (!value) {
        return std::nullopt;
    }
    const PolicyNumber read = readPolicyNumber(*value);
    if (!read.isWhole) {
        warn(key, fmt::format("is no number: the daemon reads {} as {}", quoted(*value), read.value), index);
    }
    return read.value;
}

std::optional<bool> PolicyFindings::flag(const PolicyKey& key) {
    const auto value = number(key);
    if (value && (*value < 0 || *value > 1)) {
        warn(key, fmt::format("is {}, which means off: only 1 is on", *value));
    }
    return value ? std::optional(*value == 1) : std::nullopt;
}

std::optional<std::string> PolicyFindings::entry(const PolicyKey& key, int index) {
    auto value = policyValue(m_policy, key, index);
    if (!value) {
        warn(key, "is missing", index);
    } else if (value->size() > kMaxPolicyText) {
        warn(key, fmt::format("is longer than {} bytes, so it is left out", kMaxPolicyText), index);
        value.reset();
    }
    return value;
}

int PolicyFindings::bounded(const PolicyKey& key, int declared) {
    if (declared > kMaxPolicyEntries) {
        warn(key, fmt::format("is {}: the daemon looks for {} entries at the most", declared, kMaxPolicyEntries));
    }
    return std::clamp(declared, 0, kMaxPolicyEntries);
}

void PolicyFindings::warnOfSurplus(const PolicyKey& key, const PolicyKey& countKey, int count) {
    HVBEnterprise::SectionsHandle::Section section;
    if (!m_policy.getSectionDataUsingSectionName(std::wstring(key.section.begin(), key.section.end()), section)) {
        return;
    }
    for (const auto& [name, value] : section) {
        const auto index = indexIn(key, HVBEnterprise::HvbAgentUtils::wstringToString(name));
        if (index && *index >= count) {
            warn(key, fmt::format("is not read: {} is {}", countKey.name, count), *index);
        }
    }
}

void PolicyFindings::note(bool isFatal, const PolicyKey& key, std::string what, int index) {
    m_check.problems.push_back({isFatal, placeOf(m_policy, key, index), std::move(what)});
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

PolicyCheck checkPolicy(const HVBEnterprise::SectionsHandle& policy) {
    PolicyCheck check;
    PolicyFindings findings(policy, check);
    check.isEnforced = checkEnforced(findings);
    checkGeneral(findings);
    const bool areSitesReached = checkCategoriesAndRatings(findings);
    checkSites(findings, areSitesReached);
    checkNames(findings);
    if (!check.isEnforced) { // then no pass runs that could fail
        check.effects.clear();
        for (PolicyProblem& problem : check.problems) {
            problem.isFatal = false;
        }
    }
    return check;
}

} // namespace Sentrel::ctl
