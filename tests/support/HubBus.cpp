#include "tests/support/HubBus.h"

#include "platform/hvbhelpers/BusAddress.h"
#include "platform/hvbhelpers/BusConnection.h"
#include "tests/support/Eventually.h"

#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <utility>

namespace testing_support {
namespace {

HVB::bus::BusConfigurationOptions ownUserDoesEverything() {
    const std::string self = std::to_string(::geteuid());
    return {.socketPath = "", .daemonUser = self, .hubUser = self, .adminGroup = ""};
}

bool accepts(const std::string& socketPath) {
    try {
        return HVB::bus::openBus(socketPath, patience()) != nullptr;
    } catch (const HVB::HVBException&) {
        return false;
    }
}

} // namespace

HubBus::HubBus(const PrivateRoot& root) : HubBus(root, ownUserDoesEverything()) {}

HubBus::HubBus(const PrivateRoot& root, HVB::bus::BusConfigurationOptions options, std::optional<uid_t> uid)
    : m_options(std::move(options)), m_uid(uid), m_configurationFile(root.hubConfigDirectory() + "/hub-bus.conf"),
      m_outputFile(root.file("dbus-daemon.out")) {
    m_options.socketPath = root.hubSocket();
    if (m_uid) {
        PrivateRoot::giveTo(root.hubVarDirectory(), *m_uid, static_cast<gid_t>(-1));
    }
    std::ofstream(m_configurationFile) << HVB::bus::busConfiguration(m_options);
    start();
}

std::string HubBus::address() const {
    return HVB::bus::busAddress(m_options.socketPath);
}

void HubBus::start() {
    const char* const other = std::getenv("SENTREL_TEST_BUS");
    m_process.emplace(other != nullptr ? other : "dbus-daemon",
                      ChildOptions{.arguments = {"--nofork", "--config-file=" + m_configurationFile},
                                   .environment = {},
                                   .outputFile = m_outputFile,
                                   .uid = other != nullptr ? std::nullopt : m_uid, // it is root's to set up
                                   .gid = {}});
    bool up = false;
    (void)eventually([&] { return (up = accepts(m_options.socketPath)) || !m_process->isRunning(); });
    if (!up) {
        throw std::runtime_error("the bus did not start: " + m_process->output());
    }
}

void HubBus::kill9() {
    m_process->kill(SIGKILL);
    (void)m_process->waitUntil(patience());
}

void HubBus::restart() {
    start();
}

} // namespace testing_support
