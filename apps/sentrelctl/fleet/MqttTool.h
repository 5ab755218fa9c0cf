// A short visit to an MQTT broker: connect, say or hear something, leave.
#pragma once

#include "apps/sentrelctl/terminal/Failure.h"
#include "platform/hvbagent/AgentConfiguration.h"

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <set>
#include <string>

struct mosquitto;

namespace Sentrel::ctl {

/// Where the broker is and who comes.
/// Threads: a plain value. Owner: the verb.
struct BrokerAddress {
    std::string host;
    std::uint16_t port = 0;
    std::optional<HVBEnterprise::agent::TlsFiles> tls;
    std::string credentialsFile; ///< empty: the broker asks for none

    std::string text() const { return host + ":" + std::to_string(port); }
};

/// A message that came.
/// Threads: a plain value. Owner: whoever took it.
struct MqttMessage {
    std::string topic;
    std::string payload;
    bool isRetained; ///< it stood there before; otherwise it was published just now
};

/// A connection by MQTT 5, which unlike its elders says why a message is not taken. Every wait ends at the deadline.
/// Failures: 8 nobody listens, 3 no answer in time, 4 the broker does not let this user do it, 1 all others.
/// Threads: plain, single access. Owner: a local of the verb; leaves the broker when it ends.
class MqttTool {
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    /// Connects. The name service alone is waited for without the deadline. @throws Failure.
    MqttTool(const BrokerAddress& address, TimePoint deadline);
    MqttTool(const MqttTool&) = delete;
    MqttTool& operator=(const MqttTool&) = delete;
    ~MqttTool();

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
    struct Destroy {
        void operator()(mosquitto* handle) const noexcept;
    };
    struct Callbacks;

    void setUp();
    void awaitSocket();
    void step(TimePoint until);
    template <class Condition>
    void await(const Condition& condition, const char* what);
    void check(int result, const char* what);
    [[noreturn]] void lost(int result, int error);
    Failure unreachable(int error) const;
    Failure failure(ExitCode code, std::string why, std::string nextStep) const;

    // constant after construction
    BrokerAddress m_address;
    TimePoint m_deadline;

    // set by the callbacks, in the middle of step
    std::optional<int> m_connectCode;
    std::set<int> m_subscribed;
    std::set<int> m_published;
    int m_refusal = 0; ///< the broker's reason for refusing the request of this moment
    std::string m_libraryError;
    bool m_isOutOfMemory = false;
    std::size_t m_bytes = 0;
    std::deque<MqttMessage> m_messages;

    std::unique_ptr<mosquitto, Destroy> m_handle;
};

} // namespace Sentrel::ctl
