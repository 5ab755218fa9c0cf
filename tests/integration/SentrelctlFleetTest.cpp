// sentrelctl as an administrator of managed machines uses it. Real: the program, mosquitto with and without passwords
// and TLS, key files. The machines are an observer at the broker that answers as they do; how sentreld answers is
// ManagedDaemonTest's to show.
#include "platform/hvbagent/Encoding.h"
#include "platform/hvbagent/SecretBox.h"
#include "tests/integration/SentrelctlRun.h"
#include "tests/support/AsUser.h"
#include "tests/support/Eventually.h"
#include "tests/support/Files.h"
#include "tests/support/MqttBroker.h"
#include "tests/support/MqttObserver.h"

#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>

namespace testing_support {
namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::StartsWith;

const std::string kExample = SENTREL_SOURCE_DIR "/packaging/policy.example.json";
const std::string kPolicyTopic = "orvanta/v1/demo/desk-1/policy";

mode_t modeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777U;
}

/// What an administrator has without any broker.
class AnAdministrator : public testing::Test {
protected:
    AnAdministrator() { std::filesystem::create_directories(m_root.hubConfigDirectory()); }

    CtlResult run(const std::vector<std::string>& arguments, const std::string& input = "") {
        return ctl(m_root, arguments, input);
    }

    /// Writes a file that its owner alone may read. @return its path.
    std::string secretFile(const std::string& name, const std::string& content) {
        std::string path = m_root.file(name);
        std::ofstream(path, std::ios::binary) << content;
        std::filesystem::permissions(path, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
        return path;
    }

    std::string agentKey() const { return m_root.hubConfigDirectory() + "/agent.key"; }

    PrivateRoot m_root;
};

TEST_F(AnAdministrator, IsToldWhatTheExamplePolicyDoes) {
    const CtlResult result = run({"policy", "check", kExample});
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_EQ(result.err, "");
    EXPECT_THAT(result.out, StartsWith("policy 1 (example)\n    protection on\n"));
    EXPECT_THAT(result.out, HasSubstr("    2 categories blocked\n"));
    EXPECT_THAT(result.out, HasSubstr("    3 sites: 2 blocked, 1 allowed, allow entries win\n"));
    EXPECT_TRUE(result.out.ends_with("It would be put into force as a whole.\n")) << result.out;
}

/// The example without one of its sites, the action of which is still there.
std::string policyWithAGap() {
    json policy = json::parse(readFile(kExample));
    policy["features"]["KPF_BlockAndAllowList"]["BlockAndAllowList"].erase("szSite1");
    return policy.dump();
}

TEST_F(AnAdministrator, IsRefusedAPolicyWhoseActionsGoToOtherSites) {
    const std::string why = "/features/KPF_BlockAndAllowList/BlockAndAllowList/szSite1: is missing, and Action1 is "
                            "there: from it on, sites and actions do not fit";
    CtlResult result = run({"policy", "check", "-"}, policyWithAGap());
    EXPECT_EQ(result.code, 1);
    EXPECT_EQ(result.err, "sentrelctl: the policy has a gap: standard input: " + why +
                              ". Mend it, or let it through with --allow-gaps.\n");
    EXPECT_TRUE(result.out.ends_with("It would be put into force with sites and actions that do not fit.\n"))
        << result.out;
    result = run({"policy", "check", "-", "--json=short"}, policyWithAGap());
    EXPECT_EQ(result.code, 1);
    EXPECT_EQ(json::parse(result.out)["verdict"], "gap");
    EXPECT_EQ(json::parse(result.out)["gap"], why);
    EXPECT_EQ(json::parse(run({"policy", "check", kExample, "--json=short"}).out)["gap"], nullptr);
    result = run({"policy", "check", "-", "--allow-gaps"}, policyWithAGap());
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_TRUE(result.out.ends_with("that do not fit.\n")) << "the verdict stays what it is";
}

TEST_F(AnAdministrator, IsToldOnStandardErrorWhyAPolicyIsNoGood) {
    CtlResult result = run({"policy", "check", "-"}, R"({"version": 1})");
    EXPECT_EQ(result.code, 1);
    EXPECT_THAT(result.err,
                StartsWith("sentrelctl: the policy fails: standard input: "
                           "/features/KPF_ContentFiltering/ContentActions/bEnableCategorization: is missing"));
    result = run({"policy", "check", "-", "--json=short"}, "{");
    EXPECT_EQ(result.code, 1);
    EXPECT_EQ(json::parse(result.out)["verdict"], "refused");
    EXPECT_EQ(run({"policy", "check", m_root.file("nothing")}).code, 1);
    EXPECT_EQ(run({"policy", "check"}).code, 2);
}

TEST_F(AnAdministrator, MakesAKeyOnce) {
    ASSERT_EQ(run({"agent", "keygen"}).code, 0);
    EXPECT_EQ(modeOf(agentKey()), 0600U);
    const std::string before = readFile(agentKey());
    const CtlResult second = run({"agent", "keygen"});
    EXPECT_EQ(second.code, 1);
    EXPECT_THAT(second.err, HasSubstr(agentKey()));
    EXPECT_EQ(readFile(agentKey()), before);
    EXPECT_EQ(run({"agent", "keygen", "--signing", m_root.file("site"), "elsewhere"}).code, 2);
}

/// What the drop-in of the daemon's unit says after the machine was enrolled at @p host.
class ADaemonsNetwork : public AnAdministrator {
protected:
    std::string dropInFor(const std::string& host) {
        std::ofstream(m_enrolment) << R"({"broker": {"host": ")" << host
                                   << R"(", "port": 8883}, "site": "demo", "machine": "desk-1"})";
        const CtlResult result = run({"agent", "network"});
        EXPECT_EQ(result.code, 0) << result.err;
        return readFile(m_dropIn);
    }

    const std::string m_enrolment = m_root.hubConfigDirectory() + "/agent.json";
    const std::string m_dropIn = m_root.file("etc/systemd/system/sentreld.service.d/50-agent-network.conf");
};

