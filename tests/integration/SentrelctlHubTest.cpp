// sentrelctl at the hub. All of it is real: the program, a bus with the shipped policy, hvbd with its store.
#include "apps/sentrelctl/clients/HubClient.h"
#include "events/ReportRecords.h"
#include "hub/HVBCommBroker.h"
#include "hub/HubIds.h"
#include "platform/hvbhelpers/HubProtocol.h"
#include "tests/integration/SentrelctlRun.h"
#include "tests/support/AsUser.h"
#include "tests/support/Eventually.h"
#include "tests/support/HubBus.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>

namespace testing_support {
namespace {

constexpr double kPingPatience = 5;

/// The hub process of a root, serving when the constructor is done.
class Hvbd {
public:
    explicit Hvbd(const PrivateRoot& root)
        : m_process(program(), {.arguments = {"--health-interval", "3600"},
                                .environment = {"SENTREL_INSTALL_ROOT=" + root.path().string()},
                                .outputFile = root.file("hvbd.out"),
                                .uid = {},
                                .gid = {}}) {
        bool isServing = false;
        (void)eventually([&] { return (isServing = serves(root)) || !m_process.isRunning(); });
        if (!isServing) {
            throw std::runtime_error("hvbd does not serve: " + m_process.output());
        }
    }

    ChildProcess& process() { return m_process; }

private:
    static std::string program() {
        const char* path = std::getenv("HVBD_ROOTED");
        if (path == nullptr) {
            throw std::runtime_error("HVBD_ROOTED does not name the hub process");
        }
        return path;
    }

    static bool serves(const PrivateRoot& root) {
        try {
            Sentrel::ctl::HubClient(root.hubSocket(), kPingPatience).ping(HVB::bus::kHubName, HVB::bus::kHubPath);
            return true;
        } catch (const HVB::HVBException&) {
            return false;
        }
    }

    ChildProcess m_process;
};

/// A private bus with hvbd on it, and sentrelctl beside them.
class AHubClient : public testing::Test {
protected:
    AHubClient() : m_bus(std::in_place, m_root), m_hvbd(std::in_place, m_root) {
        std::ofstream(m_configuration) << "<HVConfiguration><SyslogEnable>true</SyslogEnable>"
                                          "<LogLevel>information</LogLevel></HVConfiguration>";
    }

    CtlResult use(const std::vector<std::string>& arguments) { return ctl(m_root, arguments); }

    /// Stores a record as a module does. @return its id.
    std::uint64_t store(const std::wstring& text, const std::wstring& detail, int type = HVB::LOG_TYPE_BROWSER_EVENT) {
        using namespace HVB::bus;
        const BusPtr bus = openBus(m_root.hubSocket(), patience());
        const MessagePtr request = newCall(*bus, kHubName, kHubPath, kHubInterface, kLogMember);
        check(sd_bus_message_append(request.get(), "ii", HVB::MODULE_SENTREL, type), "test");
        appendText(*request, text);
        appendText(*request, detail);
        check(sd_bus_message_append(request.get(), "i", 1), "test");
        const MessagePtr reply = call(*bus, *request, patience());
        std::uint64_t id = 0;
        check(sd_bus_message_read(reply.get(), kLogReplySignature, &id), "test");
        return id;
    }

    std::uint64_t storeVisit(const std::wstring& url) {
        DetailReportData detail;
        detail.attributes = {{L"ThreatCategory", L"ops.informational.event"}};
        detail.info = {{L"URL", url}, {L"ActionID", L"1"}};
        return store(ReportData().toWstring(), detail.toWstring());
    }

    static std::string visitText(int id, const std::string& url) {
        return "#" + std::to_string(id) + "  <time>  allowed, information\n    URL       " + url +
               "\n    Action    allowed (1)\n";
    }

