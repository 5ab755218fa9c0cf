#include "apps/sentrelctl/fleet/MqttTool.h"

#include "platform/hvbagent/AgentLimits.h"

#include <algorithm>
#include <cerrno>
#include <fmt/format.h>
#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <poll.h>
#include <sys/socket.h>

namespace Sentrel::ctl {
namespace {

using HVBEnterprise::agent::Credentials;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr int kQos = 1;
constexpr int kKeepalive = 60;      // seconds
constexpr int kFirstRefusal = 0x80; // reason codes from here on say no
constexpr int kBadUser = 0x86;
constexpr int kNotAuthorized = 0x87;
constexpr milliseconds kTick{50};   // libmosquitto has a TLS handshake move on when it is looked at
constexpr milliseconds kQuiet{200}; // brokers in a cluster may answer a subscription out of order
constexpr std::size_t kMaxHeldBytes = std::size_t{256} << 20U; // documents of thousands of machines

bool isAccessRefusal(int code) {
    return code == kBadUser || code == kNotAuthorized;
}

/// A key with a pass phrase: the command line has no place for one.
int noPassPhrase(char* /*buffer*/, int /*size*/, int /*writing*/, void* /*user*/) {
    return 0;
}

const char* orNull(const std::string& path) {
    return path.empty() ? nullptr : path.c_str();
}

} // namespace

/// What libmosquitto calls. It is C: no exception gets through.
struct MqttTool::Callbacks {
    template <class Body>
    static void guard(void* user, const Body& body) noexcept {
        auto& tool = *static_cast<MqttTool*>(user);
        try {
            body(tool);
        } catch (...) { // there is nothing else here that could fail
            tool.m_isOutOfMemory = true;
        }
    }

    static void onConnect(mosquitto* /*handle*/, void* user, int code, int /*flags*/,
                          const mosquitto_property* /*properties*/) noexcept {
        guard(user, [code](MqttTool& tool) { tool.m_connectCode = code; });
    }

    static void onSubscribe(mosquitto* /*handle*/, void* user, int number, int count, const int* granted) noexcept {
        guard(user, [=](MqttTool& tool) {
            tool.m_refusal = count > 0 && *granted >= kFirstRefusal ? *granted : 0;
            tool.m_subscribed.insert(number);
        });
    }

    static void onPublish(mosquitto* /*handle*/, void* user, int number, int code,
                          const mosquitto_property* /*properties*/) noexcept {
        guard(user, [=](MqttTool& tool) {
            tool.m_refusal = code >= kFirstRefusal ? code : 0;
            tool.m_published.insert(number);
        });
    }

    static void onMessage(mosquitto* /*handle*/, void* user, const mosquitto_message* message) noexcept {
        guard(user, [message](MqttTool& tool) {
            const auto length = static_cast<std::size_t>(message->payloadlen);
            tool.m_bytes += length;
            if (tool.m_bytes > kMaxHeldBytes) {
                tool.m_isOutOfMemory = true;
                return;
            }
            const char* const bytes = length == 0 ? "" : static_cast<const char*>(message->payload);
            tool.m_messages.push_back({message->topic, std::string(bytes, length), message->retain});
        });
    }