TEST_F(ADaemonsNetwork, IsTheBrokersAddressAndNothingElse) {
    EXPECT_THAT(dropInFor("192.0.2.7"),
                HasSubstr("[Service]\nPrivateNetwork=no\n"
                          "RestrictAddressFamilies=AF_INET AF_INET6\nIPAddressAllow=192.0.2.7\n"));
    EXPECT_EQ(modeOf(m_dropIn), 0644U);
    EXPECT_THAT(dropInFor("2001:db8::7"), HasSubstr("IPAddressAllow=2001:db8::7\n"));
}

TEST_F(ADaemonsNetwork, IsEveryAddressWhenTheBrokerHasAName) {
    EXPECT_THAT(dropInFor("broker.example"), HasSubstr("IPAddressAllow=any\n"));
    EXPECT_THAT(run({"agent", "network"}).out, HasSubstr("since broker.example is a name"));
}

TEST_F(ADaemonsNetwork, IsNothingOnceTheMachineIsNotEnrolled) {
    dropInFor("192.0.2.7");
    std::filesystem::remove(m_enrolment);
    const CtlResult result = run({"agent", "network", "--json=short"});
    EXPECT_EQ(json::parse(result.out), (json{{"file", nullptr}, {"host", nullptr}, {"any_address", false}}));
    EXPECT_FALSE(std::filesystem::exists(m_dropIn));
}

TEST_F(ADaemonsNetwork, StaysAsItIsWhenTheEnrolmentCannotBeUsed) {
    const std::string before = dropInFor("192.0.2.7");
    std::ofstream(m_enrolment) << "{";
    const CtlResult result = run({"agent", "network"});
    EXPECT_EQ(result.code, 1);
    EXPECT_THAT(result.err, StartsWith("sentrelctl: the daemon's network was not changed: " + m_enrolment));
    EXPECT_EQ(readFile(m_dropIn), before);
}

TEST_F(AnAdministrator, MakesAKeyThatTheOwnerOfItsDirectoryCanUse) {
    if (!canActAsOthers()) {
        GTEST_SKIP() << "needs root, which makes a key for another user";
    }
    PrivateRoot::giveTo(m_root.hubConfigDirectory(), kNobody, kNogroup);
    ASSERT_EQ(run({"agent", "keygen"}).code, 0);
    EXPECT_EQ(modeOf(agentKey()), 0600U);
    EXPECT_EQ(
        asNobody([this] { return std::to_string(HVBEnterprise::agent::SecretKey::load(agentKey()).bytes().size()); }),
        "32");
}

