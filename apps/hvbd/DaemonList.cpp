// Replacing a list that others replace too. The daemon has no "change it if it is still so", so what can be had is
// this:
//
// - A list is taken only when it is at rest: the file as the settings keeper read it just now holds what the daemon has
//   in force. In the middle of somebody else's change the daemon's list is a part of it, and what was written from it
//   would lose the rest.
// - The new list is ready to be sent before the list is read once more and compared. What is left between that look and
//   the daemon's taking the change is one message's way.
// - Afterwards the list is read back: the change must be in it, whatever others did meanwhile.
#include "apps/hvbd/DaemonList.h"

#include "apps/hvbd/HvbdLimits.h"
#include "hub/HVBMessages.h"
#include "hub/STPreferences.h"
#include "platform/hvbhelpers/Carriers.h"
#include "platform/hvbhelpers/HubProtocol.h"
#include "platform/hvbhelpers/SnapshotText.h"
#include "platform/settings/SettingsSnapshot.h"
#include "policy/PolicyLimits.h"

#include <fmt/format.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <utility>

namespace HVB::hub {
namespace {

namespace settings = Sentrel::settings;

[[noreturn]] void cannotNow(const std::string& why) {
    throw ListError(ListError::Kind::Trouble, why);
}

bus::Deadline deadlineIn(std::chrono::seconds wait) {
    return std::chrono::steady_clock::now() + wait;
}

settings::SettingsSnapshot freshSettings(sd_bus& bus) {
    try {
        return settings::snapshotOf(
            bus::askForSettings(bus, bus::kSettingsMember, true, deadlineIn(kListReadDeadline)));
    } catch (const settings::SnapshotError& error) {
        cannotNow(fmt::format("the settings keeper told no settings: {}", error.what()));
    }
}

/// The entries that the file holds. The daemon takes NULs at an entry's end for padding.
EntryList storedList(const settings::SettingsSnapshot& snapshot) {
    EntryList list;
    for (const settings::ListEntry& entry : snapshot.allowBlock) {
        const std::size_t last = entry.name.find_last_not_of('\0');
        list.emplace_back(entry.name.substr(0, last == std::string::npos ? 0 : last + 1), entry.value);
    }
    return list;
}

/// Whether both hold the same; the file's order is its own.
bool haveSameEntries(EntryList one, EntryList other) {
    std::sort(one.begin(), one.end());
    std::sort(other.begin(), other.end());
    return one == other;
}

void fillChange(CommandData& command, const EntryList& list) {
    if (std::cmp_greater(list.size(), Sentrel::policy::kMaxPolicyEntries)) {
        cannotNow(fmt::format("the list would have {} entries, and {} is the most: shorten it first", list.size(),
                              Sentrel::policy::kMaxPolicyEntries));
    }
    Sentrel::AllowBlockDetails details;
    for (const auto& [entry, action] : list) {
        details.emplace(entry, action);
    }
    Sentrel::STPreferences values;
    values.setAllowBlockDetails(details);
    values.m_prefType = Sentrel::ST_ALLOW_BLOCK_LIST;
    values.m_bIndividual = true;
    command.writePayload(values);
}

template <class Value>
Value valueIn(CommandResult& result) {
    Value value{};
    try {
        if (!result.m_bSucceeded || !result.m_bValid || result.m_pInArchive == nullptr) {
            cannotNow("the daemon says that it could not do it; its trace log may say more");
        }
        result.readPayload(value);
    } catch (const ListError&) {
        throw;
    } catch (const std::exception& error) {
        cannotNow(fmt::format("the daemon's answer cannot be read: {}", error.what()));
    }
    return value;
}

} // namespace

CallBreaker::CallBreaker() : m_tripped(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    bus::check(m_tripped.isOpen() ? 0 : -errno, "cannot make a descriptor");
}

void CallBreaker::trip() noexcept {
    const Sentrel::MutexLock lock(m_mutex);
    m_isTripped = true;
    // The counter of a new descriptor takes one more.
    static_cast<void>(eventfd_write(m_tripped.get(), 1));
    if (m_socket >= 0) {
        static_cast<void>(shutdown(m_socket, SHUT_RDWR));
    }
}

void CallBreaker::watch(int socket) {
    const Sentrel::MutexLock lock(m_mutex);
    if (m_isTripped) {
        throw HVBException(-ECANCELED, "hvbd ends");
    }
    m_socket = socket;
}

void CallBreaker::forget() noexcept {
    const Sentrel::MutexLock lock(m_mutex);
    m_socket = -1;
}

DaemonList::DaemonList(const std::string& socketPath, CallBreaker& breaker)
    : m_breaker(breaker), m_bus(bus::openBus(socketPath, deadlineIn(kListReadDeadline), breaker.fd())) {
    m_breaker.watch(sd_bus_get_fd(m_bus.get()));
}

DaemonList::~DaemonList() {
    m_breaker.forget(); // before the descriptor's number is another one's
}

void DaemonList::requireLocalGrants() {
    const settings::SettingsSnapshot snapshot = freshSettings(*m_bus);
    if (!snapshot.policy) {
        throw ListError(ListError::Kind::Refused,
                        "the settings keeper cannot see whether this machine is managed, so nothing is granted: let "
                        "its user look into the directory of agent.json");
    }
    if (snapshot.policy->isManaged && !snapshot.policy->allowsLocalGrants) {
        throw ListError(ListError::Kind::Refused,
                        "this machine is managed, and its enrolment leaves no grants to its own administrators: the "
                        "site gives access by its policy, or sets \"local_grants\": true in agent.json");
    }
}

EntryStanding DaemonList::standing(const std::string& entry) {
    return standingOf(settledList(), entry);
}

void DaemonList::change(const Edit& edit) {
    for (int attempt = 0; attempt < kListAttempts; ++attempt) {
        const EntryList before = settledList();
        EntryList wanted = before;
        if (!edit(wanted)) {
            return;
        }
        CommandData command(Sentrel::ST_SET_PREFS_INDIVIDUAL, MODULE_SENTREL, true);
        fillChange(command, wanted);
        if (listInForce() != before) {
            continue;
        }
        CommandResult result;
        send(command, result, deadlineIn(kListDeadline));
        if (const int error = valueIn<int>(result); error != Sentrel::ST_ERROR_NONE) {
            cannotNow(fmt::format("the daemon refuses the list with error {}", error));
        }
        if (EntryList now = listInForce(); edit(now)) {
            cannotNow("the daemon did not store the list whole: its file may be locked, or the disk full");
        }
        return;
    }
    cannotNow("others keep changing the list: try again later");
}

EntryList DaemonList::settledList() {
    const settings::SettingsSnapshot snapshot = freshSettings(*m_bus);
    if (snapshot.state == settings::SnapshotState::None) {
        cannotNow(fmt::format("the settings file cannot be read: {}", snapshot.reason));
    }
    EntryList list = listInForce();
    if (snapshot.isChanging || !haveSameEntries(list, storedList(snapshot))) {
        cannotNow("the list that is in force is not the stored one: somebody may be changing it, so try again; "
                  "'sentrelctl list show' tells more");
    }
    return list;
}

EntryList DaemonList::listInForce() {
    CommandData command(Sentrel::ST_GET_PREFS_INDIVIDUAL, MODULE_SENTREL, true);
    command.writePayload(static_cast<int>(Sentrel::ST_ALLOW_BLOCK_LIST));
    CommandResult result;
    send(command, result, deadlineIn(kListReadDeadline));
    const auto values = valueIn<Sentrel::STPreferences>(result);
    EntryList list;
    try {
        for (const auto& [entry, action] : values.getAllowBlockDetails()) {
            list.emplace_back(entry, action);
        }
    } catch (const std::exception& error) {
        cannotNow(fmt::format("the daemon's list cannot be read: {}", error.what()));
    }
    return list;
}

void DaemonList::send(CommandData& command, CommandResult& result, bus::Deadline deadline) {
    detail::CommandMessage message{command, detail::outgoingPayload(command)};
    detail::PayloadFiles files;
    files.moveOut(message.payload, bus::kMaxPayloadBytes);
    const bus::MessagePtr request =
        bus::newCall(*m_bus, bus::moduleName(MODULE_SENTREL), bus::modulePath(MODULE_SENTREL), bus::kModuleInterface,
                     bus::commandMember(command.m_commandId));
    detail::fill(*request, message);
    const bus::MessagePtr answer = bus::callAlone(*m_bus, *request, deadline);
    detail::ReplyMessage reply = detail::readReply(*answer);
    result.m_bSucceeded = reply.succeeded;
    result.m_bValid = reply.valid;
    detail::setInput(result, std::move(reply.payload));
}

} // namespace HVB::hub
