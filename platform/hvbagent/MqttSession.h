// One connection to the broker, from its start to its end, for the agent and for the command line client.
#pragma once

#include "platform/hvbagent/AgentConfiguration.h"
#include "platform/hvbagent/Outbox.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

struct mosquitto;

namespace HVBEnterprise::agent {

/// Why a connection could not be made, or ended.
class MqttFailure : public std::runtime_error {
public:
    enum class Kind {
        Ended,         ///< it was lost, or the broker does not keep to the protocol
        UnknownHost,   ///< the name service knows no such host
        Unreachable,   ///< nobody takes a connection there
        Refused,       ///< the broker does not want this client
        RefusedAccess, ///< for its user or its password
        Files,         ///< TLS files cannot be used
    };

    explicit MqttFailure(const std::string& what, Kind kind = Kind::Ended) : std::runtime_error(what), m_kind(kind) {}

    Kind kind() const { return m_kind; }

private:
    Kind m_kind;
};

/// Which broker to talk to, and as which client.
struct MqttSettings {
    std::string host;
    std::uint16_t port = 0;
    std::optional<TlsFiles> tls;
    std::string credentialsFile; ///< empty: the broker asks for none
    std::chrono::seconds keepalive{60};
    std::string clientId;            ///< empty: the broker makes one up
    std::optional<Publication> will; ///< what the broker publishes when this client is lost
    bool asksWhy = false;            ///< MQTT 5, which unlike 3.1.1 says why a request is refused
};

/// Reasons from this number on are refusals.
inline constexpr int kFirstRefusal = 0x80;
/// Whether a reason says that this user may not do that.
bool isAccessRefusal(int reason);
/// A reason in words.
std::string reasonText(int reason);

/// Receives what comes over a connection, in the middle of MqttSession::step. What an operation throws ends the
/// connection with its text.
/// Threads: the connection's. Owner: the connection's user; it must outlive the session.
class MqttReceiver {
public:
    virtual ~MqttReceiver() = default;

    /// The broker took this client in.
    virtual void connected() = 0;
    /// @param payload valid until this returns.
    virtual void message(std::string_view topic, std::string_view payload, bool retained) = 0;
    /// The broker answered the message of that number. It has the message unless @p reason is a refusal.
    virtual void acknowledged(int number, int reason) = 0;
    /// The broker answered the subscription of that number, likewise.
    virtual void subscribed(int number, int reason) = 0;
};

/// An MQTT session over libmosquitto. A new one is made for every attempt, so nothing of an earlier one lingers and
/// credentials and certificates are read anew. One rule for files, whoever connects: the credentials and the TLS key
/// are read only when their owner alone may access them. Threads: plain, single access, so libmosquitto needs no locks
/// of ours. Owner: the user of the connection.
class MqttSession {
public:
    /// @throws MqttFailure when TLS files cannot be used; std::runtime_error, which names the file, when the
    /// credentials cannot, and when others may access them or the key.
    MqttSession(MqttSettings settings, MqttReceiver& receiver);
    MqttSession(const MqttSession&) = delete;
    MqttSession& operator=(const MqttSession&) = delete;
    ~MqttSession();

    /// Begins to connect. Waits for the name service alone. @throws MqttFailure.
    void connect();

    /// Waits for the broker or for @p wakeFd (-1: for the broker alone), at most that long, and does what is due.
    /// @throws MqttFailure when the connection could not be made, or is lost.
    void step(int wakeFd, std::chrono::milliseconds atMost);

    bool isConnected() const { return m_connected; }

    /// Asks for the messages of a topic, with that quality of service at most. @return the number that the answer will
    /// have. @throws MqttFailure.
    int subscribe(const std::string& topic, int qos);
    /// Publishes with QoS 1, retained. @return the number that its acknowledgement will have. @throws MqttFailure.
    int publish(const Publication& publication);
    /// Disconnects properly, so that the broker does not publish the last will.
    void disconnect() noexcept;

private:
    struct Destroy {
        void operator()(mosquitto* handle) const noexcept;
    };
    struct Callbacks;

    void setCallbacks();
    void setCredentials();
    void setTls(const TlsFiles& files);
    void connectAnswered(int code);
    void check(int result);
    [[noreturn]] void fail(int result);
    void failOnSocketError(int socket);
    void refuse(const char* why) noexcept;
    void throwRefusal();

    const MqttSettings m_settings;
    MqttReceiver& m_receiver;
    std::unique_ptr<mosquitto, Destroy> m_handle;
    bool m_connected = false;
    std::optional<MqttFailure> m_refusal; ///< what the broker or a receiver said instead of going on
    bool m_isShortOfMemory = false;       ///< the same, when there was no memory to say it
    std::string m_libraryError;           ///< the last error line of libmosquitto, which is where TLS says more
};

} // namespace HVBEnterprise::agent
