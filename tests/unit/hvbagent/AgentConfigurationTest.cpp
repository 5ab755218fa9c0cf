// agent.json and the credentials file. Real files.
#include "platform/hvbagent/AgentConfiguration.h"
#include "platform/hvbagent/StrictJson.h"
#include "tests/support/FreedMemory.h"
#include "tests/support/PrivateRoot.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sys/stat.h>

#include <fstream>

namespace {

using namespace HVBEnterprise::agent;
using nlohmann::json;

/// A configuration with all that must be there, and a directory for files.
class AConfiguration : public ::testing::Test {
protected:
    AgentConfiguration read() const { return readAgentConfiguration(m_document.dump(), m_root.file("machine-id")); }

    std::string errorOf(const json& document) const {
        try {
            (void)readAgentConfiguration(document.dump(), m_root.file("machine-id"));
        } catch (const std::exception& error) {
            return error.what();
        }
        return "";
    }
    std::string errorWith(const char* pointer, const json& value) const {
        json changed = m_document;
        changed[json::json_pointer(pointer)] = value;
        return errorOf(changed);
    }
    std::string write(const std::string& name, const std::string& text, mode_t mode) const {
        std::ofstream(m_root.file(name)) << text;
        ::chmod(m_root.file(name).c_str(), mode);
        return m_root.file(name);
    }