TEST_F(AnAdministrator, EncryptsATextThatOnlyTheKeyOpens) {
    ASSERT_EQ(run({"agent", "keygen"}).code, 0);
    const CtlResult result = run({"encrypt"}, "open sesame\n");
    ASSERT_EQ(result.code, 0) << result.err;
    ASSERT_TRUE(result.out.starts_with("v1:") && result.out.ends_with("\n")) << result.out;
    const auto key = HVBEnterprise::agent::SecretKey::load(agentKey());
    EXPECT_EQ(HVBEnterprise::agent::decrypted(key, result.out.substr(0, result.out.size() - 1)), "open sesame");
    EXPECT_NE(run({"encrypt"}, "open sesame\n").out, result.out) << "the same text never looks the same";
}

TEST_F(AnAdministrator, EncryptsNothingThatNobodyCouldOpen) {
    EXPECT_EQ(run({"encrypt"}, "x").code, 1) << "there is no key";
    ASSERT_EQ(run({"agent", "keygen"}).code, 0);
    EXPECT_EQ(run({"encrypt"}, "").code, 2);
    EXPECT_EQ(run({"encrypt"}, "\n").code, 2);
    EXPECT_EQ(run({"encrypt"}, std::string(719, 'x')).code, 0);
    const CtlResult tooLong = run({"encrypt"}, std::string(720, 'x'));
    EXPECT_EQ(tooLong.code, 2);
    EXPECT_THAT(tooLong.err, HasSubstr("the event socket carries 1015 at the most"));
    EXPECT_EQ(run({"encrypt"}, std::string(2000, 'x')).code, 2);
    std::filesystem::permissions(agentKey(), std::filesystem::perms::group_read, std::filesystem::perm_options::add);
    EXPECT_EQ(run({"encrypt"}, "x").code, 1) << "others can read the key";
}

TEST_F(AnAdministrator, MakesASigningPairOnce) {
    const std::string prefix = m_root.file("site");
    const CtlResult result = run({"agent", "keygen", "--signing", prefix, "--json=short"});
    ASSERT_EQ(result.code, 0) << result.err;
    EXPECT_EQ(modeOf(prefix + ".key"), 0600U);
    EXPECT_EQ(modeOf(prefix + ".pub"), 0644U);
    EXPECT_EQ(json::parse(result.out)["policy_public_key"].get<std::string>() + "\n", readFile(prefix + ".pub"));
    const std::string before = readFile(prefix + ".key");
    EXPECT_EQ(run({"agent", "keygen", "--signing", prefix}).code, 1);
    std::filesystem::remove(prefix + ".pub");
    EXPECT_EQ(run({"agent", "keygen", "--signing", prefix}).code, 1);
    EXPECT_EQ(readFile(prefix + ".key"), before);
    EXPECT_FALSE(std::filesystem::exists(prefix + ".pub")) << "half a pair is worse than none";
}

TEST_F(AnAdministrator, IsToldThatNoBrokerIsThere) {
    const std::string port = std::to_string(freeLoopbackPort());
    const CtlResult result = run({"state", "--host", "127.0.0.1", "--port", port, "--site", "demo"});
    EXPECT_EQ(result.code, 8);
    EXPECT_EQ(result.err, "sentrelctl: the broker: 127.0.0.1:" + port +
                              ": Connection refused. Start it, or name another with --host and --port.\n");
}

TEST_F(AnAdministrator, IsToldWhichOptionsAreMissing) {
    EXPECT_EQ(run({"state"}).code, 1) << "this machine is not enrolled";
    EXPECT_EQ(run({"state", "--host", "127.0.0.1"}).code, 2) << "no site";
    EXPECT_EQ(run({"state", "--host", "127.0.0.1", "--site", "a/b"}).code, 2);
    EXPECT_EQ(run({"state", "--host", "h", "--site", "demo", "--machine", "+"}).code, 2);
    EXPECT_EQ(run({"policy", "push", kExample, "--host", "h", "--site", "demo"}).code, 2) << "no target";
    EXPECT_EQ(run({"policy", "push", kExample, "--machine", "a", "--group", "b"}).code, 2);
    EXPECT_EQ(run({"policy", "push", kExample, "--group", "all", "--wait"}).code, 2);
    EXPECT_EQ(run({"state", "--cert", "c.pem"}).code, 2);
}

/// With a broker beside, to which this machine is enrolled.
class AFleetAdministrator : public AnAdministrator {
protected:
    AFleetAdministrator() : m_broker(m_root), m_machines(m_broker.port()) { enrol(); }

