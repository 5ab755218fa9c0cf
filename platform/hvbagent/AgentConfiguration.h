// How this machine is enrolled.
#pragma once

#include "platform/hvbagent/Encoding.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace HVBEnterprise::agent {

/// Files in PEM. The last two are both there or both empty.
struct TlsFiles {
    std::string authority;
    std::string certificate;
    std::string key;
};

/// Who this machine is to the broker. Wiped from memory when it ends.
struct Credentials {
    std::string user;
    std::string password;

    Credentials() = default;
    Credentials(Credentials&&) = default;
    Credentials& operator=(Credentials&&) = default;
    ~Credentials();
};

/// The enrolment. Every text has been checked: topic parts are topic parts and paths are absolute.
struct AgentConfiguration {
    std::string host;
    std::uint16_t port = 0;
    std::optional<TlsFiles> tls;
    std::string credentialsFile; ///< empty: the broker asks for none
    std::string site;
    std::string machine;
    std::vector<std::string> groups; ///< without "all", which goes without saying
    std::chrono::seconds interval{};
    std::chrono::seconds keepalive{};
    PublicKeys policyKeys;         ///< when there are any, policies must be signed with one of them
    bool requiresAudience = false; ///< whether a policy must say whom it is for
    /// Whether this machine's administrators may grant what its users ask for, beside the policy.
    bool allowsLocalGrants = false;
};

/// The machine's own id, which a configuration need not repeat.
inline constexpr const char* kMachineIdFile = "/etc/machine-id";

/// Reads the text of a configuration. @param machineIdFile where the machine's id is when the text does not name one.
/// @throws DocumentError, std::system_error.
AgentConfiguration readAgentConfiguration(std::string_view text, const std::string& machineIdFile = kMachineIdFile);

/// Reads the configuration file. Credentials and keys are read at each attempt to connect, and not here.
/// @return nothing when there is no such file.
/// @throws std::runtime_error that names the file, the place and what is wrong there.
std::optional<AgentConfiguration> loadAgentConfiguration(const std::string& path,
                                                         const std::string& machineIdFile = kMachineIdFile);

/// Whether the enrolment in the file at @p path lets this machine's administrators grant requests. False where there is
/// none, or none that could be used. The credentials do not count. Nothing is thrown but for want of memory.
bool enrolmentAllowsLocalGrants(const std::string& path);

/// Reads {"user", "password"} from a file that its owner alone may access.
/// @throws std::runtime_error as above; it never quotes a value.
Credentials loadCredentials(const std::string& path);

} // namespace HVBEnterprise::agent
