// The doctor's look at the browsers: whether pages in their private windows are decided.
//
// Neither browser runs an extension there unless its user or a policy says so, and none of those policies is Sentrel's
// to write. So on most machines this is a warning, which says what an administrator can do.
//
// What must stay so:
// - Only the places for all users are looked at. What a user allows in his own profile is his own affair.
// - Firefox reads one file of policies: its own directory's only where there is none in /etc.
#include "apps/sentrelctl/doctor/Doctor.h"
#include "base/FileReading.h"
#include "base/Paths.h"

#include <algorithm>
#include <filesystem>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <nlohmann/json.hpp>

namespace Sentrel::ctl {
namespace {

constexpr std::size_t kMaxPolicyBytes = std::size_t{1} << 20U;
constexpr const char* kFirefoxId = "extension@sentrel.invalid";

/// What becomes of one browser's private windows.
struct PrivateWindows {
    bool areDecided = false; ///< or there are none
    std::string what;        ///< how it is that they are
    std::string trouble;     ///< with the policies, when they are not
    std::string advice;
};

/// None when it is no JSON.
std::optional<nlohmann::json> policiesIn(const std::string& path) {
    const std::string text = readRegularFile(path, kMaxPolicyBytes, FileAccess::Anybody, Links::Follow);
    nlohmann::json read = nlohmann::json::parse(text, nullptr, false);
    return read.is_discarded() ? std::nullopt : std::optional(std::move(read));
}

/// The member of that name; null when there is none.
const nlohmann::json& memberOf(const nlohmann::json& object, const char* name) {
    static const nlohmann::json none;
    const auto found = object.is_object() ? object.find(name) : object.end();
    return object.is_object() && found != object.end() ? *found : none;
}

bool hasFirefoxDecide(const nlohmann::json& policies) {
    return memberOf(memberOf(memberOf(policies, "ExtensionSettings"), kFirefoxId), "private_browsing") ==
           nlohmann::json(true);
}

bool hasFirefoxNone(const nlohmann::json& policies) {
    return memberOf(policies, "DisablePrivateBrowsing") == nlohmann::json(true) ||
           memberOf(policies, "PrivateBrowsingModeAvailability") == nlohmann::json(1);
}

PrivateWindows windowsOfFirefox() {
    const std::string policyFile = paths::firefoxPolicies();
    const std::string used = factsOf(policyFile) ? policyFile : paths::firefoxOwnPolicies();
    PrivateWindows windows;
    windows.advice = fmt::format(
        R"(Put {{"policies": {{"ExtensionSettings": {{"{}": {{"private_browsing": true}}}}}}}} into {}, beside what is )"
        R"(there, or do without such windows: DisablePrivateBrowsing true)",
        kFirefoxId, policyFile);
    const std::optional<nlohmann::json> read = factsOf(used) ? policiesIn(used) : std::optional(nlohmann::json());
    if (!read) {
        windows.trouble = used + " is no JSON";
        return windows;
    }
    const nlohmann::json& policies = memberOf(*read, "policies");
    windows.areDecided = hasFirefoxNone(policies) || hasFirefoxDecide(policies);
    windows.what =
        hasFirefoxNone(policies) ? "Firefox has no private windows" : "private windows of Firefox are decided too";
    return windows;
}

/// The names of the files that Chromium takes policies from, in its order: of two that say different things the last
/// counts.
std::vector<std::string> chromiumPolicyFiles() {
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(paths::chromiumPolicies())) {
        if (entry.path().extension() == ".json") {
            files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

PrivateWindows windowsOfChromium() {
    PrivateWindows windows;
    windows.what = "Chromium has no private windows";
    windows.advice = fmt::format(R"(Do without such windows: {{"IncognitoModeAvailability": 1}} in a file in {})",
                                 paths::chromiumPolicies());
    for (const std::string& file : chromiumPolicyFiles()) {
        const std::optional<nlohmann::json> read = policiesIn(file);
        if (!read) {
            windows.trouble = file + " is no JSON";
            continue;
        }
        if (const nlohmann::json& availability = memberOf(*read, "IncognitoModeAvailability");
            !availability.is_null()) {
            windows.areDecided = availability == nlohmann::json(1);
        }
    }
    return windows;
}

Diagnosis privateWindows(double /*timeout*/) {
    std::vector<std::string> undecided;
    std::vector<std::string> well;
    std::vector<std::string> advice;
    std::string trouble;
    const auto add = [&](const char* browser, const PrivateWindows& windows) {
        if (windows.areDecided) {
            well.push_back(windows.what);
            return;
        }
        undecided.emplace_back(browser);
        advice.push_back(windows.advice);
        trouble += windows.trouble.empty() ? "" : "; " + windows.trouble;
    };
    if (factsOf(paths::firefoxExtension())) {
        add("Firefox", windowsOfFirefox());
    }
    if (factsOf(paths::chromiumExtensionPolicy())) {
        add("Chromium", windowsOfChromium());
    }
    if (!undecided.empty()) {
        return warning(
            "private-windows-undecided",
            fmt::format("pages in private windows of {} are not decided{}", fmt::join(undecided, " and "), trouble),
            fmt::format("{}", fmt::join(advice, ". In Chromium: ")));
    }
    return healthy(well.empty() ? "no browser has the extension for all users"
                                : fmt::format("{}", fmt::join(well, "; ")));
}

} // namespace

const std::vector<Check>& browserChecks() {
    static const std::vector<Check> all{{"private-windows", privateWindows}};
    return all;
}

} // namespace Sentrel::ctl
