// A machine that is watched for a day: what a chapter of it needs to happen, and what is compared behind each step.
#pragma once

#include "hub/Payloads.h"
#include "tests/integration/TraceTranscript.h"
#include "tests/support/Machine.h"
#include "tests/support/MqttBroker.h"
#include "tests/support/MqttObserver.h"
#include "tests/support/Preferences.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace testing_support {

class SystemLog;

/// How many of each thing a chapter was held against.
struct Compared {
    std::string chapter;
    std::size_t steps = 0;   ///< of the trace log's transcript
    std::size_t lines = 0;   ///< of the trace log, all that came
    std::size_t rows = 0;    ///< of the settings file, all that there are at the end
    std::size_t records = 0; ///< in the hub's store, all that there are at the end
    std::size_t events = 0;  ///< that a subscriber got
    std::size_t syslog = 0;  ///< lines about the module in the system log
};

/// Everything on it is real: bus, hvbd, sentreld, sentrelctl, the broker of its server, its files.
class MachineDay : public testing::Test {
protected:
    MachineDay();
    ~MachineDay() override;

    // What is compared.

    /// Waits until the trace log has what the transcript tells of its next step, which is the one of this name: all its
    /// lines and none besides.
    void step(const std::string& name);
    /// The settings file: all rows of all tables against what mustHold and its like have told so far.
    void expectSettings();
    /// The hub's store: so many records, and they are the first that store.txt tells.
    void expectStore(std::size_t records);
    /// The events that a subscriber got since the last call, without a payload each, in their order.
    void expectEvents(const std::vector<int>& ids);
    /// The lines about the module that came to the system log since the last call. Without root there is no such log to
    /// be had, and nothing is compared.
    void expectSystemLog(const std::vector<std::string>& lines);
    void expectDashboard(DashBoardStatus status, const std::string& stepName);
    /// Closes a chapter: compares the settings file, and notes what was compared in it.
    void endChapter(const std::string& name);
    /// Nothing that the files tell of is left over.
    void expectTheEndOfWhatWasTold() const;
    void printSummary() const;

    // The settings file as it must be from now on.

    void mustHold(const std::string& key, int number);
    void mustHold(const std::string& key, const std::string& text);
    void mustHoldSites(const Urls& urls);
    void mustHoldCategories(const std::vector<std::string>& names);
    void mustHoldRange(const std::string& range);

    // What its user, its administrator and its hub do.

    WireClient client() { return WireClient(machine.bus().socketPath()); }
    template <class Value>
    Value answerOf(int id) {
        const WireClient::Answer answer = client().command(id);
        EXPECT_TRUE(answer.error.empty() && answer.succeeded && answer.valid) << id << ": " << answer.error;
        return valueIn<Value>(answer.payload);
    }
    void setOne(const Sentrel::STPreferences& wanted, const std::string& stepName);
    void setDebug(bool isOn, const std::string& stepName);
    void browse(const std::string& url, int rating, int action, int userAction = 0);
    /// Begins to hear the events of changes.
    void listen();
    /// Hands the hub two log lines of the module, of the levels debug and information.
    void logAtTwoLevels(const std::string& what);
    /// Whether the daemon has its trace log open.
    bool isTracing();

    // What its server sees and does.

    void enrol();
    /// The next document on a topic of this machine.
    nlohmann::json next(const std::string& topic);
    /// Expects that the machine's next word on the policy that was pushed last is that it is in force.
    void expectInForce();
    void expectState(const std::string& state) { EXPECT_EQ(next("state")["state"], state); }
    void expectProperties(bool isOn, bool complies);
    /// Publishes a policy and waits for its result and for the properties behind it.
    void push(const nlohmann::json& policy, bool isOn, const std::string& stepName);

private:
    std::string settingsShown() const;

    // First of all, so that all that is started has it; null without root.
    PrivateRoot m_systemLogPlace;
    std::unique_ptr<SystemLog> m_systemLog;

protected:
    Machine machine;
    std::optional<MqttBroker> broker;
    std::optional<MqttObserver> observer;
    std::string pushed; ///< the policy that was pushed last

private:
    std::optional<PreferenceClient> m_listener;
    std::size_t m_eventsSeen = 0;
    std::vector<Step> m_transcript;
    std::size_t m_stepsSeen = 0;
    std::size_t m_linesSeen = 0;
    std::vector<std::string> m_storeTold;
    std::map<std::string, std::string> m_settings; ///< "table key" to value, as the sqlite3 program shows them
    std::size_t m_systemLinesSeen = 0;
    Compared m_now;
    std::vector<Compared> m_compared;
};

} // namespace testing_support
