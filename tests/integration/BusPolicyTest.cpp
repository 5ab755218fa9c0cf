// Who may do what on the hub's bus, shown from outside: a real bus with the configuration that is shipped, run by the
// hub's user, and callers of four users. Everything here is refused or allowed by the bus itself; the modules answer
// whatever reaches them.
#include "platform/hvbhelpers/BusConnection.h"
#include "platform/hvbhelpers/HubProtocol.h"
#include "tests/support/AsUser.h"
#include "tests/support/Eventually.h"
#include "tests/support/HubBus.h"
#include "tests/support/OtherProcess.h"
#include "tests/support/PrivateRoot.h"

#include "hub/HubIds.h"
#include "tests/support/UnixSocket.h"

#include <gtest/gtest.h>

#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace HVB::bus;
using testing_support::asNobody;
using testing_support::asUser;
using testing_support::connectSocket;
using testing_support::HubBus;
using testing_support::kNobody;
using testing_support::kNogroup;
using testing_support::OtherProcess;
using testing_support::patience;
using testing_support::PrivateRoot;

constexpr const char* kDriver = "org.freedesktop.DBus";
constexpr const char* kDriverPath = "/org/freedesktop/DBus";

// Accounts that every Debian has and that nothing here runs as.
constexpr const char* kDaemonUser = "games";
constexpr const char* kHubUser = "bin";
constexpr const char* kAdminGroup = "staff";

uid_t uidOf(const char* name) {
    return ::getpwnam(name)->pw_uid;
}
gid_t gidOf(const char* name) {
    return ::getgrnam(name)->gr_gid;
}

/// "ok", or the name of the error.
std::string outcomeOf(sd_bus& bus, sd_bus_message& request) {
    try {
        (void)call(bus, request, patience());
        return "ok";
    } catch (const CallError& error) {
        return error.name();
    }
}

std::string sendCommand(const std::string& socketPath, int module, int id, Deadline connectDeadline = patience()) {
    const BusPtr bus = openBus(socketPath, connectDeadline);
    const MessagePtr request =
        newCall(*bus, moduleName(module), modulePath(module), kModuleInterface, commandMember(id));
    check(sd_bus_message_append(request.get(), "tiibibay", std::uint64_t{0}, -1, module, 1, 0, 0, 0), "append");
    return outcomeOf(*bus, *request);
}

std::string callWithoutArguments(const std::string& socketPath, const std::string& destination, const std::string& path,
                                 const char* interface, const char* member) {
    const BusPtr bus = openBus(socketPath, patience());
    return outcomeOf(*bus, *newCall(*bus, destination, path, interface, member));
}

std::string callHub(const std::string& socketPath, const char* member) {
    return callWithoutArguments(socketPath, kHubName, kHubPath, kHubInterface, member);
}

std::string checkHealth(const std::string& socketPath, int module) {
    return callWithoutArguments(socketPath, moduleName(module), modulePath(module), kModuleInterface,
                                kHealthCheckMember);
}

std::string own(const std::string& socketPath, const std::string& name) {
    const BusPtr bus = openBus(socketPath, patience());
    const MessagePtr request = newCall(*bus, kDriver, kDriverPath, kDriver, "RequestName");
    check(sd_bus_message_append(request.get(), "su", name.c_str(), 0), "append");
    return outcomeOf(*bus, *request);
}

std::string monitor(const std::string& socketPath) {
    const BusPtr bus = openBus(socketPath, patience());
    const MessagePtr request = newCall(*bus, kDriver, kDriverPath, "org.freedesktop.DBus.Monitoring", "BecomeMonitor");
    check(sd_bus_message_append(request.get(), "asu", 0, 0), "append");
    return outcomeOf(*bus, *request);
}

/// Sends an event, to everyone or to @p destination alone, and returns when the bus has dealt with it.
std::string emit(const std::string& socketPath, int id, int sequence, const char* destination = nullptr) {
    const BusPtr bus = openBus(socketPath, patience());
    sd_bus_message* raw = nullptr;
    check(sd_bus_message_new_signal(bus.get(), &raw, kEventsPath, kEventsInterface, eventMember(id).c_str()), "new");
    const MessagePtr event(raw);
    check(sd_bus_message_append(raw, "ibay", sequence, 0, 0), "append");
    check(destination != nullptr ? sd_bus_message_set_destination(raw, destination) : 0, "destination");
    check(sd_bus_send(bus.get(), raw, nullptr), "send");
    return outcomeOf(*bus, *newCall(*bus, kDriver, kDriverPath, kDriver, "GetId"));
}

