#include "policy/LeftOut.h"

#include "policy/PolicyKeys.h"
#include "policy/PolicyLimits.h"
#include "policy/PolicyLists.h"

#include <optional>

namespace Sentrel::policy {
namespace {

void add(LeftOut& all, const PolicyKey& key, int index, LeftOutReason reason) {
    if (++all.count <= kMaxLeftOutTold) {
        all.first.push_back({nameOf(key, index), reason});
    }
}

/// Why a text of a list gets no row; nothing when it gets one.
std::optional<LeftOutReason> whyLeftOut(const PolicyKey& key, const TextEntry& entry) {
    if (!entry.narrow) {
        return LeftOutReason::TooLong;
    }
    if (entry.narrow->find_first_not_of(" \t") == std::string::npos) {
        return LeftOutReason::Empty;
    }
    if (key.name == keys::kRange.name && isVersion6Range(*entry.narrow)) {
        return LeftOutReason::Version6;
    }
    return std::nullopt;
}

void addSurplus(const PolicySource& source, const PolicyKey& key, int count, LeftOut& all) {
    for (int index = count; index < kMaxPolicyEntries && source.text(key, index); ++index) {
        add(all, key, index, LeftOutReason::BeyondCount);
    }
}

void addList(const PolicySource& source, const PolicyKey& countKey, const PolicyKey& key, LeftOut& all) {
    const std::optional<int> declared = source.number(countKey, 0);
    if (!declared) {
        return;
    }
    const int count = boundedCount(*declared);
    const TextEntries entries = readTexts(source, key, count);
    for (const int index : entries.missing) {
        add(all, key, index, LeftOutReason::Missing);
    }
    for (const TextEntry& entry : entries.found) {
        if (const auto reason = whyLeftOut(key, entry)) {
            add(all, key, entry.index, *reason);
        }
    }
    addSurplus(source, key, count, all);
}

} // namespace

LeftOut leftOutOf(const PolicySource& source) {
    LeftOut all;
    if (isEnforced(source.number(keys::kEnforce, 0))) {
        addList(source, keys::kRangeCount, keys::kRange, all);
        addList(source, keys::kSiteCount, keys::kSite, all);
    }
    return all;
}

} // namespace Sentrel::policy
