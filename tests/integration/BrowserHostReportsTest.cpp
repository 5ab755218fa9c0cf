// What browsers report, through the host, the event socket, the daemon and the hub into the log. All of it is real.
#include "tests/integration/BrowserHostFixture.h"

#include <algorithm>
#include <csignal>
#include <sstream>

namespace testing_support {
namespace {

using nlohmann::json;

class ABrowserHostThatReports : public ABrowserHost {
protected:
    ABrowserHostThatReports() {
        does(kBlockIt);
        m_browser.greet();
        m_browser.settingsOfState("current");
    }

    static std::string page(int number) { return "https://blocked.example/" + std::to_string(number); }

    void reportPages(int first, int last) {
        for (int number = first; number <= last; ++number) {
            EXPECT_EQ(m_browser.report(page(number)).at("outcome"), "queued");
        }
    }

    /// The addresses in the log, the oldest first.
    std::vector<std::string> reported() {
        std::vector<std::string> urls;
        for (const Machine::Stored& record : m_machine.stored()) {
            const std::string text(record.detail.begin(), record.detail.end());
            const std::size_t begin = text.find("https://blocked.example/");
            urls.push_back(text.substr(begin, text.find(' ', begin) - begin));
        }
        return urls;
    }

    void expectReported(int first, int last) {
        std::vector<std::string> expected;
        for (int number = first; number <= last; ++number) {
            expected.push_back(page(number));
        }
        eventually([&] { return reported().size() >= expected.size(); });
        EXPECT_EQ(reported(), expected);
    }

    BrowserPeer m_browser{m_machine.root()};
};

/// A record of the log without what differs from one to the next.
json withoutItsTimes(json record) {
    for (const char* member : {"/id", "/stored_at", "/report/time", "/detail/time", "/detail/attributes/DetectedUTC"}) {
        record.at(json::json_pointer(member)) = nullptr;
    }
    return record;
}

TEST_F(ABrowserHostThatReports, HasTheReportInTheLogByteForByte) {
    const std::string url = "https://blocked.example/caf%C3%A9?" + std::string(400, 'x');
    m_browser.report("HTTPS://user@BLOCKED.example:443/caf\xC3\xA9?" + std::string(400, 'x') + "#part");
    ASSERT_TRUE(eventually([&] { return m_machine.stored().size() == 1; }));
    // The same record, sent by a program that shares no code with the host.
    does({"event", "send", "--url", url.substr(0, 271), "--browser", "firefox", "--event-id", "browser-host",
          "--rating", "-100", "--action", "block", "--in-list", "--list-blocks"});
    ASSERT_TRUE(eventually([&] { return m_machine.stored().size() == 2; }));
    std::vector<json> all;
    std::istringstream lines(does({"log", "--json=short"}));
    for (std::string line; std::getline(lines, line);) {
        all.push_back(json::parse(line));
    }
    ASSERT_EQ(all.size(), 2U);
    EXPECT_EQ(withoutItsTimes(all.at(0)), withoutItsTimes(all.at(1)));
    EXPECT_NE(all.at(0).dump().find(url.substr(0, 271)), std::string::npos) << all.at(0);
    EXPECT_EQ(all.at(0).dump().find(url.substr(0, 272)), std::string::npos) << "it is cut";
}

TEST_F(ABrowserHostThatReports, DeliversWhatADaemonMissedWhenItIsBack) {
    reportPages(1, 1);
    expectReported(1, 1);
    m_machine.kill9Daemon();
    reportPages(2, 6);
    EXPECT_EQ(m_browser.decide(page(2)).at("action"), "block");
    ASSERT_TRUE(m_machine.startDaemon());
    expectReported(1, 6);
}

TEST_F(ABrowserHostThatReports, DeliversOnceWhenASilentClientLetsGoOfTheSocket) {
    EventClient silent(m_machine.eventSocket());
    reportPages(1, 5);
    EXPECT_EQ(m_browser.decide(page(1)).at("action"), "block") << "nobody waits for the daemon";
    EXPECT_TRUE(reported().empty());
    silent.close();
    expectReported(1, 5);
}

TEST_F(ABrowserHostThatReports, DropsTheOldestWhenTheDaemonIsLongAway) {
    m_machine.kill9Daemon();
    reportPages(1, 256);
    EXPECT_EQ(m_browser.report(page(257)).at("lost"), 1);
    EXPECT_NE(m_browser.errors().find("256 reports wait for the daemon already"), std::string::npos)
        << m_browser.errors();
    ASSERT_TRUE(m_machine.startDaemon());
    expectReported(2, 257);
}

TEST_F(ABrowserHostThatReports, SendsWhatIsQueuedBeforeItEnds) {
    reportPages(1, 50);
    m_browser.closeInput();
    EXPECT_EQ(m_browser.end(), 0) << m_browser.errors();
    expectReported(1, 50);
}

TEST_F(ABrowserHostThatReports, EndsWithoutADaemonAndSaysWhatIsLost) {
    m_machine.kill9Daemon();
    reportPages(1, 3);
    m_browser.closeInput();
    EXPECT_EQ(m_browser.end(), 0) << m_browser.errors();
    EXPECT_NE(m_browser.errors().find("3 reports were not delivered"), std::string::npos) << m_browser.errors();
}

} // namespace
} // namespace testing_support
