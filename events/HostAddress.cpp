#include "events/HostAddress.h"

#include "daemon/Trace.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <unistd.h>

#include <boost/regex.hpp>

#include <cstring>
#include <memory>

using Sentrel::trace::printable;

namespace {

/// The dotted quad that some hosts carry in their names.
std::string addressInName(const std::string& hostName, const boost::regex& quad) {
    boost::smatch match;
    if (!boost::regex_search(hostName, match, quad)) {
        return {};
    }
    ST_TRACE(ipcFlow, 1, L"getHostIp : gethostbyname for %s retured NULL \n", printable(hostName).c_str());
    std::string address = match[1].str();
    ST_TRACE(ipcFlow, 1, L"getHostIp : extracting ip adress %s\n\n", printable(address).c_str());
    return address;
}

} // namespace

std::string getSystemHostName() {
    const long largest = sysconf(_SC_HOST_NAME_MAX);
    if (largest < 0) {
        ST_TRACE(ipcFlow, 1, L"getSystemHostName : sysconf returnig -1 value\n");
        return {};
    }
    const std::size_t size = static_cast<std::size_t>(largest) + 1; // the limit leaves out the terminator
    const auto buffer = std::make_unique<char[]>(size);
    if (gethostname(buffer.get(), size) != 0) {
        return {};
    }
    return std::string(buffer.get(), strnlen(buffer.get(), size));
}

std::string getHostIp(const std::string& hostName) {
    ST_TRACE(ipcFlow, 1, L"getHostIp  - Invoked \n");
    try {
        const boost::regex quad("(\\d{1,3}(\\.\\d{1,3}){3})([^,]*)");
        if (hostName.empty()) {
            return {};
        }
        const hostent* host = gethostbyname(hostName.c_str());
        if (host == nullptr) {
            return addressInName(hostName, quad);
        }
        in_addr first{};
        if (host->h_addrtype != AF_INET || host->h_addr_list[0] == nullptr) {
            return {};
        }
        std::memcpy(&first, host->h_addr_list[0], sizeof first);
        const char* text = inet_ntoa(first);
        if (text == nullptr) {
            ST_TRACE(ipcFlow, 1, L"getHostIp : inet_ntoa for %s retured NULL\n", printable(hostName).c_str());
            return {};
        }
        return text;
    } catch (...) {
        ST_TRACE(ipcFlow, 1, L"getHostIp - Exception \n");
        return {};
    }
}
