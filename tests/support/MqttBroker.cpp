#include "tests/support/MqttBroker.h"

#include "tests/support/Eventually.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <stdexcept>
#include <utility>
#include <vector>

namespace testing_support {
namespace {

constexpr const char* kBroker = "/usr/sbin/mosquitto";

void runToItsEnd(const std::string& program, std::vector<std::string> arguments) {
    ChildProcess process(
        program, {.arguments = std::move(arguments), .environment = {}, .outputFile = {}, .uid = {}, .gid = {}});
    if (process.waitUntil(patience()) != 0) {
        throw std::runtime_error(program + " failed");
    }
}

sockaddr_in loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

/// Threads: single access. Owner: the operation.
struct Socket {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ~Socket() { ::close(fd); }
};

bool accepts(std::uint16_t port) {
    const Socket socket;
    const sockaddr_in address = loopback(port);
    return ::connect(socket.fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

} // namespace

std::uint16_t freeLoopbackPort() {
    const Socket socket;
    sockaddr_in address = loopback(0);
    socklen_t size = sizeof address;
    if (::bind(socket.fd, reinterpret_cast<const sockaddr*>(&address), size) != 0 ||
        ::getsockname(socket.fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        throw std::runtime_error("no free port");
    }
    return ntohs(address.sin_port);
}

MqttCertificates::MqttCertificates(const PrivateRoot& root)
    : m_authority(root.file("ca.crt")), m_authorityKey(root.file("ca.key")), m_certificate(root.file("broker.crt")),
      m_key(root.file("broker.key")), m_request(root.file("broker.csr")) {
    const std::vector<std::string> newKey = {"-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes"};
    std::vector<std::string> authority = {"req",       "-x509", "-keyout", m_authorityKey, "-out",
                                          m_authority, "-days", "2",       "-subj",        "/CN=test authority"};
    authority.insert(authority.end(), newKey.begin(), newKey.end());
    runToItsEnd("openssl", authority);
    std::vector<std::string> request = {"req",           "-keyout", m_key,
                                        "-out",          m_request, "-subj",
                                        "/CN=localhost", "-addext", "subjectAltName=IP:127.0.0.1,DNS:localhost"};
    request.insert(request.end(), newKey.begin(), newKey.end());
    runToItsEnd("openssl", request);
    issueGood();
}

void MqttCertificates::issue(const std::string& days) {
    runToItsEnd("openssl", {"x509", "-req", "-in", m_request, "-CA", m_authority, "-CAkey", m_authorityKey,
                            "-CAcreateserial", "-days", days, "-copy_extensions", "copy", "-out", m_certificate});
}

MqttBroker::MqttBroker(const PrivateRoot& root, Options options)
    : m_options(options), m_configurationFile(root.file("mosquitto.conf")), m_passwordFile(root.file("passwords")),
      m_outputFile(root.file("mosquitto.out")) {
    if (m_options.withPasswords) {
        std::ofstream{m_passwordFile}.flush();
    }
    constexpr int ports = 5; // another program may be quicker to take one
    for (int i = 0; i < ports; ++i) {
        m_port = freeLoopbackPort();
        if (start()) {
            return;
        }
    }
    throw std::runtime_error("the broker did not start: " + m_process->output());
}

std::string MqttBroker::configuration() const {
    std::string text = "listener " + std::to_string(m_port) + " 127.0.0.1\npersistence false\nlog_type all\n";
    text += m_options.withPasswords ? "allow_anonymous false\npassword_file " + m_passwordFile + "\n"
                                    : "allow_anonymous true\n";
    if (m_options.certificates != nullptr) {
        text += "cafile " + m_options.certificates->authority() + "\ncertfile " +
                m_options.certificates->certificate() + "\nkeyfile " + m_options.certificates->key() + "\n";
    }
    if (::geteuid() == 0) {
        text += "user root\n"; // the files are the test's own
    }
    return text;
}

bool MqttBroker::start() {
    std::ofstream(m_configurationFile) << configuration();
    m_process.emplace(kBroker, ChildOptions{.arguments = {"-c", m_configurationFile},
                                            .environment = {},
                                            .outputFile = m_outputFile,
                                            .uid = {},
                                            .gid = {}});
    bool up = false;
    (void)eventually([&] { return (up = accepts(m_port)) || !m_process->isRunning(); });
    return up && m_process->isRunning();
}

void MqttBroker::setPassword(const std::string& user, const std::string& password) const {
    runToItsEnd("mosquitto_passwd", {"-b", m_passwordFile, user, password});
}

void MqttBroker::kill9() {
    m_process->kill(SIGKILL);
    (void)m_process->waitUntil(patience());
}

void MqttBroker::restart() {
    if (!start()) {
        throw std::runtime_error("the broker did not start again: " + m_process->output());
    }
}

void MqttBroker::cont() {
    m_process->kill(SIGCONT);
}

} // namespace testing_support