    /// The ids in a listing of JSON lines.
    static std::vector<std::uint64_t> idsIn(const std::string& lines) {
        std::vector<std::uint64_t> ids;
        std::istringstream stream(lines);
        for (std::string line; std::getline(stream, line);) {
            ids.push_back(nlohmann::json::parse(line).at("id").get<std::uint64_t>());
        }
        return ids;
    }

    static std::vector<std::uint64_t> upTo(std::uint64_t last, std::uint64_t first = 1) {
        std::vector<std::uint64_t> ids;
        for (std::uint64_t id = first; id <= last; ++id) {
            ids.push_back(id);
        }
        return ids;
    }

    /// Follows the log and waits until the records that are there have been shown.
    CtlRun following(const std::string& shown) {
        CtlRun run(m_root, {"log", "--follow"});
        EXPECT_TRUE(eventually([&] { return withoutTimes(run.out()) == shown; })) << run.out() << run.err();
        return run;
    }

    PrivateRoot m_root;
    const std::string m_configuration = m_root.hubConfigDirectory() + "/Sentrel/HVConfig.xml";
    std::optional<HubBus> m_bus;
    std::optional<Hvbd> m_hvbd;
};

TEST_F(AHubClient, ListsTheStoredReportsWithTheNewestLast) {
    storeVisit(L"https://one.example/");
    storeVisit(L"https://two.example/");
    const CtlResult result = use({"log"});
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(withoutTimes(result.out), visitText(1, "https://one.example/") + visitText(2, "https://two.example/"));
    EXPECT_EQ(result.err, "");
}

TEST_F(AHubClient, ListsNothingFromAnEmptyLog) {
    const CtlResult result = use({"log"});
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.out + result.err, "");
}

TEST_F(AHubClient, ListsAsManyAsAskedForAcrossPages) {
    constexpr std::uint64_t records = 450;
    for (std::uint64_t at = 0; at < records; ++at) {
        store(L"junk", L"");
    }
    EXPECT_EQ(idsIn(use({"log", "-j"}).out), upTo(records, records - 19));
    EXPECT_EQ(idsIn(use({"log", "-j", "-n", "1"}).out), upTo(records, records));
    EXPECT_EQ(idsIn(use({"log", "-j", "--limit", "300"}).out), upTo(records, records - 299));
    EXPECT_EQ(idsIn(use({"log", "-j", "--limit", "100000"}).out), upTo(records));
    EXPECT_EQ(idsIn(use({"log", "-j", "--limit", "0"}).out), upTo(records));
}

TEST_F(AHubClient, ListsOnPastARecordThatCannotBeDecoded) {
    storeVisit(L"https://one.example/");
    store(L"junk", L"\x1b[2J");
    storeVisit(L"https://two.example/");
    const CtlResult result = use({"log"});
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(withoutTimes(result.out),
              visitText(1, "https://one.example/") +
                  "#2  <time>  record, type 8 from module 7\n"
                  "    Unread    cannot be decoded: text: invalid signature; detail: invalid signature\n" +
                  visitText(3, "https://two.example/"));
}

TEST_F(AHubClient, ListsTheReportsThatAFilterWants) {
    for (int at = 1; at <= 30; ++at) {
        storeVisit(at % 10 == 0 ? L"https://Tenth.example/" : L"https://other.example/");
    }
    using Ids = std::vector<std::uint64_t>;
    EXPECT_EQ(idsIn(use({"log", "-j"}).out).size(), 20U);
    EXPECT_EQ(idsIn(use({"log", "-j", "--url", "tenth."}).out), (Ids{10, 20, 30}));
    EXPECT_EQ(idsIn(use({"log", "-j", "--url", "other", "--since", "1h"}).out).size(), 27U) << "all of them";
    EXPECT_EQ(idsIn(use({"log", "-j", "--url", "tenth.", "-n", "2"}).out), (Ids{20, 30}));
    EXPECT_EQ(idsIn(use({"log", "-j", "--since", "1h", "--until", "now"}).out).size(), 30U);
    EXPECT_EQ(use({"log", "--until", "1h"}).out, "");
    EXPECT_EQ(use({"log", "--user", "nobody-here"}).out, "");
}

TEST_F(AHubClient, ShowsTheOneRecordOfAnId) {
    storeVisit(L"https://one.example/");
    storeVisit(L"https://two.example/");
    EXPECT_EQ(withoutTimes(use({"log", "--id", "1"}).out), visitText(1, "https://one.example/"));
    const CtlResult none = use({"log", "--id", "3"});
    EXPECT_EQ(none.code, 1);
    EXPECT_EQ(none.err,
              "sentrelctl: cannot show the record: 3: there is none. It was never stored, or the hub has made "
              "room since, or made one of several like it.\n");
}

TEST_F(AHubClient, ListsReportsAsATableOfOneLineEach) {
    storeVisit(L"https://one.example/");
    storeVisit(L"https://two.example/");
    std::istringstream lines(use({"log", "--table"}).out);
    std::vector<std::string> words;
    for (std::string line; std::getline(lines, line);) {
        words.push_back(line.substr(0, line.find(' ')) + " " + line.substr(line.rfind(' ') + 1));
    }
    EXPECT_EQ(words, (std::vector<std::string>{"ID URL", "1 https://one.example/", "2 https://two.example/"}));
}

TEST_F(AHubClient, FollowsWhatAFilterWants) {
    storeVisit(L"https://a.example/");
    CtlRun run(m_root, {"log", "--follow", "--url", "b.example"});
    storeVisit(L"https://c.example/");
    storeVisit(L"https://b.example/");
    EXPECT_TRUE(eventually([&] { return withoutTimes(run.out()) == visitText(3, "https://b.example/"); })) << run.out();
}

TEST_F(AHubClient, ShowsAUrlFromOutsideWithoutLettingItDriveTheTerminal) {
    storeVisit({L'h', L'\x1b', L'[', L'2', L'J', static_cast<wchar_t>(0xFFFFFFC3), static_cast<wchar_t>(0xFFFFFFA9),
                static_cast<wchar_t>(0xFFFFFFFF)});
    EXPECT_EQ(withoutTimes(use({"log"}).out), visitText(1, "h\\x1b[2J\xC3\xA9\\xff"));
    const nlohmann::json line = nlohmann::json::parse(use({"log", "--json=short"}).out);
    EXPECT_EQ(line.at("detail").at("info").at(1).at("value"), "h\x1b[2J\xC3\xA9\\xff");
}

TEST_F(AHubClient, UsesColoursAndLongJsonOnATerminalOnly) {
    storeVisit(L"https://one.example/");
    if (!hasTerminals()) {
        GTEST_SKIP() << "no pseudo-terminals here; colours on a terminal were not tested";
    }
    const auto onTerminal = [this](const std::string& command) {
        return shell(m_root, "script -qec 'TERM=xterm " + command + "' /dev/null").out;
    };
    EXPECT_TRUE(onTerminal("\"$CTL\" log").starts_with("\x1b[1m#1\x1b[0m  "));
    EXPECT_TRUE(onTerminal("TERM=dumb \"$CTL\" log").starts_with("#1  "));
    EXPECT_TRUE(onTerminal("NO_COLOR=1 \"$CTL\" log").starts_with("#1  "));
    EXPECT_TRUE(onTerminal("NO_COLOR=1 \"$CTL\" log --color always").starts_with("\x1b[1m#1"));
    EXPECT_TRUE(onTerminal("\"$CTL\" log --color never").starts_with("#1  "));
    EXPECT_TRUE(onTerminal("\"$CTL\" log -j").starts_with("{\r\n    \"id\": 1,\r\n"));
    EXPECT_TRUE(use({"log", "--color=always"}).out.starts_with("\x1b[1m#1"));
    EXPECT_TRUE(use({"log", "-j"}).out.starts_with("{\"id\":1,"));
    EXPECT_TRUE(use({"log", "--json=pretty"}).out.starts_with("{\n    \"id\": 1,\n"));
}

TEST_F(AHubClient, FollowsTheLogUntilItIsInterrupted) {
    storeVisit(L"https://one.example/");
    const std::string first = visitText(1, "https://one.example/");
    CtlRun run = following(first);
    storeVisit(L"https://two.example/");
    storeVisit(L"https://three.example/");
    const std::string all = first + visitText(2, "https://two.example/") + visitText(3, "https://three.example/");
    EXPECT_TRUE(eventually([&] { return withoutTimes(run.out()) == all; })) << run.out() << run.err();
    run.process().kill(SIGINT);
    const CtlResult result = run.finish();
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(withoutTimes(result.out), all);
    EXPECT_EQ(result.err, "");
}

TEST_F(AHubClient, FollowsWithoutLossOrRepetitionWhileRecordsPourIn) {
    constexpr std::uint64_t records = 300;
    std::optional<CtlRun> run;
    for (std::uint64_t at = 0; at < records; ++at) {
        store(L"junk", L"");
        if (at == records / 3) {
            run.emplace(m_root, std::vector<std::string>{"log", "-f", "-j", "-n", "0"});
        }
    }
    const auto isComplete = [&] { return run->out().find("{\"id\":300,") != std::string::npos; };
    EXPECT_TRUE(eventually(isComplete)) << run->err();
    run->process().kill(SIGTERM);
    const CtlResult result = run->finish();
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(idsIn(result.out), upTo(records));
}

TEST_F(AHubClient, FollowsIntoANewStore) {
    storeVisit(L"https://one.example/");
    storeVisit(L"https://two.example/");
    const std::string before = visitText(1, "https://one.example/") + visitText(2, "https://two.example/");
    CtlRun run = following(before);
    for (const char* suffix : {"", "-wal", "-shm"}) {
        std::filesystem::remove(m_root.hubVarDirectory() + "/hvblog.db" + suffix);
    }
    ASSERT_EQ(storeVisit(L"https://new.example/"), 1U) << "the hub has not begun a new store";
    const std::string all = before + visitText(1, "https://new.example/");
    EXPECT_TRUE(eventually([&] { return withoutTimes(run.out()) == all; })) << run.out() << run.err();
}

TEST_F(AHubClient, StopsFollowingWhenHvbdGoesAway) {
    storeVisit(L"https://one.example/");
    CtlRun run = following(visitText(1, "https://one.example/"));
    m_hvbd->process().kill(SIGKILL);
    const CtlResult result = run.finish();
    EXPECT_EQ(result.code, 8);
    EXPECT_EQ(result.err, "sentrelctl: cannot read the log: hvbd has left the bus. Start the hub (its dbus-daemon and "
                          "hvbd), then try again.\n");
}

TEST_F(AHubClient, StopsFollowingWhenTheBusGoesAway) {
    storeVisit(L"https://one.example/");
    CtlRun run = following(visitText(1, "https://one.example/"));
    m_bus->kill9();
    EXPECT_EQ(run.finish().code, 8);
}

TEST_F(AHubClient, EndsQuietlyWhenNobodyReadsItsOutput) {
    for (int at = 0; at < 100; ++at) {
        store(std::wstring(10'000, L'j'), L"");
    }
    const CtlResult listing = shell(m_root, "set -o pipefail; \"$CTL\" log -j -n 0 | head -c 20");
    EXPECT_EQ(listing.code, 0);
    EXPECT_EQ(listing.out.substr(0, 20), "{\"id\":1,\"stored_at\":");
    EXPECT_EQ(listing.out.size(), 20U) << listing.out;
    const CtlResult followed = shell(m_root, "set -o pipefail; \"$CTL\" log -j -f -n 1 | head -c 20");
    EXPECT_EQ(followed.code, 0);
    EXPECT_EQ(followed.out, "{\"id\":100,\"stored_at");
}

TEST_F(AHubClient, SaysThatTheHubIsNotRunning) {
    m_hvbd.reset();
    CtlResult result = use({"log"});
    EXPECT_EQ(result.code, 8) << result.err;
    m_bus.reset();
    std::filesystem::remove(m_root.hubSocket());
    result = use({"log"});
    EXPECT_EQ(result.code, 8);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "sentrelctl: cannot read the log: cannot reach the hub at " + m_root.hubSocket() +
                              ": No such file or directory. Start the hub (its dbus-daemon and hvbd), then try "
                              "again.\n");
}

TEST_F(AHubClient, TimesOutWhenTheHubDoesNotAnswer) {
    m_hvbd->process().hold();
    EXPECT_EQ(use({"log", "--timeout", "0.2"}).code, 3);
    m_bus->stop();
    EXPECT_EQ(use({"log", "--timeout", "0.2"}).code, 3);
    EXPECT_EQ(use({"hub", "ping", "--timeout", "0.2"}).code, 3);
    m_bus->cont();
    m_hvbd->process().kill(SIGCONT);
}

TEST_F(AHubClient, LetsNoOrdinaryUserReadTheLog) {
    if (!canActAsOthers()) {
        GTEST_SKIP() << "only root can run a program as somebody else";
    }
    storeVisit(L"https://one.example/");
    const CtlResult result = ctl(m_root, {"log"}, "", kNobody);
    EXPECT_EQ(result.code, 4) << result.err;
    EXPECT_EQ(result.out, "");
    EXPECT_TRUE(result.err.starts_with("sentrelctl: cannot read the log: only root and members of the group "
                                       "sentrel-admin may. The hub says: Rejected send message"))
        << result.err;
}

TEST_F(AHubClient, TellsAUserWithoutAnEntryWhyTheBusShutsItOut) {
    if (!canActAsOthers()) {
        GTEST_SKIP() << "only root can run a program as somebody else";
    }
    constexpr uid_t unknown = 4123456;
    const CtlResult result = ctl(m_root, {"log"}, "", unknown);
    EXPECT_EQ(result.code, 4);
    EXPECT_EQ(result.err, "sentrelctl: cannot read the log: the user id 4123456 has no entry in the user database, and "
                          "the bus lets nobody in without one. Add the user, or run it as another.\n");
    const CtlResult ping = ctl(m_root, {"hub", "ping"}, "", unknown);
    EXPECT_EQ(ping.code, 4);
    EXPECT_EQ(ping.err, "sentrelctl: not everybody answers: bus: the user id 4123456 has no entry in the user "
                        "database, and the bus lets nobody in without one.\n");
}

TEST_F(AHubClient, PingsAllThatAreRunning) {
    HVB::HVBCommBroker* broker = HVB::HVBCommBroker::getInstance(m_root.hubSocket());
    broker->setHVId(HVB::MODULE_SENTREL);
    broker->start(true);
    const CtlResult result = use({"hub", "ping"});
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(withoutTimes(result.out), "bus       org.freedesktop.DBus      <duration>\n"
                                        "hvbd      com.orvanta.hvb1.Hub      <duration>\n"
                                        "sentreld  com.orvanta.hvb1.Module7  <duration>\n");
    if (canActAsOthers()) {
        EXPECT_EQ(ctl(m_root, {"hub", "ping"}, "", kNobody).code, 0) << "every user may ask who is there";
    }
    const nlohmann::json peers = nlohmann::json::parse(use({"hub", "ping", "-j"}).out);
    HVB::HVBCommBroker::releaseInstance();
    ASSERT_EQ(peers.size(), 3U);
    for (const nlohmann::json& peer : peers) {
        EXPECT_EQ(peer.at("ok"), true);
        EXPECT_EQ(peer.at("state"), "running");
        EXPECT_TRUE(peer.at("time_us").is_number_unsigned());
        EXPECT_EQ(peer.at("error"), nullptr);
        EXPECT_EQ(peer.at("problem"), nullptr);
    }
}

TEST_F(AHubClient, SaysThatTheDaemonAnswersButCannotUseItsConfiguration) {
    std::ofstream(m_configuration) << "<HVConfiguration>\n<LogLevel>debug</LogLevel>\n</HVConfiguration>";
    HVB::HVBCommBroker* broker = HVB::HVBCommBroker::getInstance(m_root.hubSocket());
    broker->setHVId(HVB::MODULE_SENTREL);
    broker->start(true);
    const CtlResult result = use({"hub", "ping"});
    const std::string problem =
        "it cannot use " + m_configuration + ": /HVConfiguration/SyslogEnable: finds nothing, line 3";
    EXPECT_EQ(result.code, 1);
    EXPECT_EQ(withoutTimes(result.out), "bus       org.freedesktop.DBus      <duration>\n"
                                        "hvbd      com.orvanta.hvb1.Hub      <duration>\n"
                                        "sentreld  com.orvanta.hvb1.Module7  <duration>; " +
                                            problem + "\n");
    EXPECT_EQ(result.err,
              "sentrelctl: not everybody can work: sentreld: " + problem + ". Mend that file, then try again.\n");
    const nlohmann::json peers = nlohmann::json::parse(use({"hub", "ping", "-j"}).out);
    HVB::HVBCommBroker::releaseInstance();
    EXPECT_EQ(peers.at(1).at("problem"), nullptr);
    EXPECT_EQ(peers.at(2).at("problem"), "/HVConfiguration/SyslogEnable: finds nothing, line 3");
    EXPECT_EQ(peers.at(2).at("state"), "running");
    EXPECT_EQ(peers.at(2).at("ok"), true) << "it answers";
    EXPECT_EQ(use({"hub", "ping"}).code, 8) << "that it is not running is worse";
}

TEST_F(AHubClient, SaysWhoIsMissing) {
    CtlResult result = use({"hub", "ping"});
    EXPECT_EQ(result.code, 8);
    EXPECT_TRUE(withoutTimes(result.out)
                    .starts_with("bus       org.freedesktop.DBus      <duration>\n"
                                 "hvbd      com.orvanta.hvb1.Hub      <duration>\n"
                                 "sentreld  com.orvanta.hvb1.Module7  not running: "))
        << result.out;
    EXPECT_EQ(result.err,
              "sentrelctl: not everybody answers: sentreld: not running. Start sentreld, then try again.\n");
    m_bus->kill9();
    result = use({"hub", "ping"});
    EXPECT_EQ(result.code, 8);
    EXPECT_EQ(result.out, "bus       org.freedesktop.DBus      not running: cannot reach the hub at " +
                              m_root.hubSocket() +
                              ": Connection refused\n"
                              "hvbd      com.orvanta.hvb1.Hub      unknown: the bus cannot be reached\n"
                              "sentreld  com.orvanta.hvb1.Module7  unknown: the bus cannot be reached\n");
    EXPECT_EQ(result.err, "sentrelctl: not everybody answers: bus: not running. Start the hub's dbus-daemon, then try "
                          "again.\n");
}

TEST_F(AHubClient, SaysWhoIsThereButDoesNotAnswer) {
    HVB::HVBCommBroker* broker = HVB::HVBCommBroker::getInstance(m_root.hubSocket());
    broker->setHVId(HVB::MODULE_SENTREL);
    broker->start(true);
    m_hvbd->process().hold();
    const CtlResult result = use({"hub", "ping", "--timeout", "0.2"});
    HVB::HVBCommBroker::releaseInstance();
    EXPECT_EQ(result.code, 3);
    EXPECT_NE(result.out.find("hvbd      com.orvanta.hvb1.Hub      no answer: "), std::string::npos) << result.out;
    EXPECT_EQ(result.err, "sentrelctl: not everybody answers: hvbd: no answer.\n");
}

} // namespace
} // namespace testing_support