int answerAnything(sd_bus_message* message, void* payload, sd_bus_error*) {
    const auto size = *static_cast<const std::size_t*>(payload);
    sd_bus_message* raw = nullptr;
    check(sd_bus_message_new_method_return(message, &raw), "new");
    const MessagePtr reply(raw);
    appendText(*reply, std::wstring(size, L'x'));
    return sd_bus_send(nullptr, raw, nullptr);
}

/// Takes names and answers every call on any object, with a text of this size, until the process ends.
void serve(const std::string& socketPath, const std::vector<std::string>& names, std::size_t replySize,
           const std::function<void()>& ready) {
    const BusPtr bus = openBus(socketPath, patience());
    check(sd_bus_add_fallback(bus.get(), nullptr, "/", &answerAnything, &replySize), "add object");
    for (const std::string& name : names) {
        check(sd_bus_request_name(bus.get(), name.c_str(), 0), "request name");
    }
    ready();
    while (sd_bus_process(bus.get(), nullptr) >= 0) {
        (void)sleepUntilReady(busWait(*bus), Deadline::max(), -1);
    }
}

class TheBusPolicy : public ::testing::Test {
protected:
    void SetUp() override {
        if (!testing_support::canActAsOthers()) {
            GTEST_SKIP() << "needs root, to act as a second, third and fourth user";
        }
        m_bus.emplace(m_root,
                      HVB::bus::BusConfigurationOptions{
                          .socketPath = "", .daemonUser = kDaemonUser, .hubUser = kHubUser, .adminGroup = kAdminGroup},
                      uidOf(kHubUser));
        m_socket = m_bus->socketPath();
        const std::size_t small = 1;
        m_daemon.emplace(uidOf(kDaemonUser), kNogroup, std::vector<gid_t>{},
                         [&](const auto& ready) { serve(m_socket, {moduleName(7)}, small, ready); });
        m_hub.emplace(uidOf(kHubUser), kNogroup, std::vector<gid_t>{}, [&](const auto& ready) {
            serve(m_socket, {moduleName(1), kHubName}, small, ready);
        });
    }

    std::string asDaemon(const std::function<std::string()>& work) {
        return asUser(uidOf(kDaemonUser), kNogroup, {}, work);
    }
    std::string asHub(const std::function<std::string()>& work) { return asUser(uidOf(kHubUser), kNogroup, {}, work); }
    std::string asAdministrator(const std::function<std::string()>& work) {
        return asUser(kNobody, kNogroup, {gidOf(kAdminGroup)}, work);
    }

    /// What the bus says to one who may not.
    const std::string refused = SD_BUS_ERROR_ACCESS_DENIED;

    PrivateRoot m_root;
    std::string m_socket;
    std::optional<HubBus> m_bus;
    std::optional<OtherProcess> m_daemon;
    std::optional<OtherProcess> m_hub;
};

TEST_F(TheBusPolicy, LetsAnyUserSendTheCommandsThatOnlyRead) {
    for (const int id : {1003, 1004, 1022, 100001, 100003}) {
        EXPECT_EQ(asNobody([&] { return sendCommand(m_socket, 7, id); }), "ok") << id;
    }
}

TEST_F(TheBusPolicy, RefusesAnyUserTheCommandsThatChange) {
    for (const int id : {100000, 100002, 100004, 1021, 999, 0, 424242}) {
        EXPECT_EQ(asNobody([&] { return sendCommand(m_socket, 7, id); }), refused) << id;
    }
    EXPECT_EQ(asNobody([&] { return sendCommand(m_socket, 1, 1023); }), refused);
    EXPECT_EQ(asNobody([&] { return sendCommand(m_socket, 1, 100001); }), refused) << "that is for module 7";
}