    void enrol(const json& more = json::object()) {
        json enrolment{
            {"broker", {{"host", "127.0.0.1"}, {"port", m_broker.port()}}}, {"site", "demo"}, {"machine", "desk-1"}};
        enrolment.update(more);
        std::ofstream(m_root.hubConfigDirectory() + "/agent.json") << enrolment;
    }

    MqttBroker m_broker;
    MqttObserver m_machines;
};

/// A document as it is pushed to the machine desk-1.
json forDesk1(const std::string& document) {
    json pushed = json::parse(document);
    pushed["audience"] = {{"site", "demo"}, {"machine", "desk-1"}};
    return pushed;
}

TEST_F(AFleetAdministrator, PushesAPolicyToAMachineWhereItStays) {
    const CtlResult result = run({"policy", "push", kExample, "--machine", "desk-1"});
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_EQ(result.out, "The broker has policy 1 (example) for machine desk-1 of demo.\n");
    const auto heard = m_machines.next(kPolicyTopic);
    ASSERT_TRUE(heard);
    EXPECT_EQ(json::parse(heard->payload), forDesk1(readFile(kExample)));
    MqttObserver later(m_broker.port());
    const auto kept = later.next(kPolicyTopic);
    ASSERT_TRUE(kept);
    EXPECT_TRUE(kept->retained);
}

TEST_F(AFleetAdministrator, HasTheMachinesOfTheSiteOfferedByBash) {
    for (const char* machine : {"desk-1", "desk-2", "lap"}) {
        m_machines.publish(std::string("orvanta/v1/demo/") + machine + "/state", R"({"state": "online"})");
    }
    EXPECT_EQ(offeredInBash(m_root, "state --machine ''"), "desk-1 desk-2 lap ");
    EXPECT_EQ(offeredInBash(m_root, "policy push p.json --machine = d"), "desk-1 desk-2 ");
    EXPECT_EQ(offeredInBash(m_root, "state --site other --machine ''"), " ");
}

TEST_F(AFleetAdministrator, PushesAPolicyToAGroup) {
    const CtlResult result = run({"policy", "push", kExample, "--group", "all", "--json=short"});
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_EQ(json::parse(result.out)["topic"], "orvanta/v1/demo/group/all/policy");
    EXPECT_TRUE(m_machines.next("orvanta/v1/demo/group/all/policy"));
}

TEST_F(AFleetAdministrator, PushesNothingThatIsNoGoodUnlessForcedTo) {
    CtlResult result = run({"policy", "push", "-", "--machine", "desk-1"}, R"({"version": 1})");
    EXPECT_EQ(result.code, 1);
    EXPECT_THAT(result.err, HasSubstr("sentrelctl: nothing was pushed: standard input: "));
    result = run({"policy", "push", "-", "--machine", "desk-1", "--force"}, R"({"version": 2})");
    EXPECT_EQ(result.code, 0) << result.err;
    const auto heard = m_machines.next(kPolicyTopic);
    ASSERT_TRUE(heard);
    EXPECT_EQ(json::parse(heard->payload), forDesk1(R"({"version": 2})")) << "the first never went";
}

TEST_F(AFleetAdministrator, PushesNoPolicyWhoseActionsGoToOtherSitesUnlessToldTo) {
    const CtlResult refused = run({"policy", "push", "-", "--machine", "desk-1"}, policyWithAGap());
    EXPECT_EQ(refused.code, 1);
    EXPECT_THAT(refused.err,
                HasSubstr("sentrelctl: nothing was pushed: standard input: /features/KPF_BlockAndAllowList/"
                          "BlockAndAllowList/szSite1: is missing, and Action1 is there"));
    EXPECT_THAT(refused.err, HasSubstr("Mend it, or let it through with --allow-gaps.\n"));
    for (const char* option : {"--allow-gaps", "--force"}) {
        EXPECT_EQ(run({"policy", "push", "-", "--machine", "desk-1", option}, policyWithAGap()).code, 0) << option;
        const auto heard = m_machines.next(kPolicyTopic);
        ASSERT_TRUE(heard);
        EXPECT_EQ(json::parse(heard->payload), forDesk1(policyWithAGap())) << "the first never went";
    }
}

