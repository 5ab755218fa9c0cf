// The hub as a person asks it: the log, the health of the modules, who is on the bus.
//
// This talks sd-bus directly and not through the broker class, which serves modules: what is asked here is the bus
// itself and hvbd's own members. Each call waits for its answer until a deadline. Only the two waits have none: a log
// that is followed, and `watch`, last until the user ends them. They also wake when a stop signal comes or when nobody
// reads the output any more.
//
// What must stay so:
// - Before each wait all messages are taken that sd-bus has already read: they are not in the socket any more, so poll
//   would not wake for them. All records that were stored meanwhile count as one wake-up.
// - The matches for records and farewells name their sender. Without it they take what anybody on the bus sends.
// - The bus drops without an answer what its policy refuses to publish. So publish() subscribes to the event, sends it,
//   and asks the bus a question. Only an event from this very connection counts. The bus works in order: when the
//   answer is there, the event came before it or never will.
#include "apps/sentrelctl/clients/HubClient.h"

#include "apps/sentrelctl/Session.h"
#include "hub/HubIds.h"
#include "platform/hvbhelpers/HubProtocol.h"
#include "platform/hvbhelpers/SnapshotText.h"

#include <array>
#include <cerrno>
#include <poll.h>
#include <string_view>
#include <utility>

namespace Sentrel::ctl {
namespace {

using HVB::bus::check;

constexpr const char* kBusName = "org.freedesktop.DBus";
constexpr const char* kBusPath = "/org/freedesktop/DBus";
constexpr const char* kPeerInterface = "org.freedesktop.DBus.Peer";

std::vector<StoredRecord> readRecords(sd_bus_message& reply) {
    std::vector<StoredRecord> records;
    check(sd_bus_message_enter_container(&reply, 'a', "(txiiayayi)"), "reading the log records");
    while (const int found = sd_bus_message_enter_container(&reply, 'r', "txiiayayi")) {
        check(found, "reading a log record");
        StoredRecord record;
        check(sd_bus_message_read(&reply, "txii", &record.id, &record.storedAt, &record.source, &record.type),
              "reading a log record");
        record.text = HVB::bus::readText(reply);
        record.detailText = HVB::bus::readText(reply);
        check(sd_bus_message_read(&reply, "i", &record.count), "reading a log record");
        check(sd_bus_message_exit_container(&reply), "reading a log record");
        records.push_back(std::move(record));
    }
    return records;
}

/// Who left the bus according to @p message; null when nobody did.
const char* whoHasGone(sd_bus_message& message) {
    if (sd_bus_message_is_signal(&message, kBusName, "NameOwnerChanged") <= 0) {
        return nullptr;
    }
    const char* name = nullptr;
    const char* before = nullptr;
    const char* now = nullptr;
    if (sd_bus_message_read(&message, "sss", &name, &before, &now) <= 0 || *now != '\0') {
        return nullptr;
    }
    if (name == HVB::bus::moduleName(HVB::MODULE_SENTREL)) {
        return "sentreld";
    }
    return std::string_view(name) == HVB::bus::kHubName ? "hvbd" : nullptr;
}

/// Throws when @p message says that the bus or somebody on it has gone.
void refuseFarewell(sd_bus_message& message) {
    if (const char* who = whoHasGone(message); who != nullptr) {
        throw HVB::HVBException(-EHOSTUNREACH, std::string(who) + " has left the bus");
    }
    if (sd_bus_message_is_signal(&message, "org.freedesktop.DBus.Local", "Disconnected") > 0) {
        throw HVB::HVBException(-ECONNRESET, "the bus has closed the connection");
    }
}

std::string matchOfOwner(const std::string& name) {
    return std::string("type='signal',sender='") + kBusName + "',interface='" + kBusName +
           "',member='NameOwnerChanged',arg0='" + name + "'";
}

} // namespace

HubClient::HubClient(const std::string& socketPath, double timeout)
    : m_timeout(timeout), m_bus(HVB::bus::openBus(socketPath, deadlineAfter(timeout))) {}

HVB::bus::Deadline HubClient::deadline() const {
    return deadlineAfter(m_timeout);
}

std::chrono::microseconds HubClient::timedCall(const std::string& name, const std::string& path, const char* interface,
                                               const char* member) {
    const auto request = HVB::bus::newCall(*m_bus, name, path, interface, member);
    const auto begin = std::chrono::steady_clock::now();
    HVB::bus::call(*m_bus, *request, deadline());
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - begin);
}

std::chrono::microseconds HubClient::pingBus() {
    return timedCall(kBusName, kBusPath, kBusName, "GetId");
}

