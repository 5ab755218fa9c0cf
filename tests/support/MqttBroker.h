// An MQTT broker, for real: mosquitto on a loopback port of its own.
#pragma once

#include "tests/support/ChildProcess.h"
#include "tests/support/PrivateRoot.h"

#include <cstdint>
#include <optional>
#include <string>

namespace testing_support {

/// A certificate and its key, in PEM. The key is its owner's alone.
struct CertificateFiles {
    std::string certificate;
    std::string key;
};

/// Certificates of a test's own authority, made with openssl. The broker's is for 127.0.0.1 and localhost.
class MqttCertificates {
public:
    explicit MqttCertificates(const PrivateRoot& root);

    const std::string& authority() const { return m_authority; }
    const std::string& certificate() const { return m_broker.certificate; }
    const std::string& key() const { return m_broker.key; }

    /// Puts a certificate that ended yesterday, or one that is good for a day, in the broker's place.
    void issueExpired() { issue("-1"); }
    void issueGood() { issue("1"); }

    /// Makes a certificate for a machine, good for a day, in the files @p name with ".crt" and ".key".
    CertificateFiles issueFor(const std::string& name) const;

private:
    void issue(const std::string& days) { sign(m_request, m_broker.certificate, days); }
    void sign(const std::string& request, const std::string& certificate, const std::string& days) const;

    std::string m_directory;
    std::string m_authority;
    std::string m_authorityKey;
    std::string m_request; ///< the broker's
    CertificateFiles m_broker;
};

/// A broker in a private root. It keeps nothing on disk: what was retained is gone when it is killed.
class MqttBroker {
public:
    struct Options {
        bool withPasswords = false;                ///< asks for a user and a password; setPassword makes them
        const MqttCertificates* certificates = {}; ///< speaks TLS; must outlive the broker
        bool asksForCertificate = false;           ///< takes in only who shows one of the same authority
    };

    /// Starts it and waits until it accepts. @throws std::runtime_error when it does not.
    explicit MqttBroker(const PrivateRoot& root) : MqttBroker(root, Options{}) {}
    MqttBroker(const PrivateRoot& root, Options options);

    std::uint16_t port() const { return m_port; }
    std::string output() const { return m_process->output(); }

    /// Gives a user this password. A broker that runs learns of it when it is restarted.
    void setPassword(const std::string& user, const std::string& password) const;

    void kill9();
    /// Starts it after kill9 on the same port, and waits until it accepts. @throws std::runtime_error.
    void restart();

    /// Holds it up: it keeps its connections and answers nothing until cont.
    void stop() { m_process->hold(); }
    void cont();

private:
    std::string configuration() const;
    bool start();

    Options m_options;
    std::string m_configurationFile;
    std::string m_passwordFile;
    std::string m_outputFile;
    std::uint16_t m_port = 0;
    std::optional<ChildProcess> m_process;
};

/// A port of 127.0.0.1 that nobody listened on a moment ago.
std::uint16_t freeLoopbackPort();

} // namespace testing_support
