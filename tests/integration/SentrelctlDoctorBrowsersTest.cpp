// What sentrelctl doctor says of the browsers' private windows.
#include "tests/integration/DoctorFixture.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <string>

namespace testing_support {
namespace {

constexpr const char* kExtension =
    "/usr/share/mozilla/extensions/{ec8030f7-c20a-464f-9b0e-13a3a9e97384}/extension@sentrel.invalid.xpi";
constexpr const char* kFirefoxPolicies = "/etc/firefox/policies/policies.json";
constexpr const char* kFirefoxOwnPolicies = "/usr/lib/firefox-esr/distribution/policies.json";
constexpr const char* kChromiumExtension = "/etc/chromium/policies/managed/sentrel.json";
constexpr const char* kChromiumPolicies = "/etc/chromium/policies/managed/site.json";
constexpr const char* kAllowed =
    R"({"policies": {"ExtensionSettings": {"extension@sentrel.invalid": {"private_browsing": true}}}})";

/// A machine with the extension in its browsers.
class TheDoctorOfBrowsers : public AnInstallation {
protected:
    void put(const std::string& fixedPath, const std::string& content) {
        std::filesystem::create_directories(std::filesystem::path(at(fixedPath)).parent_path());
        write(fixedPath, content);
    }
    void installForFirefox() { put(kExtension, "an extension"); }
    void installForChromium() { put(kChromiumExtension, R"({"ExtensionSettings": {}})"); }

    void expectUndecidedIn(const std::string& browsers, const std::string& because = "") {
        const Finding found = finding("private-windows");
        EXPECT_EQ(found.result, "warning");
        EXPECT_EQ(found.id, "private-windows-undecided");
        EXPECT_EQ(found.what, "pages in private windows of " + browsers + " are not decided" + because);
    }
    void expectOk(const std::string& what) { EXPECT_EQ(finding("private-windows"), (Finding{"ok", what, ""})); }
};

TEST_F(TheDoctorOfBrowsers, IsContentWithoutTheExtension) {
    expectOk("no browser has the extension for all users");
}

TEST_F(TheDoctorOfBrowsers, WarnsOfFirefoxWithoutAPolicy) {
    installForFirefox();
    expectUndecidedIn("Firefox");
    EXPECT_EQ(finding("private-windows").advice,
              std::string("Put ") + kAllowed + " into " + kFirefoxPolicies +
                  ", beside what is there, or do without such windows: DisablePrivateBrowsing true");
}

TEST_F(TheDoctorOfBrowsers, TakesFirefoxsPolicyForTheExtension) {
    installForFirefox();
    put(kFirefoxPolicies, kAllowed);
    expectOk("private windows of Firefox are decided too");
}

TEST_F(TheDoctorOfBrowsers, TakesFirefoxsPolicyInItsOwnDirectoryOnlyWhereThereIsNoOther) {
    installForFirefox();
    put(kFirefoxOwnPolicies, kAllowed);
    expectOk("private windows of Firefox are decided too");
    put(kFirefoxPolicies, R"({"policies": {}})");
    expectUndecidedIn("Firefox");
}

TEST_F(TheDoctorOfBrowsers, TakesFirefoxsPolicyAgainstPrivateWindows) {
    installForFirefox();
    put(kFirefoxPolicies, R"({"policies": {"DisablePrivateBrowsing": true}})");
    expectOk("Firefox has no private windows");
}

TEST_F(TheDoctorOfBrowsers, SaysThatFirefoxsPolicyCannotBeRead) {
    installForFirefox();
    put(kFirefoxPolicies, "{\"policies\": ");
    expectUndecidedIn("Firefox", std::string("; ") + kFirefoxPolicies + " is no JSON");
}

TEST_F(TheDoctorOfBrowsers, PassesOverWhatIsNotOfTheFormThatFirefoxTakes) {
    installForFirefox();
    put(kFirefoxPolicies, R"({"policies": {"ExtensionSettings": ["extension@sentrel.invalid"]}})");
    expectUndecidedIn("Firefox");
    put(kFirefoxPolicies,
        R"({"policies": {"ExtensionSettings": {"extension@sentrel.invalid": {"private_browsing": "true"}}}})");
    expectUndecidedIn("Firefox");
}

TEST_F(TheDoctorOfBrowsers, WarnsOfChromiumWithItsPrivateWindows) {
    installForChromium();
    expectUndecidedIn("Chromium");
    EXPECT_EQ(finding("private-windows").advice,
              "Do without such windows: {\"IncognitoModeAvailability\": 1} in a file in "
              "/etc/chromium/policies/managed");
}

TEST_F(TheDoctorOfBrowsers, TakesChromiumsPolicyAgainstPrivateWindows) {
    installForChromium();
    put(kChromiumPolicies, R"({"IncognitoModeAvailability": 1})");
    expectOk("Chromium has no private windows");
    put(kChromiumPolicies, R"({"IncognitoModeAvailability": 0})");
    expectUndecidedIn("Chromium");
}

TEST_F(TheDoctorOfBrowsers, NamesBothBrowsers) {
    installForFirefox();
    installForChromium();
    expectUndecidedIn("Firefox and Chromium");
    put(kFirefoxPolicies, kAllowed);
    expectUndecidedIn("Chromium");
    put(kChromiumPolicies, R"({"IncognitoModeAvailability": 1})");
    expectOk("private windows of Firefox are decided too; Chromium has no private windows");
}

} // namespace
} // namespace testing_support