std::chrono::microseconds HubClient::ping(const std::string& name, const std::string& path) {
    return timedCall(name, path, kPeerInterface, "Ping");
}

pid_t HubClient::processOf(const std::string& name) {
    const auto request = HVB::bus::newCall(*m_bus, kBusName, kBusPath, kBusName, "GetConnectionUnixProcessID");
    check(sd_bus_message_append(request.get(), "s", name.c_str()), "asking for a process");
    const auto reply = HVB::bus::call(*m_bus, *request, deadline());
    std::uint32_t process = 0;
    check(sd_bus_message_read(reply.get(), "u", &process), "reading the number of a process");
    return static_cast<pid_t>(process);
}

std::vector<ModuleHealth> HubClient::moduleHealth() {
    const auto request = HVB::bus::newCall(*m_bus, HVB::bus::kHubName, HVB::bus::kHubPath, HVB::bus::kHubInterface,
                                           HVB::bus::kStatusMember);
    const auto reply = HVB::bus::call(*m_bus, *request, deadline());
    if (sd_bus_message_has_signature(reply.get(), HVB::bus::kStatusReplySignature) <= 0) {
        throw HVB::HVBException(-EBADMSG, "the hub's answer is no list of modules");
    }
    check(sd_bus_message_enter_container(reply.get(), 'a', HVB::bus::kStatusEntry), "reading the modules' health");
    std::vector<ModuleHealth> modules;
    int moduleId = 0;
    const char* state = nullptr;
    const char* since = nullptr;
    const char* problem = nullptr;
    while (const int found =
               sd_bus_message_read(reply.get(), HVB::bus::kStatusEntry, &moduleId, &state, &since, &problem)) {
        check(found, "reading the modules' health");
        modules.push_back({moduleId, state, since, problem});
    }
    return modules;
}

std::optional<ModuleHealth> HubClient::daemonHealth() {
    for (ModuleHealth& module : moduleHealth()) {
        if (module.moduleId == HVB::MODULE_SENTREL) {
            return std::move(module);
        }
    }
    return std::nullopt;
}

settings::SettingsSnapshot HubClient::askForSettings(const char* member, bool isFresh) {
    try {
        return settings::snapshotOf(HVB::bus::askForSettings(*m_bus, member, isFresh, deadline()));
    } catch (const settings::SnapshotError& error) {
        throw HVB::HVBException(-EBADMSG, std::string("the hub's answer holds no settings: ") + error.what());
    }
}

settings::SettingsSnapshot HubClient::settings(bool isFresh) {
    return askForSettings(HVB::bus::kSettingsMember, isFresh);
}

settings::SettingsSnapshot HubClient::lastWholeSettings() {
    return askForSettings(HVB::bus::kLastWholeSettingsMember, false);
}

void HubClient::noteReplacement(const char* list, std::uint64_t rows) {
    const auto request = HVB::bus::newCall(*m_bus, HVB::bus::kKeeperName, HVB::bus::kKeeperPath,
                                           HVB::bus::kKeeperInterface, HVB::bus::kNoteReplacementMember);
    check(sd_bus_message_append(request.get(), HVB::bus::kNoteReplacementSignature, list, rows),
          "noting a replacement");
    HVB::bus::call(*m_bus, *request, deadline());
}

bool HubClient::publish(const HVB::EventData& event) {
    const std::string member = HVB::bus::eventMember(event.m_eventId);
    addMatch(std::string("type='signal',interface='") + HVB::bus::kEventsInterface + "',member='" + member + "'");
    sd_bus_message* raw = nullptr;
    check(
        sd_bus_message_new_signal(m_bus.get(), &raw, HVB::bus::kEventsPath, HVB::bus::kEventsInterface, member.c_str()),
        "making an event");
    const HVB::bus::MessagePtr signal(raw);
    check(sd_bus_message_append(raw, "ib", event.m_sequence, event.m_bHasPayload ? 1 : 0), "making an event");
    HVB::bus::appendText(*signal, event.m_bHasPayload ? event.m_pOutStream->str() : std::wstring());
    check(sd_bus_send(m_bus.get(), raw, nullptr), "publishing an event");
    pingBus(); // the bus deals with one message after the other: it has dealt with the event when it answers this
    return hearsItself(member);
}

