// Answers of the system that a test cannot bring about: the linker leads sysconf, gethostname, gethostbyname,
// inet_ntoa and getpwuid_r here (--wrap). Whatever a test does not set is answered by the real call.
#pragma once

#include <netdb.h>
#include <pwd.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace testing_support {

/// Threads: the test's. Owner: one a process, fresh for each test.
struct SystemDouble {
    static SystemDouble& instance();

    std::optional<long> hostNameLimit;                           ///< what sysconf tells of _SC_HOST_NAME_MAX
    std::function<int(char* buffer, std::size_t size)> hostName; ///< gethostname
    std::function<hostent*(const char* name)> lookUp;            ///< gethostbyname; it may throw
    bool addressHasNoText = false;                               ///< inet_ntoa gives null
    std::optional<std::string> homeDirectory;                    ///< what getpwuid_r tells
    bool noAccount = false;                                      ///< getpwuid_r finds nobody
};

/// Behaves like gethostname(2) on a machine of this name.
std::function<int(char*, std::size_t)> machineNamed(std::string name);

/// Behaves like a resolver that knows these IPv4 addresses for every name; with none it knows no name.
std::function<hostent*(const char*)> resolverWith(const std::vector<std::string>& addresses);

} // namespace testing_support