TEST_F(AFleetAdministrator, SignsWhatIsPushed) {
    const std::string prefix = m_root.file("site");
    const CtlResult pair = run({"agent", "keygen", "--signing", prefix, "--json=short"});
    enrol({{"policy_public_key", json::parse(pair.out)["policy_public_key"]}});
    const CtlResult unsignedPush = run({"policy", "push", kExample, "--machine", "desk-1"});
    EXPECT_EQ(unsignedPush.code, 1);
    EXPECT_THAT(unsignedPush.err, HasSubstr("is not signed"));
    ASSERT_EQ(run({"policy", "push", kExample, "--machine", "desk-1", "--sign", prefix + ".key"}).code, 0);
    const auto heard = m_machines.next(kPolicyTopic);
    ASSERT_TRUE(heard);
    EXPECT_EQ(run({"policy", "check", "-", "--public-key", prefix + ".pub"}, heard->payload).code, 0);
    run({"agent", "keygen", "--signing", m_root.file("other")});
    EXPECT_EQ(run({"policy", "check", "-", "--public-key", m_root.file("other.pub")}, heard->payload).code, 1);
    EXPECT_EQ(run({"policy", "push", kExample, "--machine", "desk-1", "--sign", m_root.file("other.key")}).code, 1);
}

/// A statement with one policy in force.
json statementOn(const std::string& sha256, const json& enforced, const json& more = json::object()) {
    json statement{{"time", "T"},
                   {"in_force",
                    {{"epoch", 1},
                     {"version", 1},
                     {"id", "example"},
                     {"sha256", sha256},
                     {"topic", "machine"},
                     {"since", "T"},
                     {"enforced", enforced},
                     {"whole", enforced},
                     {"rows_missing", 0},
                     {"left_out", {{"count", 0}, {"first", json::array()}}}}},
                   {"failed", nullptr},
                   {"refused", nullptr},
                   {"passed_over", json::array()}};
    statement.update(more, true);
    return statement;
}

TEST_F(AFleetAdministrator, WaitsForTheMachinesOwnWord) {
    const std::string topic = "orvanta/v1/demo/desk-1/policy/result";
    m_machines.publish(topic, statementOn("an earlier run's", true).dump());
    struct Case {
        json word; ///< merged into a statement that has the policy in force
        int code;
        const char* text;
    };
    const json declined{{"epoch", 1}, {"version", 1}, {"why", "bad"}, {"topic", "machine"}, {"time", "T"}};
    for (const Case& each : {Case{json::object(), 0, "desk-1   1         yes"},
                             Case{{{"in_force", {{"enforced", false}, {"whole", false}}}}, 1, "the machine could not"},
                             Case{{{"in_force", {{"enforced", false}}}, {"failed", {{"why", "no hub"}}}}, 1, "no hub"},
                             Case{{{"in_force", {{"rows_missing", 3}}}}, 1, "3 rows not stored"},
                             Case{{{"in_force", {{"left_out", {{"count", 5}}}}}}, 1, "5 entries left out"},
                             Case{{{"in_force", nullptr}, {"refused", declined}}, 1, "it is refused: bad"},
                             Case{{{"in_force", nullptr}, {"passed_over", {declined}}}, 1, "it is passed over: bad"}}) {
        CtlRun push(m_root, {"policy", "push", kExample, "--machine", "desk-1", "--wait"});
        const auto pushed = m_machines.next(kPolicyTopic);
        ASSERT_TRUE(pushed);
        const std::string sha256 = HVBEnterprise::agent::sha256Of(pushed->payload);
        m_machines.publish(topic, statementOn("another policy's", true).dump());
        m_machines.publish(topic, statementOn(sha256, nullptr).dump()); // it is being enforced
        json statement = statementOn(sha256, true);
        statement.update(each.word, true);
        for (json* const part : {&statement["refused"], &statement["passed_over"]}) {
            if (part->is_object()) {
                (*part)["sha256"] = sha256;
            } else if (part->is_array() && !part->empty()) {
                (*part)[0]["sha256"] = sha256;
            }
        }
        m_machines.publish(topic, statement.dump());
        const CtlResult result = push.finish();
        EXPECT_EQ(result.code, each.code) << result.err;
        EXPECT_THAT(result.out + result.err, HasSubstr(each.text));
    }
    EXPECT_EQ(run({"policy", "push", kExample, "--machine", "desk-2", "--wait", "--timeout", "0.5"}).code, 3);
}

