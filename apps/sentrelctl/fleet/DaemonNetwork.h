// What the unit of an enrolled machine's daemon may reach: as shipped it has no network at all.
#pragma once

#include <string>

/// Free functions. Threads: any. Owner: none.
namespace Sentrel::ctl {

/// The drop-in of systemd for the daemon's unit that opens the way to the broker at @p host. Of an address nothing else
/// is opened; a name may need any name server and may move, so for one every address is.
std::string networkDropIn(const std::string& host);

/// Whether @p host is an address, of IPv4 or IPv6, and no name.
bool isAddress(const std::string& host);

} // namespace Sentrel::ctl