TEST_F(TheBusPolicy, RefusesAnyUserACommandWithoutAnInterface) {
    EXPECT_EQ(asNobody([&] {
                  return callWithoutArguments(m_socket, moduleName(7), modulePath(7), nullptr, "Command100001");
              }),
              refused);
}

TEST_F(TheBusPolicy, OpensNoCommandByLeadingZeros) {
    const auto sendPadded = [&](const char* member) {
        return callWithoutArguments(m_socket, moduleName(7), modulePath(7), kModuleInterface, member);
    };
    for (const char* member : {"Command0100001", "Command0100002", "Command01003"}) {
        EXPECT_EQ(asNobody([&] { return sendPadded(member); }), refused) << member;
        EXPECT_EQ(asAdministrator([&] { return sendPadded(member); }), refused) << member;
        EXPECT_EQ(asHub([&] { return sendPadded(member); }), "ok") << member;
        EXPECT_EQ(sendPadded(member), "ok") << member << ", sent by root";
    }
}

TEST_F(TheBusPolicy, RefusesAnyUserTheHubsOwnCalls) {
    for (const char* member :
         {kLogMember, kLogNumberedMember, kLogMessageMember, kReadLogMember, kStatusMember, kHandInSettingsMember}) {
        EXPECT_EQ(asNobody([&] { return callHub(m_socket, member); }), refused) << member;
    }
    EXPECT_EQ(asNobody([&] { return checkHealth(m_socket, 7); }), refused);
}

TEST_F(TheBusPolicy, GivesNoNameToAnyUserAndNoneToRoot) {
    for (const std::string& name :
         {moduleName(7), moduleName(1), std::string(kHubName), std::string(kKeeperName), moduleName(2)}) {
        EXPECT_EQ(asNobody([&] { return own(m_socket, name); }), refused) << name;
        EXPECT_EQ(own(m_socket, name), refused) << name;
    }
}

TEST_F(TheBusPolicy, GivesEachServiceItsOwnNamesOnly) {
    EXPECT_EQ(asDaemon([&] { return own(m_socket, moduleName(7)); }), "ok");
    EXPECT_EQ(asDaemon([&] { return own(m_socket, kKeeperName); }), "ok");
    EXPECT_EQ(asHub([&] { return own(m_socket, kKeeperName); }), refused);
    EXPECT_EQ(asDaemon([&] { return own(m_socket, moduleName(1)); }), refused);
    EXPECT_EQ(asDaemon([&] { return own(m_socket, kHubName); }), refused);
    EXPECT_EQ(asHub([&] { return own(m_socket, moduleName(1)); }), "ok");
    EXPECT_EQ(asHub([&] { return own(m_socket, kHubName); }), "ok");
    EXPECT_EQ(asHub([&] { return own(m_socket, moduleName(7)); }), refused);
}

TEST_F(TheBusPolicy, LetsRootMonitorAndNoOtherUser) {
    EXPECT_EQ(asNobody([&] { return monitor(m_socket); }), refused);
    EXPECT_EQ(asAdministrator([&] { return monitor(m_socket); }), refused);
    EXPECT_EQ(asDaemon([&] { return monitor(m_socket); }), refused);
    EXPECT_EQ(monitor(m_socket), "ok");
}

TEST_F(TheBusPolicy, LetsAdministratorsSendEveryCommandAndReadTheLog) {
    for (const Sentrel::CommandInfo& command : Sentrel::kCommands) {
        EXPECT_EQ(asAdministrator([&] { return sendCommand(m_socket, command.receiver, command.id); }), "ok")
            << command.name;
    }
    EXPECT_EQ(asAdministrator([&] { return callHub(m_socket, kReadLogMember); }), "ok");
    EXPECT_EQ(asAdministrator([&] { return callHub(m_socket, kLogMember); }), refused);
    EXPECT_EQ(asAdministrator([&] { return callHub(m_socket, kLogNumberedMember); }), refused);
    EXPECT_EQ(asAdministrator([&] { return own(m_socket, moduleName(7)); }), refused);
    EXPECT_EQ(asAdministrator([&] { return sendCommand(m_socket, 7, 424242); }), refused);
}

