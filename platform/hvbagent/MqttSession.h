// One connection to the broker, from its begin to its end.
#pragma once

#include "platform/hvbagent/AgentConfiguration.h"
#include "platform/hvbagent/Outbox.h"

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

struct mosquitto;
struct mosquitto_message;

namespace HVBEnterprise::agent {

/// Why a connection could not be made, or ended.
class MqttFailure : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Receives what comes over a connection, in the middle of MqttSession::step.
/// Threads: the network thread. Owner: the connection's user; it must outlive the session.
class MqttReceiver {
public:
    virtual ~MqttReceiver() = default;

    /// The broker took this client in.
    virtual void connected() = 0;
    /// @param payload gone when this returns.
    virtual void message(std::string_view topic, std::string_view payload, bool retained) = 0;
    /// The broker has the message of that number.
    virtual void acknowledged(int number) = 0;
    /// It does not let this client hear a topic that it asked for.
    virtual void subscriptionRefused() = 0;
};

/// An MQTT 3.1.1 session over libmosquitto. A new one is made for every attempt, so nothing of an earlier one lingers
/// and credentials and certificates are read anew. Threads: plain, single access: the network thread alone, so
/// libmosquitto needs no locks of ours. Owner: the network thread.
class MqttSession {
public:
    /// @throws MqttFailure when TLS files cannot be used; std::system_error when others may read the key.
    MqttSession(const AgentConfiguration& configuration, const Credentials& credentials, const Publication& will,
                MqttReceiver& receiver);
    MqttSession(const MqttSession&) = delete;
    MqttSession& operator=(const MqttSession&) = delete;
    ~MqttSession();

    /// Begins to connect. Waits for the name service alone. @throws MqttFailure.
    void connect();

    /// Waits for the broker or for @p wakeFd, at most that long, and does what is due.
    /// @throws MqttFailure when the connection could not be made, or is lost.
    void step(int wakeFd, std::chrono::milliseconds atMost);

    bool isConnected() const { return m_connected; }

    /// @throws MqttFailure.
    void subscribe(const std::string& topic);
    /// Publishes with QoS 1. @return the number that its acknowledgement bears. @throws MqttFailure.
    int publish(const Publication& publication);
    /// Takes leave, so that the broker does not speak the last will.
    void disconnect() noexcept;

private:
    struct Destroy {
        void operator()(mosquitto* handle) const noexcept;
    };
    struct Callbacks;

    void setTls(const AgentConfiguration& configuration);
    void check(int result);
    [[noreturn]] void fail(int result);
    void failOnSocketError(int socket);

    const AgentConfiguration& m_configuration;
    MqttReceiver& m_receiver;
    std::unique_ptr<mosquitto, Destroy> m_handle;
    bool m_connected = false;
    std::string m_refusal;      ///< what the broker or a receiver said instead of going on
    std::string m_libraryError; ///< the last error line of libmosquitto, which is where TLS says more
};

} // namespace HVBEnterprise::agent
