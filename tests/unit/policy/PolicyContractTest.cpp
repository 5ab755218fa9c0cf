// The check of a policy against its enforcement: some thousand generated policies go through both, and what the check
// said is held against what the setters were handed and what enforcement returned. Real: the check and the enforcement;
// the controller records, and what a controller makes of lists is told here once more.
#include "apps/sentrelctl/policy/PolicyCheck.h"
#include "base/TextConversion.h"
#include "platform/hvbagent/PolicyDocument.h"
#include "policy/PolicyRows.h"
#include "tests/support/Sanitizers.h"
#include "tests/unit/managed/PolicyFixture.h"
#include "tests/unit/policy/PolicyGenerator.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <set>

namespace testing_support {
namespace {

using Words = std::vector<std::string>;

/// Nothing here has a second thread, so ThreadSanitizer looks at a tenth.
constexpr int kPolicies = kIsThreadSanitized ? 300 : 3000;

std::string narrowOf(const std::wstring& wide) {
    std::vector<char> buffer(6 * wide.size() + 1, '\0');
    int size = static_cast<int>(buffer.size());
    widechar2charstr(wide.c_str(), buffer.data(), &size);
    return buffer.data();
}

/// What the controller stores of a name; nothing for one that it leaves out.
std::optional<std::string> storedName(const std::wstring& wide) {
    std::string name = narrowOf(wide);
    if (name.size() > 1023) {
        return std::nullopt;
    }
    name.erase(0, name.find_first_not_of(" \t"));
    name.erase(name.find_last_not_of(" \t") + 1);
    return name;
}

/// The argument of a recorded call; nothing when there was none.
std::optional<std::string> argumentOf(const Lines& calls, const std::string& setter) {
    for (const std::string& call : calls) {
        if (call.starts_with(setter + " ")) {
            return call.substr(setter.size() + 1);
        }
    }
    return std::nullopt;
}

std::string actionWord(const std::string& code) {
    return std::map<std::string, std::string>{{"1", "allow"}, {"2", "warn"}, {"3", "block"}}.at(code);
}

const char* plural(std::size_t count, const char* one, const char* many) {
    return count == 1 ? one : many;
}

/// What the controller stores of each list that it was handed.
Sentrel::policy::PolicyRows recordedRows(const PreferenceRecording& store) {
    Sentrel::policy::PolicyRows rows;
    if (store.handed.ranges) {
        rows.ranges.emplace();
        std::copy_if(store.handed.ranges->begin(), store.handed.ranges->end(),
                     std::inserter(*rows.ranges, rows.ranges->end()),
                     [](const std::string& range) { return !range.empty() && range.find(':') == std::string::npos; });
    }
    if (const auto& handed = store.handed.categories; handed && handed->enabled != 0) {
        rows.categories.emplace();
        for (std::size_t at = 0; at < static_cast<std::size_t>(handed->count); ++at) {
            const wchar_t digit = handed->actions.at(at);
            const auto name = storedName(handed->names.at(at));
            if (digit >= L'1' && digit <= L'9' && name) {
                rows.categories->insert(*name);
            }
        }
    }
    if (const auto& handed = store.handed.sites) {
        rows.sites.emplace();
        for (std::size_t at = 0; at < std::min(handed->urls.size(), handed->actions.size()); ++at) {
            const auto name = storedName(handed->urls[at]);
            if (name && !name->empty()) {
                (*rows.sites)[*name] = handed->actions[at];
            }
        }
    }
    return rows;
}

/// Puts what was recorded into the check's words.
class RecordedWords {
public:
    explicit RecordedWords(const PreferenceRecording& store) : m_store(store), m_rows(recordedRows(store)) {}

    Words all(std::optional<bool> enabled) {
        if (enabled) {
            m_words.push_back(*enabled ? "protection on" : "protection off");
        }
        flag("setLogGREENSitesStatus", "green sites: logged", "green sites: not logged");
        flag("setLogAllowSiteStatus", "allowed entries of the list: logged", "allowed entries of the list: not logged");
        action("setSTUnVerifiedAction", "unverified sites");
        flag("setBlockPhishingStatus", "phishing pages: block", "phishing pages: allow");
        flag("setRPXUnReachableAction", "while the reputation service is away: block",
             "while the reputation service is away: allow");
        ranges();
        categories();
        action("setYellowSiteAction", "yellow sites");
        action("setRedSiteAction", "red sites");
        action("setUnratedSiteAction", "unrated sites");
        sites();
        return m_words;
    }

private:
    void flag(const char* setter, const char* whenOn, const char* whenOff) {
        if (const auto value = argumentOf(m_store.calls, setter)) {
            m_words.push_back(*value == "1" ? whenOn : whenOff);
        }
    }

    void action(const char* setter, const char* what) {
        if (const auto value = argumentOf(m_store.calls, setter)) {
            m_words.push_back(std::string(what) + ": " + actionWord(*value));
        }
    }

    void ranges() {
        if (m_rows.ranges) {
            const std::size_t stored = m_rows.ranges->size();
            m_words.push_back(fmt::format("{} private address {}", stored, plural(stored, "range", "ranges")));
        }
    }

