// hvbd as its clients see it: the methods, the reload command, the health checks, start and end. Bus, processes and
// files are real; the module whose health is checked is this test's own process.
#include "hub/HVBCommBroker.h"
#include "platform/hvbhelpers/HVBHelpers.h"
#include "tests/integration/HvbdFixture.h"
#include "tests/integration/HvbdSystemLog.h"
#include "tests/support/AsUser.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <condition_variable>
#include <cstring>
#include <limits>
#include <mutex>

using namespace testing_support;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;
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
    // Together more than the 4 MiB of one reply; each alone is given however large it is.
    const std::wstring threeMebibytes(3 << 18, L'x');
    caller.log(threeMebibytes);
    caller.log(threeMebibytes, threeMebibytes);
    EXPECT_THAT(caller.ids(5), ElementsAre(6));
    EXPECT_THAT(caller.ids(6), ElementsAre(7));
}

TEST_F(AHub, TakesTheLargestMessageThatItAllows) {
    start();
    HubClient caller = client();
    const std::wstring largest(bus::kMaxPayloadBytes / sizeof(wchar_t), L'x');
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
    EXPECT_EQ(logBytes(bus::kMaxPayloadBytes + 4),
              (Refusal{bus::kErrorBadMessage, "the text has 8388612 bytes; 8388608 is the most"}));
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
    for (const char* member : {".Log ", ".LogMessage ", ".ReadLog ", ".Status ", ".LogStored "}) {
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
    client().logMessage(HVB::LOG_LEVEL_WARNING, std::wstring(100'000, L'x'));
    EXPECT_EQ(lines("(Sentrel): " + std::string(2045, 'x') + "…\n"), 1U);
}

/// A hub with a broker in this process that sends it commands.
class AHubWithAModule : public AHub {
protected:
    ~AHubWithAModule() override { HVB::HVBCommBroker::releaseInstance(); }

    HVB::HVBCommBroker& broker() { return *HVB::HVBCommBroker::getInstance(root.hubSocket()); }

    void configure(const std::string& inside) const {
        std::ofstream(configuration) << "<HVConfiguration>" << inside << "</HVConfiguration>";
    }

    /// What the reply to a reload says: "done", or why not.
    std::string reload(int moduleId = HVB::MODULE_SENTREL) {
        HVB::CommandData command(Sentrel::CMD_RELOAD_HVB, HVB::MODULE_HUB, true);
        command.writePayload(moduleId);
        return answerTo(command);
    }
    /// As reload, with a text in the module id's place.
    std::string reloadOf(const wchar_t* text) {
        HVB::CommandData command(Sentrel::CMD_RELOAD_HVB, HVB::MODULE_HUB, true);
        command.m_bHasPayload = true;
        *command.m_pOutStream << text;
        return answerTo(command);
    }
    std::string answerTo(HVB::CommandData& command) {
        HVB::CommandResult result;
        broker().sendCommand(command, &result, true, static_cast<int>(kPatience.count()));
        EXPECT_TRUE(result.m_bValid);
        std::string reason = "done";
        result.readPayload(reason);
        EXPECT_EQ(result.m_bSucceeded, reason == "done");
        return reason;
    }

    /// Reloads, which must be refused with this reason in the reply and in one line of the log.
    void expectRefused(const std::string& answer, const std::string& reason) {
        EXPECT_EQ(answer, reason);
        EXPECT_EQ(lines("]: reload refused, the configuration in force stays: " + reason + "\n"), 1U) << hvbd->output();
    }

    /// Sends a line of each level. @return which of them were written.
    std::string levelsWritten() {
        const std::string mark = "mark" + std::to_string(++m_marks);
        HubClient caller = client();
        for (int level = 0; level <= 3; ++level) {
            caller.logMessage(level,
                              std::wstring(mark.begin(), mark.end()) + L" level " + std::to_wstring(level) + L".");
        }
        std::string written;
        for (int level = 0; level <= 3; ++level) {
            if (lines(mark + " level " + std::to_string(level) + ".") == 1) {
                written += std::to_string(level);
            }
        }
        return written;
    }

    const std::string configuration = root.hubConfigDirectory() + "/Sentrel/HVConfig.xml";

private:
    int m_marks = 0;
};

TEST_F(AHubWithAModule, ReadsTheModulesConfigurationAtStartAndOnReload) {
    configure("<SyslogEnable>true</SyslogEnable><LogLevel>warning</LogLevel>");
    start();
    EXPECT_EQ(levelsWritten(), "01");
    configure("<SyslogEnable>true</SyslogEnable><LogLevel>debug</LogLevel>");
    EXPECT_EQ(levelsWritten(), "01") << "not before the reload";
    EXPECT_EQ(reload(), "done");
    EXPECT_EQ(lines("]: configuration of module 7 read again: syslog on, level debug\n"), 1U);
    EXPECT_EQ(levelsWritten(), "0123");
    configure("<SyslogEnable>false</SyslogEnable><LogLevel>debug</LogLevel>");
    EXPECT_EQ(reload(), "done");
    EXPECT_EQ(levelsWritten(), "");
}

TEST_F(AHubWithAModule, WritesUpToInformationWithoutAConfiguration) {
    start();
    EXPECT_EQ(levelsWritten(), "012");
}

/// In force is the level "error", which no reload may change.
class AHubWhoseReloadFails : public AHubWithAModule {
protected:
    void SetUp() override {
        configure("<LogLevel>error</LogLevel>");
        start();
        configure("<LogLevel>debug</LogLevel>");
    }
    void TearDown() override {
        EXPECT_EQ(levelsWritten(), "0");
        fs::remove_all(configuration);
        configure("<LogLevel>debug</LogLevel>");
        EXPECT_EQ(reload(), "done") << "and the next one that can be served is";
        EXPECT_EQ(levelsWritten(), "0123");
    }

    void expectFileRefused(const std::string& reason) { expectRefused(reload(), configuration + ": " + reason); }
};

TEST_F(AHubWhoseReloadFails, SaysThatAModuleHasNoConfiguration) {
    for (const int module : {42, 0, -1, static_cast<int>(HVB::MODULE_HUB), std::numeric_limits<int>::max()}) {
        expectRefused(reload(module), "module " + std::to_string(module) + " has no configuration that hvbd knows");
    }
}

TEST_F(AHubWhoseReloadFails, SaysThatThePayloadIsMissingOrNoModuleId) {
    HVB::CommandData without(Sentrel::CMD_RELOAD_HVB, HVB::MODULE_HUB, true);
    expectRefused(answerTo(without), "the command names no module");
    for (const wchar_t* text : {L" x", L"", L" 99999999999"}) {
        EXPECT_THAT(reloadOf(text), StartsWith("the payload is no module id (")) << text;
    }
    EXPECT_EQ(lines("reload refused, the configuration in force stays: the payload is no module id ("), 3U);
    HVB::CommandData broken(Sentrel::CMD_RELOAD_HVB, HVB::MODULE_HUB, true);
    broken.m_bHasPayload = true;
    broken.m_pOutStream->str(L"no archive");
    EXPECT_THROW(answerTo(broken), HVB::HVBException);
}

TEST_F(AHubWhoseReloadFails, SaysThatTheFileIsMissingOrStandsBehindALinkOrIsNoFile) {
    fs::remove(configuration);
    expectFileRefused("No such file or directory");
    fs::create_directory(configuration);
    expectFileRefused("not a regular file");
    fs::remove(configuration);
    std::ofstream(root.file("other.xml")) << "<HVConfiguration><LogLevel>debug</LogLevel></HVConfiguration>";
    fs::create_symlink(root.file("other.xml"), configuration);
    expectFileRefused("a symbolic link, which is not followed here");
}

TEST_F(AHubWhoseReloadFails, DoesNotWaitAtAPipeInTheFilesPlace) {
    fs::remove(configuration);
    ASSERT_EQ(mkfifo(configuration.c_str(), 0600), 0);
    expectFileRefused("not a regular file");
}

TEST_F(AHubWhoseReloadFails, SaysWhatIsWrongInTheFile) {
    configure("<LogLevel>loud\n</LogLevel>");
    expectFileRefused("LogLevel is \"loud\\x0a\" and not one of the known levels");
    configure("\n<LogLevel>debug");
    expectFileRefused("line 2: Opening and ending tag mismatch: LogLevel line 2 and HVConfiguration");
    std::ofstream(configuration) << "<!DOCTYPE a [<!ENTITY b 'debug'>]><HVConfiguration/>";
    expectFileRefused("a document type is not allowed here");
}

TEST_F(AHubWhoseReloadFails, SaysThatTheFileIsTooLargeOrNestsTooDeep) {
    fs::resize_file(configuration, std::uintmax_t{100} << 20U);
    expectFileRefused("larger than 65536 bytes");
    std::string deep;
    for (int level = 0; level < 5000; ++level) {
        deep += "<a>";
    }
    configure(deep);
    expectFileRefused("line 1: nests deeper than 100 elements");
}

TEST_F(AHubWhoseReloadFails, CutsAReasonThatQuotesALongText) {
    configure("<LogLevel>" + std::string(60'000, 'x') + "</LogLevel>");
    const std::string reason = reload();
    EXPECT_EQ(reason.size(), 2048U);
    EXPECT_THAT(reason, StartsWith(configuration + ": LogLevel is \"xxx"));
}

/// hvbd as a user of its own; whoever runs the test is the daemon's user and writes the file. Requires root.
class AHubOfItsOwnUser : public AHubWithAModule {
protected:
    void SetUp() override {
        if (!canActAsOthers()) {
            GTEST_SKIP() << "needs root, to run hvbd as a second user";
        }
        PrivateRoot::giveTo(root.hubVarDirectory(), kNobody, kNogroup);
        bus.reset();
        bus.emplace(root, HVB::bus::BusConfigurationOptions{.socketPath = "",
                                                            .daemonUser = std::to_string(geteuid()),
                                                            .hubUser = std::to_string(kNobody),
                                                            .adminGroup = ""});
        hvbdUser = kNobody;
    }
};

TEST_F(AHubOfItsOwnUser, ReadsTheFileOfTheDaemonsUserAndSaysWhenItMayNot) {
    configure("<LogLevel>error</LogLevel>");
    start();
    EXPECT_EQ(levelsWritten(), "0");
    configure("<LogLevel>warning</LogLevel>");
    EXPECT_EQ(reload(), "done");
    configure("<LogLevel>debug</LogLevel>");
    ASSERT_EQ(chmod(configuration.c_str(), 0600), 0);
    expectRefused(reload(), configuration + ": Permission denied");
    EXPECT_EQ(levelsWritten(), "01");
}

/// hvbd with the machine's system log in this test's hands. Requires root.
class AHubWithASystemLog : public AHubWithAModule {
protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "only root can have a system log of its own; what reaches it was not tested";
        }
        m_systemLog.emplace(root.file("dev"));
        start();
        m_systemLog->lines();
    }

    /// What reaches the system log of a module's lines of all four levels.
    std::vector<std::string> reaching() {
        broker();
        m_systemLog->lines();
        const wchar_t* const words[] = {L"error", L"warning", L"information", L"debug"};
        for (int level = 0; level <= 3; ++level) {
            HVB_LOG_MSG(HVB::MODULE_SENTREL, L"Sentrel", HVB::LOG_TYPE_BROWSER_EVENT,
                        static_cast<HVB::hv_logLevel_enum>(level), L"of level %ls", words[level]);
        }
        return m_systemLog->lines();
    }

    /// The lines of the levels up to this one, with the priorities of the daemon facility.
    static std::vector<std::string> upTo(int level) {
        const std::vector<std::string> all{
            "27 module 7 (Sentrel): of level error", "28 module 7 (Sentrel): of level warning",
            "30 module 7 (Sentrel): of level information", "31 module 7 (Sentrel): of level debug"};
        return {all.begin(), all.begin() + level + 1};
    }

    std::vector<std::string> systemLog() { return m_systemLog->lines(); }

private:
    std::optional<SystemLogSocket> m_systemLog;
};

TEST_F(AHubWithASystemLog, LetsTheModulesDebugLinesReachItAtDebugAndNotAtInformation) {
    configure("<SyslogEnable>true</SyslogEnable><LogLevel>debug</LogLevel>");
    ASSERT_EQ(reload(), "done");
    EXPECT_EQ(systemLog(), std::vector<std::string>{"30 configuration of module 7 read again: syslog on, level debug"});
    EXPECT_EQ(reaching(), upTo(HVB::LOG_LEVEL_DEBUG));
    configure("<SyslogEnable>true</SyslogEnable><LogLevel>information</LogLevel>");
    ASSERT_EQ(reload(), "done");
    EXPECT_EQ(reaching(), upTo(HVB::LOG_LEVEL_INFORMATION));
}

struct Row {
    const char* inside;
    int highestLevel; ///< that reaches the system log; -1: none does
};

/// The rows of the table in docs/hub.md, each with the words that stand in it.
TEST_F(AHubWithASystemLog, GetsTheLinesOfEachConfigurationByTheTable) {
    for (const auto& [inside, highestLevel] : {
             Row{"<SyslogEnable>false</SyslogEnable><LogLevel>debug</LogLevel>", -1},
             Row{"<SyslogEnable>0</SyslogEnable><LogLevel>error</LogLevel>", -1},
             Row{"<SyslogEnable>true</SyslogEnable><LogLevel>error</LogLevel>", HVB::LOG_LEVEL_ERROR},
             Row{"<SyslogEnable>true</SyslogEnable><LogLevel>warning</LogLevel>", HVB::LOG_LEVEL_WARNING},
             Row{"<SyslogEnable>1</SyslogEnable><LogLevel>information</LogLevel>", HVB::LOG_LEVEL_INFORMATION},
             Row{"<SyslogEnable>true</SyslogEnable><LogLevel>debug</LogLevel>", HVB::LOG_LEVEL_DEBUG},
             Row{"<SyslogEnable>true</SyslogEnable><LogLevel>verbose</LogLevel>", HVB::LOG_LEVEL_DEBUG},
             Row{"<SyslogEnable>true</SyslogEnable><LogLevel>audit</LogLevel>", HVB::LOG_LEVEL_DEBUG},
             Row{"<SyslogEnable>true</SyslogEnable><LogLevel>alert</LogLevel>", HVB::LOG_LEVEL_DEBUG},
             Row{"<LogLevel>warning</LogLevel>", HVB::LOG_LEVEL_WARNING},
             Row{"<SyslogEnable>true</SyslogEnable>", HVB::LOG_LEVEL_INFORMATION},
         }) {
        configure(inside);
        ASSERT_EQ(reload(), "done") << inside;
        EXPECT_EQ(reaching(), upTo(highestLevel)) << inside;
    }
}

TEST_F(AHubWithASystemLog, IsToldThatAReloadWasRefusedAndKeepsGettingWhatItGot) {
    configure("<LogLevel>debug</LogLevel>");
    ASSERT_EQ(reload(), "done");
    fs::remove(configuration);
    systemLog();
    const std::string reason = configuration + ": No such file or directory";
    ASSERT_EQ(reload(), reason);
    EXPECT_EQ(systemLog(), std::vector<std::string>{"28 reload refused, the configuration in force stays: " + reason});
    EXPECT_EQ(reaching(), upTo(HVB::LOG_LEVEL_DEBUG));
}

TEST_F(AHubWithASystemLog, GetsALineOfAnotherModuleByTheDefaultWhateverThisOnesConfigurationSays) {
    configure("<SyslogEnable>false</SyslogEnable>");
    ASSERT_EQ(reload(), "done");
    systemLog();
    HubClient caller = client();
    caller.logMessage(HVB::LOG_LEVEL_INFORMATION, L"told", 42);
    caller.logMessage(HVB::LOG_LEVEL_DEBUG, L"not told", 42);
    EXPECT_EQ(systemLog(), std::vector<std::string>{"30 module 42 (Sentrel): told"});
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
        m_changed.wait(lock, [this] { return !m_hangs; });
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
