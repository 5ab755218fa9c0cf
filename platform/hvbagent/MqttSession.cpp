// One connection over libmosquitto, driven by the thread that owns it.
//
// The library's own thread and loop are not used. step() polls the socket beside a descriptor that wakes it, and then
// calls the library's read, write and housekeeping functions. So one thread does everything and no lock is needed.
//
// What must stay so:
// - libmosquitto is C: no exception may pass through it. A callback's exception is kept in m_refusal and thrown when
//   the library has returned. It goes before the library's own code, which would only say that the connection ended.
// - When TLS fails, the library's code says little, but its log line names the cause. So the last error line is kept
//   and preferred as the reason.
// - During a TLS handshake the library does not tell whether it wants to write. A packet waits all the time, so asking
//   poll for "writable" would return at once for ever. The handshake is moved on by a short tick instead.
// - Making a handle makes the whole process ignore SIGPIPE. makeHandle restores the earlier action.
// - A TLS key that others may access is refused. One with a pass phrase fails, since nobody is there to type it.
// - Machines speak MQTT 3.1.1, which every broker serves. Tools ask for MQTT 5, which says why a request is refused.
#include "platform/hvbagent/MqttSession.h"

#include "base/FileReading.h"
#include "base/Mutex.h"
#include "platform/hvbagent/AgentLimits.h"
#include "platform/hvbagent/Encoding.h"
#include "platform/hvbagent/Mosquitto.h"

#include <mqtt_protocol.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <exception>
#include <new>
#include <system_error>

namespace HVBEnterprise::agent {
namespace {

constexpr int kQos = 1;

const Mosquitto& lib() {
    return mosquittoLibrary();
}

/// Makes a handle. libmosquitto has the whole process ignore SIGPIPE when it does; that is the module's to decide, and
/// the network thread has the signal blocked.
mosquitto* makeHandle(const std::string& clientId, void* user) {
    const Mosquitto& library = lib(); // its loading is not part of what SIGPIPE is kept from
    static Sentrel::Mutex oneAtATime; // a detached thread may be making one at the same time
    const Sentrel::MutexLock lock(oneAtATime);
    struct sigaction before {};
    sigaction(SIGPIPE, nullptr, &before);
    mosquitto* const handle = library.mosquitto_new(clientId.empty() ? nullptr : clientId.c_str(), true, user);
    sigaction(SIGPIPE, &before, nullptr);
    if (handle == nullptr) {
        throw std::bad_alloc();
    }
    return handle;
}

/// A key with a pass phrase: nobody is there to ask.
int noPassPhrase(char* /*buffer*/, int /*size*/, int /*writing*/, void* /*user*/) {
    return 0;
}

std::string errorText(int error) {
    return std::generic_category().message(error);
}

} // namespace

/// What libmosquitto calls. No exception gets through: it ends the session instead.
struct MqttSession::Callbacks {
    template <class Body>
    static void guard(void* user, const Body& body) noexcept {
        auto& session = *static_cast<MqttSession*>(user);
        try {
            body(session);
        } catch (const MqttFailure& failure) {
            session.m_refusal = failure; // which shares its text
        } catch (const std::exception& error) {
            session.refuse(error.what());
        } catch (...) {
            session.refuse("unknown");
        }
    }

    static void onConnect(mosquitto* /*handle*/, void* user, int code, int /*flags*/,
                          const mosquitto_property* /*properties*/) noexcept {
        guard(user, [code](MqttSession& session) { session.connectAnswered(code); });
    }

    static void onMessage(mosquitto* /*handle*/, void* user, const mosquitto_message* message) noexcept {
        guard(user, [message](MqttSession& session) {
            const auto length = static_cast<std::size_t>(message->payloadlen);
            session.m_receiver.message(message->topic, {static_cast<const char*>(message->payload), length},
                                       message->retain);
        });
    }

    static void onPublish(mosquitto* /*handle*/, void* user, int number, int reason,
                          const mosquitto_property* /*properties*/) noexcept {
        guard(user, [=](MqttSession& session) { session.m_receiver.acknowledged(number, reason); });
    }