    void categories() {
        const auto& handed = m_store.handed.categories;
        if (!handed) {
            return;
        }
        if (handed->enabled == 0) {
            m_words.push_back("category blocking off; the categories on the machine stay");
            return;
        }
        const std::size_t stored = m_rows.categories->size();
        m_words.push_back("category blocking on");
        m_words.push_back(fmt::format("{} {} blocked", stored, plural(stored, "category", "categories")));
        m_words.push_back(handed->uncategorized != 0 ? "uncategorized sites: block" : "uncategorized sites: allow");
    }

    void sites() {
        const auto& handed = m_store.handed.sites;
        if (!handed) {
            return;
        }
        const std::map<std::string, int>& stored = *m_rows.sites;
        const auto allowed =
            std::count_if(stored.begin(), stored.end(), [](const auto& each) { return each.second == 0; });
        m_words.push_back(fmt::format("{} {}: {} blocked, {} allowed, {} entries win", stored.size(),
                                      plural(stored.size(), "site", "sites"),
                                      static_cast<std::ptrdiff_t>(stored.size()) - allowed, allowed,
                                      handed->precedence != 0 ? "allow" : "block"));
    }

    const PreferenceRecording& m_store;
    const Sentrel::policy::PolicyRows m_rows;
    Words m_words;
};

class APolicysCheck : public PolicyFixture {
protected:
    struct Enforced {
        bool result;
        Words words;
    };

    /// Every setter that is called only for a change is called.
    Enforced enforced(const HVBEnterprise::SectionsHandle& document) {
        store.calls.clear();
        store.handed = {};
        store.values.m_yellowSiteAction = store.values.m_redSiteAction = store.values.m_unratedSiteAction = 99;
        AgentDouble::instance().answer = L"0";
        controller().agentWrapper()->updateManagedStatus(); // which forgets that a policy told the enable state
        const bool result = enforcement.enforcePolicy(L"", document);
        systemLog().clear();
        const auto enabled = policyReceived() ? std::optional(controller().policyEnabled()) : std::nullopt;
        return {result, RecordedWords(store).all(enabled)};
    }

    /// What the check said without the words for what stays as it is, which nobody is handed.
    static Words changesOf(const Sentrel::ctl::PolicyCheck& check) {
        Words changes;
        std::copy_if(check.effects.begin(), check.effects.end(), std::back_inserter(changes),
                     [](const std::string& words) { return words.find(": as they are") == std::string::npos; });
        return changes;
    }

    /// @return whether all of the policy is put into force, as both say.
    bool compare(const HVBEnterprise::SectionsHandle& document, const std::string& which) {
        const Enforced done = enforced(document);
        const Sentrel::ctl::PolicyCheck check = Sentrel::ctl::checkPolicy(document);
        EXPECT_EQ(check.isWhole(), done.result) << which;
        EXPECT_EQ(changesOf(check), done.words) << which;
        EXPECT_TRUE(check.isEnforced || store.calls.empty()) << which;
        if (done.result) {
            const Sentrel::policy::PolicyRows handed = recordedRows(store);
            const Sentrel::policy::PolicyRows told =
                Sentrel::policy::rowsOf(HVBEnterprise::agent::DocumentValues(document));
            EXPECT_EQ(told.ranges, handed.ranges) << which;
            EXPECT_EQ(told.categories, handed.categories) << which;
            EXPECT_EQ(told.sites, handed.sites) << which;
        }
        return done.result;
    }
};

TEST_F(APolicysCheck, SaysOfEachPolicyWhatItsEnforcementDoes) {
    constexpr std::uint32_t seed = 20240501;
    PolicyGenerator generator(seed);
    int whole = 0;
    int stored = 0;
    for (int at = 0; at < kPolicies && !HasFailure(); ++at) {
        whole += compare(generator.next(), fmt::format("policy {} of seed {}", at, seed)) ? 1 : 0;
        stored += store.handed.categories && store.handed.sites ? 1 : 0;
    }
    // Otherwise the generator has come to make nothing but failures, or none.
    EXPECT_GT(whole, kPolicies / 4);
    EXPECT_LT(whole, kPolicies * 9 / 10);
    EXPECT_GT(stored, kPolicies / 5);
}

TEST_F(APolicysCheck, SaysWhatBecomesOfListsAboveTheirBoundAndOfCountsThatLie) {
    wholeContent(L"84");
    general(L"ActionEnforcement", L"uiAgumentIPCount", L"100002");
    list(L"uiSiteCount", L"2147483647");
    for (const int index : {0, 1, 99'998, 99'999, 100'000, 100'001}) {
        const std::wstring number = std::to_wstring(index);
        general(L"ActionEnforcement", (L"szAgumentIP_" + number).c_str(), L"10.0." + number);
        list(L"szSite" + number, L"http://" + number + L"/");
        list(L"Action" + number, index % 2 == 0 ? L"0" : L"1");
    }
    compare(policy, "lists of 100,002 entries");
    EXPECT_EQ(store.handed.sites->urls.size(), 4U);
    EXPECT_EQ(store.handed.ranges->size(), 4U);
}

} // namespace
} // namespace testing_support