TEST_F(AFleetAdministrator, UnderstandsTheResultsOfMachinesOfBefore) {
    const std::string topic = "orvanta/v1/demo/desk-1/policy/result";
    for (const bool enforced : {true, false}) {
        CtlRun push(m_root, {"policy", "push", kExample, "--machine", "desk-1", "--wait"});
        const auto pushed = m_machines.next(kPolicyTopic);
        ASSERT_TRUE(pushed);
        m_machines.publish(topic, json{{"version", 1},
                                       {"id", "example"},
                                       {"sha256", HVBEnterprise::agent::sha256Of(pushed->payload)},
                                       {"time", "T"},
                                       {"enforced", enforced},
                                       {"refused", nullptr}}
                                      .dump());
        EXPECT_EQ(push.finish().code, enforced ? 0 : 1);
    }
}

TEST_F(AFleetAdministrator, SaysWhomAPushedPolicyIsFor) {
    ASSERT_EQ(run({"policy", "push", kExample, "--machine", "desk-1"}).code, 0);
    const json own = json::parse(m_machines.next(kPolicyTopic)->payload);
    EXPECT_EQ(own["audience"], json({{"site", "demo"}, {"machine", "desk-1"}}));
    ASSERT_EQ(run({"policy", "push", kExample, "--group", "all"}).code, 0);
    const auto all = m_machines.next("orvanta/v1/demo/group/all/policy");
    ASSERT_TRUE(all);
    EXPECT_EQ(json::parse(all->payload)["audience"], json({{"site", "demo"}, {"group", "all"}}));
    const CtlResult other = run({"policy", "push", "-", "--machine", "desk-2"}, own.dump());
    EXPECT_EQ(other.code, 1);
    EXPECT_THAT(other.err,
                HasSubstr("it says that it is for machine desk-1 of demo, and not for machine desk-2 of demo"));
}

TEST_F(AFleetAdministrator, SeesWhatIsInForceOnAllMachines) {
    const auto publish = [&](const char* machine, const std::string& text) {
        m_machines.publish("orvanta/v1/demo/" + std::string(machine) + "/policy/result", text);
    };
    publish("a", statementOn("", false,
                             {{"in_force", nullptr}, {"refused", {{"epoch", 2}, {"version", 3}, {"why", "bad\x1b["}}}})
                     .dump());
    publish("b", statementOn("", true, {{"in_force", {{"epoch", 2}}}}).dump());
    publish("c", "{");
    publish("d", R"({"version": 3, "id": "x", "sha256": "", "time": "T", "enforced": true, "refused": null})");
    publish("e", R"({"in_force": 5, "refused": [], "passed_over": 7})");
    m_machines.publish("orvanta/v1/other/d/policy/result", "{}");
    const CtlResult result = run({"policy", "results"});
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_THAT(result.out, StartsWith("MACHINE  IN FORCE  WHOLE  TOPIC    SINCE  LAST REFUSED\n"
                                       "a        -         -      -        -      refused 2/3: bad\\x1b[\n"
                                       "b        2/1       yes    machine  T      -\n"
                                       "c        -         -      -        -      cannot be read: line 1, column 2: "));
    EXPECT_THAT(result.out, HasSubstr("d        3         ?      -        T      -\n"
                                      "e        -         -      -        -      -\n"));
    const json list = json::parse(run({"policy", "results", "--machine", "b", "--json=short"}).out);
    ASSERT_EQ(list.size(), 1U);
    EXPECT_EQ(list[0]["machine"], "b");
    EXPECT_EQ(list[0]["in_force"]["version"], 1);
    EXPECT_EQ(list[0]["error"], nullptr);
}

TEST_F(AFleetAdministrator, SeesPropertiesAndStates) {
    m_machines.publish(
        "orvanta/v1/demo/a/properties",
        R"({"time": "T", "full": true, "sections": {"General": {"szProductVer": " 10.7.123", "Patch": ""},)"
        R"( "Options": {"bSTEnabled": "1"}, "CustomProps": {"bComplianceStatus": "0"}}})");
    m_machines.publish("orvanta/v1/demo/b/properties", R"({"sections": 5})");
    m_machines.publish("orvanta/v1/demo/a/state", R"({"state": "online", "time": "T"})");
    EXPECT_EQ(run({"properties", "show"}).out, "MACHINE  VERSION   PROTECTION  COMPLIANT  PATCH  TIME\n"
                                               "a        10.7.123  on          no         -      T\n"
                                               "b        -         -           -          -      -\n");
    EXPECT_THAT(run({"properties", "show", "--machine", "a"}).out,
                StartsWith("a  collected T\n    CustomProps  bComplianceStatus  0\n"));
    EXPECT_EQ(run({"state"}).out, "MACHINE  STATE   SINCE\na        online  T\n");
    EXPECT_EQ(run({"state", "--machine", "nobody"}).code, 1);
    EXPECT_EQ(run({"state", "--site", "empty"}).out, "The broker has nothing from any machine.\n");
}

