// A whole machine in a private root: bus, hvbd and sentreld, all real.
#pragma once

#include "events/STEventData.h"
#include "platform/hvbhelpers/BusConnection.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/HubBus.h"
#include "tests/support/PrivateRoot.h"

#include <atomic>
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

/// How the sqlite3 program ended, and what it said.
struct SqliteRun {
    ExitStatus status;
    std::string output;
};

/// Threads: plain, single access. Owner: the test. Processes end before the root goes.
class Machine {
public:
    /// The bus runs from the start; hub and daemon do not. The hub's configuration of the module is installed, the
    /// settings file is not.
    Machine();
    /// With a daemon that runs as a user of its own and owns its directories, and administrators. Requires root.
    Machine(const std::string& daemonUser, const std::string& adminGroup);

    PrivateRoot& root() { return m_root; }
    HubBus& bus() { return m_bus; }

    /// Writes the trace level file with every flow at @p level.
    void setTraceLevels(int level);

    /// Starts hvbd and waits until it answers.
    void startHub(std::vector<std::string> arguments = {});
    /// Starts the daemon and waits until it listens. @return false when it ended or did not listen in time.
    bool startDaemon();
    /// Starts the daemon and waits for nothing.
    void launchDaemon();
    /// Starts the settings keeper and waits until it is on the bus. Requires a running bus.
    void startKeeper();
    /// Starts the settings keeper and waits for nothing.
    void launchKeeper();
    ChildProcess& keeper() { return *m_keeper; }
    void kill9Keeper();
    ChildProcess& hub() { return *m_hub; }
    ChildProcess& daemon() { return *m_daemon; }
    ExitStatus stopDaemon();

    /// Ends the daemon at once, as a crash would.
    void kill9Daemon();
    /// The most memory that the daemon has held since it started.
    long daemonPeakKilobytes() const;

    /// Writes the hub's configuration of the module.
    void installConfiguration();
    std::string configurationFile() const { return m_root.hubConfigDirectory() + "/Sentrel/HVConfig.xml"; }

    std::string settingsFile() const { return m_root.sharedDirectory() + "/product.db"; }
    /// Lays the four tables, without rows, into the settings file, in write-ahead mode and for the daemon's user alone;
    /// those that are there stay as they are.
    void initSettings();
    /// Runs the sqlite3 program on the settings file. @return its output. @throws std::runtime_error when it fails.
    std::string sql(const std::string& statement) const;
    /// As sql, but waits for no lock, and any end will do. May run while other calls do.
    SqliteRun trySql(const std::string& statement) const;

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
    ChildOptions daemonOptions() const;
    bool isOnBus(const char* name) const;
    SqliteRun runSqlite(const std::string& statement, const std::string& setting) const;

    PrivateRoot m_root;
    std::optional<uid_t> m_daemonUser;
    HubBus m_bus;
    mutable std::atomic<int> m_sqliteRuns{0};
    std::optional<ChildProcess> m_hub;
    std::optional<ChildProcess> m_daemon;
    std::optional<ChildProcess> m_keeper;
};

} // namespace testing_support
