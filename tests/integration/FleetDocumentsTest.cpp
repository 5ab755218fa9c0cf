// The published JSON Schemas and the code's own parsers and writers agree. Real: the schemas as they are published, the
// jsonschema package of python, the parsers of the management agent.
#include "platform/hvbagent/AgentConfiguration.h"
#include "platform/hvbagent/Fleet.h"
#include "platform/hvbagent/PolicyDocument.h"
#include "platform/hvbagent/PolicyStatement.h"
#include "platform/hvbagent/PropertyDocument.h"
#include "platform/hvbagent/StrictJson.h"
#include "tests/integration/SentrelctlRun.h"
#include "tests/support/Files.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <sstream>

namespace testing_support {
namespace {

namespace agent = HVBEnterprise::agent;

const std::string kTree = SENTREL_SOURCE_DIR;

std::string schemaOf(const std::string& kind) {
    return kTree + "/docs/schemas/" + kind + ".schema.json";
}

/// The examples of a kind of document, whose names begin with what is to be said of them.
std::vector<std::string> examplesOf(const std::string& kind) {
    std::vector<std::string> paths;
    const std::filesystem::path folder = std::filesystem::path(kTree) / "tests/data/fleet" / kind;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        paths.push_back(entry.path().string());
    }
    std::sort(paths.begin(), paths.end());
    return paths;
}

bool isCalledValid(const std::string& path) {
    return std::filesystem::path(path).filename().string().starts_with("valid-");
}

class AFleetDocument : public testing::Test {
protected:
    /// What the schema says of each of the documents.
    std::map<std::string, bool> verdicts(const std::string& schema, const std::vector<std::string>& paths) {
        std::string command = "python3 '" + kTree + "/tests/checks/schema_verdicts.py' '" + schema + "'";
        for (const std::string& path : paths) {
            command += " '" + path + "'";
        }
        const CtlResult result = shell(m_root, command);
        EXPECT_EQ(result.code, 0) << result.out;
        std::map<std::string, bool> verdicts;
        std::istringstream lines(result.out);
        for (std::string word, path; lines >> word >> path;) {
            verdicts[path] = word == "valid";
        }
        EXPECT_EQ(verdicts.size(), paths.size()) << result.out;
        return verdicts;
    }

    /// Expects that schema, parser and the examples' names say the same.
    void expectAgreement(const std::string& kind, const std::function<bool(const std::string&)>& parses) {
        const std::vector<std::string> paths = examplesOf(kind);
        ASSERT_GE(paths.size(), 5U);
        const std::map<std::string, bool> bySchema = verdicts(schemaOf(kind), paths);
        for (const std::string& path : paths) {
            EXPECT_EQ(bySchema.at(path), isCalledValid(path)) << "the schema, of " << path;
            EXPECT_EQ(parses(readFile(path)), isCalledValid(path)) << "the parser, of " << path;
        }
    }

    /// Expects that the schema and the tool take a document that the code wrote.
    void expectValid(const std::string& kind, const std::string& document) {
        const std::string path = m_root.file("written.json");
        std::ofstream(path, std::ios::binary) << document;
        EXPECT_TRUE(verdicts(schemaOf(kind), {path}).at(path)) << document;
        EXPECT_NO_THROW((void)agent::readMachineDocument(document)) << document;
    }

    PrivateRoot m_root;
};

TEST_F(AFleetDocument, IsAPolicyForTheSchemaWhenItIsOneForTheMachine) {
    expectAgreement("policy",
                    [](const std::string& text) { return agent::readPolicyMessage(text, {}).refused.empty(); });
}

TEST_F(AFleetDocument, IsAnEnrolmentForTheSchemaWhenItIsOneForTheMachine) {
    expectAgreement("agent", [](const std::string& text) {
        try {
            static_cast<void>(agent::readAgentConfiguration(text));
            return true;
        } catch (const agent::DocumentError&) {
            return false;
        }
    });
}

TEST_F(AFleetDocument, IsARequestToCollectForTheSchemaWhenItIsOneForTheMachine) {
    expectAgreement("collect", [](const std::string& text) {
        try {
            static_cast<void>(agent::readCollectRequest(text));
            return true;
        } catch (const agent::DocumentError&) {
            return false;
        }
    });
}

TEST_F(AFleetDocument, IsWhatTheSchemaSaysWhenTheMachineWritesIt) {
    HVBEnterprise::SectionsHandle properties;
    properties.insert(L"General", L"Language", L"de");
    properties.insert(L"General", L"Odd \u00e9", L"\"\\\n");
    const std::string time = agent::timeText();
    expectValid("properties", agent::propertyDocument(properties, true, time));
    expectValid("properties", agent::propertyDocument({}, false, time));
    expectValid("state", agent::stateDocument(true, time));
    expectValid("state", agent::stateDocument(false, time));
}

TEST_F(AFleetDocument, IsWhatTheSchemaSaysWhenTheMachineStatesItsPolicies) {
    const std::string time = agent::timeText();
    agent::PolicyStatement statement;
    expectValid("policy-result", agent::statementDocument(statement, time));
    const agent::PolicyIdentity identity = agent::readPolicyDocument(R"({"version": 3, "id": "x"})").identity;
    statement.standing = agent::StandingPolicy{.identity = identity,
                                               .topic = agent::PolicyTopic{"all"},
                                               .since = time,
                                               .enforced = {},
                                               .rowsMissing = {},
                                               .leftOut = {}};
    expectValid("policy-result", agent::statementDocument(statement, time));
    statement.standing->enforced = true;
    statement.standing->rowsMissing = 2;
    statement.standing->leftOut = {.count = 1, .first = {{"szAgumentIP_0", Sentrel::policy::LeftOutReason::Version6}}};
    statement.failed = agent::FailedAttempt{identity, "the hub is away", time};
    const agent::PolicyReading refused = agent::readPolicyDocument("{");
    agent::JudgedPolicy judged;
    judged.topic = {"sales"};
    judged.identity = refused.identity;
    judged.why = refused.refused;
    statement.take(judged, time);
    judged.topic = {};
    judged.identity = identity;
    judged.fate = agent::PolicyFate::PassedOver;
    statement.take(judged, time);
    expectValid("policy-result", agent::statementDocument(statement, time));
}

TEST_F(AFleetDocument, IsRefusedByTheSchemaWhenNoMachineWouldWriteIt) {
    const std::map<std::string, std::string> wrong{
        {"properties", R"({"time": "2026-01-01T00:00:00.000Z", "full": true, "sections": {"General": {"n": 1}}})"},
        {"state", R"({"state": "asleep", "time": "2026-01-01T00:00:00.000Z"})"},
        {"policy-result",
         R"({"time": "2026-01-01T00:00:00.000Z", "in_force": {}, "failed": null, "refused": null, "passed_over": []})"}};
    for (const auto& [kind, document] : wrong) {
        const std::string path = m_root.file(kind);
        std::ofstream(path, std::ios::binary) << document;
        EXPECT_FALSE(verdicts(schemaOf(kind), {path}).at(path)) << kind;
    }
}

} // namespace
} // namespace testing_support
