// sentrelctl doctor. All of it is real: the program, the files, the bus with the shipped policy, hvbd and sentreld.
// Each test breaks one thing of a machine.
#pragma once

#include "tests/integration/SentrelctlRun.h"
#include "tests/support/AsUser.h"
#include "tests/support/Machine.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <ostream>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace testing_support {

constexpr const char* kShared = "/Users/Shared/.orvanta";
constexpr const char* kVar = "/usr/local/Orvanta/Sentrel/var";
constexpr const char* kHubVar = "/usr/local/Orvanta/hvb/var";
constexpr const char* kConfig = "/usr/local/Orvanta/hvb/config";

/// A machine on which nothing runs but the bus, and somebody who asks what is wrong with it.
class AnInstallation : public testing::Test {
protected:
    AnInstallation() { m_machine.initSettings(); }

    /// What the doctor says of one thing, the root's name left out.
    struct Finding {
        std::string result;
        std::string what;
        std::string advice;
        std::string id = {}; ///< compared where a test names it
        bool operator==(const Finding& other) const {
            return result == other.result && what == other.what && advice == other.advice &&
                   (id.empty() || other.id.empty() || id == other.id);
        }
        friend void PrintTo(const Finding& finding, std::ostream* out) {
            *out << finding.id << " " << finding.result << ": " << finding.what << " -> " << finding.advice;
        }
    };

    std::string withoutRoot(std::string text) {
        const std::string root = m_machine.root().path().string();
        for (std::size_t at = 0; (at = text.find(root, at)) != std::string::npos;) {
            text.erase(at, root.size());
        }
        return text;
    }

    CtlResult ask(const std::vector<std::string>& arguments, std::optional<uid_t> uid = {}) {
        std::vector<std::string> all{"doctor", "--timeout", "1"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        CtlResult result = ctl(m_machine.root(), all, "", uid);
        result.out = withoutRoot(result.out);
        return result;
    }

    /// Asks, and looks whether the exit code is what the findings ask for. @return them by their checks.
    std::map<std::string, Finding> findings(std::optional<uid_t> uid = {},
                                            const std::vector<std::string>& options = {}) {
        std::vector<std::string> arguments{"--json=short"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        const CtlResult result = ask(arguments, uid);
        const nlohmann::json answer = nlohmann::json::parse(result.out);
        EXPECT_EQ(result.code, answer.at("ok").get<bool>() ? 0 : 1) << result.err;
        std::map<std::string, Finding> found;
        bool anyFailed = false;
        for (const nlohmann::json& each : answer.at("checks")) {
            anyFailed = anyFailed || each.at("result") == "failed";
            EXPECT_EQ(each.at("id").is_null(), each.at("result") == "ok" || each.at("result") == "unseen") << each;
            const auto textIn = [&each](const char* name) {
                return each.at(name).is_null() ? std::string() : each.at(name).get<std::string>();
            };
            found[each.at("check")] = {each.at("result"), each.at("what"), textIn("advice"), textIn("id")};
        }
        EXPECT_EQ(answer.at("ok").get<bool>(), !anyFailed);
        return found;
    }
    Finding finding(const std::string& check, std::optional<uid_t> uid = {},
                    const std::vector<std::string>& options = {}) {
        return findings(uid, options)[check];
    }

    void expectFailed(const std::string& check, const std::string& what, const std::string& advice,
                      const std::string& id = "") {
        EXPECT_EQ(finding(check), (Finding{"failed", what, advice, id})) << check;
    }
    void expectWarning(const std::string& check, const std::string& what, const std::string& advice) {
        EXPECT_EQ(finding(check), (Finding{"warning", what, advice})) << check;
    }
    void expectUnseen(const std::string& check, const std::string& what, std::optional<uid_t> uid = {}) {
        EXPECT_EQ(finding(check, uid), (Finding{"unseen", what, ""})) << check;
    }

    std::string at(const std::string& fixedPath) { return m_machine.root().under(fixedPath); }
    void setMode(const std::string& fixedPath, mode_t mode) {
        ASSERT_EQ(::chmod(at(fixedPath).c_str(), mode), 0) << fixedPath;
    }
    void write(const std::string& fixedPath, const std::string& content) {
        std::filesystem::remove(at(fixedPath));
        std::ofstream(at(fixedPath)) << content;
    }
    void giveToNobody(const std::string& fixedPath) { PrivateRoot::giveTo(at(fixedPath), kNobody, kNogroup); }

    Machine m_machine;
};

/// The same with hvbd and sentreld.
class ARunningInstallation : public AnInstallation {
protected:
    ARunningInstallation() {
        m_machine.startHub();
        EXPECT_TRUE(m_machine.startDaemon());
    }
};

} // namespace testing_support
