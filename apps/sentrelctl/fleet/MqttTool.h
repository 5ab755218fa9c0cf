// A short visit to an MQTT broker: connect, say or hear something, leave.
#pragma once

#include "apps/sentrelctl/terminal/Failure.h"
#include "platform/hvbagent/Fleet.h"

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace Sentrel::ctl {

/// Where the broker is, and as whom to connect.
struct BrokerAddress {
    std::string host;
    std::uint16_t port = 0;
    std::optional<HVBEnterprise::agent::TlsFiles> tls;
    std::string credentialsFile; ///< empty: the broker asks for none

    std::string text() const { return host + ":" + std::to_string(port); }
};

/// A message that came.
struct MqttMessage {
    std::string topic;
    std::string payload;
    bool isRetained; ///< the broker had it before; otherwise it was published just now
};

/// The agent's own connection for a verb: every wait ends at the deadline, and every failure is a Failure with its next
/// step. Failures: 8 nobody listens, 3 no answer in time, 4 the broker does not let this user do it, 1 all others,
/// among them files that cannot be used and a TLS key or credentials that others than their owner may access.
/// Threads: plain, single access. Owner: a local of the verb; leaves the broker when it ends.
class MqttTool : private HVBEnterprise::agent::MqttReceiver {
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    /// Connects. The name service alone is waited for without the deadline. @throws Failure.
    MqttTool(const BrokerAddress& address, TimePoint deadline);
    MqttTool(const MqttTool&) = delete;
    MqttTool& operator=(const MqttTool&) = delete;
    ~MqttTool() override;

    /// Returns when the broker has taken the subscription. @throws Failure.
    void subscribe(const std::string& filter);

    /// Publishes, retained, and returns when the broker has the message. @throws Failure.
    void publishRetained(const std::string& topic, const std::string& payload);

    /// The next message that came; waits for one until @p until. @throws Failure when the connection is lost.
    std::optional<MqttMessage> next(TimePoint until);

    /// What the broker had for a subscription: waits until it has answered a request behind it and has then been quiet
    /// for a moment. @throws Failure.
    std::deque<MqttMessage> collect(const std::string& filter);

private:
    void connected() override {}
    void message(std::string_view topic, std::string_view payload, bool retained) override;
    void acknowledged(int number, int reason) override { m_answers[number] = reason; }
    void subscribed(int number, int reason) override { m_answers[number] = reason; }

    void connect();
    void step(TimePoint until);
    template <class Condition>
    void await(const Condition& condition, const char* what);
    int awaitAnswer(int number, const char* what);
    template <class Operation>
    auto guarded(const Operation& operation) -> decltype(operation());
    Failure failureOf(const HVBEnterprise::agent::MqttFailure& error) const;
    Failure failure(ExitCode code, std::string why, std::string nextStep) const;

    // constant after construction
    BrokerAddress m_address;
    TimePoint m_deadline;

    // set in the middle of step
    std::map<int, int> m_answers; ///< the broker's reasons, by the number of the request
    bool m_isOutOfMemory = false;
    std::size_t m_bytes = 0;
    std::deque<MqttMessage> m_messages;

    std::unique_ptr<HVBEnterprise::agent::MqttSession> m_session;
};

} // namespace Sentrel::ctl
