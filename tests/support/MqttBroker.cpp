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

/// Runs openssl with a command that makes a key.
void runWithNewKey(std::vector<std::string> command) {
    for (const char* argument : {"-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes"}) {
        command.emplace_back(argument);
    }
    runToItsEnd("openssl", std::move(command));
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
    : m_directory(root.file("")), m_authority(root.file("ca.crt")), m_authorityKey(root.file("ca.key")),
      m_request(root.file("broker.csr")), m_broker{.certificate = root.file("broker.crt"),
                                                   .key = root.file("broker.key")} {
    runWithNewKey(
        {"req", "-x509", "-keyout", m_authorityKey, "-out", m_authority, "-days", "2", "-subj", "/CN=test authority"});
    runWithNewKey({"req", "-keyout", m_broker.key, "-out", m_request, "-subj", "/CN=localhost", "-addext",
                   "subjectAltName=IP:127.0.0.1,DNS:localhost"});
    issueGood();
}

void MqttCertificates::sign(const std::string& request, const std::string& certificate, const std::string& days) const {
    runToItsEnd("openssl", {"x509", "-req", "-in", request, "-CA", m_authority, "-CAkey", m_authorityKey,
                            "-CAcreateserial", "-days", days, "-copy_extensions", "copy", "-out", certificate});
}

CertificateFiles MqttCertificates::issueFor(const std::string& name) const {
    const std::string stem = m_directory + name;
    CertificateFiles files{.certificate = stem + ".crt", .key = stem + ".key"};
    runWithNewKey({"req", "-keyout", files.key, "-out", stem + ".csr", "-subj", "/CN=" + name});
    sign(stem + ".csr", files.certificate, "1");
    return files;
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
    std::string text = "listener " + std::to_string(m_port) +
                       " 127.0.0.1\npersistence false\nlog_type all\n"
                       "set_tcp_nodelay true\n";
    text += m_options.withPasswords ? "allow_anonymous false\npassword_file " + m_passwordFile + "\n"
                                    : "allow_anonymous true\n";
    if (m_options.certificates != nullptr) {
        text += "cafile " + m_options.certificates->authority() + "\ncertfile " +
                m_options.certificates->certificate() + "\nkeyfile " + m_options.certificates->key() +
                "\nrequire_certificate " + (m_options.asksForCertificate ? "true" : "false") + "\n";
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
