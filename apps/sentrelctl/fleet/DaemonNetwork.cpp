#include "apps/sentrelctl/fleet/DaemonNetwork.h"

#include <arpa/inet.h>
#include <fmt/format.h>

namespace Sentrel::ctl {

bool isAddress(const std::string& host) {
    in6_addr address{};
    return ::inet_pton(AF_INET, host.c_str(), &address) == 1 || ::inet_pton(AF_INET6, host.c_str(), &address) == 1;
}

std::string networkDropIn(const std::string& host) {
    return fmt::format("# Made by 'sentrelctl agent network' from the enrolment; it is made anew by the same command.\n"
                       "[Service]\n"
                       "PrivateNetwork=no\n"
                       "RestrictAddressFamilies=AF_INET AF_INET6\n"
                       "IPAddressAllow={}\n",
                       isAddress(host) ? host : "any");
}

} // namespace Sentrel::ctl
