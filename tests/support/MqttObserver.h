// A client of the broker that a test looks and speaks through.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

struct mosquitto;
struct mosquitto_message;

namespace testing_support {

/// Hears everything under "orvanta/" from when its constructor returns, what is retained included, and publishes.
/// Threads: thread-safe. Owner: the test.
class MqttObserver {
public:
    struct Message {
        std::string payload;
        bool retained; ///< it stood there before this observer came
    };

    /// @throws std::runtime_error when the broker does not take it in.
    explicit MqttObserver(std::uint16_t port, const std::string& user = {}, const std::string& password = {});
    MqttObserver(const MqttObserver&) = delete;
    MqttObserver& operator=(const MqttObserver&) = delete;
    ~MqttObserver();

    /// Returns when the broker has the message. @throws std::runtime_error when it does not take it.
    void publish(const std::string& topic, const std::string& payload, bool retained = true);

    /// The next message on that topic that this operation has not given yet; waits for it.
    /// Nothing when none came in time.
    std::optional<Message> next(const std::string& topic);

    /// How many came on that topic so far.
    std::size_t count(const std::string& topic) const;

private:
    struct Callbacks;
    struct Destroy {
        void operator()(mosquitto* handle) const noexcept;
    };

    mutable std::mutex m_mutex;

    // guarded by m_mutex
    mutable std::condition_variable m_changed;
    bool m_subscribed = false;
    std::set<int> m_acknowledged;
    std::map<std::string, std::vector<Message>> m_messages;
    std::map<std::string, std::size_t> m_given;

    // constant after construction; the last member, since its thread uses the others
    std::unique_ptr<mosquitto, Destroy> m_handle;
};

} // namespace testing_support
