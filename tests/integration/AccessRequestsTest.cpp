// Asking for access and granting it. All of it is real: sentrelctl, the bus with the shipped policy, hvbd, the settings
// keeper, sentreld and the settings file; those who ask are other users of the machine.
#include "tests/integration/PreferenceClientFixture.h"

#include "platform/hvbhelpers/AccessCalls.h"
#include "platform/hvbhelpers/HubProtocol.h"
#include "tests/support/AsUser.h"
#include "tests/support/Eventually.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

namespace testing_support {
namespace {

using nlohmann::json;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr uid_t kGames = 5; // an account that every Debian has
const std::string kPage = "https://site.example/page?x=1";

/// A machine on which everything runs, and users of it.
class AMachineWithRequests : public APreferenceClient {
protected:
    void SetUp() override {
        if (!canActAsOthers()) {
            GTEST_SKIP() << "needs root, to act as other users";
        }
    }

    json run(std::vector<std::string> arguments, std::optional<uid_t> uid = {}) {
        arguments.emplace_back("--json=short");
        const CtlResult result = use(arguments, "", uid);
        EXPECT_EQ(result.code, 0) << result.err;
        return json::parse(result.out, nullptr, false);
    }
    std::string ask(const std::string& url = kPage, uid_t uid = kNobody) {
        return run({"requests", "ask", url, "--reason", "for work"}, uid)["id"].dump();
    }
    std::string stateOf(const std::string& request, uid_t uid = kNobody) {
        return run({"requests", "show", request}, uid)["state"];
    }
    std::vector<std::string> list() {
        std::vector<std::string> entries;
        for (const json& entry : run({"list", "show"})) {
            entries.push_back(entry["action"].get<std::string>() + " " + entry["url"].get<std::string>());
        }
        return entries;
    }
    bool isSoon(const std::vector<std::string>& wanted) {
        return eventually([&] { return list() == wanted; });
    }
    std::string decision(const std::string& url = kPage) { return run({"check", url})["action"]; }

