// Whether an enrolled machine reaches its broker.
//
// The daemon tells nobody whether it is connected, so two things are looked at: whether anybody takes connections at
// the broker's address, and whether the process that is sentreld has one. The first alone is no proof: a broker that
// refuses the machine's password takes the connection too.
//
// What must stay so:
// - The broker gets no message. One that came with the machine's own name would push the daemon's connection out.
// - The name service and the connection may both wait for minutes, so a child does it and is ended at the deadline.
#include "apps/sentrelctl/doctor/DoctorProcesses.h"
#include "apps/sentrelctl/doctor/DoctorSockets.h"
#include "base/Paths.h"
#include "base/UniqueFd.h"
#include "platform/hvbagent/Fleet.h"

#include <fmt/format.h>
#include <memory>
#include <netdb.h>
#include <optional>
#include <sys/socket.h>
#include <system_error>

namespace Sentrel::ctl {
namespace {

namespace agent = HVBEnterprise::agent;

/// What an attempt to reach the broker came to: inChild's answer.
enum BrokerProbe : int { BrokerTakes, BrokerIsUnknown, BrokerRefuses };

int tryBroker(const std::string& host, std::uint16_t port) {
    addrinfo wanted{};
    wanted.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &wanted, &found) != 0) {
        return BrokerIsUnknown;
    }
    const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> addresses(found, ::freeaddrinfo);
    for (const addrinfo* each = found; each != nullptr; each = each->ai_next) {
        const UniqueFd socket(::socket(each->ai_family, each->ai_socktype | SOCK_CLOEXEC, each->ai_protocol));
        if (socket.isOpen() && ::connect(socket.get(), each->ai_addr, each->ai_addrlen) == 0) {
            return BrokerTakes;
        }
    }
    return BrokerRefuses;
}

/// None when the machine is not managed.
std::optional<agent::AgentConfiguration> enrolment() {
    const std::string path = paths::agentConfiguration();
    if (!factsOf(path)) {
        return std::nullopt;
    }
    needReadable(path);
    try {
        return agent::readEnrolment(path);
    } catch (const std::exception&) {
        throw CannotSee("the enrolment cannot be used: 'management-agent' tells why");
    }
}

/// What the daemon has of the broker that is there.
Diagnosis connectionDiagnosis(const std::string& where, std::uint16_t port, double timeout) {
    const std::optional<pid_t> daemon = listenerOfEvents(timeout);
    const std::optional<bool> isConnected = daemon ? hasConnectionTo(*daemon, port) : std::nullopt;
    if (!isConnected) {
        return healthy(fmt::format("the broker at {} takes connections", where));
    }
    if (!*isConnected) {
        return failed("broker-unconnected",
                      fmt::format("the broker at {} takes connections, and sentreld has none", where),
                      "The system log has the agent's reason, most often the password or the certificate; a sentreld "
                      "that has just been started, or enrolled, needs to be restarted or to be given a minute");
    }
    return healthy(fmt::format("sentreld is connected to the broker at {}", where));
}

} // namespace

Diagnosis broker(double timeout) {
    const std::optional<agent::AgentConfiguration> configuration = enrolment();
    if (!configuration) {
        return healthy("the machine is not managed, and needs none");
    }
    const std::string where = fmt::format("{}:{}", configuration->host, configuration->port);
    constexpr const char* meanwhile = "; the machine keeps the policy that it has, and gets no new one";
    const std::optional<int> answer = inChild(
        std::nullopt, timeout, [&configuration] { return tryBroker(configuration->host, configuration->port); });
    if (!answer) {
        return failed("broker-silent",
                      fmt::format("the broker at {} does not answer within {} s{}", where, timeout, meanwhile),
                      "Look for a firewall or a route between here and there, and whether that host runs");
    }
    switch (*answer) {
    case BrokerTakes:
        return connectionDiagnosis(where, configuration->port, timeout);
    case BrokerIsUnknown:
        return failed("broker-unresolved",
                      fmt::format("the broker's name {} does not resolve{}", configuration->host, meanwhile),
                      fmt::format("Mend the name service, or the name in {}", paths::agentConfiguration()));
    default:
        return failed("broker-away", fmt::format("nobody takes connections at the broker's {}{}", where, meanwhile),
                      fmt::format("Start the broker, or mend its address in {} and restart sentreld",
                                  paths::agentConfiguration()));
    }
}

} // namespace Sentrel::ctl
