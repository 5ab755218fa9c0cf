// A machine that is enrolled with a real broker, and recording services in the module's place.
#pragma once

#include "platform/hvbagent/MsgBusEnterpriseAgent.h"
#include "tests/support/Eventually.h"
#include "tests/support/Files.h"
#include "tests/support/MqttBroker.h"
#include "tests/support/MqttObserver.h"
#include "tests/support/PolicyAnswers.h"
#include "tests/support/PrivateRoot.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace testing_support {

using HVBEnterprise::SectionsHandle;
using nlohmann::json;

/// What the library asked of the module. The calls are counted on the way in and out, so that two at a time show.
/// Threads: thread-safe; the hooks are set before the client is made. Owner: the test; it outlives the services.
struct ModuleCalls {
    std::function<bool(const SectionsHandle&)> onPolicy = [](const SectionsHandle&) { return true; };
    std::function<bool(bool, SectionsHandle&)> onCollect = [](bool full, SectionsHandle& properties) {
        properties.insert(L"General", L"Language", L"en");
        if (full) {
            properties.insert(L"Options", L"bSTEnabled", L"1");
        }
        return true;
    };
    std::atomic<int> running{0};
    std::atomic<int> overlaps{0};
    std::atomic<int> policies{0};
    std::atomic<int> collections{0};
    std::atomic<int> servicesAlive{0};
};

/// Marks a call of a service.
class Running {
public:
    explicit Running(ModuleCalls& calls) : m_calls(calls) {
        if (++m_calls.running > 1) {
            ++m_calls.overlaps;
        }
    }
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;
    ~Running() { --m_calls.running; }

private:
    ModuleCalls& m_calls;
};

class RecordingCollection : public HVBEnterprise::IAgentPropertyCollection {
public:
    explicit RecordingCollection(ModuleCalls& calls) : m_calls(calls) { ++m_calls.servicesAlive; }
    ~RecordingCollection() override { --m_calls.servicesAlive; }

    bool collectProperties(bool full, SectionsHandle& properties) override {
        const Running running(m_calls);
        ++m_calls.collections;
        return m_calls.onCollect(full, properties);
    }
    bool isSoftwareExists(const std::wstring /*softwareId*/) override { return true; }

private:
    ModuleCalls& m_calls;
};

class RecordingEnforcement : public HVBEnterprise::IAgentPolicyEnforcement {
public:
    explicit RecordingEnforcement(ModuleCalls& calls) : m_calls(calls) { ++m_calls.servicesAlive; }
    ~RecordingEnforcement() override { --m_calls.servicesAlive; }

    bool enforcePolicy(const std::wstring /*softwareId*/, const SectionsHandle& policy) override {
        const Running running(m_calls);
        ++m_calls.policies;
        return m_calls.onPolicy(policy);
    }
    bool enforcePolicy(const std::wstring /*softwareId*/, const std::wstring /*user*/, const std::wstring /*domain*/,
                       unsigned long /*session*/, HVBEnterprise::tag_AgentLogonState /*state*/,
                       const SectionsHandle& /*policy*/) override {
        return true;
    }
    bool isPartialEnforcementSupported() override { return false; }

private:
    ModuleCalls& m_calls;
};

/// The lines that the library logged in this process.
/// Threads: thread-safe. Owner: the process.
class AgentLines {
public:
    static AgentLines& instance() {
        static AgentLines lines;
        return lines;
    }
    static void logger(HVBEnterprise::AgentLogCategory /*category*/, const wchar_t* text) {
        const std::lock_guard lock(instance().m_mutex);
        sigset_t blocked;
        pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
        instance().m_withSignals += sigismember(&blocked, SIGTERM) == 1 ? 0 : 1;
        instance().m_lines.push_back(HVBEnterprise::HvbAgentUtils::wstringToString(text));
    }
    std::size_t count(const std::string& part) const {
        const std::lock_guard lock(m_mutex);
        return static_cast<std::size_t>(std::count_if(m_lines.begin(), m_lines.end(), [&](const std::string& line) {
            return line.find(part) != std::string::npos;
        }));
    }
    std::string all() const {
        const std::lock_guard lock(m_mutex);
        std::string text;
        for (const std::string& line : m_lines) {
            text += line + "\n";
        }
        return text;
    }
    /// Lines from threads that a signal can land on.
    int withSignals() const {
        const std::lock_guard lock(m_mutex);
        return m_withSignals;
    }
    void forget() {
        const std::lock_guard lock(m_mutex);
        m_lines.clear();
        m_withSignals = 0;
    }

private:
    mutable std::mutex m_mutex;
    std::vector<std::string> m_lines;
    int m_withSignals = 0;
};

