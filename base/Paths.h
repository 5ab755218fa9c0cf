// Every fixed path of the daemon and of its neighbours, each named once, all behind the install root.
#pragma once

#include "base/InstallRoot.h"

#include <string>

namespace Sentrel::paths {

inline std::string underRoot(const char* path) {
    return installRoot() + path;
}

// The daemon's own user owns both of these directories, mode 0755.
inline std::string sharedDirectory() {
    return underRoot("/Users/Shared/.orvanta");
}
inline std::string varDirectory() {
    return underRoot("/usr/local/Orvanta/Sentrel/var");
}

inline std::string eventSocket() {
    return underRoot("/Users/Shared/.orvanta/STIPC");
}
inline std::string settingsFile() {
    return underRoot("/Users/Shared/.orvanta/product.db");
}
/// Reports that wait for the hub.
inline std::string reportSpool() {
    return underRoot("/usr/local/Orvanta/Sentrel/var/reports.spool");
}
/// Sites that are rated. The lists, and what is compiled of them for every local user.
inline std::string ratingsDirectory() {
    return underRoot("/usr/local/Orvanta/Sentrel/var/ratings");
}
inline std::string ratingDatabase() {
    return underRoot("/usr/local/Orvanta/Sentrel/var/ratings/ratings.cdb");
}
inline std::string traceLevels() {
    return underRoot("/usr/local/Orvanta/Sentrel/var/traceValues.xml");
}
inline std::string traceLog() {
    return underRoot("/usr/local/Orvanta/Sentrel/var/STTrace.log");
}
inline std::string pidFile() {
    return underRoot("/usr/local/Orvanta/Sentrel/var/.STPid");
}

// The hub's.
inline std::string hubSocket() {
    return underRoot("/usr/local/Orvanta/hvb/var/hvbdsocket64");
}
inline std::string hubVarDirectory() {
    return underRoot("/usr/local/Orvanta/hvb/var");
}
inline std::string hubLogStore() {
    return underRoot("/usr/local/Orvanta/hvb/var/hvblog.db");
}
/// What users ask for, and what is granted.
inline std::string hubRequestStore() {
    return underRoot("/usr/local/Orvanta/hvb/var/requests.db");
}
inline std::string hubBusConfiguration() {
    return underRoot("/usr/local/Orvanta/hvb/config/hub-bus.conf");
}
/// The bus configuration of an installation by package, in a directory that is root's alone.
inline std::string packagedBusConfiguration() {
    return underRoot("/etc/sentrel/hub-bus.conf");
}
inline std::string moduleConfiguration() {
    return underRoot("/usr/local/Orvanta/hvb/config/Sentrel/HVConfig.xml");
}

// The management agent's. The policy in force lies in the daemon's own directory.
inline std::string agentConfiguration() {
    return underRoot("/usr/local/Orvanta/hvb/config/agent.json");
}
inline std::string agentKey() {
    return underRoot("/usr/local/Orvanta/hvb/config/agent.key");
}
/// What the daemon's unit may reach of the network: a drop-in of systemd.
inline std::string daemonNetworkDropIn() {
    return underRoot("/etc/systemd/system/sentreld.service.d/50-agent-network.conf");
}
inline std::string agentPolicy() {
    return underRoot("/usr/local/Orvanta/Sentrel/var/policy.json");
}
inline std::string agentPolicyRecord() {
    return underRoot("/usr/local/Orvanta/Sentrel/var/policy-record.json");
}

// The browsers'. These are where each looks on its own, and Sentrel writes none of them but its installation.
inline std::string firefoxExtension() {
    return underRoot(
        "/usr/share/mozilla/extensions/{ec8030f7-c20a-464f-9b0e-13a3a9e97384}/extension@sentrel.invalid.xpi");
}
inline std::string firefoxPolicies() {
    return underRoot("/etc/firefox/policies/policies.json");
}
/// Read where there are no others.
inline std::string firefoxOwnPolicies() {
    return underRoot("/usr/lib/firefox-esr/distribution/policies.json");
}
/// Each file in it has some.
inline std::string chromiumPolicies() {
    return underRoot("/etc/chromium/policies/managed");
}
inline std::string chromiumExtensionPolicy() {
    return underRoot("/etc/chromium/policies/managed/sentrel.json");
}

} // namespace Sentrel::paths
