// A whole machine in a private root: bus, hvbd and sentreld, all real.
#pragma once

#include "events/STEventData.h"
#include "platform/hvbhelpers/BusConnection.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/HubBus.h"
#include "tests/support/PrivateRoot.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace testing_support {

/// What the environment names as a program under test. @throws std::runtime_error when it names none.
std::string programUnderTest(const char* variable);

/// A record with sensible contents: a blocked threat from "firefox".
STEventData sampleEvent(const std::string& url = "http://host.example/path");

/// A connected client of the event socket.
/// Threads: plain. Owner: the test; the connection ends with it.
class EventClient {
public:
    /// @throws std::system_error when nobody listens.
    explicit EventClient(const std::string& socketPath);
    EventClient(EventClient&& other) noexcept;
    EventClient& operator=(EventClient&&) = delete;
    ~EventClient();

    void send(std::string_view bytes);
    /// Reads until the server closes.
    std::string readAll();
    void close();
    int fd() const { return m_fd; }

private:
    int m_fd;
};

/// Threads: plain, single access. Owner: the test. Processes end before the root goes.
class Machine {
public:
    /// The bus runs from the start; hub and daemon do not.
    Machine();

    PrivateRoot& root() { return m_root; }
    HubBus& bus() { return m_bus; }

    /// Writes the trace level file with every flow at @p level.
    void setTraceLevels(int level);

    void startHub();
    /// Starts the daemon and waits until it listens. @return false when it ended or did not listen in time.
    bool startDaemon();
    /// Starts the daemon and waits for nothing.
    void launchDaemon();
    ChildProcess& hub() { return *m_hub; }
    ChildProcess& daemon() { return *m_daemon; }
    ExitStatus stopDaemon();

    std::string eventSocket() const { return m_root.sharedDirectory() + "/STIPC"; }
    bool listens() const;
    /// Sends one message and waits until the daemon has closed the connection, thus has dealt with it.
    void deliver(std::string_view bytes);
    void deliver(const STEventData& event);

    /// The texts of a stored log record.
    struct Stored {
        std::uint64_t id;
        std::int32_t source;
        std::int32_t type;
        std::wstring text;
        std::wstring detail;
        std::int32_t count;
    };
    /// The records in hvbd's store after an id, read through the hub. Requires a running hub.
    std::vector<Stored> stored(std::uint64_t after = 0);
    /// Whether the hub answers.
    bool hubAnswers();

    /// The lines of the trace log, with their stamps.
    std::vector<std::string> traceLines() const;
    /// How many lines of the trace log end with @p message.
    std::size_t traced(const std::string& message) const;

private:
    PrivateRoot m_root;
    HubBus m_bus;
    std::optional<ChildProcess> m_hub;
    std::optional<ChildProcess> m_daemon;
};

} // namespace testing_support