    void enrol(const std::string& more) {
        std::ofstream(m_machine.root().hubConfigDirectory() + "/agent.json")
            << R"({"broker": {"host": "127.0.0.1", "port": 1}, "site": "a", "machine": "m")" << more << "}";
    }
};

TEST_F(AMachineWithRequests, TellsTheAdministratorWhoAskedForWhat) {
    const std::string id = ask();
    const json listed = run({"requests", "list"});
    ASSERT_EQ(listed.size(), 1U);
    EXPECT_EQ(listed[0]["id"].dump(), id);
    EXPECT_EQ(listed[0]["user"], kNobody);
    EXPECT_EQ(listed[0]["user_name"], "nobody");
    EXPECT_EQ(listed[0]["url"], kPage);
    EXPECT_EQ(listed[0]["reason"], "for work");
    EXPECT_EQ(listed[0]["state"], "open");
    const std::string text = does({"requests", "list"});
    EXPECT_THAT(text, HasSubstr("nobody (65534)  open   " + kPage + "\n"));
    EXPECT_THAT(does({"requests", "show", id}), HasSubstr("  reason    for work\n"));
}

TEST_F(AMachineWithRequests, ShowsAUserItsOwnRequestsAndNoOtherOnes) {
    const std::string id = ask();
    EXPECT_EQ(run({"requests", "list"}, kNobody).size(), 1U);
    EXPECT_THAT(run({"requests", "list", "--all"}, kGames), IsEmpty());
    EXPECT_EQ(use({"requests", "show", id}, "", kGames).code, 1);
    for (const std::vector<std::string>& verb :
         std::vector<std::vector<std::string>>{{"grant", id}, {"deny", id}, {"grants"}, {"revoke", "1"}}) {
        std::vector<std::string> arguments{"requests"};
        arguments.insert(arguments.end(), verb.begin(), verb.end());
        EXPECT_EQ(use(arguments, "", kNobody).code, 4) << verb[0];
    }
    EXPECT_EQ(stateOf(id), "open");
    EXPECT_THAT(list(), IsEmpty());
}

TEST_F(AMachineWithRequests, TakesFiveHundredBytesOfARequestAndNoMore) {
    const std::string url = "https://site.example/";
    EXPECT_EQ(use({"requests", "ask", url, "--reason", std::string(500 - url.size(), 'r')}).code, 0);
    const CtlResult longer = use({"requests", "ask", url + "a", "--reason", std::string(500 - url.size(), 'r')});
    expectFailure(longer, 1,
                  "cannot ask for access: the address and the reason have together 501 bytes, and 500 is the most: "
                  "shorten it");
    EXPECT_THAT(use({"requests", "ask", "ftp://site.example/"}).err, HasSubstr("begins with http:// or https://"));
}

TEST_F(AMachineWithRequests, KeepsARequestOverARestartOfTheHub) {
    const std::string id = ask();
    m_machine.hub().kill(SIGKILL);
    m_machine.hub().terminate();
    m_machine.startHub();
    EXPECT_EQ(stateOf(id), "open");
}

TEST_F(AMachineWithRequests, AllowsTheHostOfAGrantedRequestForGood) {
    does({"categories", "set", "Games"});
    const std::string id = ask();
    const json granted = run({"requests", "grant", id});
    EXPECT_EQ(granted["entry"], "site.example");
    EXPECT_EQ(granted["until"], nullptr);
    EXPECT_EQ(granted["blocked_by"], nullptr);
    EXPECT_THAT(list(), ElementsAre("allow site.example"));
    EXPECT_EQ(stateOf(id), "granted");
    EXPECT_EQ(run({"check", kPage, "--category", "Games", "--rating", "80"})["action"], "allow");
    EXPECT_THAT(use({"requests", "grant", id}).err, HasSubstr("request 1 was granted already"));
    EXPECT_THAT(does({"requests", "grants"}), HasSubstr("for good  site.example\n"));
}

TEST_F(AMachineWithRequests, AllowsThePageAloneWhenThatIsSaid) {
    EXPECT_EQ(run({"requests", "grant", ask(), "--page"})["entry"], kPage);
    EXPECT_THAT(list(), ElementsAre("allow " + kPage));
}

TEST_F(AMachineWithRequests, TakesAGrantsEntryOutWhenItsTimeIsOver) {
    does({"list", "block", "bad.example"});
    const std::string id = ask();
    run({"requests", "grant", id, "--for", "2s"});
    EXPECT_THAT(list(), ElementsAre("block bad.example", "allow site.example"));
    EXPECT_TRUE(isSoon({"block bad.example"}));
    EXPECT_EQ(stateOf(id), "over");
    EXPECT_TRUE(eventually([&] { return run({"requests", "grants"}).empty(); }));
}

TEST_F(AMachineWithRequests, TakesOutWhatWasOverWhileTheHubWasAway) {
    run({"requests", "grant", ask(), "--for", "2s"});
    m_machine.hub().kill(SIGKILL);
    m_machine.hub().terminate();
    EXPECT_THAT(list(), ElementsAre("allow site.example")) << "the daemon still has it";
    m_machine.startHub();
    EXPECT_TRUE(isSoon({}));
}

TEST_F(AMachineWithRequests, TakesAnEntryOutOnceTheDaemonIsBack) {
    const json granted = run({"requests", "grant", ask(), "--for", "1h"});
    m_machine.stopDaemon();
    const CtlResult revoked = use({"requests", "revoke", granted["id"].dump()});
    EXPECT_EQ(revoked.code, 1);
    EXPECT_THAT(revoked.err, HasSubstr("the grant is revoked, and its entry will be taken out as soon as"));
    EXPECT_TRUE(run({"requests", "grants"})[0]["ending"].get<bool>());
    EXPECT_TRUE(m_machine.startDaemon());
    EXPECT_TRUE(isSoon({}));
    EXPECT_TRUE(eventually([&] { return run({"requests", "grants"}).empty(); }));
}

TEST_F(AMachineWithRequests, EndsARevokedGrantBeforeItAnswers) {
    const std::string id = ask();
    const std::string grant = run({"requests", "grant", id})["id"].dump();
    EXPECT_EQ(does({"requests", "revoke", grant}), "Revoked: grant " + grant + ".\n");
    EXPECT_THAT(list(), IsEmpty());
    EXPECT_EQ(stateOf(id), "over");
    EXPECT_THAT(use({"requests", "revoke", grant}).err, HasSubstr("there is no grant " + grant));
}

TEST_F(AMachineWithRequests, LeavesAnEntryThatWasAllowedByHandBefore) {
    does({"list", "allow", "site.example"});
    does({"requests", "revoke", run({"requests", "grant", ask()})["id"].dump()});
    EXPECT_THAT(list(), ElementsAre("allow site.example"));
}

TEST_F(AMachineWithRequests, KeepsAnEntryThatIsAllowedByHandDuringItsGrant) {
    const std::string grant = run({"requests", "grant", ask(), "--for", "1h"})["id"].dump();
    const CtlResult allowed = use({"list", "allow", "other.example", "site.example"});
    EXPECT_EQ(allowed.code, 0);
    EXPECT_EQ(allowed.err,
              "sentrelctl: grant " + grant + " of site.example is ended, so that the entry stays for good.\n");
    EXPECT_THAT(run({"requests", "grants"}), IsEmpty());
    EXPECT_THAT(list(), ElementsAre("allow other.example", "allow site.example"));
}

TEST_F(AMachineWithRequests, KeepsAnEntryThatIsImportedDuringItsGrant) {
    const std::string grant = run({"requests", "grant", ask(), "--for", "1h"})["id"].dump();
    const CtlResult imported = use({"list", "import", "--replace", "-", "--json=short"}, "allow site.example\n");
    EXPECT_EQ(imported.code, 0) << imported.err;
    EXPECT_EQ(json::parse(imported.out)["ended_grants"].dump(), "[" + grant + "]");
    EXPECT_THAT(run({"requests", "grants"}), IsEmpty());
    EXPECT_THAT(list(), ElementsAre("allow site.example"));
}

TEST_F(AMachineWithRequests, LeavesAGrantWhoseEntryIsBlockedByHand) {
    run({"requests", "grant", ask(), "--for", "1h"});
    does({"list", "block", "site.example"});
    EXPECT_EQ(run({"requests", "grants"}).size(), 1U);
}

TEST_F(AMachineWithRequests, BlocksAgainWhatWasBlockedBeforeTheGrant) {
    does({"list", "block", "site.example"});
    const std::string grant = run({"requests", "grant", ask()})["id"].dump();
    EXPECT_THAT(list(), ElementsAre("allow site.example"));
    does({"requests", "revoke", grant});
    EXPECT_THAT(list(), ElementsAre("block site.example"));
}

TEST_F(AMachineWithRequests, EndsAGrantWhoseEntrySomebodyTookOut) {
    const std::string grant = run({"requests", "grant", ask()})["id"].dump();
    does({"list", "remove", "site.example"});
    does({"requests", "revoke", grant});
    EXPECT_THAT(list(), IsEmpty());
}

TEST_F(AMachineWithRequests, SaysThatABlockEntryWinsOverTheGrantAndWhatToDo) {
    does({"list", "block", "*.example"});
    const CtlResult granted = use({"requests", "grant", ask()});
    EXPECT_EQ(granted.code, 0) << granted.err;
    EXPECT_THAT(granted.out, HasSubstr("The page stays blocked: the block entry *.example wins, since "
                                       "allow-over-block is off. Take it out ('sentrelctl list remove *.example')"));
    EXPECT_EQ(decision(), "block");
    EXPECT_EQ(run({"requests", "grant", ask("https://other.example/")})["blocked_by"], "*.example");
}

TEST_F(AMachineWithRequests, GrantsNothingOnAManagedMachineUnlessItsEnrolmentAllowsIt) {
    enrol("");
    const std::string id = ask();
    const CtlResult refused = use({"requests", "grant", id});
    EXPECT_EQ(refused.code, 1);
    EXPECT_THAT(refused.err, HasSubstr("this machine is managed, and its enrolment leaves no grants to its own "
                                       "administrators"));
    EXPECT_THAT(list(), IsEmpty());
    EXPECT_EQ(stateOf(id), "open");
    enrol(R"(, "local_grants": true)");
    EXPECT_EQ(run({"requests", "grant", id})["policy_sets_list"], false);
    EXPECT_THAT(list(), ElementsAre("allow site.example"));
    enrol("");
    EXPECT_EQ(does({"requests", "deny", ask("https://b.example/")}).substr(0, 6), "Denied");
}

TEST_F(AMachineWithRequests, TellsTheUserWhyARequestWasDenied) {
    const std::string id = ask();
    does({"requests", "deny", id, "--reason", "not at work"});
    const json shown = run({"requests", "show", id}, kNobody);
    EXPECT_EQ(shown["state"], "denied");
    EXPECT_EQ(shown["denied_because"], "not at work");
    EXPECT_THAT(run({"requests", "list"}), IsEmpty());
    EXPECT_EQ(run({"requests", "list", "--all"}).size(), 1U);
}

TEST_F(AMachineWithRequests, MakesGrantsThatAreAskedForAtOnceOneAfterTheOther) {
    std::vector<std::string> ids;
    for (int at = 0; at < 4; ++at) {
        ids.push_back(ask("https://r" + std::to_string(at) + ".example/"));
    }
    std::vector<CtlRun> runs;
    runs.reserve(ids.size());
    for (const std::string& id : ids) {
        runs.emplace_back(m_machine.root(), std::vector<std::string>{"requests", "grant", id});
    }
    for (CtlRun& each : runs) {
        EXPECT_EQ(each.finish().code, 0);
    }
    EXPECT_EQ(list().size(), 4U);
}

TEST_F(AMachineWithRequests, SignalsEachChange) {
    const auto bus = HVB::bus::openBus(m_machine.bus().socketPath(), patience());
    int heard = 0;
    HVB::bus::check(sd_bus_match_signal(
                        bus.get(), nullptr, HVB::bus::kHubName, HVB::bus::kRequestsPath, HVB::bus::kRequestsInterface,
                        HVB::bus::kRequestsChangedMember,
                        [](sd_bus_message*, void* count, sd_bus_error*) { return ++*static_cast<int*>(count), 0; },
                        &heard),
                    "match");
    const auto hears = [&](int wanted) {
        return eventually([&] {
            while (sd_bus_process(bus.get(), nullptr) > 0) {
            }
            return heard >= wanted;
        });
    };
    const std::string id = ask();
    EXPECT_TRUE(hears(1));
    does({"requests", "deny", id});
    EXPECT_TRUE(hears(2));
}

} // namespace
} // namespace testing_support