TEST_F(TheBusPolicy, LetsAdministratorsAskForTheHealthAndRefusesItToAnyUserAndToTheDaemon) {
    EXPECT_EQ(asAdministrator([&] { return callHub(m_socket, kStatusMember); }), "ok");
    EXPECT_EQ(asAdministrator([&] { return checkHealth(m_socket, 7); }), "ok");
    EXPECT_EQ(asAdministrator([&] { return checkHealth(m_socket, 1); }), refused) << "the hub is not asked";
    for (const auto& [text, ask] : std::vector<std::pair<std::string, std::function<std::string()>>>{
             {"Status", [&] { return callHub(m_socket, kStatusMember); }},
             {"HealthCheck", [&] { return checkHealth(m_socket, 7); }}}) {
        EXPECT_EQ(asNobody(ask), refused) << text;
        EXPECT_EQ(asDaemon(ask), refused) << text;
        EXPECT_EQ(asHub(ask), "ok") << text;
        EXPECT_EQ(ask(), "ok") << text << ", asked by root";
    }
}

TEST_F(TheBusPolicy, LetsRootCallEverything) {
    for (const Sentrel::CommandInfo& command : Sentrel::kCommands) {
        EXPECT_EQ(sendCommand(m_socket, command.receiver, command.id), "ok") << command.name;
    }
    EXPECT_EQ(sendCommand(m_socket, 7, 424242), "ok") << "the module is the one to refuse it";
    EXPECT_EQ(callHub(m_socket, kReadLogMember), "ok");
    EXPECT_EQ(callHub(m_socket, kLogMember), "ok");
    EXPECT_EQ(callHub(m_socket, kLogNumberedMember), "ok");
    EXPECT_EQ(checkHealth(m_socket, 7), "ok");
}

TEST_F(TheBusPolicy, LetsTheServicesDoTheirWork) {
    EXPECT_EQ(asDaemon([&] { return sendCommand(m_socket, 1, 1023); }), "ok");
    for (const char* member : {kLogMember, kLogNumberedMember, kLogMessageMember, kReadLogMember}) {
        EXPECT_EQ(asDaemon([&] { return callHub(m_socket, member); }), "ok") << member;
    }
    EXPECT_EQ(asHub([&] { return checkHealth(m_socket, 7); }), "ok");
}

TEST_F(TheBusPolicy, LetsAnyUserAskForAccessAndOnlyAdministratorsAnswer) {
    const auto callRequests = [&](const char* member) {
        return callWithoutArguments(m_socket, kHubName, kRequestsPath, kRequestsInterface, member);
    };
    for (const char* member : {kAskForAccessMember, kReadOwnRequestsMember}) {
        EXPECT_EQ(asNobody([&] { return callRequests(member); }), "ok") << member;
        EXPECT_EQ(asAdministrator([&] { return callRequests(member); }), "ok") << member;
    }
    for (const char* member :
         {kReadRequestsMember, kGrantRequestMember, kDenyRequestMember, kReadGrantsMember, kRevokeGrantMember}) {
        EXPECT_EQ(asNobody([&] { return callRequests(member); }), refused) << member;
        EXPECT_EQ(asDaemon([&] { return callRequests(member); }), refused) << member;
        EXPECT_EQ(asAdministrator([&] { return callRequests(member); }), "ok") << member;
        EXPECT_EQ(callRequests(member), "ok") << member << ", by root";
    }
}

TEST_F(TheBusPolicy, LetsAnyUserReadTheSettingsAndOnlyTheDaemonsHandThemIn) {
    for (const char* member : {kSettingsMember, kLastWholeSettingsMember}) {
        EXPECT_EQ(asNobody([&] { return callHub(m_socket, member); }), "ok") << member;
    }
    const auto handIn = [&] { return callHub(m_socket, kHandInSettingsMember); };
    EXPECT_EQ(asNobody(handIn), refused);
    EXPECT_EQ(asAdministrator(handIn), refused);
    EXPECT_EQ(asDaemon(handIn), "ok");
    EXPECT_EQ(handIn(), "ok") << "by root";
}

