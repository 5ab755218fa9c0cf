// The browser's host when something is missing or wrong: the hub, the settings file, its own copy, the browser's input.
#include "tests/integration/BrowserHostFixture.h"
#include "tests/support/AsUser.h"
#include "tests/support/Files.h"

#include <csignal>
#include <filesystem>

namespace testing_support {
namespace {

using nlohmann::json;

bool saysUnreachable(const json& settings) {
    return settings.at("because").get<std::string>().find("cannot reach the hub") != std::string::npos;
}

TEST_F(ABrowserHost, StartsWithItsCopyWhileTheHubIsAway) {
    does(kBlockIt);
    {
        BrowserPeer browser(m_machine.root());
        browser.greet();
        browser.settingsOfState("current");
        ASSERT_TRUE(eventually([this] { return !readFile(cacheFile()).empty(); }));
    }
    m_machine.bus().kill9();
    BrowserPeer browser(m_machine.root());
    browser.greet();
    const json kept = browser.settingsOfState("kept");
    EXPECT_NE(kept.at("because").get<std::string>().find("cannot reach the hub"), std::string::npos) << kept;
    EXPECT_NE(kept.at("since"), "");
    EXPECT_EQ(browser.decide(kBlockedPage).at("action"), "block");
}

TEST_F(ABrowserHost, HasPagesWaitWithoutHubAndCopy) {
    does(kBlockIt);
    m_machine.bus().kill9();
    BrowserPeer browser(m_machine.root());
    browser.greet();
    EXPECT_EQ(browser.settingsWhen(saysUnreachable).at("state"), "waiting");
    EXPECT_EQ(browser.decide(kBlockedPage).at("action"), "wait");
    EXPECT_EQ(browser.report(kBlockedPage).at("outcome"), "dropped");
    m_machine.bus().restart();
    browser.settingsOfState("current");
    EXPECT_EQ(browser.decide(kBlockedPage).at("action"), "block");
}

TEST_F(ABrowserHost, PassesOverASpoiltCopyAndSaysSo) {
    kill9Hub();
    std::filesystem::create_directories(std::filesystem::path(cacheFile()).parent_path());
    writeFile(cacheFile(), R"({"format": 1})");
    std::filesystem::permissions(cacheFile(), std::filesystem::perms(0600));
    BrowserPeer browser(m_machine.root());
    browser.greet();
    browser.settingsWhen([](const json& settings) { return settings.at("because") == "the hub does not run"; });
    EXPECT_EQ(browser.decide(kBlockedPage).at("action"), "wait");
    EXPECT_NE(browser.errors().find("the copy of the last settings is passed over: " + cacheFile()), std::string::npos)
        << browser.errors();
    m_machine.startHub();
    browser.settingsOfState("current");
    EXPECT_TRUE(eventually([this] { return readFile(cacheFile()) != R"({"format": 1})"; })) << "it is made anew";
}

TEST_F(ABrowserHost, PassesOverACopyThatAnotherUserOwns) {
    if (!canActAsOthers()) {
        GTEST_SKIP() << "needs root to act as another user";
    }
    does(kBlockIt);
    {
        BrowserPeer browser(m_machine.root());
        browser.greet();
        browser.settingsOfState("current");
        ASSERT_TRUE(eventually([this] { return !readFile(cacheFile()).empty(); }));
    }
    PrivateRoot::giveTo(cacheFile(), kNobody, kNogroup);
    m_machine.bus().kill9();
    BrowserPeer browser(m_machine.root());
    browser.greet();
    browser.settingsWhen(saysUnreachable);
    EXPECT_EQ(browser.decide(kBlockedPage).at("action"), "wait");
    EXPECT_NE(browser.errors().find("is passed over"), std::string::npos) << browser.errors();
}

TEST_F(ABrowserHost, SaysWhyThereAreNoSettings) {
    m_machine.stopDaemon();
    std::filesystem::remove(m_machine.settingsFile());
    BrowserPeer browser(m_machine.root());
    browser.greet();
    const json waiting = browser.settingsWhen([](const json& settings) {
        return settings.at("because").get<std::string>().find("product.db") != std::string::npos;
    });
    EXPECT_NE(waiting.at("state"), "current");
}

TEST_F(ABrowserHost, KeepsTheSettingsWhenTheFileIsGone) {
    does(kBlockIt);
    BrowserPeer browser(m_machine.root());
    browser.greet();
    browser.settingsOfState("current");
    m_machine.stopDaemon();
    std::filesystem::remove(m_machine.settingsFile());
    const json kept = browser.settingsOfState("kept");
    EXPECT_NE(kept.at("because"), "");
    EXPECT_EQ(browser.decide(kBlockedPage).at("action"), "block");
}

TEST_F(ABrowserHost, DecidesWhileTheHubHangs) {
    does(kBlockIt);
    BrowserPeer browser(m_machine.root());
    browser.greet();
    browser.settingsOfState("current");
    m_machine.bus().stop();
    EXPECT_EQ(browser.decide(kBlockedPage).at("action"), "block");
    browser.closeInput();
    EXPECT_EQ(browser.end(), 0);
    m_machine.bus().cont();
}

TEST_F(ABrowserHost, TellsALongListInPieces) {
    constexpr int count = 3'000; // of some 500 bytes each
    const std::string path = "/a/" + std::string(200, '0');
    m_machine.stopDaemon();
    m_machine.sql(
        "with recursive n(i) as (select 1 union all select i+1 from n where i<" + std::to_string(count) +
        ") insert into allowblocksettings select printf('https://host%06d.example/a/%0200d', i, 0), 1 from n");
    ASSERT_TRUE(m_machine.startDaemon());
    BrowserPeer browser(m_machine.root());
    browser.greet(true);
    const json settings =
        browser.settingsWhen([](const json& each) { return each.at("summary").at("entries") == count; });
    const json& entries = settings.at("rules").at("entries");
    ASSERT_EQ(entries.size(), std::size_t{count});
    EXPECT_EQ(entries.at(2'999),
              json::array({false, "https://host003000.example" + path, "https", "host003000.example", false, 0, path}));
    EXPECT_GT(browser.frames(), 3U);
    EXPECT_LE(browser.longestFrame(), std::size_t{1} << 20U);
    EXPECT_EQ(browser.decide("https://host002345.example" + path + "/b").at("entry").at("place"), 2344);
}

TEST_F(ABrowserHost, GoesOnReadingSettingsForABrowserThatDoesNotRead) {
    m_machine.stopDaemon();
    m_machine.sql("with recursive n(i) as (select 1 union all select i+1 from n where i<8000) "
                  "insert into allowblocksettings select printf('https://host%06d.example/a/path', i), 1 from n");
    ASSERT_TRUE(m_machine.startDaemon());
    BrowserPeer browser(m_machine.root());
    browser.say({{"type", "hello"}, {"version", 1}, {"browser", "firefox"}, {"rules", true}, {"ratings", false}});
    const auto isKept = [this](const std::string& text) {
        return eventually([&] { return readFile(cacheFile()).find(text) != std::string::npos; });
    };
    ASSERT_TRUE(isKept("host008000.example"));
    does({"prefs", "set", "red-sites", "warn"});
    ASSERT_TRUE(isKept(R"("RedSiteAction":2)"));
    does({"prefs", "set", "red-sites", "allow"});
    ASSERT_TRUE(isKept(R"("RedSiteAction":1)"));
    browser.settingsWhen(
        [](const json& settings) { return settings.value("/summary/numbers/RedSiteAction"_json_pointer, 0) == 1; });
}

TEST_F(ABrowserHost, AnswersWhatIsWrongAndGoesOn) {
    BrowserPeer browser(m_machine.root());
    browser.say({{"type", "decide"}, {"id", 1}, {"url", "http://a.example/"}, {"frame", "main"}});
    EXPECT_EQ(browser.hear("error").at("code"), "order");
    browser.greet();
    browser.settingsOfState("current");
    browser.say({{"type", "hello"}, {"version", 1}, {"browser", "firefox"}, {"rules", true}, {"ratings", true}});
    EXPECT_EQ(browser.hear("error").at("code"), "order");
    browser.sendFrame(R"({"type": "decide", "id": -1, "url": "http://a.example/", "frame": "main"})");
    EXPECT_EQ(browser.hear("error").at("code"), "member");
    browser.sendFrame(R"({"type": "decide", "id": 1, "more": )" + std::string(400'000, '[') +
                      std::string(400'000, ']') + "}");
    EXPECT_EQ(browser.hear("error").at("code"), "member");
    const std::string longUrl = "https://a.example/" + std::string(900'000, '<');
    const json decision = browser.decide(longUrl);
    EXPECT_EQ(decision.at("url").get<std::string>().size(), std::string("https://a.example/").size() + 3 * 900'000);
}

/// A host that is given what is no message.
class ABrowserHostAtItsEnd : public ABrowserHost {
protected:
    /// How it ends, and that it says @p why.
    void expectEnd(const std::string& bytes, const std::string& why) {
        BrowserPeer browser(m_machine.root());
        browser.greet();
        browser.sendBytes(bytes);
        browser.closeInput();
        EXPECT_EQ(browser.end(), 1) << why;
        EXPECT_NE(browser.errors().find("sentrel-browser-host: " + why), std::string::npos) << browser.errors();
    }
};

TEST_F(ABrowserHostAtItsEnd, SaysWhatWasNoMessage) {
    using std::string_literals::operator""s;
    expectEnd("\x40\x4b\x4c\x00"s, "a message is said to have 5000000 bytes; 1048576 are the most");
    expectEnd("\xff\xff\xff\xff{}"s, "a message is said to have 4294967295 bytes");
    expectEnd("\x05\x00\x00\x00{}"s, "the input ends within a message");
    expectEnd("\x02"s, "the input ends within a message");
    expectEnd("\x02\x00\x00\x00[]"s, "a message is no JSON object");
    expectEnd("\x05\x00\x00\x00{\"\xff\"}"s, "a message is no JSON object");
}

TEST_F(ABrowserHostAtItsEnd, EndsWellAtSigterm) {
    BrowserPeer browser(m_machine.root());
    browser.greet();
    browser.process().kill(SIGTERM);
    EXPECT_EQ(browser.end(), 0) << browser.errors();
}

TEST_F(ABrowserHostAtItsEnd, EndsWhenNobodyReadsAnyMore) {
    BrowserPeer browser(m_machine.root());
    browser.greet();
    browser.closeOutput();
    EXPECT_EQ(browser.end(), 0) << browser.errors();
}

TEST_F(ABrowserHostAtItsEnd, LeavesNoCoreDump) {
    BrowserPeer browser(m_machine.root());
    browser.greet();
    const std::string limits = readFile("/proc/" + std::to_string(browser.process().pid()) + "/limits");
    EXPECT_NE(limits.find("Max core file size        1 "), std::string::npos) << limits;
}

} // namespace
} // namespace testing_support
