// What hvbd does with the module's configuration: at its start, when it is told to read it again, when it cannot, and
// what reaches the system log with it. Bus, processes, files and the system log's socket are real.
#include "tests/integration/HvbdModule.h"
#include "tests/integration/HvbdSystemLog.h"
#include "tests/support/AsUser.h"
#include "tests/support/ConfigurationFiles.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cstring>
#include <limits>

using namespace testing_support;
using testing::StartsWith;
namespace fs = std::filesystem;

namespace {

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

TEST_F(AHubWithAModule, ReadsTheModulesConfigurationAgainOnSighup) {
    configure("<SyslogEnable>true</SyslogEnable><LogLevel>warning</LogLevel>");
    start();
    configure("<SyslogEnable>true</SyslogEnable><LogLevel>debug</LogLevel>");
    hvbd->kill(SIGHUP);
    ASSERT_TRUE(eventually([this] {
        return lines("]: configuration of module 7 read again: syslog on, level debug\n") == 1 || !hvbd->isRunning();
    }));
    expectAlive();
    EXPECT_EQ(levelsWritten(), "0123");
    fs::remove(configuration);
    hvbd->kill(SIGHUP);
    ASSERT_TRUE(eventually([this] { return lines("]: reload refused, the configuration in force stays: ") == 1; }));
    EXPECT_EQ(levelsWritten(), "0123") << "what was in force stays";
}

TEST_F(AHubWithAModule, TakesNoNoticeOfSigusr1AndSigusr2) {
    start();
    hvbd->kill(SIGUSR1);
    hvbd->kill(SIGUSR2);
    EXPECT_EQ(levelsWritten(), "012");
    expectAlive();
}

TEST_F(AHubWithAModule, WritesUpToInformationWithoutAConfiguration) {
    start();
    EXPECT_EQ(levelsWritten(), "012");
}

/// In force is the level "error", which no reload may change.
class AHubWhoseReloadFails : public AHubWithAModule {
protected:
    void SetUp() override {
        configure("<SyslogEnable>true</SyslogEnable><LogLevel>error</LogLevel>");
        start();
        configure("<SyslogEnable>true</SyslogEnable><LogLevel>debug</LogLevel>");
    }
    void TearDown() override {
        EXPECT_EQ(levelsWritten(), "0");
        fs::remove_all(configuration);
        configure("<SyslogEnable>true</SyslogEnable><LogLevel>debug</LogLevel>");
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
    expectRefused(answerTo(broken), "the payload is no module id (invalid signature)");
}

TEST_F(AHubWhoseReloadFails, SaysThatTheFileIsMissingOrALinkOrNoFile) {
    fs::remove(configuration);
    expectFileRefused("No such file or directory");
    fs::create_directory(configuration);
    expectFileRefused("not a regular file");
    fs::remove(configuration);
    std::ofstream(root.file("other.xml")) << "<HVConfiguration/>";
    ASSERT_EQ(chmod(root.file("other.xml").c_str(), 0640), 0);
    fs::create_symlink(root.file("other.xml"), configuration);
    expectFileRefused("a symbolic link to a file that not every user may read");
}

TEST_F(AHubWhoseReloadFails, DoesNotWaitAtAPipeInTheFilesPlace) {
    fs::remove(configuration);
    ASSERT_EQ(mkfifo(configuration.c_str(), 0600), 0);
    expectFileRefused("not a regular file");
}

TEST_F(AHubWhoseReloadFails, SaysWhatIsWrongInTheFile) {
    configure("<SyslogEnable>perhaps\n</SyslogEnable>");
    expectFileRefused("/HVConfiguration/SyslogEnable: \"perhaps\" is neither true nor false, line 1");
    configure("<SyslogEnable>true</SyslogEnable>\n");
    expectFileRefused("/HVConfiguration/LogLevel: finds nothing, line 2");
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
    configure("<SyslogEnable>" + std::string(60'000, 'x') + "</SyslogEnable>");
    const std::string reason = reload();
    EXPECT_EQ(reason.size(), 2048U);
    EXPECT_THAT(reason, StartsWith(configuration + ": /HVConfiguration/SyslogEnable: \"xxx"));
}

TEST_F(AHubWithAModule, SaysThatTheDefaultLevelHoldsForATextThatIsNone) {
    configure("<SyslogEnable>true</SyslogEnable><LogLevel>Debug</LogLevel>");
    start();
    const std::string what = "syslog on, level information by default, since LogLevel is \"Debug\"\n";
    EXPECT_EQ(lines("]: configuration of module 7: " + what), 1U) << hvbd->output();
    EXPECT_EQ(levelsWritten(), "012");
    EXPECT_EQ(reload(), "done");
    EXPECT_EQ(lines("]: configuration of module 7 read again: " + what), 1U) << hvbd->output();
}

/// What Status says against the configuration of a module; a module that it does not name is a failure.
std::string problemTold(HubClient client, int moduleId = HVB::MODULE_SENTREL) {
    const auto told = client.statusOf(moduleId);
    EXPECT_TRUE(told) << moduleId;
    return told ? told->problem : "";
}

TEST_F(AHubWithAModule, TellsInStatusWhatTheFileComesToWhenItIsAsked) {
    start({"--health-interval", "3600"});
    for (int round = 0; round < 2; ++round) {
        for (const ConfigurationFile& file : configurationFiles()) {
            lay(file, configuration);
            EXPECT_EQ(problemTold(client()), file.reason) << file.name;
        }
    }
    EXPECT_EQ(levelsWritten(), "012") << "to look puts nothing into force";
    const auto told = client().statusOf(HVB::MODULE_SENTREL);
    ASSERT_TRUE(told);
    EXPECT_EQ(told->state, "unknown") << "the module has never been there";
    EXPECT_EQ(told->since, "");
}

TEST_F(AHubWithAModule, LogsOnceThatTheModuleCannotUseItsFile) {
    start({"--health-interval", "3600"});
    const std::string cannot = "]: module 7 cannot use its configuration " + configuration + ": ";
    EXPECT_EQ(lines(cannot + "No such file or directory\n"), 1U) << "at the start";
    EXPECT_EQ(problemTold(client()), "No such file or directory");
    EXPECT_EQ(reload(), configuration + ": No such file or directory");
    EXPECT_EQ(lines(cannot), 1U);
    configure("<SyslogEnable>true</SyslogEnable>");
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(problemTold(client()), "/HVConfiguration/LogLevel: finds nothing, line 1");
    }
    EXPECT_EQ(lines(cannot + "/HVConfiguration/LogLevel: finds nothing, line 1\n"), 1U);
    configure("<SyslogEnable>true</SyslogEnable><LogLevel>error</LogLevel>");
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(problemTold(client()), "");
    }
    EXPECT_EQ(lines("]: module 7 can use its configuration " + configuration + " again\n"), 1U);
    EXPECT_EQ(lines(cannot), 2U) << hvbd->output();
}

TEST_F(AHubWithAModule, LooksAtTheFileInEachHealthRound) {
    configure("<SyslogEnable>true</SyslogEnable><LogLevel>error</LogLevel>");
    start({"--health-interval", "1"});
    fs::remove(configuration);
    EXPECT_TRUE(eventually([this] { return lines("]: module 7 cannot use its configuration ") == 1; }));
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
    configure("<SyslogEnable>true</SyslogEnable><LogLevel>error</LogLevel>");
    start();
    EXPECT_EQ(levelsWritten(), "0");
    configure("<SyslogEnable>true</SyslogEnable><LogLevel>warning</LogLevel>");
    EXPECT_EQ(reload(), "done");
    configure("<SyslogEnable>true</SyslogEnable><LogLevel>debug</LogLevel>");
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
        configure("<SyslogEnable>true</SyslogEnable><LogLevel>information</LogLevel>");
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

TEST_F(AHubWithASystemLog, WritesDebugLinesOnlyAtDebug) {
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
             Row{"<SyslogEnable>true</SyslogEnable><LogLevel>Debug</LogLevel>", HVB::LOG_LEVEL_INFORMATION},
             Row{"<SyslogEnable>false</SyslogEnable>", -1},
         }) {
        configure(inside);
        ASSERT_EQ(reload(), "done") << inside;
        EXPECT_EQ(reaching(), upTo(highestLevel)) << inside;
    }
}

TEST_F(AHubWithASystemLog, KeepsItsLevelWhenAReloadIsRefused) {
    configure("<SyslogEnable>true</SyslogEnable><LogLevel>debug</LogLevel>");
    ASSERT_EQ(reload(), "done");
    fs::remove(configuration);
    systemLog();
    const std::string reason = configuration + ": No such file or directory";
    ASSERT_EQ(reload(), reason);
    EXPECT_EQ(systemLog(),
              (std::vector<std::string>{"28 module 7 cannot use its configuration " + reason,
                                        "28 reload refused, the configuration in force stays: " + reason}));
    ASSERT_EQ(reload(), reason);
    EXPECT_EQ(systemLog(), std::vector<std::string>{"28 reload refused, the configuration in force stays: " + reason});
    EXPECT_EQ(reaching(), upTo(HVB::LOG_LEVEL_DEBUG));
}

TEST_F(AHubWithASystemLog, WritesAnotherModulesLinesByTheDefault) {
    configure("<SyslogEnable>false</SyslogEnable>");
    ASSERT_EQ(reload(), "done");
    systemLog();
    HubClient caller = client();
    caller.logMessage(HVB::LOG_LEVEL_INFORMATION, L"told", 42);
    caller.logMessage(HVB::LOG_LEVEL_DEBUG, L"not told", 42);
    EXPECT_EQ(systemLog(), std::vector<std::string>{"30 module 42 (Sentrel): told"});
}

} // namespace
