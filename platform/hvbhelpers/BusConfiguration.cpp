// Model of the policy: the bus starts from "nobody may do anything", and each section below adds what one kind of
// caller may do. The bus lets the last rule that matches decide, and it skips a section whose user or group it cannot
// find. With allow rules alone neither can grant anything by mistake: a lost section only takes rights away.
//
// A message without an interface matches no rule that names one, so it needs the broad right of root or hvbd.
#include "platform/hvbhelpers/BusConfiguration.h"

#include "hub/HubIds.h"
#include "platform/hvbhelpers/BusAddress.h"
#include "platform/hvbhelpers/HubProtocol.h"

#include <grp.h>

#include <array>
#include <cerrno>
#include <initializer_list>
#include <stdexcept>
#include <string_view>
#include <vector>

namespace HVB::bus {
namespace {

struct Limit {
    const char* name;
    std::size_t value;
};

constexpr std::size_t kMiB = std::size_t{1} << 20U;

constexpr std::array kLimits{
    // A client that connects and says nothing is dropped. The bus takes in as many of them at once as the kernel's
    // listen
    // queue holds by default: with room for fewer, whoever comes behind them waits for one timeout after the other, and
    // 1000 meant 1.5 s behind 3,000.
    Limit{"auth_timeout", 500}, // milliseconds
    Limit{"max_incomplete_connections", 4096},
    // One user cannot use up what all share.
    Limit{"max_connections_per_user", 16}, Limit{"max_completed_connections", 4096},
    Limit{"max_message_size", kMaxMessageBytes},
    // What waits for one receiver. The message that crosses the line is still taken.
    Limit{"max_outgoing_bytes", kMiB / 2},
    // What one sender has on its way to all receivers. It must be far above what the receivers of one user can leave
    // unread: otherwise they silence a module by not reading its replies.
    Limit{"max_incoming_bytes", 2048 * kMiB},
    // A message carries one when its payload is a file. Who only reads may send none (allowCall). What one sender has
    // on its way
    // is far above what others leave unread, as with the bytes.
    Limit{"max_message_unix_fds", 1}, Limit{"max_outgoing_unix_fds", 1}, Limit{"max_incoming_unix_fds", 512},
    Limit{"max_match_rules_per_connection", 64}, Limit{"max_names_per_connection", 8},
    Limit{"max_replies_per_connection", 64},
    // Above the longest wait for a command (45 s).
    Limit{"reply_timeout", 60'000}, // milliseconds
};

std::string escapeForXml(std::string_view text) {
    std::string escaped;
    for (const char c : text) {
        switch (c) {
        case '&':
            escaped += "&amp;";
            break;
        case '<':
            escaped += "&lt;";
            break;
        case '>':
            escaped += "&gt;";
            break;
        case '"':
            escaped += "&quot;";
            break;
        default:
            escaped += c;
        }
    }
    return escaped;
}

/// Collects the text. Each operation adds one element.
class Writer {
public:
    void line(const std::string& text) { m_text += text + "\n"; }

    void open(const std::string& attribute, const std::string& value) {
        line("  <policy " + attribute + "=\"" + escapeForXml(value) + "\">");
    }
    void close() { line("  </policy>"); }

    void allow(const std::string& attributes) { line("    <allow " + attributes + "/>"); }

    /// @param mayCarryFile whether the call may take a payload in a file along.
    void allowCall(const std::string& destination, const std::string& interface, const std::string& member,
                   bool mayCarryFile = false) {
        allow("send_destination=\"" + destination + "\" send_interface=\"" + interface + "\" send_member=\"" + member +
              "\" send_type=\"method_call\"" + (mayCarryFile ? "" : " max_fds=\"0\""));
    }
    void allowSignals(const char* interface) {
        allow("send_type=\"signal\" send_interface=\"" + std::string(interface) + "\"");
    }
    void allowOwn(const std::string& name) { allow("own=\"" + name + "\""); }

    const std::string& text() const { return m_text; }

private:
    std::string m_text;
};

void allowCommands(Writer& out, bool administrators) {
    for (const Sentrel::CommandInfo& command : Sentrel::kCommands) {
        if (administrators || command.access == Sentrel::CommandAccess::Everyone) {
            out.allowCall(moduleName(command.receiver), kModuleInterface, commandMember(command.id),
                          command.access == Sentrel::CommandAccess::Administrators);
        }
    }
}

void allowDriver(Writer& out, std::initializer_list<const char*> members) {
    for (const char* member : members) {
        out.allowCall(kDriver, kDriver, member);
    }
}

/// Looking around: harmless, and what busctl's list and introspect need. Who is connected is no secret; what passes is.
void allowLookingAround(Writer& out) {
    allowDriver(out, {"Hello", "AddMatch", "RemoveMatch", "GetNameOwner", "NameHasOwner", "GetId", "ListNames",
                      "ListActivatableNames"});
    out.allowCall(kDriver, "org.freedesktop.DBus.Introspectable", "Introspect");
    out.allowCall(kDriver, "org.freedesktop.DBus.Peer", "Ping");
    for (const std::string& name :
         {moduleName(MODULE_SENTREL), moduleName(MODULE_HUB), std::string(kHubName), std::string(kKeeperName)}) {
        out.allowCall(name, "org.freedesktop.DBus.Introspectable", "Introspect");
        out.allowCall(name, "org.freedesktop.DBus.Peer", "Ping");
        out.allowCall(name, "org.freedesktop.DBus.Properties", "GetAll");
    }
}

void writeEveryone(Writer& out) {
    out.open("context", "default");
    out.allow("user=\"*\"");
    out.allow("receive_sender=\"*\"");
    out.allow("send_type=\"method_return\" send_requested_reply=\"true\"");
    out.allow("send_type=\"error\" send_requested_reply=\"true\"");
    allowLookingAround(out);
    allowCommands(out, false);
    for (const char* member : {kSettingsMember, kLastWholeSettingsMember}) {
        out.allowCall(kHubName, kHubInterface, member);
    }
    for (const char* member : {kAskForAccessMember, kReadOwnRequestsMember}) {
        out.allowCall(kHubName, kRequestsInterface, member);
    }
    out.close();
}

void writeAdministrators(Writer& out, const std::string& group) {
    out.open("group", group);
    allowCommands(out, true);
    for (const char* member : {kReadLogMember, kStatusMember}) {
        out.allowCall(kHubName, kHubInterface, member);
    }
    for (const char* member :
         {kReadRequestsMember, kGrantRequestMember, kDenyRequestMember, kReadGrantsMember, kRevokeGrantMember}) {
        out.allowCall(kHubName, kRequestsInterface, member);
    }
    out.allowCall(moduleName(MODULE_SENTREL), kModuleInterface, kHealthCheckMember);
    out.allowCall(kKeeperName, kKeeperInterface, kNoteReplacementMember);
    out.close();
}

/// Root calls everything, monitors, and stands in for any module's events; it owns no name.
void writeRoot(Writer& out) {
    out.open("user", "root");
    out.allow("send_type=\"method_call\"");
    out.allowSignals(kEventsInterface);
    out.close();
}

void writeDaemon(Writer& out, const std::string& user) {
    out.open("user", user);
    out.allowOwn(moduleName(MODULE_SENTREL));
    out.allowOwn(kKeeperName); // the settings keeper is another process of this user
    allowDriver(out, {"RequestName", "ReleaseName", kGetConnectionUnixUserMember});
    allowCommands(out, true);
    for (const char* member : {kLogMember, kLogNumberedMember, kLogMessageMember, kReadLogMember}) {
        out.allowCall(kHubName, kHubInterface, member);
    }
    out.allowCall(kHubName, kHubInterface, kHandInSettingsMember, true);
    out.allowSignals(kEventsInterface);
    out.close();
}

void writeHub(Writer& out, const std::string& user) {
    out.open("user", user);
    out.allowOwn(moduleName(MODULE_HUB));
    out.allowOwn(kHubName);
    out.allow("send_type=\"method_call\"");
    out.allowSignals(kEventsInterface);
    out.allowSignals(kHubInterface);
    out.allowSignals(kRequestsInterface);
    out.close();
}

} // namespace

std::string busConfiguration(const BusConfigurationOptions& options) {
    if (options.socketPath.empty() || options.daemonUser.empty() || options.hubUser.empty()) {
        throw std::invalid_argument("the bus configuration needs a socket path, a daemon user and a hub user");
    }
    Writer out;
    out.line("<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"");
    out.line(" \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">");
    out.line("<!-- Made by busConfiguration from the list of commands; do not edit. docs/hub.md explains it. -->");
    out.line("<busconfig>");
    out.line("  <listen>" + escapeForXml(busAddress(options.socketPath)) + "</listen>");
    out.line("  <auth>EXTERNAL</auth>");
    writeEveryone(out);
    if (!options.adminGroup.empty()) {
        writeAdministrators(out, options.adminGroup);
    }
    writeRoot(out);
    writeDaemon(out, options.daemonUser);
    writeHub(out, options.hubUser);
    for (const Limit& limit : kLimits) {
        out.line("  <limit name=\"" + std::string(limit.name) + "\">" + std::to_string(limit.value) + "</limit>");
    }
    out.line("</busconfig>");
    return out.text();
}

bool groupExists(const std::string& name) {
    std::vector<char> buffer(1024);
    group entry{};
    group* found = nullptr;
    int error = 0;
    while ((error = getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found)) == ERANGE) {
        buffer.resize(buffer.size() * 2);
    }
    return error == 0 && found != nullptr;
}

} // namespace HVB::bus
