// This machine's name and address, looked up anew for each event.
#pragma once

#include <string>

/// The host's name; empty when the system does not tell it. Threads: any.
std::string getSystemHostName();

/// The IPv4 address of @p hostName as a dotted quad: the resolver's first one, otherwise one that is part of the name
/// itself, otherwise empty. Threads: the event server's only, as gethostbyname(3) has one result a process.
std::string getHostIp(const std::string& hostName);