TEST_F(TheBusPolicy, LetsOnlyTheHubAndRootAskTheSettingsKeeper) {
    const OtherProcess keeper(uidOf(kDaemonUser), kNogroup, {},
                              [&](const auto& ready) { serve(m_socket, {kKeeperName}, 1, ready); });
    const auto ask = [&] {
        return callWithoutArguments(m_socket, kKeeperName, kKeeperPath, kKeeperInterface, kReadNowMember);
    };
    EXPECT_EQ(asNobody(ask), refused);
    EXPECT_EQ(asAdministrator(ask), refused);
    EXPECT_EQ(asDaemon(ask), refused);
    EXPECT_EQ(asHub(ask), "ok");
    EXPECT_EQ(ask(), "ok") << "by root";
    const auto note = [&] {
        return callWithoutArguments(m_socket, kKeeperName, kKeeperPath, kKeeperInterface, kNoteReplacementMember);
    };
    EXPECT_EQ(asNobody(note), refused);
    EXPECT_EQ(asAdministrator(note), "ok");
    EXPECT_EQ(note(), "ok") << "by root";
}

class AnEventOnTheBus : public TheBusPolicy, public testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(Each, AnEventOnTheBus, testing::Values(1002, 1003, 1005, 1007));

TEST_P(AnEventOnTheBus, ComesFromTheServicesAndFromRootAndFromNobodyElse) {
    const int id = GetParam();
    const BusPtr subscriber = openBus(m_socket, patience());
    std::vector<int> sequences;
    const auto note = [](sd_bus_message* message, void* list, sd_bus_error*) {
        int sequence = 0;
        sd_bus_message_read(message, "i", &sequence);
        static_cast<std::vector<int>*>(list)->push_back(sequence);
        return 0;
    };
    check(sd_bus_match_signal(subscriber.get(), nullptr, nullptr, nullptr, kEventsInterface,
                              ("Event" + std::to_string(id)).c_str(), note, &sequences),
          "match");
    const char* name = nullptr;
    check(sd_bus_get_unique_name(subscriber.get(), &name), "name");
    const std::string uniqueName = name;
    EXPECT_EQ(asNobody([&] { return emit(m_socket, id, 1); }), "ok");
    EXPECT_EQ(asNobody([&] { return emit(m_socket, id, 2, uniqueName.c_str()); }), "ok");
    EXPECT_EQ(asAdministrator([&] { return emit(m_socket, id, 3); }), "ok");
    EXPECT_EQ(asDaemon([&] { return emit(m_socket, id, 4); }), "ok");
    EXPECT_EQ(asHub([&] { return emit(m_socket, id, 5); }), "ok");
    EXPECT_EQ(emit(m_socket, id, 6), "ok");
    EXPECT_TRUE(testing_support::eventually([&] {
        while (sd_bus_process(subscriber.get(), nullptr) > 0) {
        }
        return !sequences.empty() && sequences.back() == 6;
    }));
    EXPECT_EQ(sequences, (std::vector<int>{4, 5, 6}));
}

TEST_F(TheBusPolicy, LetsAnyUserLookAround) {
    for (const char* member : {"ListNames", "GetId"}) {
        EXPECT_EQ(asNobody([&] { return callWithoutArguments(m_socket, kDriver, kDriverPath, kDriver, member); }),
                  "ok");
    }
    EXPECT_EQ(asNobody([&] {
                  return callWithoutArguments(m_socket, moduleName(7), modulePath(7),
                                              "org.freedesktop.DBus.Introspectable", "Introspect");
              }),
              "ok");
    EXPECT_EQ(asNobody([&] { return callWithoutArguments(m_socket, kDriver, kDriverPath, kDriver, "ReloadConfig"); }),
              refused);
}

TEST_F(TheBusPolicy, OpensNothingWhenItsGroupDoesNotExist) {
    m_hub.reset();
    m_daemon.reset();
    m_bus.reset();
    m_bus.emplace(m_root,
                  HVB::bus::BusConfigurationOptions{
                      .socketPath = "", .daemonUser = kDaemonUser, .hubUser = kHubUser, .adminGroup = "no-such-group"},
                  uidOf(kHubUser));
    const OtherProcess daemon(uidOf(kDaemonUser), kNogroup, {},
                              [&](const auto& ready) { serve(m_socket, {moduleName(7)}, 1, ready); });
    EXPECT_EQ(asNobody([&] { return sendCommand(m_socket, 7, 100000); }), refused);
    EXPECT_EQ(asNobody([&] { return sendCommand(m_socket, 7, 100001); }), "ok");
    EXPECT_EQ(sendCommand(m_socket, 7, 100000), "ok");
}

