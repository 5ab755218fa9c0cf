// The broker of this process as module 7 on a real bus, and raw clients beside it.
#pragma once

#include "hub/HVBCommBroker.h"
#include "platform/hvbhelpers/BusConnection.h"
#include "platform/hvbhelpers/HubProtocol.h"
#include "tests/support/Eventually.h"
#include "tests/support/HubBus.h"
#include "tests/support/PrivateRoot.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

namespace broker_tests {

/// A module whose behaviour is the test's. Set what it does before the broker starts.
/// Threads: its callbacks run on the broker's. Owner: the fixture.
class Module : public HVB::CommandInterface, public HVB::HealthCheckInterface, public HVB::EventInterface {
public:
    bool handleCommand(HVB::CommandData& data) override { return onCommand(data); }
    void handleCommandResponse(HVB::CommandResult& result) override { onResponse(result); }
    bool handleHealthCheck() override { return onHealthCheck(); }
    bool handleEventNotification(HVB::EventData& event) override { return onEvent(event); }

    std::function<bool(HVB::CommandData&)> onCommand = [](HVB::CommandData&) { return false; };
    std::function<void(HVB::CommandResult&)> onResponse = [](HVB::CommandResult&) {};
    std::function<bool()> onHealthCheck = [] { return true; };
    std::function<bool(HVB::EventData&)> onEvent = [](HVB::EventData&) { return true; };
};

/// A client that uses the bus directly, as one in another language would.
class RawClient {
public:
    explicit RawClient(const std::string& socketPath)
        : m_bus(HVB::bus::openBus(socketPath, testing_support::patience())) {}

    sd_bus& bus() { return *m_bus; }

    HVB::bus::MessagePtr command(int id, std::uint64_t token = 0, std::wstring_view payload = {}) {
        HVB::bus::MessagePtr request = HVB::bus::newCall(*m_bus, HVB::bus::moduleName(7), HVB::bus::modulePath(7),
                                                         HVB::bus::kModuleInterface, HVB::bus::commandMember(id));
        HVB::bus::check(sd_bus_message_append(request.get(), "tiibib", token, 99, 7, 1, 5, payload.empty() ? 0 : 1),
                        "append");
        HVB::bus::appendText(*request, payload);
        return request;
    }

    HVB::bus::MessagePtr call(sd_bus_message& request) {
        return HVB::bus::call(*m_bus, request, testing_support::patience());
    }

    /// The name of the error that answers @p request; empty for an ordinary reply.
    std::string errorOf(sd_bus_message& request, std::string* text = nullptr) {
        try {
            call(request);
            return {};
        } catch (const HVB::bus::CallError& error) {
            if (text != nullptr) {
                *text = error.message();
            }
            return error.name();
        }
    }

    void subscribe(int eventId) {
        HVB::bus::check(sd_bus_match_signal(m_bus.get(), nullptr, nullptr, HVB::bus::kEventsPath,
                                            HVB::bus::kEventsInterface, HVB::bus::eventMember(eventId).c_str(),
                                            &RawClient::onEvent, this),
                        "match");
    }

    void emit(int eventId, int sequence) {
        HVB::bus::check(sd_bus_emit_signal(m_bus.get(), HVB::bus::kEventsPath, HVB::bus::kEventsInterface,
                                           HVB::bus::eventMember(eventId).c_str(), "ibay", sequence, 0, 0),
                        "emit");
        settle();
    }

    /// Returns when the bus has handled all that was sent before.
    void settle() {
        const auto request =
            HVB::bus::newCall(*m_bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId");
        call(*request);
    }

    /// Handles what arrives until @p count events have. @return whether they came.
    bool waitForEvents(std::size_t count) {
        const auto deadline = testing_support::patience();
        while (sequences.size() < count && std::chrono::steady_clock::now() < deadline) {
            if (sd_bus_process(m_bus.get(), nullptr) == 0) {
                HVB::bus::sleepUntilReady(HVB::bus::busWait(*m_bus), deadline, -1);
            }
        }
        return sequences.size() >= count;
    }

    std::vector<int> sequences; ///< of the events that came

private:
    static int onEvent(sd_bus_message* message, void* self, sd_bus_error*) {
        int sequence = 0;
        sd_bus_message_read(message, "i", &sequence);
        static_cast<RawClient*>(self)->sequences.push_back(sequence);
        return 0;
    }

    HVB::bus::BusPtr m_bus;
};

/// Answers @p command with the text that it carries.
inline bool echo(HVB::CommandData& command) {
    std::wstring text;
    command.readPayload(text);
    HVB::CommandResult result;
    result.m_commandData = command;
    if (command.m_pInArchive != nullptr) {
        result.writePayload(text);
    }
    HVB::HVBCommBroker::getInstance("")->sendCommandResponse(result);
    return true;
}

/// Releases the broker. Made after what the callbacks use, it ends them before that goes.
class Life {
public:
    Life() = default;
    Life(const Life&) = delete;
    Life& operator=(const Life&) = delete;
    ~Life() { HVB::HVBCommBroker::releaseInstance(); }
};

class ABroker : public ::testing::Test {
protected:
    ~ABroker() override { HVB::HVBCommBroker::releaseInstance(); }

    HVB::HVBCommBroker& broker() { return *HVB::HVBCommBroker::getInstance(m_root.hubSocket()); }

    void setUpModule7() {
        broker().setHVId(7);
        broker().setCommandInterface(&m_module);
        broker().setHealthCheckInterface(&m_module);
        broker().setEventInterface(&m_module);
    }
    [[nodiscard]] Life startModule7() {
        setUpModule7();
        try {
            broker().start(true);
        } catch (const HVB::HVBException& exception) {
            throw std::runtime_error("module 7 does not start: " + exception.message());
        }
        return {};
    }

    void subscribe(int eventId) {
        HVB::EventData id(eventId);
        broker().subscribeForEvent(id);
    }

    /// Sends a command with this text to module 7 and gives the text of the reply.
    std::wstring roundTrip(int commandId, const std::wstring& text) {
        HVB::CommandData command(commandId, 7, true);
        command.writePayload(text);
        HVB::CommandResult result;
        constexpr int seconds = 30;
        broker().sendCommand(command, &result, true, seconds);
        std::wstring answer;
        result.readPayload(answer);
        return answer;
    }

    void sendLog(const std::wstring& text) {
        HVB::LogRequest request;
        request.m_sourceId = 7;
        request.m_logType = HVB::LOG_TYPE_BROWSER_EVENT;
        request.m_text = text;
        request.m_detailText = L"detail";
        request.m_count = 1;
        broker().sendLog(request);
    }

    testing_support::PrivateRoot m_root;
    Module m_module;
};

} // namespace broker_tests