/// The root of this process, which the library finds its files in. Made when the first test asks.
inline const PrivateRoot& processRoot() {
    static const PrivateRoot root;
    static const int set = setenv("SENTREL_INSTALL_ROOT", root.path().c_str(), 1);
    (void)set;
    return root;
}

inline void writeFile(const std::string& path, const std::string& text, mode_t mode) {
    writeFile(path, text);
    ::chmod(path.c_str(), mode);
}

/// Machine "m1" of site "here". Real are the library, the broker, the files and the network; the module's two services
/// are recorders.
class AMachine : public ::testing::Test {
protected:
    AMachine() {
        AgentLines::instance().forget();
        std::remove(policyFile().c_str());
        std::remove(recordFile().c_str());
        std::remove(keyFile().c_str());
        std::remove(configurationFile().c_str());
    }
    ~AMachine() override { release(); }

    static const PrivateRoot& root() { return processRoot(); }
    static std::string policyFile() { return root().varDirectory() + "/policy.json"; }
    static std::string recordFile() { return root().varDirectory() + "/policy-record.json"; }
    static std::string configurationFile() { return root().hubConfigDirectory() + "/agent.json"; }
    static std::string keyFile() { return root().hubConfigDirectory() + "/agent.key"; }
    static std::string topic(const std::string& name) { return "orvanta/v1/here/m1/" + name; }

    /// Writes the configuration; @p more is merged into it.
    static void enrol(std::uint16_t port, const json& more = json::object()) {
        json configuration = {{"broker", {{"host", "127.0.0.1"}, {"port", port}}}, {"site", "here"}, {"machine", "m1"}};
        configuration.merge_patch(more);
        writeFile(configurationFile(), configuration.dump(), 0644);
    }

    /// Makes the client and registers both services.
    void start() {
        create();
        ASSERT_NE(m_agent, nullptr) << AgentLines::instance().all();
        ASSERT_TRUE(m_agent->registerPropertyCollectionService(std::make_unique<RecordingCollection>(m_calls)));
        ASSERT_TRUE(m_agent->registerPolicyEnforcementService(std::make_unique<RecordingEnforcement>(m_calls)));
    }
    void create() {
        m_agent = HVBEnterprise::MsgBusEnterpriseAgent::createInstance(
            "NODE_ST_1070UNIX", "MGSAGENT3700UNIX", AgentLines::logger, HVBEnterprise::AGENT_ALL_SERVICES);
    }
    void release() {
        if (m_agent != nullptr) {
            m_agent->releaseInstance();
        }
    }

    std::wstring information() {
        std::wstring answer = L"unanswered";
        EXPECT_TRUE(m_agent->getAgentInformation(0, answer));
        return answer;
    }
    bool isConnected() {
        return eventually([this] { return information() == L"1"; });
    }

    /// The next message on one of the machine's topics, as JSON; null when none comes.
    static json nextJson(MqttObserver& observer, const std::string& name) {
        const auto message = observer.next(topic(name));
        return message ? json::parse(message->payload) : json();
    }

    static std::string policy(int version, const std::string& value = "1", const json& more = json::object()) {
        json document{{"version", version},
                      {"id", "test"},
                      {"features", {{"KPF_General", {{"Sentrel", {{"bEnableSentrel", value}}}}}}}};
        document.merge_patch(more);
        return document.dump();
    }
    /// One for the members of a group.
    static std::string groupPolicy(int version, const std::string& group) {
        return policy(version, "1", {{"audience", {{"site", "here"}, {"group", group}}}});
    }
    /// What the machine says next of a policy; null when it says nothing.
    static json answerAbout(MqttObserver& observer, const std::string& policy) {
        return answerOn(observer, topic("policy/result"), policy);
    }
    static std::wstring valueOf(const SectionsHandle& policy) {
        HVBEnterprise::PolicySetting setting;
        setting.m_featureId = L"KPF_General";
        std::wstring value = L"missing";
        policy.getPropValue(setting, L"Sentrel", L"bEnableSentrel", value);
        return value;
    }

    ModuleCalls m_calls;
    HVBEnterprise::MsgBusEnterpriseAgent* m_agent = nullptr;
};

} // namespace testing_support