// One user against the others.

constexpr int kCrowd = 300;

/// A connection that takes longer than this is given up by the modules themselves.
Deadline moduleDeadline() {
    return std::chrono::steady_clock::now() + kCallTimeout;
}

TEST_F(TheBusPolicy, KeepsNobodyOutWhileAUserHoldsSilentConnections) {
    const OtherProcess crowd(kNobody, kNogroup, {}, [&](const auto& ready) {
        for (int i = 0; i < kCrowd; ++i) {
            const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
            if (!connectSocket(fd, m_socket)) {
                throw std::runtime_error("cannot connect");
            }
        }
        ready();
    });
    EXPECT_EQ(sendCommand(m_socket, 7, 100000, moduleDeadline()), "ok");
    EXPECT_EQ(asDaemon([&] { return sendCommand(m_socket, 1, 1023, moduleDeadline()); }), "ok");
}

TEST_F(TheBusPolicy, KeepsNobodyOutWhileAUserHoldsAsManyConnectionsAsItGets) {
    const OtherProcess crowd(kNobody, kNogroup, {}, [&](const auto& ready) {
        std::vector<BusPtr> connections;
        int refusals = 0;
        for (int i = 0; i < kCrowd; ++i) {
            try {
                connections.push_back(openBus(m_socket, patience()));
            } catch (const HVB::HVBException&) {
                ++refusals;
            }
        }
        if (connections.empty() || refusals == 0) {
            throw std::runtime_error("there is no limit for one user");
        }
        ready();
        for (;;) {
            ::pause();
        }
    });
    EXPECT_EQ(sendCommand(m_socket, 7, 100000, moduleDeadline()), "ok");
    EXPECT_EQ(asDaemon([&] { return sendCommand(m_socket, 1, 1023, moduleDeadline()); }), "ok");
}

/// Regression: what one client leaves unread counts as on its way for the module that sent it. With the bus's own
/// limit for that the bus stopped reading from the module, and nobody else was answered any more.
TEST_F(TheBusPolicy, KeepsAModuleAnsweringWhileAUserReadsNoReplies) {
    m_daemon.reset();
    const std::size_t large = 60'000; // characters: 240 kB
    const OtherProcess daemon(uidOf(kDaemonUser), kNogroup, {},
                              [&](const auto& ready) { serve(m_socket, {moduleName(7)}, large, ready); });
    const OtherProcess deaf(kNobody, kNogroup, {}, [&](const auto& ready) {
        std::vector<BusPtr> connections;
        for (int connection = 0; connection < 12; ++connection) {
            connections.push_back(openBus(m_socket, patience()));
            for (int i = 0; i < 10; ++i) {
                std::uint64_t cookie = 0; // without one sd-bus would ask for no reply
                const MessagePtr request =
                    newCall(*connections.back(), moduleName(7), modulePath(7), kModuleInterface, commandMember(100001));
                check(sd_bus_send(connections.back().get(), request.get(), &cookie), "send");
            }
            check(sd_bus_flush(connections.back().get()), "flush");
        }
        ready();
        for (;;) {
            ::pause();
        }
    });
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(sendCommand(m_socket, 7, 100000), "ok");
    }
}

TEST(ABusOfOneUser, RefusesASecondUserAllTheSame) {
    if (!testing_support::canActAsOthers()) {
        GTEST_SKIP() << "needs root, to act as a second user";
    }
    const PrivateRoot root;
    const HubBus bus(root);
    EXPECT_EQ(asNobody([&] { return own(bus.socketPath(), moduleName(7)); }), SD_BUS_ERROR_ACCESS_DENIED);
    EXPECT_EQ(own(bus.socketPath(), moduleName(7)), "ok");
}

} // namespace
