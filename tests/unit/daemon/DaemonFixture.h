// The whole life of the daemon, run on the test's own thread. Real: everything of the daemon, signals, files, sockets.
// Not real: the hub (a recording broker) and the agent (a recording library).
#pragma once

#include "daemon/Trace.h"
#include "daemon/VXControllerDaemon.h"
#include "tests/support/Lines.h"
#include "tests/support/RecordingBroker.h"
#include "tests/unit/daemon/DaemonRoot.h"
#include "tests/unit/daemon/RecordingAgent.h"

#include <gtest/gtest.h>

#include <atomic>
#include <clocale>
#include <csignal>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace testing_support {

inline bool traceIsOff() {
    return std::atomic_ref(traceInited).load() == 0;
}

struct ADaemon : testing::Test {
    DaemonRoot root;
    Recording& hub = Recording::instance();
    RecordingAgent& agent = RecordingAgent::instance();
    std::map<std::string, std::vector<std::function<void()>>> actions;

    ADaemon() {
        std::setlocale(LC_CTYPE, "C.UTF-8"); // as the program does
        traceAt(5);
        hub.before = [this](const std::string& call) { runNextAction(call); };
        agent.before = [this](const std::string& call) { runNextAction("agent " + call); };
    }

    /// Sets the levels of the flows whose lines tell the order of start and stop. What runs on a thread of its own
    /// stays silent, so that there is one order; the agent's part in it shows in its calls.
    void traceAt(int level) {
        std::string document = "<TraceValues>";
        for (const char* flow : {"stDaemonFlow", "stCmdFlow", "hcFlow"}) {
            document += std::string("<") + flow + ">" + std::to_string(level) + "</" + flow + ">";
        }
        writeFile(root.traceLevels(), document + "</TraceValues>");
    }

    /// Runs @p action in the middle of the next call of that name; of several actions, one a call.
    void doDuring(const std::string& call, std::function<void()> action) { actions[call].push_back(std::move(action)); }
    void raiseDuring(const std::string& call, int signal) {
        doDuring(call, [signal] { raise(signal); });
    }

    void runNextAction(const std::string& call) {
        const auto found = actions.find(call);
        if (found != actions.end() && !found->second.empty()) {
            const std::function<void()> action = std::move(found->second.front());
            found->second.erase(found->second.begin());
            action();
        }
    }

    std::int32_t runDaemon() { return Sentrel::VXController::main(0, nullptr); }

    std::string getBrokerCall() const { return "getInstance " + root.hubSocket(); }
    Lines stopCalls() const { return {getBrokerCall(), "stop"}; }
    /// Of a start that failed: delivery is stopped, and each receiver taken away, which waits for what runs in it.
    Lines endDeliveryCalls() const {
        return {getBrokerCall(),           "stop",          getBrokerCall(),    "setCommandInterface", getBrokerCall(),
                "setHealthCheckInterface", getBrokerCall(), "setEventInterface"};
    }
    Lines createCalls() const { return {getBrokerCall(), "setEventInterface"}; }
    Lines connectCalls() const {
        return {getBrokerCall(),           "setHVId 7",  "setCommandInterface",
                "setHealthCheckInterface", "start true", "subscribeForEvent 1005",
                "subscribeForEvent 1007"};
    }
};

} // namespace testing_support
