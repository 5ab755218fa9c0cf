// hvbd as its clients see it: the methods, the health checks, start and end. Bus, processes and files are real; the
// module whose health is checked is this test's own process.
#include "hub/HVBCommBroker.h"
#include "platform/hvbhelpers/HVBHelpers.h"
#include "tests/integration/HvbdModule.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <condition_variable>
#include <cstring>
#include <limits>
#include <mutex>
#include <string>

using namespace testing_support;
using testing::ElementsAre;
using testing::HasSubstr;
namespace bus = HVB::bus;
namespace fs = std::filesystem;

namespace {

TEST_F(AHub, GivesBackEachRecordAsItWasLogged) {
    start();
    HubClient caller = client();
    const std::wstring odd{0, 1, static_cast<wchar_t>(0xFFFFFFC3), static_cast<wchar_t>(0xFFFFFFFF), 0x1F600};
    EXPECT_EQ(caller.log(odd, L""), 1U);
    const auto records = caller.read();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].id, 1U);
    EXPECT_EQ(records[0].source, 7);
    EXPECT_EQ(records[0].type, 8);
    EXPECT_EQ(records[0].text, odd);
    EXPECT_EQ(records[0].detail, L"");
    EXPECT_EQ(records[0].count, 1);
    EXPECT_GT(records[0].storedAt, 1'600'000'000'000'000);
}

TEST_F(AHub, ReadsTheFirstOrTheLastRecordsWithinItsLimits) {
    start();
    HubClient caller = client();
    for (int i = 0; i < 5; ++i) {
        caller.log(L"x");
    }
    EXPECT_THAT(caller.ids(0, 2), ElementsAre(1, 2));
    EXPECT_THAT(caller.ids(2, 2), ElementsAre(3, 4));
    EXPECT_THAT(caller.ids(0, 2, true), ElementsAre(4, 5));
    EXPECT_THAT(caller.ids(5), ElementsAre());
    // Together more than the 512 KiB of one reply.
    const std::wstring text(50 << 10, L'x'); // 200 KiB
    caller.log(text);
    caller.log(text, text);
    EXPECT_THAT(caller.ids(5), ElementsAre(6));
    EXPECT_THAT(caller.ids(6), ElementsAre(7));
}

TEST_F(AHub, TakesTheLargestMessageThatItAllows) {
    start();
    HubClient caller = client();
    const std::wstring largest(bus::kMaxTextBytes / sizeof(wchar_t), L'x');
    EXPECT_EQ(caller.log(largest, largest), 1U);
    EXPECT_EQ(caller.read().front().detail, largest);
}

TEST_F(AHub, SignalsEachRecordThatCanBeRead) {
    start();
    HubClient listener = client();
    std::vector<std::uint64_t> stored;
    const auto note = [](sd_bus_message* message, void* ids, sd_bus_error*) {
        std::uint64_t id = 0;
        sd_bus_message_read(message, bus::kLogStoredSignature, &id);
        static_cast<std::vector<std::uint64_t>*>(ids)->push_back(id);
        return 0;
    };
    bus::check(sd_bus_match_signal(&listener.bus(), nullptr, nullptr, bus::kHubPath, bus::kHubInterface,
                                   bus::kLogStoredMember, note, &stored),
               "match");
    HubClient caller = client();
    caller.log(L"one");
    caller.log(L"two");
    while (stored.size() < 2) {
        if (sd_bus_process(&listener.bus(), nullptr) == 0) {
            ASSERT_GT(sd_bus_wait(&listener.bus(), std::chrono::microseconds(kPatience).count()), 0);
        }
    }
    EXPECT_THAT(stored, ElementsAre(1, 2));
}

TEST_F(AHub, RefusesMalformedMessagesAndSaysWhy) {
    start();
    HubClient caller = client();
    const auto logBytes = [&](std::size_t textBytes) {
        return refusalOf([&] {
            const std::string bytes(textBytes, 'x');
            const auto message = caller.newCall(bus::kLogMember);
            bus::check(sd_bus_message_append(message.get(), "ii", 7, 8), "append");
            bus::check(sd_bus_message_append_array(message.get(), 'y', bytes.data(), bytes.size()), "append");
            bus::check(sd_bus_message_append_array(message.get(), 'y', nullptr, 0), "append");
            bus::check(sd_bus_message_append(message.get(), "i", 1), "append");
            caller.call(*message);
        });
    };
    EXPECT_EQ(logBytes(3),
              (Refusal{bus::kErrorBadMessage, "the text has 3 bytes, which is no whole number of wide characters"}));
    EXPECT_EQ(logBytes(bus::kMaxTextBytes + 4),
              (Refusal{bus::kErrorBadMessage, "the text has 262148 bytes; 262144 is the most"}));
    EXPECT_EQ(refusalOf([&] { caller.logMessage(4, L"x"); }),
              (Refusal{bus::kErrorBadMessage, "4 is no log level; 0 to 3 are"}));
    const auto wrong = caller.newCall(bus::kLogMember);
    bus::check(sd_bus_message_append(wrong.get(), "s", "x"), "append");
    EXPECT_EQ(refusalOf([&] { caller.call(*wrong); }).name, SD_BUS_ERROR_INVALID_ARGS);
    EXPECT_EQ(caller.log(L"x"), 1U);
}