/// Whether an event of this connection is among the messages that have arrived.
bool HubClient::hearsItself(const std::string& member) {
    const char* self = nullptr;
    check(sd_bus_get_unique_name(m_bus.get(), &self), "asking for the connection's name");
    bool isHeard = false;
    for (int more = 1; more > 0;) {
        sd_bus_message* received = nullptr;
        more = sd_bus_process(m_bus.get(), &received);
        const HVB::bus::MessagePtr message(received);
        check(more, "listening to the hub");
        const char* sender = message ? sd_bus_message_get_sender(received) : nullptr;
        isHeard = isHeard || (sender != nullptr && std::string_view(sender) == self &&
                              sd_bus_message_is_signal(received, HVB::bus::kEventsInterface, member.c_str()) > 0);
    }
    return isHeard;
}

std::vector<StoredRecord> HubClient::readLog(std::uint64_t after, std::uint32_t limit, bool newest) {
    const auto request = HVB::bus::newCall(*m_bus, HVB::bus::kHubName, HVB::bus::kHubPath, HVB::bus::kHubInterface,
                                           HVB::bus::kReadLogMember);
    check(sd_bus_message_append(request.get(), HVB::bus::kReadLogSignature, after, limit, newest ? 1 : 0),
          "making a request for the log");
    const auto reply = HVB::bus::call(*m_bus, *request, deadline());
    if (sd_bus_message_has_signature(reply.get(), HVB::bus::kReadLogReplySignature) <= 0) {
        throw HVB::HVBException(-EBADMSG, "the hub's answer is no list of log records");
    }
    return readRecords(*reply);
}

void HubClient::addMatch(const std::string& rule) {
    const auto request = HVB::bus::newCall(*m_bus, kBusName, kBusPath, kBusName, "AddMatch");
    check(sd_bus_message_append(request.get(), "s", rule.c_str()), "making a subscription");
    HVB::bus::call(*m_bus, *request, deadline());
}

void HubClient::subscribeToLog() {
    // Without the sender's name a match hears everybody on the bus.
    addMatch(std::string("type='signal',sender='") + HVB::bus::kHubName + "',interface='" + HVB::bus::kHubInterface +
             "',member='" + HVB::bus::kLogStoredMember + "'");
    addMatch(matchOfOwner(HVB::bus::kHubName));
}

void HubClient::subscribeToFarewell() {
    addMatch(matchOfOwner(HVB::bus::kHubName));
    addMatch(matchOfOwner(HVB::bus::moduleName(HVB::MODULE_SENTREL)));
}

/// Deals with what has arrived. @return false when nothing has and a wait is due.
bool HubClient::takeMessage(bool& isStored) {
    sd_bus_message* received = nullptr;
    const int more = sd_bus_process(m_bus.get(), &received);
    const HVB::bus::MessagePtr message(received);
    check(more, "listening to the hub");
    if (message) {
        refuseFarewell(*message);
        isStored = isStored ||
                   sd_bus_message_is_signal(message.get(), HVB::bus::kHubInterface, HVB::bus::kLogStoredMember) > 0;
    }
    return more > 0;
}

HubClient::Wake HubClient::waitForRecord(int stopFd, int outputFd) {
    constexpr int noBell = -1;
    for (bool isStored = false;;) {
        if (takeMessage(isStored)) {
            continue;
        }
        if (isStored) {
            return Wake::Record;
        }
        if (const std::optional<Wake> wake = waitForInput(noBell, stopFd, outputFd); wake) {
            return *wake;
        }
    }
}

HubClient::Wake HubClient::waitForBell(int bellFd, int stopFd, int outputFd) {
    for (bool isStored = false;;) {
        if (takeMessage(isStored)) {
            continue;
        }
        if (const std::optional<Wake> wake = waitForInput(bellFd, stopFd, outputFd); wake) {
            return *wake;
        }
    }
}

std::optional<HubClient::Wake> HubClient::waitForInput(int bellFd, int stopFd, int outputFd) {
    const int events = sd_bus_get_events(m_bus.get());
    check(events, "listening to the hub");
    constexpr int forEver = -1;
    // No event is asked of the output: poll always tells when its reader has gone.
    std::array<pollfd, 4> waiting{{{sd_bus_get_fd(m_bus.get()), static_cast<short>(events), 0},
                                   {stopFd, POLLIN, 0},
                                   {outputFd, 0, 0},
                                   {bellFd, POLLIN, 0}}};
    while (::poll(waiting.data(), waiting.size(), forEver) < 0) {
        if (errno != EINTR) {
            check(-errno, "waiting for the hub");
        }
    }
    if (waiting[1].revents != 0) {
        return Wake::Stop;
    }
    if (waiting[2].revents != 0) {
        return Wake::OutputGone;
    }
    return waiting[3].revents != 0 ? std::optional(Wake::Bell) : std::nullopt;
}

} // namespace Sentrel::ctl
