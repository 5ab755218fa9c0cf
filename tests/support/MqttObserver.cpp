#include "tests/support/MqttObserver.h"

#include "tests/support/Eventually.h"

#include <mosquitto.h>

#include <stdexcept>

namespace testing_support {

struct MqttObserver::Callbacks {
    static MqttObserver& of(void* user) { return *static_cast<MqttObserver*>(user); }

    static void onConnect(mosquitto* handle, void* /*user*/, int code) {
        if (code == 0) {
            mosquitto_subscribe(handle, nullptr, "orvanta/#", 1);
        }
    }
    static void onSubscribe(mosquitto* /*handle*/, void* user, int /*number*/, int /*count*/, const int* /*granted*/) {
        const std::lock_guard lock(of(user).m_mutex);
        of(user).m_subscribed = true;
        of(user).m_changed.notify_all();
    }
    static void onPublish(mosquitto* /*handle*/, void* user, int number) {
        const std::lock_guard lock(of(user).m_mutex);
        of(user).m_acknowledged.insert(number);
        of(user).m_changed.notify_all();
    }
    static void onMessage(mosquitto* /*handle*/, void* user, const mosquitto_message* message) {
        const std::lock_guard lock(of(user).m_mutex);
        const std::string payload(static_cast<const char*>(message->payload),
                                  static_cast<std::size_t>(message->payloadlen));
        of(user).m_messages[message->topic].push_back({payload, message->retain});
        of(user).m_changed.notify_all();
    }
};

void MqttObserver::Destroy::operator()(mosquitto* handle) const noexcept {
    mosquitto_disconnect(handle);
    mosquitto_loop_stop(handle, false);
    mosquitto_destroy(handle);
}

MqttObserver::MqttObserver(std::uint16_t port, const std::string& user, const std::string& password) {
    mosquitto_lib_init();
    m_handle.reset(mosquitto_new(nullptr, true, this));
    mosquitto_int_option(m_handle.get(), MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_connect_callback_set(m_handle.get(), Callbacks::onConnect);
    mosquitto_subscribe_callback_set(m_handle.get(), Callbacks::onSubscribe);
    mosquitto_publish_callback_set(m_handle.get(), Callbacks::onPublish);
    mosquitto_message_callback_set(m_handle.get(), Callbacks::onMessage);
    if (!user.empty()) {
        mosquitto_username_pw_set(m_handle.get(), user.c_str(), password.c_str());
    }
    constexpr int keepalive = 60;
    if (mosquitto_connect(m_handle.get(), "127.0.0.1", port, keepalive) != MOSQ_ERR_SUCCESS ||
        mosquitto_loop_start(m_handle.get()) != MOSQ_ERR_SUCCESS) {
        throw std::runtime_error("the observer cannot connect");
    }
    std::unique_lock lock(m_mutex);
    if (!m_changed.wait_until(lock, patience(), [this] { return m_subscribed; })) {
        throw std::runtime_error("the observer cannot subscribe");
    }
}

MqttObserver::~MqttObserver() = default;

void MqttObserver::publish(const std::string& topic, const std::string& payload, bool retained) {
    int number = 0;
    if (mosquitto_publish(m_handle.get(), &number, topic.c_str(), static_cast<int>(payload.size()), payload.data(), 1,
                          retained) != MOSQ_ERR_SUCCESS) {
        throw std::runtime_error("the observer cannot publish");
    }
    std::unique_lock lock(m_mutex);
    if (!m_changed.wait_until(lock, patience(), [&] { return m_acknowledged.count(number) > 0; })) {
        throw std::runtime_error("the broker did not take a message");
    }
}

std::optional<MqttObserver::Message> MqttObserver::next(const std::string& topic) {
    std::unique_lock lock(m_mutex);
    std::size_t& given = m_given[topic];
    const std::vector<Message>& messages = m_messages[topic];
    if (!m_changed.wait_until(lock, patience(), [&] { return messages.size() > given; })) {
        return std::nullopt;
    }
    return messages[given++];
}

std::size_t MqttObserver::count(const std::string& topic) const {
    const std::lock_guard lock(m_mutex);
    const auto found = m_messages.find(topic);
    return found == m_messages.end() ? 0 : found->second.size();
}

} // namespace testing_support
