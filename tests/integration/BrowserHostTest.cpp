// The browser's host and its settings: what a browser is told, and what decides. All of it is real: the program behind
// its two pipes, the bus, hvbd, the settings keeper, the daemon and the settings file.
#include "tests/integration/BrowserHostFixture.h"
#include "tests/support/AsUser.h"
#include "tests/support/Files.h"

#include <chrono>

namespace testing_support {
namespace {

using nlohmann::json;

TEST_F(ABrowserHost, GreetsAndTellsTheSettings) {
    BrowserPeer browser(m_machine.root());
    browser.say({{"type", "hello"}, {"version", 1}, {"browser", "firefox"}, {"rules", true}, {"ratings", true}});
    const json welcome = browser.hear();
    EXPECT_EQ(welcome.at("type"), "welcome");
    EXPECT_EQ(welcome.at("version"), 1);
    EXPECT_NE(welcome.at("host"), "");
    const json settings = browser.settingsOfState("current");
    EXPECT_EQ(settings.at("because"), "");
    EXPECT_EQ(settings.at("protecting"), true);
    EXPECT_EQ(settings.at("summary").at("entries"), 0);
    EXPECT_EQ(settings.at("rules").at("actions").at("RED"), "BLOCK");
    EXPECT_EQ(settings.at("since").get<std::string>().size(), std::string("2026-01-01T00:00:00Z").size());
}

TEST_F(ABrowserHost, DecidesByTheSettings) {
    does(kBlockIt);
    BrowserPeer browser(m_machine.root());
    browser.greet();
    const json settings = browser.settingsOfState("current");
    EXPECT_EQ(settings.count("rules"), 0U) << "nobody asked for them";
    const json blocked = browser.decide("HTTPS://Blocked.Example:443/page#part");
    EXPECT_EQ(blocked.at("action"), "block");
    EXPECT_EQ(blocked.at("by"), "list");
    EXPECT_EQ(blocked.at("url"), kBlockedPage);
    EXPECT_EQ(blocked.at("reporting"), "at once");
    EXPECT_EQ(blocked.at("entry"), json::parse(R"({"place": 0, "text": "blocked.example", "allows": false})"));
    EXPECT_EQ(browser.decide("https://other.example/").at("action"), "allow");
    EXPECT_EQ(browser.decide("about:blank").at("by"), "address");
}

TEST_F(ABrowserHost, TellsAChangeWithinASecond) {
    BrowserPeer browser(m_machine.root());
    browser.greet();
    browser.settingsOfState("current");
    EXPECT_EQ(browser.decide(kBlockedPage).at("action"), "allow");
    does(kBlockIt);
    const auto changed = std::chrono::steady_clock::now();
    browser.settingsWhen([](const json& settings) { return settings.at("summary").at("entries") == 1; });
    EXPECT_EQ(browser.decide(kBlockedPage).at("action"), "block");
    RecordProperty("milliseconds",
                   std::to_string((std::chrono::steady_clock::now() - changed) / std::chrono::milliseconds(1)));
}

TEST_F(ABrowserHost, KeepsTheSettingsWhenTheHubDies) {
    does(kBlockIt);
    BrowserPeer browser(m_machine.root());
    browser.greet();
    const json before = browser.settingsOfState("current");
    kill9Hub();
    const json kept = browser.settingsOfState("kept");
    EXPECT_EQ(kept.at("because"), "the hub does not run");
    EXPECT_EQ(kept.at("summary").at("entries"), 1);
    EXPECT_GT(kept.at("generation"), before.at("generation"));
    EXPECT_EQ(browser.decide(kBlockedPage).at("action"), "block");
    m_machine.startHub();
    EXPECT_EQ(browser.settingsOfState("current").at("summary").at("entries"), 1);
    does({"list", "allow", "blocked.example"});
    browser.settingsWhen([](const json& settings) { return settings.at("summary").at("entries") == 1; });
    EXPECT_EQ(browser.decide(kBlockedPage).at("action"), "allow");
}

TEST_F(ABrowserHost, KeepsTheSettingsWhenTheBusDies) {
    does(kBlockIt);
    BrowserPeer browser(m_machine.root());
    browser.greet();
    browser.settingsOfState("current");
    m_machine.bus().kill9();
    browser.settingsOfState("kept");
    EXPECT_EQ(browser.decide(kBlockedPage).at("action"), "block");
    m_machine.bus().restart();
    browser.settingsOfState("current");
}

TEST_F(ABrowserHost, ServesAnyUser) {
    if (!canActAsOthers()) {
        GTEST_SKIP() << "needs root to act as another user";
    }
    BrowserPeer browser(m_machine.root(), kNobody);
    browser.greet();
    browser.settingsOfState("current");
    does(kBlockIt);
    browser.settingsWhen([](const json& settings) { return settings.at("summary").at("entries") == 1; });
    kill9Hub();
    browser.settingsOfState("kept");
    EXPECT_EQ(browser.decide(kBlockedPage).at("action"), "block");
}

TEST_F(ABrowserHost, ReportsWhatItBlocked) {
    does(kBlockIt);
    BrowserPeer browser(m_machine.root());
    browser.greet();
    browser.settingsOfState("current");
    EXPECT_EQ(browser.report("https://other.example/").at("outcome"), "not needed");
    EXPECT_EQ(browser.report(kBlockedPage).at("outcome"), "queued");
    ASSERT_TRUE(eventually([&] { return m_machine.stored().size() == 1; }));
    const json record = json::parse(does({"log", "--json=short"}));
    EXPECT_NE(record.dump().find(kBlockedPage), std::string::npos) << record;
}

TEST_F(ABrowserHost, DecidesByARatingListAsSoonAsItIsImported) {
    BrowserPeer browser(m_machine.root());
    browser.greet();
    const json before = browser.settingsOfState("current");
    EXPECT_EQ(before.at("ratings").at("reachable"), true) << "nobody can be out of reach where nobody rates";
    EXPECT_NE(before.at("ratings").at("because"), "");
    const std::string file = m_machine.root().file("list.txt");
    writeFile(file, "bad.example\n");
    does({"ratings", "import", "ours", file, "--format", "domains", "--rating", "60"});
    const json settings =
        browser.settingsWhen([](const json& each) { return !each.at("ratings").at("lists").empty(); });
    EXPECT_EQ(settings.at("ratings").at("reachable"), true);
    EXPECT_EQ(settings.at("ratings").at("lists").at(0).at("name"), "ours");
    const json decision = browser.decide("https://bad.example/");
    EXPECT_EQ(decision.at("action"), "block");
    EXPECT_EQ(decision.at("by"), "rating");
    EXPECT_EQ(decision.at("ratedBy"), "ours");
}

TEST_F(ABrowserHost, SpeaksWithABrowserThatKnowsItsMessagesFromTheDocumentAlone) {
    does(kBlockIt);
    ChildOptions options{.arguments = {programUnderTest("SENTREL_BROWSER_HOST_ROOTED"), kBlockedPage},
                         .environment = {"SENTREL_INSTALL_ROOT=" + m_machine.root().path().string(),
                                         "XDG_CACHE_HOME=" + m_machine.root().file("python-cache")},
                         .outputFile = m_machine.root().file("python.out"),
                         .uid = {},
                         .gid = {}};
    ChildProcess browser(std::string(SENTREL_SOURCE_DIR) + "/tests/peers/browser_peer.py", options);
    EXPECT_EQ(browser.waitUntil(patience()), 0) << browser.output();
    EXPECT_EQ(browser.output(), "current block queued 0\n");
    EXPECT_TRUE(eventually([&] { return m_machine.stored().size() == 1; }));
}

TEST_F(ABrowserHost, EndsWithItsInput) {
    BrowserPeer browser(m_machine.root());
    browser.greet();
    browser.closeInput();
    EXPECT_EQ(browser.end(), 0) << browser.errors();
}

} // namespace
} // namespace testing_support