    static void onLog(mosquitto* /*handle*/, void* user, int level, const char* text) noexcept {
        guard(user, [=](MqttTool& tool) {
            if (level == MOSQ_LOG_ERR) {
                tool.m_libraryError = text;
            }
        });
    }
};

void MqttTool::Destroy::operator()(mosquitto* handle) const noexcept {
    mosquitto_destroy(handle);
}

MqttTool::MqttTool(const BrokerAddress& address, TimePoint deadline) : m_address(address), m_deadline(deadline) {
    static const int ready = mosquitto_lib_init();
    m_handle.reset(ready == MOSQ_ERR_SUCCESS ? mosquitto_new(nullptr, true, this) : nullptr);
    if (m_handle == nullptr) {
        throw failure(ExitCode::Failed, "libmosquitto cannot be used", "");
    }
    setUp();
    const int result = mosquitto_connect_async(m_handle.get(), m_address.host.c_str(), m_address.port, kKeepalive);
    const int error = errno;
    if (result == MOSQ_ERR_EAI) {
        throw failure(ExitCode::NotRunning, "the host's name cannot be resolved", "See its spelling");
    }
    if (result == MOSQ_ERR_ERRNO) {
        throw unreachable(error);
    }
    if (result != MOSQ_ERR_SUCCESS) { // a TLS handshake can be over by now
        lost(result, error);
    }
    awaitSocket();
    await([this] { return m_connectCode.has_value(); }, "the broker does not answer");
    if (*m_connectCode != 0) {
        throw failure(isAccessRefusal(*m_connectCode) ? ExitCode::NoAccess : ExitCode::Failed,
                      fmt::format("the broker refuses: {}", mosquitto_reason_string(*m_connectCode)),
                      "Name a file with a user and a password it knows with --credentials");
    }
}

MqttTool::~MqttTool() {
    static_cast<void>(mosquitto_disconnect(m_handle.get())); // the socket is closed anyway
}

void MqttTool::setUp() {
    mosquitto* const handle = m_handle.get();
    check(mosquitto_int_option(handle, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5), "set up");
    check(mosquitto_int_option(handle, MOSQ_OPT_TCP_NODELAY, 1), "set up");
    mosquitto_connect_v5_callback_set(handle, Callbacks::onConnect);
    mosquitto_subscribe_callback_set(handle, Callbacks::onSubscribe);
    mosquitto_publish_v5_callback_set(handle, Callbacks::onPublish);
    mosquitto_message_callback_set(handle, Callbacks::onMessage);
    mosquitto_log_callback_set(handle, Callbacks::onLog);
    if (!m_address.credentialsFile.empty()) {
        const Credentials credentials = HVBEnterprise::agent::loadCredentials(m_address.credentialsFile);
        check(mosquitto_username_pw_set(handle, credentials.user.c_str(), credentials.password.c_str()), "set up");
    }
    if (m_address.tls) {
        constexpr int verifyPeer = 1;
        if (mosquitto_tls_set(handle, m_address.tls->authority.c_str(), nullptr, orNull(m_address.tls->certificate),
                              orNull(m_address.tls->key), noPassPhrase) != MOSQ_ERR_SUCCESS) {
            throw failure(ExitCode::Failed, "a TLS file cannot be read: " + m_address.tls->authority,
                          "It must be there, in PEM, and readable by this user");
        }
        check(mosquitto_tls_opts_set(handle, verifyPeer, "tlsv1.2", nullptr), "set up"); // and later ones
    }
}

/// Waits until the connection stands, which libmosquitto would tell of without the reason.
void MqttTool::awaitSocket() {
    pollfd watched{mosquitto_socket(m_handle.get()), POLLOUT, 0};
    const auto left = std::chrono::duration_cast<milliseconds>(m_deadline - steady_clock::now());
    const int ready = ::poll(&watched, 1, static_cast<int>(std::max(left, milliseconds(0)).count()));
    if (ready <= 0) {
        throw failure(ExitCode::TimedOut, "it does not answer", "Give it longer with --timeout");
    }
    int error = 0;
    socklen_t size = sizeof error;
    if (::getsockopt(watched.fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error != 0) {
        throw unreachable(error);
    }
}

Failure MqttTool::unreachable(int error) const {
    return failure(ExitCode::NotRunning, errnoText(error), "Start it, or name another with --host and --port");
}

void MqttTool::step(TimePoint until) {
    const auto left = std::chrono::ceil<milliseconds>(until - steady_clock::now());
    const int result =
        mosquitto_loop(m_handle.get(), static_cast<int>(std::clamp(left, milliseconds(0), kTick).count()), 1);
    const int error = errno;
    if (m_isOutOfMemory) {
        throw failure(ExitCode::Failed, "it sends more than this program holds", "Ask for one machine with --machine");
    }
    if (result != MOSQ_ERR_SUCCESS && !(m_connectCode.has_value() && *m_connectCode != 0)) {
        lost(result, error);
    }
}

template <class Condition>
void MqttTool::await(const Condition& condition, const char* what) {
    while (!condition()) {
        if (steady_clock::now() >= m_deadline) {
            throw failure(ExitCode::TimedOut, what, "Give it longer with --timeout");
        }
        step(m_deadline);
    }
}

void MqttTool::lost(int result, int error) {
    const std::string why = !m_libraryError.empty()    ? m_libraryError
                            : result == MOSQ_ERR_ERRNO ? errnoText(error)
                                                       : mosquitto_strerror(result);
    const bool inTls = m_address.tls && !m_connectCode;
    throw failure(ExitCode::Failed, why,
                  inTls ? "The broker must speak TLS there, with a certificate of the authority in --ca for this host"
                        : "Its log says more");
}

void MqttTool::check(int result, const char* what) {
    if (result != MOSQ_ERR_SUCCESS) {
        const int error = errno;
        throw failure(ExitCode::Failed,
                      fmt::format("cannot {}: {}", what,
                                  result == MOSQ_ERR_ERRNO ? errnoText(error) : mosquitto_strerror(result)),
                      "");
    }
}

Failure MqttTool::failure(ExitCode code, std::string why, std::string nextStep) const {
    return {code, "the broker", m_address.text(), std::move(why), std::move(nextStep)};
}

void MqttTool::subscribe(const std::string& filter) {
    int number = 0;
    check(mosquitto_subscribe(m_handle.get(), &number, filter.c_str(), 0), "subscribe");
    await([this, number] { return m_subscribed.count(number) != 0; }, "the broker does not answer a subscription");
    if (m_refusal != 0) {
        throw failure(isAccessRefusal(m_refusal) ? ExitCode::NoAccess : ExitCode::Failed,
                      fmt::format("the broker does not let this user hear {}", filter),
                      "Its access rules must allow it, see docs/fleet.md");
    }
}

void MqttTool::publishRetained(const std::string& topic, const std::string& payload) {
    int number = 0;
    check(mosquitto_publish(m_handle.get(), &number, topic.c_str(), static_cast<int>(payload.size()), payload.data(),
                            kQos, true),
          "publish");
    await([this, number] { return m_published.count(number) != 0; }, "the broker does not acknowledge the message");
    if (m_refusal != 0) {
        throw failure(
            isAccessRefusal(m_refusal) ? ExitCode::NoAccess : ExitCode::Failed,
            fmt::format("the broker does not take a message for {}: {}", topic, mosquitto_reason_string(m_refusal)),
            "Its access rules must allow it, see docs/fleet.md");
    }
}

std::optional<MqttMessage> MqttTool::next(TimePoint until) {
    while (m_messages.empty()) {
        if (steady_clock::now() >= until) {
            return std::nullopt;
        }
        step(until);
    }
    MqttMessage message = std::move(m_messages.front());
    m_messages.pop_front();
    m_bytes -= message.payload.size();
    return message;
}

std::deque<MqttMessage> MqttTool::collect(const std::string& filter) {
    subscribe(filter);
    int number = 0;
    // Nobody publishes there: only its place behind the first subscription counts, and a refusal will do as well.
    check(mosquitto_subscribe(m_handle.get(), &number, (filter + "/end").c_str(), 0), "subscribe");
    await([this, number] { return m_subscribed.count(number) != 0; }, "the broker does not answer a subscription");
    std::deque<MqttMessage> collected;
    while (auto message = next(std::min(m_deadline, steady_clock::now() + kQuiet))) {
        collected.push_back(std::move(*message));
    }
    return collected;
}

} // namespace Sentrel::ctl