TEST_F(AFleetAdministrator, CollectsTheStatesOfAThousandMachines) {
    constexpr int machines = 1000;
    for (int i = 0; i < machines; ++i) {
        m_machines.publish("orvanta/v1/demo/m" + std::to_string(i) + "/state", R"({"state": "online", "time": "T"})");
    }
    EXPECT_EQ(json::parse(run({"state", "--json=short"}).out).size(), std::size_t{machines});
}

/// With a broker that knows its users, and speaks TLS.
class AGuardedBroker : public AnAdministrator {
protected:
    AGuardedBroker()
        : m_certificates(m_root), m_broker(m_root, {.withPasswords = true, .certificates = &m_certificates}) {
        m_broker.kill9();
        m_broker.setPassword("admin", "secret");
        m_broker.restart();
    }

    std::string credentials(const std::string& password) {
        return secretFile("credentials", json{{"user", "admin"}, {"password", password}}.dump());
    }

    CtlResult state(const std::string& credentialsFile, const std::string& authority) {
        return run({"state", "--host", "127.0.0.1", "--port", std::to_string(m_broker.port()), "--site", "demo",
                    "--credentials", credentialsFile, "--ca", authority});
    }

    MqttCertificates m_certificates;
    MqttBroker m_broker;
};

TEST_F(AGuardedBroker, LetsAnAdministratorInWithCredentialsOverTls) {
    const CtlResult result = state(credentials("secret"), m_certificates.authority());
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_EQ(result.out, "The broker has nothing from any machine.\n");
}

TEST_F(AGuardedBroker, IsAnErrorOfAccessForTheWrongPassword) {
    const CtlResult result = state(credentials("wrong"), m_certificates.authority());
    EXPECT_EQ(result.code, 4) << result.err;
    EXPECT_THAT(result.err, HasSubstr("the broker refuses"));
    EXPECT_EQ(result.err.find("wrong"), std::string::npos) << "a password is never repeated";
}

TEST_F(AGuardedBroker, IsNotTalkedToWhenItsCertificateIsNotGood) {
    m_broker.kill9();
    m_certificates.issueExpired();
    m_broker.restart();
    const CtlResult result = state(credentials("secret"), m_certificates.authority());
    EXPECT_EQ(result.code, 1) << result.err;
    EXPECT_THAT(result.err, HasSubstr("certificate"));
    EXPECT_EQ(state(credentials("secret"), m_root.file("nothing")).code, 1);
}

TEST_F(AGuardedBroker, IsShownACertificateOnlyWhenItsKeyIsTheOwnersAlone) {
    const CertificateFiles files = m_certificates.issueFor("admin");
    const auto states = [&] {
        return run({"state", "--host", "127.0.0.1", "--port", std::to_string(m_broker.port()), "--site", "demo",
                    "--credentials", credentials("secret"), "--ca", m_certificates.authority(), "--cert",
                    files.certificate, "--key", files.key});
    };
    EXPECT_EQ(states().code, 0);
    std::filesystem::permissions(files.key, std::filesystem::perms::group_read, std::filesystem::perm_options::add);
    const CtlResult result = states();
    EXPECT_EQ(result.code, 1);
    EXPECT_THAT(result.err, HasSubstr(files.key + ": others than its owner may access it; it must have mode 0600"));
}

TEST_F(AGuardedBroker, IsNotGivenCredentialsThatOthersCanRead) {
    const std::string path = credentials("secret");
    std::filesystem::permissions(path, std::filesystem::perms::others_read, std::filesystem::perm_options::add);
    const CtlResult result = state(path, m_certificates.authority());
    EXPECT_EQ(result.code, 1);
    EXPECT_THAT(result.err, HasSubstr(path));
}

} // namespace
} // namespace testing_support