    static void onSubscribe(mosquitto* /*handle*/, void* user, int number, int count, const int* granted) noexcept {
        guard(user, [=](MqttSession& session) { session.m_receiver.subscribed(number, count > 0 ? *granted : 0); });
    }

    static void onLog(mosquitto* /*handle*/, void* user, int level, const char* text) noexcept {
        guard(user, [level, text](MqttSession& session) {
            if (level == MOSQ_LOG_ERR) {
                session.m_libraryError = shortPrintable(text);
            }
        });
    }
};

bool isAccessRefusal(int reason) {
    constexpr int badUserOf311 = 4; // in the answer to a connection alone
    constexpr int notAuthorizedOf311 = 5;
    return reason == MQTT_RC_BAD_USERNAME_OR_PASSWORD || reason == MQTT_RC_NOT_AUTHORIZED || reason == badUserOf311 ||
           reason == notAuthorizedOf311;
}

std::string reasonText(int reason) {
    return lib().mosquitto_reason_string(reason);
}

void MqttSession::Destroy::operator()(mosquitto* handle) const noexcept {
    lib().mosquitto_destroy(handle);
}

MqttSession::MqttSession(MqttSettings settings, MqttReceiver& receiver)
    : m_settings(std::move(settings)), m_receiver(receiver), m_handle(makeHandle(m_settings.clientId, this)) {
    mosquitto* const handle = m_handle.get();
    if (m_settings.asksWhy) {
        check(lib().mosquitto_int_option(handle, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5));
    }
    // A result is one small segment, often behind another.
    check(lib().mosquitto_int_option(handle, MOSQ_OPT_TCP_NODELAY, 1));
    setCallbacks();
    if (m_settings.will) {
        const Publication& will = *m_settings.will;
        check(lib().mosquitto_will_set(handle, will.topic.c_str(), static_cast<int>(will.payload.size()),
                                       will.payload.data(), kQos, true));
    }
    if (!m_settings.credentialsFile.empty()) {
        setCredentials();
    }
    if (m_settings.tls) {
        setTls(*m_settings.tls);
    }
}

MqttSession::~MqttSession() = default;

void MqttSession::setCallbacks() {
    mosquitto* const handle = m_handle.get();
    lib().mosquitto_connect_v5_callback_set(handle, Callbacks::onConnect);
    lib().mosquitto_message_callback_set(handle, Callbacks::onMessage);
    lib().mosquitto_publish_v5_callback_set(handle, Callbacks::onPublish);
    lib().mosquitto_subscribe_callback_set(handle, Callbacks::onSubscribe);
    lib().mosquitto_log_callback_set(handle, Callbacks::onLog);
}

void MqttSession::setCredentials() {
    const Credentials credentials = loadCredentials(m_settings.credentialsFile);
    check(lib().mosquitto_username_pw_set(m_handle.get(), credentials.user.c_str(), credentials.password.c_str()));
}

void MqttSession::setTls(const TlsFiles& files) {
    const auto orNull = [](const std::string& path) { return path.empty() ? nullptr : path.c_str(); };
    if (!files.key.empty()) {
        Sentrel::requireOwnerAlone(files.key);
    }
    constexpr int verifyPeer = 1;
    if (lib().mosquitto_tls_set(m_handle.get(), files.authority.c_str(), nullptr, orNull(files.certificate),
                                orNull(files.key), noPassPhrase) != MOSQ_ERR_SUCCESS) {
        throw MqttFailure("a TLS file cannot be read: " + files.authority +
                              (files.key.empty() ? "" : ", " + files.certificate + " or " + files.key),
                          MqttFailure::Kind::Files);
    }
    check(lib().mosquitto_tls_opts_set(m_handle.get(), verifyPeer, "tlsv1.2", nullptr)); // that version and later ones
}

void MqttSession::connectAnswered(int code) {
    if (code != 0) {
        const char* const why =
            m_settings.asksWhy ? lib().mosquitto_reason_string(code) : lib().mosquitto_connack_string(code);
        throw MqttFailure(std::string("the broker refuses this machine: ") + why,
                          isAccessRefusal(code) ? MqttFailure::Kind::RefusedAccess : MqttFailure::Kind::Refused);
    }
    m_connected = true;
    m_receiver.connected();
}

void MqttSession::connect() {
    const int result = lib().mosquitto_connect_async(m_handle.get(), m_settings.host.c_str(), m_settings.port,
                                                     static_cast<int>(m_settings.keepalive.count()));
    const int error = errno;
    if (result == MOSQ_ERR_EAI) {
        throw MqttFailure("the host's name cannot be resolved", MqttFailure::Kind::UnknownHost);
    }
    if (result == MOSQ_ERR_ERRNO && m_libraryError.empty()) {
        throw MqttFailure(errorText(error), MqttFailure::Kind::Unreachable);
    }
    check(result);
}

/// Ends the session with a reason at the end of its step.
void MqttSession::refuse(const char* why) noexcept {
    try {
        m_refusal = MqttFailure(why);
    } catch (const std::bad_alloc&) {
        m_isShortOfMemory = true; // not even for the reason
    }
}

void MqttSession::throwRefusal() {
    if (m_isShortOfMemory) {
        throw std::bad_alloc();
    }
    if (m_refusal) {
        throw MqttFailure(*m_refusal);
    }
}

void MqttSession::fail(int result) {
    const int error = errno;
    throwRefusal();
    if (!m_libraryError.empty()) {
        throw MqttFailure(m_libraryError);
    }
    throw MqttFailure(result == MOSQ_ERR_ERRNO ? errorText(error) : lib().mosquitto_strerror(result));
}

void MqttSession::check(int result) {
    if (result != MOSQ_ERR_SUCCESS) {
        fail(result);
    }
}

void MqttSession::failOnSocketError(int socket) {
    int error = 0;
    socklen_t size = sizeof error;
    if (::getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error != 0) {
        throw MqttFailure(errorText(error), m_connected ? MqttFailure::Kind::Ended : MqttFailure::Kind::Unreachable);
    }
}

void MqttSession::step(int wakeFd, std::chrono::milliseconds atMost) {
    mosquitto* const handle = m_handle.get();
    const int socket = lib().mosquitto_socket(handle);
    if (socket < 0) {
        fail(MOSQ_ERR_CONN_LOST);
    }
    // A packet waits during the whole handshake, so polling for a writable socket would wake us again and again.
    const bool handshake = m_settings.tls && !m_connected;
    const bool wantsToWrite = !handshake && lib().mosquitto_want_write(handle);
    std::array<pollfd, 2> watched{
        {{socket, static_cast<short>(POLLIN | (wantsToWrite ? POLLOUT : 0)), 0}, {wakeFd, POLLIN, 0}}};
    const auto wait = handshake ? std::min(atMost, kHandshakeTick) : atMost;
    if (::poll(watched.data(), watched.size(), static_cast<int>(wait.count())) < 0 && errno != EINTR) {
        throw MqttFailure(errorText(errno));
    }
    if ((watched[0].revents & POLLERR) != 0) {
        failOnSocketError(socket);
    }
    if ((watched[0].revents & ~POLLOUT) != 0) {
        check(lib().mosquitto_loop_read(handle, 1));
    }
    if (handshake || (watched[0].revents & POLLOUT) != 0) {
        check(lib().mosquitto_loop_write(handle, 1));
    }
    throwRefusal();
    check(lib().mosquitto_loop_misc(handle));
}

int MqttSession::subscribe(const std::string& topic, int qos) {
    int number = 0;
    check(lib().mosquitto_subscribe(m_handle.get(), &number, topic.c_str(), qos));
    return number;
}

int MqttSession::publish(const Publication& publication) {
    int number = 0;
    check(lib().mosquitto_publish(m_handle.get(), &number, publication.topic.c_str(),
                                  static_cast<int>(publication.payload.size()), publication.payload.data(), kQos,
                                  true));
    return number;
}

void MqttSession::disconnect() noexcept {
    (void)lib().mosquitto_disconnect(m_handle.get()); // the socket is closed anyway
}

} // namespace HVBEnterprise::agent
