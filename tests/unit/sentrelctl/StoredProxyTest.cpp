// The proxy settings in a settings file, and what is told of them.
#include "apps/sentrelctl/preferences/StoredProxy.h"
#include "apps/sentrelctl/terminal/Json.h"

#include "apps/sentrelctl/preferences/SettingsTables.h"
#include "apps/sentrelctl/terminal/Failure.h"
#include "store/DBSettings.h"
#include "tests/support/TemporaryDirectory.h"

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>

namespace Sentrel::ctl {
namespace {

/// A settings file of the test's own, with its tables and no row.
class ASettingsFile : public testing::Test {
protected:
    ASettingsFile() { setUpSettingsFile(path(), SettingsReaders::DaemonAlone); }

    std::string path() const { return m_directory.file("product.db"); }

    /// Stores as the daemon does: the key with its terminator, the text without.
    void store(const char* key, const void* value, unsigned long length) {
        CVXDBSettings settings;
        ASSERT_TRUE(settings.Init(path().c_str(), false));
        ASSERT_TRUE(settings.Set(key, std::strlen(key) + 1, value, length, TABLE_GENERAL_SETTING));
    }
    void store(const char* key, const std::string& text) { store(key, text.data(), text.size()); }
    void store(const char* key, int number) { store(key, &number, sizeof number); }

    void storeAll() {
        store("RPXProxyHost", "proxy.example");
        store("HttpAuthUname", "anna");
        store("HttpAuthPass", "secret");
        store("RPXProxyPort", 3128);
        store("RPXProxyType", 2);
        store("EnableHttpAuth", 1);
    }

    std::string shown() { return proxyText(readStoredProxy(path()), Palette()); }
    std::string json() { return jsonText(proxyJson(readStoredProxy(path())), JsonMode::Short); }

    testing_support::TemporaryDirectory m_directory;
};

TEST_F(ASettingsFile, TellsTheProxyButNotItsPassword) {
    storeAll();
    EXPECT_EQ(shown(), "host               proxy.example\n"
                       "port               3128\n"
                       "type               2\n"
                       "authentication     on\n"
                       "user               anna\n"
                       "password           set\n");
    EXPECT_EQ(json(), R"({"host":"proxy.example","port":3128,"type":2,"authentication":true,"user":"anna",)"
                      R"("password_set":true})"
                      "\n");
}

TEST_F(ASettingsFile, WithoutAProxyHasNone) {
    EXPECT_EQ(shown(), "host               none\n"
                       "port               none\n"
                       "type               none\n"
                       "authentication     none\n"
                       "user               none\n"
                       "password           not set\n");
    EXPECT_EQ(json(), R"({"host":null,"port":null,"type":null,"authentication":null,"user":null,"password_set":false})"
                      "\n");
}

TEST_F(ASettingsFile, TakesTheTextThatStandsForNoneAsNone) {
    storeAll();
    store("HttpAuthUname", kNoProxyText);
    store("HttpAuthPass", kNoProxyText);
    store("EnableHttpAuth", 0);
    EXPECT_TRUE(shown().ends_with("authentication     off\n"
                                  "user               none\n"
                                  "password           not set\n"));
}

TEST_F(ASettingsFile, HoldsWhatWasSentOnceItIsStoredWhole) {
    proxySettings sent;
    sent.host = "proxy.example";
    sent.uname = "anna";
    sent.pass = "secret";
    sent.port = 3128;
    sent.type = 2;
    sent.httpAuth = 1;
    EXPECT_FALSE(readStoredProxy(path()) == storedFormOf(sent));
    storeAll();
    EXPECT_TRUE(readStoredProxy(path()) == storedFormOf(sent));
    sent.pass = "another";
    EXPECT_FALSE(readStoredProxy(path()) == storedFormOf(sent));
}

TEST_F(ASettingsFile, MakesTextsFromOthersHarmless) {
    store("RPXProxyHost", "\x1b[2J\xff");
    EXPECT_TRUE(shown().starts_with("host               \\x1b[2J\\xff\n")) << shown();
    EXPECT_TRUE(json().starts_with(R"({"host":"\u001b[2J\\xff",)")) << json();
}

TEST_F(ASettingsFile, SaysWhatIsMissing) {
    const auto lineOfFailure = [](const std::string& file) -> std::string {
        try {
            readStoredProxy(file);
            return "no failure";
        } catch (const Failure& failure) {
            return failure.line();
        }
    };
    const std::string absent = m_directory.file("none.db");
    EXPECT_EQ(lineOfFailure(absent), "sentrelctl: cannot read the proxy settings: " + absent +
                                         ": there is no such file. Make it with 'sentrelctl settings init'.");
    EXPECT_FALSE(std::filesystem::exists(absent));
    CVXDBSettings settings;
    ASSERT_TRUE(settings.Init(path().c_str(), false));
    ASSERT_TRUE(settings.ExecuteSQL("drop table vxsetting"));
    settings.Close();
    EXPECT_EQ(lineOfFailure(path()), "sentrelctl: cannot read the proxy settings: " + path() +
                                         ": its table vxsetting is missing. Make it with 'sentrelctl settings "
                                         "init'.");
}

} // namespace
} // namespace Sentrel::ctl
