// The browser's host and requests for access: a user asks through the browser, an administrator answers with
// sentrelctl.
#include "tests/integration/BrowserHostFixture.h"

#include <csignal>

namespace testing_support {
namespace {

using nlohmann::json;

/// A page is blocked, and the browser knows.
class ABrowserWithABlockedPage : public ABrowserHost {
protected:
    ABrowserWithABlockedPage() : m_browser(begun()) {
        m_browser.greet();
        m_browser.settingsWhen([](const json& settings) { return settings.at("summary").at("entries") == 1; });
    }

    json told(const std::vector<std::string>& arguments) {
        std::vector<std::string> all{arguments};
        all.emplace_back("--json=short");
        return json::parse(does(all));
    }
    std::string ask() { return m_browser.request(kBlockedPage, "for work").at("number").dump(); }

    BrowserPeer m_browser;

private:
    const PrivateRoot& begun() {
        does(kBlockIt);
        return m_machine.root();
    }
};

TEST_F(ABrowserWithABlockedPage, ShowsARequestToTheAdministrator) {
    const json asked = m_browser.request(kBlockedPage, "for work");
    EXPECT_EQ(asked.at("outcome"), "asked");
    EXPECT_EQ(asked.at("url"), kBlockedPage);
    EXPECT_EQ(asked.at("last"), nullptr);
    const json shown = told({"requests", "show", asked.at("number").dump()});
    EXPECT_EQ(shown.at("url"), kBlockedPage);
    EXPECT_EQ(shown.at("reason"), "for work");
    EXPECT_EQ(shown.at("state"), "open");
}

TEST_F(ABrowserWithABlockedPage, KnowsARequestThatIsOpen) {
    const json first = m_browser.request(kBlockedPage);
    const json again = m_browser.request(kBlockedPage, "please");
    EXPECT_EQ(again.at("outcome"), "known");
    EXPECT_EQ(again.at("number"), first.at("number"));
    const json looked = m_browser.requests(kBlockedPage);
    EXPECT_EQ(looked.at("outcome"), "told");
    EXPECT_EQ(looked.at("number"), first.at("number"));
    EXPECT_EQ(looked.at("last").at("state"), "open");
    EXPECT_EQ(m_browser.requests("https://blocked.example/other").at("last"), nullptr);
}

TEST_F(ABrowserWithABlockedPage, SaysThatARequestWasDeniedAndWhy) {
    does({"requests", "deny", ask(), "--reason", "not for work"});
    const json looked = m_browser.requests(kBlockedPage);
    EXPECT_EQ(looked.at("number"), 0);
    EXPECT_EQ(looked.at("last").at("state"), "denied");
    EXPECT_EQ(looked.at("last").at("answer"), "not for work");
    const json again = m_browser.request(kBlockedPage);
    EXPECT_EQ(again.at("outcome"), "asked");
    EXPECT_EQ(again.at("last").at("answer"), "not for work");
}

TEST_F(ABrowserWithABlockedPage, HearsOfADenialAndOfAGrantAsTheyHappen) {
    const auto askElsewhere = [&] {
        const std::string number = told({"requests", "ask", kBlockedPage}).at("id").dump();
        m_browser.hear("requests-changed");
        return number;
    };
    does({"requests", "deny", askElsewhere(), "--reason", "not for work"});
    m_browser.hear("requests-changed");
    EXPECT_EQ(m_browser.requests(kBlockedPage).at("last").at("answer"), "not for work");
    does({"requests", "grant", askElsewhere(), "--for", "1h"});
    m_browser.hear("requests-changed");
    EXPECT_TRUE(eventually([&] { return m_browser.decide(kBlockedPage).at("action") == "allow"; }));
}

TEST_F(ABrowserWithABlockedPage, IsToldToLookAgainWhenTheHubIsBack) {
    kill9Hub();
    m_browser.settingsOfState("kept");
    m_machine.startHub();
    m_browser.hear("requests-changed");
    m_browser.settingsOfState("current");
}

TEST_F(ABrowserWithABlockedPage, AllowsThePageWhenARequestIsGranted) {
    does({"requests", "grant", ask(), "--for", "1h"});
    EXPECT_TRUE(eventually([&] { return m_browser.decide(kBlockedPage).at("action") == "allow"; }));
    EXPECT_EQ(m_browser.request(kBlockedPage).at("because"), "this page is not blocked");
}

TEST_F(ABrowserWithABlockedPage, IsRefusedByTheHubWhenTwentyRequestsAreOpen) {
    for (int page = 0; page < 20; ++page) {
        EXPECT_EQ(m_browser.request("https://blocked.example/" + std::to_string(page)).at("outcome"), "asked");
    }
    const json refused = m_browser.request(kBlockedPage);
    EXPECT_EQ(refused.at("outcome"), "refused");
    EXPECT_NE(refused.at("because").get<std::string>().find("20"), std::string::npos) << refused;
}

TEST_F(ABrowserWithABlockedPage, DecidesWhileARequestWaitsForAHubThatHangs) {
    m_machine.hub().hold();
    m_browser.say({{"type", "request"}, {"id", 100}, {"url", kBlockedPage}, {"reason", ""}});
    m_browser.say({{"type", "decide"}, {"id", 101}, {"url", kBlockedPage}, {"frame", "main"}});
    EXPECT_EQ(m_browser.hear().at("id"), 101) << "the decision comes first";
    const json away = m_browser.hear("requested");
    EXPECT_EQ(away.at("outcome"), "away");
    EXPECT_NE(away.at("because"), "");
    m_machine.hub().kill(SIGCONT);
    EXPECT_NE(m_browser.request(kBlockedPage).at("number"), 0) << "the next one reaches it";
}

TEST_F(ABrowserWithABlockedPage, IsRefusedAtOnceWhenItFloods) {
    m_machine.hub().hold();
    for (int id = 100; id < 120; ++id) {
        m_browser.say({{"type", "request"}, {"id", id}, {"url", kBlockedPage}, {"reason", ""}});
    }
    for (int id = 108; id < 120; ++id) {
        const json refused = m_browser.hear("requested");
        EXPECT_EQ(refused.at("id"), id);
        EXPECT_EQ(refused.at("outcome"), "refused");
    }
    for (int id = 100; id < 108; ++id) {
        const json away = m_browser.hear("requested");
        EXPECT_EQ(away.at("id"), id);
        EXPECT_EQ(away.at("outcome"), "away");
    }
    m_machine.hub().kill(SIGCONT);
}

TEST_F(ABrowserWithABlockedPage, IsToldThatTheHubIsAway) {
    kill9Hub();
    const json away = m_browser.request(kBlockedPage);
    EXPECT_EQ(away.at("outcome"), "away");
    EXPECT_EQ(away.at("because"), "the hub does not run");
}

} // namespace
} // namespace testing_support