TEST_F(AHub, DescribesItselfToBusctl) {
    start();
    ChildProcess busctl("busctl", {.arguments = {"--address=" + bus->address(), "introspect", "com.orvanta.hvb1.Hub",
                                                 "/com/orvanta/hvb1/Hub", "com.orvanta.hvb1.Hub"},
                                   .environment = {},
                                   .outputFile = root.file("busctl.out"),
                                   .uid = {},
                                   .gid = {}});
    ASSERT_EQ(busctl.waitUntil(patience()), 0);
    for (const char* member : {".Log ", ".LogNumbered ", ".LogMessage ", ".ReadLog ", ".Status ", ".LogStored "}) {
        EXPECT_THAT(busctl.output(), HasSubstr(member));
    }
}

TEST_F(AHub, WritesAModulesLineOnceWithItsTextMadePrintable) {
    start();
    client().logMessage(HVB::LOG_LEVEL_WARNING, L"a\nb\x1b[31m");
    EXPECT_EQ(lines("]: module 7 (Sentrel): a\\x0ab\\x1b[31m\n"), 1U) << hvbd->output();
}

TEST_F(AHub, CutsALineThatIsTooLong) {
    start();
    client().logMessage(HVB::LOG_LEVEL_WARNING, std::wstring(60'000, L'x'));
    EXPECT_EQ(lines("(Sentrel): " + std::string(2045, 'x') + "…\n"), 1U);
}

TEST_F(AHubWithAModule, RefusesOtherCommands) {
    start();
    HVB::CommandData command(Sentrel::ST_GET_PREFS, HVB::MODULE_HUB, true);
    HVB::CommandResult result;
    EXPECT_THROW(broker().sendCommand(command, &result, true, static_cast<int>(kPatience.count())), HVB::HVBException);
    EXPECT_EQ(reload(42), "module 42 has no configuration that hvbd knows") << "still serving";
}

/// Says how the module is, or nothing while it hangs.
/// Threads: thread-safe. Owner: the test; it outlives the broker.
class Pulse : public HVB::HealthCheckInterface {
public:
    bool handleHealthCheck() override {
        std::unique_lock lock(m_mutex);
        if (!m_changed.wait_until(lock, patience(), [this] { return !m_hangs; })) {
            ADD_FAILURE() << "waited in vain for the test to end the hang";
        }
        return m_well;
    }

    void set(bool well, bool hangs) {
        const std::lock_guard lock(m_mutex);
        m_well = well;
        m_hangs = hangs;
        m_changed.notify_all();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_well = true;
    bool m_hangs = false;
};

class AHubThatChecksHealth : public AHubWithAModule {
protected:
    AHubThatChecksHealth() { configure("<SyslogEnable>true</SyslogEnable><LogLevel>information</LogLevel>"); }
    ~AHubThatChecksHealth() override {
        pulse.set(true, false);
        HVB::HVBCommBroker::releaseInstance();
    }

    void startModule() {
        broker().setHVId(HVB::MODULE_SENTREL);
        broker().setHealthCheckInterface(&pulse);
        broker().start(true);
    }

    bool becomes(const std::string& state) {
        HubClient caller = client();
        return eventually([&] { return caller.healthOf(HVB::MODULE_SENTREL) == state; });
    }

    Pulse pulse;
};

TEST_F(AHubThatChecksHealth, LogsHowAModuleIsWhenThatChangesAndNotOftener) {
    start({"--health-interval", "1"});
    startModule();
    EXPECT_TRUE(becomes("well"));
    EXPECT_EQ(lines("module 7 is well\n"), 1U);
    pulse.set(false, false);
    EXPECT_TRUE(becomes("unwell"));
    EXPECT_EQ(lines("module 7 says that it is not well\n"), 1U);
    pulse.set(true, true);
    EXPECT_TRUE(becomes("silent"));
    EXPECT_EQ(lines("module 7 does not answer its health check: "), 1U);
    EXPECT_EQ(client().log(L"x"), 1U) << "a module that hangs holds nobody up";
    pulse.set(true, false);
    EXPECT_TRUE(becomes("well"));
    EXPECT_EQ(lines("module 7 is well again\n"), 1U);
    EXPECT_EQ(lines("]: module 7 "), 4U) << hvbd->output();
}

TEST_F(AHubThatChecksHealth, LogsThatAModuleIsGoneAndThatItIsBack) {
    start({"--health-interval", "1"});
    startModule();
    EXPECT_TRUE(becomes("well"));
    HVB::HVBCommBroker::releaseInstance();
    EXPECT_TRUE(becomes("gone"));
    startModule();
    EXPECT_TRUE(becomes("well"));
    EXPECT_EQ(lines("module 7 is gone from the bus"), 1U);
    EXPECT_EQ(lines("module 7 is back and is well\n"), 1U);
}

TEST_F(AHubThatChecksHealth, MarksAModuleForARestartThatGoesOnHanging) {
    start({"--health-interval", "1", "--silence-marks", root.hubVarDirectory()});
    startModule();
    EXPECT_TRUE(becomes("well"));
    pulse.set(true, true);
    const std::string mark = root.hubVarDirectory() + "/module-7";
    EXPECT_TRUE(eventually([&] { return std::filesystem::exists(mark); })) << hvbd->output();
    pulse.set(true, false);
    EXPECT_TRUE(eventually([&] { return !std::filesystem::exists(mark); })) << hvbd->output();
}

/// hvbd whose rounds are an hour apart: what it learns here, the bus has told it.
class AHubThatHearsOfModules : public AHubThatChecksHealth {
protected:
    void startHub() { start({"--health-interval", "3600"}); }

    /// Takes the module's name on a connection of its own, and answers its health checks only when it is told to.
    struct BareModule {
        explicit BareModule(const std::string& socketPath) : connection(bus::openBus(socketPath, patience())) {
            bus::check(sd_bus_add_object(connection.get(), nullptr, bus::modulePath(HVB::MODULE_SENTREL).c_str(),
                                         answer, this),
                       "serve");
        }
        void takeName(std::uint64_t flags = 0) {
            bus::check(sd_bus_request_name(connection.get(), bus::moduleName(HVB::MODULE_SENTREL).c_str(), flags),
                       "take the name");
        }
        /// Answers what has come.
        void work() {
            while (sd_bus_process(connection.get(), nullptr) > 0) {
            }
        }
        static int answer(sd_bus_message* call, void* self, sd_bus_error* error) {
            auto& module = *static_cast<BareModule*>(self);
            if (sd_bus_message_is_method_call(call, bus::kModuleInterface, bus::kHealthCheckMember) <= 0) {
                return 0;
            }
            if (module.holds) {
                module.held.reset(sd_bus_message_ref(call));
                return 1;
            }
            if (++module.asked <= module.errors) {
                return sd_bus_error_set(error, bus::kErrorUnknownCommand, "not yet");
            }
            return sd_bus_reply_method_return(call, "b", module.isWell ? 1 : 0);
        }

        bus::BusPtr connection;
        int asked = 0;
        int errors = 0; ///< how many of the first questions are answered with an error
        bool isWell = true;
        bool holds = false;   ///< keeps a question instead of answering it
        bus::MessagePtr held; ///< such a question
    };
};

TEST_F(AHubThatHearsOfModules, KnowsAtOnceThatAModuleHasComeAndGone) {
    startHub();
    EXPECT_EQ(client().healthOf(HVB::MODULE_SENTREL), "unknown");
    startModule();
    EXPECT_TRUE(becomes("well"));
    HVB::HVBCommBroker::releaseInstance();
    EXPECT_TRUE(becomes("gone"));
    startModule();
    EXPECT_TRUE(becomes("well"));
    EXPECT_EQ(lines("module 7 is well\n"), 1U);
    EXPECT_EQ(lines("module 7 is gone from the bus\n"), 1U);
    EXPECT_EQ(lines("module 7 is back and is well\n"), 1U);
    EXPECT_EQ(lines("]: module 7 is "), 3U) << hvbd->output();
}

TEST_F(AHubThatHearsOfModules, KnowsAModuleThatWasThereBefore) {
    startModule();
    startHub();
    EXPECT_TRUE(becomes("well"));
}

TEST_F(AHubThatHearsOfModules, AsksAModuleAgainThatHasItsNameBeforeItCanAnswer) {
    startHub();
    BareModule module(root.hubSocket());
    module.errors = 3;
    module.takeName();
    HubClient caller = client();
    EXPECT_TRUE(eventually([&] {
        module.work();
        return caller.healthOf(HVB::MODULE_SENTREL) == "well";
    }));
    EXPECT_EQ(module.asked, 4);
    EXPECT_EQ(lines("module 7 does not answer"), 0U) << hvbd->output();
}

TEST_F(AHubThatHearsOfModules, FindsAModuleSilentThatGoesOnAnsweringWithAnError) {
    startHub();
    BareModule module(root.hubSocket());
    module.errors = std::numeric_limits<int>::max();
    module.takeName();
    HubClient caller = client();
    EXPECT_TRUE(eventually([&] {
        module.work();
        return caller.healthOf(HVB::MODULE_SENTREL) == "silent";
    }));
    EXPECT_EQ(lines("module 7 does not answer its health check: not yet\n"), 1U) << hvbd->output();
}

TEST_F(AHubThatHearsOfModules, AsksTheProcessThatTakesTheNameOver) {
    startHub();
    BareModule first(root.hubSocket());
    BareModule second(root.hubSocket());
    second.isWell = false;
    HubClient caller = client();
    const auto isTold = [&](const std::string& state) {
        return eventually([&] {
            first.work();
            second.work();
            return caller.healthOf(HVB::MODULE_SENTREL) == state;
        });
    };
    first.takeName(SD_BUS_NAME_ALLOW_REPLACEMENT);
    EXPECT_TRUE(isTold("well"));
    second.takeName(SD_BUS_NAME_REPLACE_EXISTING);
    EXPECT_TRUE(isTold("unwell"));
    EXPECT_EQ(first.asked, 1);
    EXPECT_EQ(second.asked, 1);
    EXPECT_EQ(lines("is gone from the bus"), 0U) << "the name was never free";
}

TEST_F(AHubThatHearsOfModules, DropsTheQuestionToAProcessThatHasLostTheName) {
    startHub();
    BareModule first(root.hubSocket());
    first.holds = true;
    first.isWell = false;
    first.takeName(SD_BUS_NAME_ALLOW_REPLACEMENT);
    ASSERT_TRUE(eventually([&] {
        first.work();
        return first.held != nullptr;
    }));
    BareModule second(root.hubSocket());
    second.takeName(SD_BUS_NAME_REPLACE_EXISTING);
    HubClient caller = client();
    EXPECT_TRUE(eventually([&] {
        second.work();
        return caller.healthOf(HVB::MODULE_SENTREL) == "well";
    }));
    bus::check(sd_bus_reply_method_return(first.held.get(), "b", 0), "answer late");
    // The bus has passed the answer on when it answers this.
    bus::call(*first.connection,
              *bus::newCall(*first.connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                            "GetId"),
              patience());
    EXPECT_EQ(caller.healthOf(HVB::MODULE_SENTREL), "well");
    EXPECT_EQ(lines("]: module 7 "), 1U) << hvbd->output();
}

TEST_F(AHubThatHearsOfModules, KnowsThatAModuleIsGoneThatNeverAnswered) {
    startHub();
    {
        BareModule module(root.hubSocket());
        module.takeName();
    }
    EXPECT_TRUE(becomes("gone"));
    EXPECT_EQ(lines("module 7 is gone from the bus\n"), 1U) << hvbd->output();
}

TEST_F(AHubThatHearsOfModules, HearsOfThemAgainAfterTheBusCameBack) {
    startHub();
    startModule();
    EXPECT_TRUE(becomes("well"));
    bus->kill9();
    ASSERT_TRUE(eventually([this] { return lines("went away; hvbd tries to reach it again") == 1; }));
    bus->restart();
    ASSERT_TRUE(eventually([this] { return lines("is back\n") == 1; }));
    HVB::HVBCommBroker::releaseInstance();
    EXPECT_TRUE(becomes("gone"));
    startModule();
    EXPECT_TRUE(becomes("well"));
}

TEST_F(AHubWithAModule, ComesBackWithItsNamesWhenTheBusComesBack) {
    start();
    EXPECT_EQ(client().log(L"one"), 1U);
    bus->kill9();
    ASSERT_TRUE(eventually([this] { return lines("went away; hvbd tries to reach it again") == 1; }));
    expectAlive();
    bus->restart();
    ASSERT_TRUE(eventually([this] { return lines("is back\n") == 1; }));
    HubClient caller = client();
    EXPECT_EQ(caller.log(L"two"), 2U);
    EXPECT_TRUE(eventually([this] {
        try {
            return reload(42) != "done";
        } catch (const HVB::HVBException&) {
            return false; // module 1 is not back yet
        }
    }));
}

TEST_F(AHub, EndsCleanlyOnEachOfItsSignals) {
    for (const int signal : {SIGTERM, SIGINT}) {
        start();
        client().log(L"x");
        hvbd->kill(signal);
        EXPECT_EQ(hvbd->waitUntil(patience()), 0);
        EXPECT_EQ(lines("]: ended\n"), 1U);
        EXPECT_FALSE(fs::exists(store + "-wal")) << "one whole file is left";
    }
    start();
    EXPECT_THAT(client().ids(), ElementsAre(1, 2));
}

TEST_F(AHub, EndsWhenItIsAskedToWhileTheBusIsAway) {
    start();
    bus->kill9();
    ASSERT_TRUE(eventually([this] { return lines("went away; hvbd tries to reach it again") == 1; }));
    EXPECT_EQ(hvbd->terminate(), 0);
}

TEST_F(AHub, SaysWhereThereIsNoBusAndGivesUp) {
    bus->kill9();
    hvbd.emplace(program, options({}));
    EXPECT_EQ(hvbd->waitUntil(patience()), 8);
    EXPECT_THAT(hvbd->output(), HasSubstr("hvbd: cannot reach the hub at " + root.hubSocket()));
    EXPECT_THAT(hvbd->output(), HasSubstr("Start the hub's bus first."));
}

TEST_F(AHub, LeavesTheHubToTheOneThatRuns) {
    start();
    ChildProcess second(program, {.arguments = {},
                                  .environment = {"SENTREL_INSTALL_ROOT=" + root.path().string()},
                                  .outputFile = root.file("second.out"),
                                  .uid = {},
                                  .gid = {}});
    EXPECT_EQ(second.waitUntil(patience()), 1);
    EXPECT_EQ(second.output(), "hvbd: another process is the hub already. End that one first.\n");
    EXPECT_EQ(client().log(L"x"), 1U);
}

/// hvbd run for what it prints; no bus is needed for that.
class HvbdsCommandLine : public AHub {
protected:
    int run(const std::vector<std::string>& arguments) {
        fs::remove(root.file("hvbd.out"));
        hvbd.emplace(program, options(arguments));
        return hvbd->waitUntil(patience()).value_or(-1);
    }
};

TEST_F(HvbdsCommandLine, PrintsABusConfigurationForUsersThatExist) {
    EXPECT_EQ(run({"--print-bus-config", "--daemon-user", "root", "--hub-user", "daemon"}), 0);
    EXPECT_EQ(hvbd->output(),
              bus::busConfiguration(
                  {.socketPath = root.hubSocket(), .daemonUser = "root", .hubUser = "daemon", .adminGroup = ""}));
}

TEST_F(HvbdsCommandLine, NamesEachUserAndGroupThatDoesNotExist) {
    EXPECT_EQ(run({"--print-bus-config", "--daemon-user", "no-such-user", "--hub-user", "root", "--admin-group",
                   "no-such-group"}),
              1);
    EXPECT_EQ(hvbd->output(),
              "hvbd: there is no user \"no-such-user\" here, and the bus would pass over every rule for it. Make it "
              "(adduser --system no-such-user) or name another.\n"
              "hvbd: there is no group \"no-such-group\" here, and the bus would pass over every rule for it. Make it "
              "(addgroup --system no-such-group) or name another.\n");
}

TEST_F(HvbdsCommandLine, RefusesBadUsage) {
    EXPECT_EQ(run({"--health-interval", "0"}), 2);
    EXPECT_EQ(run({"--log-limit-mib", "x"}), 2);
    EXPECT_EQ(run({"--print-bus-config"}), 2);
    EXPECT_EQ(run({"--hub-user", "root"}), 2);
    EXPECT_EQ(run({"more"}), 2);
}

TEST_F(HvbdsCommandLine, ShowsItsHelpAndItsVersion) {
    EXPECT_EQ(run({"--help"}), 0);
    EXPECT_THAT(hvbd->output(), HasSubstr("--health-interval"));
    EXPECT_EQ(run({"--version"}), 0);
    EXPECT_THAT(hvbd->output(), HasSubstr("hvbd "));
}

} // namespace
