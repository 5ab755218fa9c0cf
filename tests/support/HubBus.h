// The hub's bus, for real: a dbus-daemon, or what SENTREL_TEST_BUS names, with the configuration that is shipped.
#pragma once

#include "platform/hvbhelpers/BusConfiguration.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/PrivateRoot.h"

#include <csignal>
#include <optional>
#include <string>

namespace testing_support {

/// A bus in a private root, that can be killed, started again and held up. By default the user who runs the test is
/// the daemon's and the hub's user, and there is no administrators' group.
class HubBus {
public:
    explicit HubBus(const PrivateRoot& root);
    /// The socket path in @p options is replaced by the root's.
    /// @param uid whom the bus runs as; requires root when that is another. The socket's directory is given to it.
    HubBus(const PrivateRoot& root, HVB::bus::BusConfigurationOptions options, std::optional<uid_t> uid = {});

    const std::string& socketPath() const { return m_options.socketPath; }
    std::string address() const;
    std::string output() const { return m_process->output(); }
    pid_t pid() const { return m_process->pid(); }

    void kill9();
    /// Starts it after kill9, and waits until it accepts. @throws std::runtime_error when it does not.
    void restart();

    /// Holds it up: it keeps its connections and answers nothing until cont.
    void stop() { m_process->hold(); }
    void cont() { m_process->kill(SIGCONT); }

private:
    void start();

    HVB::bus::BusConfigurationOptions m_options;
    std::optional<uid_t> m_uid;
    std::string m_configurationFile;
    std::string m_outputFile;
    std::optional<ChildProcess> m_process;
};

} // namespace testing_support