    testing_support::PrivateRoot m_root;
    json m_document = {{"broker", {{"host", "hub.example"}, {"port", 8883}}}, {"site", "here"}, {"machine", "m1"}};
};

TEST_F(AConfiguration, HasItsDefaults) {
    const AgentConfiguration read = this->read();
    EXPECT_EQ(read.host, "hub.example");
    EXPECT_EQ(read.port, 8883);
    EXPECT_EQ(read.site, "here");
    EXPECT_EQ(read.machine, "m1");
    EXPECT_EQ(read.interval.count(), 3600);
    EXPECT_EQ(read.keepalive.count(), 60);
    EXPECT_TRUE(read.groups.empty());
    EXPECT_FALSE(read.tls);
    EXPECT_TRUE(read.policyKeys.empty());
    EXPECT_FALSE(read.requiresAudience);
    EXPECT_FALSE(read.allowsLocalGrants);
    EXPECT_EQ(read.credentialsFile, "");
}

TEST_F(AConfiguration, GivesAllThatItSays) {
    const std::string key(32, 'k');
    m_document["broker"]["tls"] = {{"ca", "/ca"}, {"certificate", "/crt"}, {"key", "/key"}};
    m_document["broker"]["credentials"] = "/secret";
    m_document["groups"] = {"b", "a", "all", "b"};
    m_document["interval"] = 10;
    m_document["keepalive"] = 5;
    m_document["policy_public_key"] = base64Of(key);
    m_document["require_audience"] = true;
    m_document["local_grants"] = true;
    const AgentConfiguration read = this->read();
    EXPECT_EQ(read.tls->authority, "/ca");
    EXPECT_EQ(read.tls->certificate, "/crt");
    EXPECT_EQ(read.tls->key, "/key");
    EXPECT_EQ(read.credentialsFile, "/secret");
    EXPECT_EQ(read.groups, (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(read.interval.count(), 10);
    EXPECT_EQ(read.keepalive.count(), 5);
    EXPECT_TRUE(read.allowsLocalGrants);
    ASSERT_EQ(read.policyKeys.size(), 1U);
    EXPECT_EQ(std::string(read.policyKeys[0].begin(), read.policyKeys[0].end()), key);
    EXPECT_TRUE(read.requiresAudience);
}

TEST_F(AConfiguration, TakesTheMachinesOwnIdWhenItNamesNone) {
    m_document.erase("machine");
    write("machine-id", "0123456789abcdef0123456789abcdef\n", 0444);
    EXPECT_EQ(read().machine, "0123456789abcdef0123456789abcdef");
    write("machine-id", "\n", 0644);
    EXPECT_EQ(errorOf(m_document), "/machine: is missing, and " + m_root.file("machine-id") + " holds no id");
    ::unlink(m_root.file("machine-id").c_str());
    EXPECT_NE(errorOf(m_document).find(m_root.file("machine-id") + ": cannot be opened"), std::string::npos);
}

TEST_F(AConfiguration, IsRefusedForAMemberThatIsNotKnownWithItsName) {
    EXPECT_EQ(errorWith("/intervall", 1), "/intervall: is not known here");
    EXPECT_EQ(errorWith("/broker/tsl", json::object()), "/broker/tsl: is not known here");
    EXPECT_EQ(errorWith("/broker/tls", {{"ca", "/ca"}, {"insecure", true}}), "/broker/tls/insecure: is not known here");
}

TEST_F(AConfiguration, IsRefusedWithoutWhatMustBeThere) {
    for (const char* pointer : {"/broker", "/broker/host", "/broker/port", "/site"}) {
        const json::json_pointer place(pointer);
        json without = m_document;
        without[place.parent_pointer()].erase(place.back());
        EXPECT_EQ(errorOf(without), std::string(pointer) + ": is missing");
    }
    EXPECT_EQ(errorWith("/broker/tls", json::object()), "/broker/tls/ca: is missing");
    EXPECT_EQ(errorWith("/broker/tls", {{"ca", "/ca"}, {"key", "/k"}}), "/broker/tls/certificate: is missing");
    EXPECT_EQ(errorWith("/broker/tls", {{"ca", "/ca"}, {"certificate", "/c"}}), "/broker/tls/key: is missing");
}

TEST_F(AConfiguration, IsRefusedForNumbersOutOfTheirRange) {
    for (const json& bad : {json(0), json(65536), json(-1), json("1883"), json(1883.0), json(18446744073709551615U)}) {
        EXPECT_EQ(errorWith("/broker/port", bad), "/broker/port: is not an integer from 1 to 65535") << bad;
    }
    for (const json& bad : {json(9), json(86401), json(true)}) {
        EXPECT_EQ(errorWith("/interval", bad), "/interval: is not an integer from 10 to 86400") << bad;
    }
    EXPECT_EQ(errorWith("/keepalive", 4), "/keepalive: is not an integer from 5 to 3600");
    EXPECT_EQ(errorWith("/interval", 86400), "");
}

TEST_F(AConfiguration, IsRefusedForNamesThatAreNoPartOfATopic) {
    for (const json& bad : {json(""), json("a/b"), json("+"), json("#"), json("é"), json("a b")}) {
        EXPECT_EQ(errorWith("/site", bad).substr(0, 20), "/site: is not 1 to 6") << bad;
        EXPECT_EQ(errorWith("/machine", bad).substr(0, 20), "/machine: is not 1 t") << bad;
        EXPECT_EQ(errorWith("/groups", {"ok", bad}).substr(0, 18), "/groups/1: is not ") << bad;
    }
    EXPECT_NE(errorWith("/site", std::string(65, 's')), "");
    EXPECT_EQ(errorWith("/groups", "a"), "/groups: is not a list of at most 32 groups");
    EXPECT_EQ(errorWith("/groups", std::vector<std::string>(33, "a")), "/groups: is not a list of at most 32 groups");
}

TEST_F(AConfiguration, IsRefusedForRelativePathsAndHostsThatAreNone) {
    EXPECT_EQ(errorWith("/broker/credentials", "secret"), "/broker/credentials: is not an absolute path");
    EXPECT_EQ(errorWith("/broker/credentials", ""), "/broker/credentials: is not an absolute path");
    EXPECT_EQ(errorWith("/broker/tls", {{"ca", "ca.pem"}}), "/broker/tls/ca: is not an absolute path");
    for (const json& bad : {json(""), json("a b"), json("a\n")}) {
        EXPECT_EQ(errorWith("/broker/host", bad), "/broker/host: is no host name");
    }
    EXPECT_EQ(errorWith("/broker/host", std::string(254, 'h')), "/broker/host: is longer than 253 bytes");
}

TEST_F(AConfiguration, IsRefusedForAPublicKeyThatIsNone) {
    for (const std::string& bad :
         {std::string(), std::string("????"), base64Of(std::string(31, 'k')), base64Of(std::string(33, 'k'))}) {
        EXPECT_EQ(errorWith("/policy_public_key", bad), "/policy_public_key: is not the base64 of 32 bytes");
    }
}

TEST_F(AConfiguration, MayHaveTwoPublicKeysWhileTheyAreChanged) {
    const std::string one = base64Of(std::string(32, 'a'));
    const std::string other = base64Of(std::string(32, 'b'));
    m_document["policy_public_key"] = json{one, other};
    const PublicKeys keys = readAgentConfiguration(m_document.dump()).policyKeys;
    ASSERT_EQ(keys.size(), 2U);
    EXPECT_EQ(keys[1][0], 'b');
    const std::string size = "/policy_public_key: is neither a key nor a list of 1 to 2";
    EXPECT_EQ(errorWith("/policy_public_key", json::array()), size);
    EXPECT_EQ(errorWith("/policy_public_key", json{one, one, one}), size);
    EXPECT_EQ(errorWith("/policy_public_key", json{one, "x"}), "/policy_public_key/1: is not the base64 of 32 bytes");
}

TEST_F(AConfiguration, IsRefusedForALeaveToGrantThatIsNoSwitch) {
    for (const json& bad : {json(1), json("true"), json(nullptr)}) {
        EXPECT_EQ(errorWith("/local_grants", bad), "/local_grants: is neither true nor false");
    }
    EXPECT_EQ(errorWith("/local_grants", false), "");
}

TEST_F(AConfiguration, GivesLeaveToGrantOnlyWhereItCanBeReadAndSaysSo) {
    EXPECT_FALSE(enrolmentAllowsLocalGrants(write("agent.json", m_document.dump(), 0644)));
    EXPECT_FALSE(enrolmentAllowsLocalGrants(m_root.file("none.json")));
    m_document["local_grants"] = true;
    EXPECT_TRUE(enrolmentAllowsLocalGrants(write("agent.json", m_document.dump(), 0644)));
    EXPECT_FALSE(enrolmentAllowsLocalGrants(write("open.json", m_document.dump(), 0666)))
        << "another user may have written it";
    m_document["unknown"] = true;
    EXPECT_FALSE(enrolmentAllowsLocalGrants(write("agent.json", m_document.dump(), 0644)));
}

TEST_F(AConfiguration, IsLoadedFromItsFile) {
    const std::string file = write("agent.json", m_document.dump(), 0644);
    EXPECT_EQ(loadAgentConfiguration(file)->site, "here");
    EXPECT_FALSE(loadAgentConfiguration(m_root.file("none.json")));
}

TEST_F(AConfiguration, ThatCannotBeUsedIsToldWithItsFileAndPlace) {
    const auto errorOfFile = [](const std::string& file) {
        try {
            (void)loadAgentConfiguration(file);
        } catch (const std::runtime_error& error) {
            return std::string(error.what());
        }
        return std::string();
    };
    const std::string syntax = write("syntax.json", "{\"site\":\n  here}", 0644);
    EXPECT_EQ(errorOfFile(syntax).substr(0, syntax.size() + 19), syntax + ": line 2, column 3:");
    const std::string twice = write("twice.json", R"({"site": "a", "site": "b"})", 0644);
    EXPECT_EQ(errorOfFile(twice), twice + ": /site: is there twice");
    EXPECT_NE(errorOfFile(write("large.json", std::string(70'000, ' '), 0644)).find("is too large"), std::string::npos);
    EXPECT_NE(errorOfFile(m_root.path().string()).find("is not a regular file"), std::string::npos);
    m_document["broker"]["credentials"] = m_root.file("no-such-file");
    EXPECT_EQ(errorOfFile(write("agent.json", m_document.dump(), 0644)), "") << "they are read at each attempt";
}

TEST_F(AConfiguration, HasCredentialsThatOnlyTheirOwnerMayRead) {
    const std::string text = R"({"user": "m1", "password": "päss"})";
    const Credentials credentials = loadCredentials(write("credentials", text, 0600));
    EXPECT_EQ(credentials.user, "m1");
    EXPECT_EQ(credentials.password, "päss");
    for (const mode_t mode : {0640U, 0604U, 0660U, 0644U, 0601U}) {
        EXPECT_THROW((void)loadCredentials(write("credentials", text, mode)), std::runtime_error) << mode;
    }
}

TEST_F(AConfiguration, NeverTellsAPassword) {
    for (const char* bad : {R"({"user": "u", "password": "hunter2", "x": 1})", R"({"user": 1, "password": "hunter2"})",
                            R"({"user": "u", "password": hunter2})", R"({"user": "u", "password": "hunter2" "})"}) {
        try {
            (void)loadCredentials(write("credentials", bad, 0600));
            FAIL() << bad;
        } catch (const std::runtime_error& error) {
            EXPECT_EQ(std::string(error.what()).find("hunter2"), std::string::npos) << error.what();
        }
    }
}

/// The parser's own copies are the library's, and small; the text of the file is not.
TEST_F(AConfiguration, LeavesNoFileOfCredentialsInMemory) {
    constexpr std::size_t sizeOfAFile = 32 << 10;
    for (const char* file :
         {R"({"user": "u", "password": "hunter2hunter2"})", R"({"user": "u", "password": "hunter2hunter2", "x": 1})",
          R"({"user": 1, "password": "hunter2hunter2"})", R"({"user": "u", "password": "hunter2hunter2)"}) {
        const std::string path = write("credentials", file, 0600);
        const testing_support::FreedMemory memory("hunter2hunter2", sizeOfAFile);
        try {
            (void)loadCredentials(path);
        } catch (const std::runtime_error&) {
        }
        EXPECT_EQ(memory.found(), 0U) << file;
    }
}

} // namespace
