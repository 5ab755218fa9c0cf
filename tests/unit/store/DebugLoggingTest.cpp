// The debug logging switch: what the caller does, what the worker does, what becomes of a change that meets another one
// or a failure. Real: the controller, its thread, the settings file and the hub's configuration file. Not real: the
// hub.
#include "daemon/Trace.h"
#include "hub/Exceptions.h"
#include "store/PreferencesException.h"
#include "tests/support/Eventually.h"
#include "tests/support/FlowLines.h"
#include "tests/unit/daemon/DaemonRoot.h"
#include "tests/unit/store/PreferenceFixture.h"
#include "tests/unit/store/WorkerGate.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <future>
#include <regex>
#include <stdexcept>
#include <thread>

namespace testing_support {
namespace {

using Sentrel::preferences;
using Sentrel::STPreferenceController;
using testing::Contains;
using testing::IsEmpty;

class ADebugLoggingChange : public PreferenceFixture {
protected:
    ADebugLoggingChange() {
        makeTables();
        preferences();
    }

    /// Asks for a change and waits until its worker is done. The caller's part comes before the worker's.
    static bool change(bool status) {
        WorkerGate gate;
        return preferences().setDebugLoggingStatus(status);
    }

    /// The lines of @p act with their levels and without the numbers of threads, from a controller loaded anew over
    /// what @p arrange makes.
    Lines linesOf(const std::function<void()>& arrange, const std::function<void()>& act) const {
        return leveledLines(
            configFlowvalue,
            [&] {
                const int level = configFlowvalue;
                configFlowvalue = 0;
                STPreferenceController::releaseInstance();
                std::filesystem::remove_all(configurationFile());
                writeConfiguration("true", "information");
                preferences();
                arrange();
                configFlowvalue = level;
                testing::internal::CaptureStdout();
                act();
                static_cast<void>(testing::internal::GetCapturedStdout());
            },
            [](const std::string& line) { return std::regex_replace(line, std::regex("id [0-9]+$"), "id N"); });
    }
    Lines linesOf(const std::function<void()>& act) const {
        return linesOf([] {}, act);
    }

    std::string configuration() const { return readFile(configurationFile()); }
    static std::string configurationText(const std::string& enable, const std::string& level) {
        return "<HVConfiguration><SyslogEnable>" + enable + "</SyslogEnable><LogLevel>" + level +
               "</LogLevel></HVConfiguration>";
    }

    Recording& hub = Recording::instance();
};

constexpr const char* kEntered = "1 STPreferenceController::updateHVConfigAndReloadHVB entered with thread id N";
constexpr const char* kExiting = "1 STPreferenceController::updateHVConfigAndReloadHVB exiting with thread id N";
constexpr const char* kUnknown = "1 STPreferenceController::updateHVConfigAndReloadHVB - Caught unknown exception";
constexpr const char* kGoingTo = "4 STPreferenceController::updateHVConfigAndReloadHVB Going to update HVConfig.xml";

Lines callerLines(bool status) {
    const std::string word = status ? "ON" : "OFF";
    const std::string truth = status ? "true" : "false";
    return {"2 STPreferenceController::setDebugLoggingStatus entered with status " + word,
            "2 STPreferenceController::setDebugLoggingStatus - entered with value " + truth,
            "3 STPreferenceController::setEnableDebugLogging - Successfully updated value in DB"};
}

/// What a worker says that gets as far as the signal, and then these lines.
Lines workerLines(bool status, const Lines& rest) {
    const std::string word = status ? "ON" : "OFF";
    return Lines{kEntered,
                 "1 STPreferenceController::updateHVConfigAndReloadHVB Logging NewStatus - " + word,
                 kGoingTo,
                 "5 STPreferenceController::updateHVConfigAndReloadHVB HVConfig.xml updated successully.",
                 "2 STPreferenceController::signalPrefChange entered",
                 "3 Sending EVT_PREFERENCES_CHANGE event"} +
           rest + Lines{kExiting};
}

const Lines kReloaded{"5 STPreferenceController::signalPrefChange completed",
                      "3 STPreferenceController::updateHVConfigAndReloadHVB Sending reload command to HVB",
                      "3 STPreferenceController::updateHVConfigAndReloadHVB - CMD_RELOAD_HVB Successful"};

TEST_F(ADebugLoggingChange, ToOnRewritesTheConfigurationNotesTheSwitchSignalsAndReloads) {
    EXPECT_TRUE(change(true));
    EXPECT_EQ(configuration(), configurationText("true", "debug"));
    EXPECT_EQ(stored("Enabled_Debug_Log"), "blob 01000000");
    EXPECT_EQ(sql("select count(*) from vxsetting"), "1");
    EXPECT_TRUE(preferences().getDebugLoggingStatus());
    EXPECT_EQ(hub.events, (std::vector<SentEvent>{{1003, false}}));
    EXPECT_THAT(hub.calls(), Contains("sendCommand 1023 wait 45"));
}

TEST_F(ADebugLoggingChange, ToOffLeavesSystemLoggingEnabledAndReadsAsOffAtTheNextStart) {
    writeConfiguration("1", "verbose");
    EXPECT_TRUE(restarted().getDebugLoggingStatus());
    EXPECT_TRUE(change(false));
    EXPECT_EQ(configuration(), configurationText("true", "information"));
    EXPECT_EQ(stored("Enabled_Debug_Log"), "blob 00000000");
    EXPECT_FALSE(preferences().getDebugLoggingStatus());
    EXPECT_FALSE(restarted().getDebugLoggingStatus());
}

TEST_F(ADebugLoggingChange, EnablesSystemLoggingAlsoWhenItGoesOff) {
    writeConfiguration("false", "information");
    change(false);
    EXPECT_EQ(configuration(), configurationText("true", "information"));
}

TEST_F(ADebugLoggingChange, SendsTheReloadToTheHubWithTheNumberOfThisModule) {
    change(true);
    ASSERT_EQ(hub.commands.size(), 1U);
    EXPECT_EQ(hub.commands[0].id, 1023);
    EXPECT_EQ(hub.commands[0].target, 1);
    EXPECT_TRUE(hub.commands[0].flag);
    HVB::CommandData same(1023, 1, true);
    same.writePayload(7);
    EXPECT_EQ(hub.commands[0].text, same.m_pOutStream->str());
}

TEST_F(ADebugLoggingChange, IsDoneAgainWhenItIsTheCurrentStatus) {
    EXPECT_TRUE(change(false));
    EXPECT_EQ(stored("Enabled_Debug_Log"), "blob 00000000");
    EXPECT_EQ(hub.commands.size(), 1U) << "its callers compare, it does not";
}

TEST_F(ADebugLoggingChange, IsTraced) {
    EXPECT_EQ(linesOf([] { change(true); }), callerLines(true) + workerLines(true, kReloaded));
    EXPECT_EQ(linesOf([] { change(false); }), callerLines(false) + workerLines(false, kReloaded));
}

TEST_F(ADebugLoggingChange, StartsOneThreadWithDefaultAttributesAndTheStatusAsItsArgument) {
    for (const bool status : {true, false}) {
        WorkerGate gate;
        preferences().setDebugLoggingStatus(status);
        EXPECT_EQ(gate.starts, 1);
        EXPECT_TRUE(gate.hadDefaultAttributes);
        EXPECT_EQ(reinterpret_cast<std::intptr_t>(gate.argument), status ? 1 : 0);
        gate.open();
        gate.waitUntilAllEnded();
    }
}

TEST_F(ADebugLoggingChange, StartsItsThreadBeforeItTurnsToTheSettings) {
    std::vector<int> startsAtEachTurn;
    WorkerGate gate;
    settingsPath() = [&](std::string& path) {
        startsAtEachTurn.push_back(gate.starts);
        path = file();
        return true;
    };
    EXPECT_TRUE(preferences().setDebugLoggingStatus(true));
    EXPECT_EQ(startsAtEachTurn, (std::vector<int>{1}));
}

TEST_F(ADebugLoggingChange, IsUnderWayFromItsStartUntilTheHubHasReloadedHoweverOftenThatIsAsked) {
    EXPECT_FALSE(STPreferenceController::isChangingDebugLogging());
    hub.before = [](const std::string& operation) {
        if (operation == "sendCommand") {
            EXPECT_TRUE(STPreferenceController::isChangingDebugLogging());
        }
    };
    {
        WorkerGate gate;
        EXPECT_TRUE(preferences().setDebugLoggingStatus(true)) << "having asked holds nothing";
        EXPECT_TRUE(STPreferenceController::isChangingDebugLogging());
    }
    EXPECT_EQ(hub.commands.size(), 1U);
    EXPECT_FALSE(STPreferenceController::isChangingDebugLogging());
}

TEST_F(ADebugLoggingChange, IsUnderWayBeforeItsThreadHasBegun) {
    WorkerGate gate;
    preferences().setDebugLoggingStatus(true);
    EXPECT_TRUE(eventually([&] { return gate.waiting() == 1; }));
    EXPECT_TRUE(STPreferenceController::isChangingDebugLogging());
}

TEST_F(ADebugLoggingChange, LeavesTheNameOfWhoAsksAsItWas) {
    const auto name = [] {
        std::array<char, 16> text{};
        EXPECT_EQ(pthread_getname_np(pthread_self(), text.data(), text.size()), 0);
        return std::string(text.data());
    };
    const std::string before = name();
    change(true);
    EXPECT_EQ(name(), before);
}

/// In a process of its own, as the lock is never given back.
TEST_F(ADebugLoggingChange, WhoseThreadCannotBeStartedIsNotUnderWayAndDropsEachLaterOne) {
    const auto fail = [] {
        std::promise<void> end;
        std::thread another([&end] { await(end.get_future(), "the end of the test"); });
        WorkerGate gate;
        gate.refuses = true;
        EXPECT_TRUE(preferences().setDebugLoggingStatus(true)) << "the note is made";
        EXPECT_EQ(gate.refusals, 1);
        EXPECT_FALSE(STPreferenceController::isChangingDebugLogging());
        gate.refuses = false;
        EXPECT_FALSE(preferences().setDebugLoggingStatus(false)) << "the lock is kept";
        EXPECT_EQ(gate.starts, 0);
        end.set_value();
        another.join();
        std::_Exit(HasFailure() ? 1 : 0);
    };
    EXPECT_EXIT(fail(), testing::ExitedWithCode(0), "");
}

TEST_F(ADebugLoggingChange, ChangesTheMemoryAfterTheFileAndSignalsBeforeTheHubReloads) {
    hub.before = [this](const std::string& operation) {
        if (operation == "sendEventNotification") {
            EXPECT_EQ(configuration(), configurationText("true", "debug"));
            EXPECT_TRUE(preferences().getDebugLoggingStatus());
            EXPECT_TRUE(hub.commands.empty());
        }
    };
    change(true);
    EXPECT_EQ(hub.events.size(), 1U);
    EXPECT_EQ(hub.commands.size(), 1U);
}

TEST_F(ADebugLoggingChange, DropsASecondOneThatComesMeanwhileAndCompletesItself) {
    {
        WorkerGate gate;
        EXPECT_TRUE(preferences().setDebugLoggingStatus(true));
        EXPECT_FALSE(preferences().setDebugLoggingStatus(false));
        EXPECT_EQ(gate.starts, 1);
        EXPECT_EQ(stored("Enabled_Debug_Log"), "blob 01000000");
    }
    EXPECT_EQ(configuration(), configurationText("true", "debug"));
    EXPECT_TRUE(preferences().getDebugLoggingStatus());
    EXPECT_EQ(hub.events.size(), 1U);
    EXPECT_EQ(hub.commands.size(), 1U);
    EXPECT_TRUE(change(false)) << "the next one runs";
    EXPECT_EQ(configuration(), configurationText("true", "information"));
}

TEST_F(ADebugLoggingChange, SaysSoWhenItIsDropped) {
    const Lines lines = linesOf([] {
        WorkerGate gate;
        preferences().setDebugLoggingStatus(true);
        preferences().setDebugLoggingStatus(false);
    });
    EXPECT_EQ(lines, (callerLines(true) +
                      Lines{"2 STPreferenceController::setDebugLoggingStatus entered with status OFF",
                            "2 STPreferenceController::setDebugLoggingStatus unable to acquire the lock for update "
                            "operation"} +
                      workerLines(true, kReloaded)));
}

// The caller's note in the settings file.

TEST_F(ADebugLoggingChange, GoesOnWithoutTheNoteWhenTheSettingsHaveNoPath) {
    settingsPath() = [](std::string&) { return false; };
    EXPECT_EQ(printed([] { EXPECT_FALSE(change(true)); }), "Error while getting DB Path\n");
    EXPECT_TRUE(preferences().getDebugLoggingStatus());
    EXPECT_EQ(linesOf([] { change(true); }),
              (Lines{callerLines(true)[0], callerLines(true)[1], "1 Error while getting DB Path"} +
               workerLines(true, kReloaded)));
}

TEST_F(ADebugLoggingChange, GoesOnWithoutTheNoteWhenTheSettingsCannotBeOpened) {
    std::filesystem::remove(file());
    std::filesystem::create_directory(file());
    EXPECT_EQ(printed([] { EXPECT_FALSE(change(true)); }), "Preference error while getting DB handle\n");
    EXPECT_TRUE(preferences().getDebugLoggingStatus());
    EXPECT_EQ(linesOf([] { change(true); }),
              (Lines{callerLines(true)[0], callerLines(true)[1],
                     "1 STPreferenceController::setEnableDebugLogging - Error while getting DB handle"} +
               workerLines(true, kReloaded)));
}

TEST_F(ADebugLoggingChange, GoesOnWithoutTheNoteWhenTheSettingsRefuseIt) {
    sql("drop table vxsetting");
    EXPECT_EQ(printed([] { EXPECT_FALSE(change(true)); }), "");
    EXPECT_TRUE(preferences().getDebugLoggingStatus());
    EXPECT_EQ(linesOf([] { change(true); }),
              (Lines{callerLines(true)[0], callerLines(true)[1],
                     "1 STPreferenceController::setEnableDebugLogging - Error while updating value in DB"} +
               workerLines(true, kReloaded)));
}

TEST_F(ADebugLoggingChange, GoesOnWithoutTheNoteWhenTheStoreThrows) {
    settingsPath() = [](std::string&) -> bool { throw Sentrel::PreferencesException("the\tstore"); };
    EXPECT_EQ(linesOf([] { EXPECT_FALSE(change(true)); }),
              (Lines{callerLines(true)[0], callerLines(true)[1],
                     "1 STPreferenceController::setEnableDebugLogging - Caught Preferences exception the\\x09store"} +
               workerLines(true, kReloaded)));
    settingsPath() = [](std::string&) -> bool { throw std::runtime_error("unknown"); };
    EXPECT_EQ(linesOf([] { EXPECT_FALSE(change(true)); }),
              (Lines{callerLines(true)[0], callerLines(true)[1],
                     "1 STPreferenceController::setEnableDebugLogging - Caught generic exception "} +
               workerLines(true, kReloaded)));
}

// The configuration file.

/// A change that does not get past the configuration file: the note stands, everything else is as it was.
class ADebugLoggingChangeWithoutItsFile : public ADebugLoggingChange {
protected:
    void expectNothingElseHappened() {
        EXPECT_EQ(stored("Enabled_Debug_Log"), "blob 01000000");
        EXPECT_FALSE(preferences().getDebugLoggingStatus());
        EXPECT_THAT(hub.events, IsEmpty());
        EXPECT_THAT(hub.commands, IsEmpty());
    }
    void expectTheNextOneRuns() {
        writeConfiguration("true", "information");
        EXPECT_TRUE(change(true));
        EXPECT_EQ(configuration(), configurationText("true", "debug"));
        EXPECT_TRUE(preferences().getDebugLoggingStatus());
    }
    Lines refusedLines(const Lines& rest) {
        return callerLines(true) +
               Lines{kEntered, "1 STPreferenceController::updateHVConfigAndReloadHVB Logging NewStatus - ON"} + rest +
               Lines{kExiting};
    }
};

TEST_F(ADebugLoggingChangeWithoutItsFile, EndsWhenThereIsNone) {
    std::filesystem::remove(configurationFile());
    EXPECT_TRUE(change(true));
    EXPECT_FALSE(std::filesystem::exists(configurationFile()));
    expectNothingElseHappened();
    expectTheNextOneRuns();
    EXPECT_EQ(linesOf([this] { std::filesystem::remove(configurationFile()); }, [] { change(true); }),
              refusedLines({kUnknown}));
}

TEST_F(ADebugLoggingChangeWithoutItsFile, EndsWhenItIsMalformedAndLeavesItAsItIs) {
    for (const std::string text :
         {"", "<HVConfiguration>", "noise", "<HVConfiguration><LogLevel/></HVConfiguration>"}) {
        writeFile(configurationFile(), text);
        EXPECT_TRUE(change(true));
        EXPECT_EQ(configuration(), text);
        expectNothingElseHappened();
    }
    expectTheNextOneRuns();
    EXPECT_EQ(linesOf([this] { writeFile(configurationFile(), "noise"); }, [] { change(true); }),
              refusedLines({kUnknown}));
    EXPECT_EQ(linesOf([this] { writeFile(configurationFile(), "<HVConfiguration/>"); }, [] { change(true); }),
              refusedLines({kGoingTo, kUnknown}));
}

TEST_F(ADebugLoggingChangeWithoutItsFile, EndsWhenADirectoryIsInItsPlace) {
    std::filesystem::remove(configurationFile());
    std::filesystem::create_directory(configurationFile());
    EXPECT_TRUE(change(true));
    expectNothingElseHappened();
    std::filesystem::remove(configurationFile());
    expectTheNextOneRuns();
}

/// What happens to the file after the worker has opened it.
class ADebugLoggingChangeWhoseFileChanges : public ADebugLoggingChangeWithoutItsFile {
protected:
    bool changeAndMeanwhile(const std::function<void()>& act) const {
        const LookedAtFile file(configurationFile(), act);
        return change(true);
    }
    Lines linesWithMeanwhile(const std::function<void()>& act) const {
        return linesOf([this, &act] { changeAndMeanwhile(act); });
    }
    std::function<void()> removal() const {
        return [this] { std::filesystem::remove(configurationFile()); };
    }
};

constexpr const char* kNotOpened = "1 STPreferenceController::updateHVConfigAndReloadHVB unable to open HVConfig.xml";
constexpr const char* kNotSaved = "1 STPreferenceController::updateHVConfigAndReloadHVB unable to save HVConfig.xml";

TEST_F(ADebugLoggingChangeWhoseFileChanges, EndsWhenItIsGoneAndMakesNoNewOne) {
    EXPECT_TRUE(changeAndMeanwhile(removal()));
    EXPECT_FALSE(std::filesystem::exists(configurationFile()));
    expectNothingElseHappened();
    expectTheNextOneRuns();
    EXPECT_EQ(linesWithMeanwhile(removal()), refusedLines({kGoingTo, kNotOpened}));
}

TEST_F(ADebugLoggingChangeWhoseFileChanges, EndsWhenADirectoryHasTakenItsPlace) {
    const auto exchange = [this] {
        std::filesystem::remove(configurationFile());
        std::filesystem::create_directory(configurationFile());
    };
    EXPECT_TRUE(changeAndMeanwhile(exchange));
    EXPECT_TRUE(std::filesystem::is_directory(configurationFile()));
    expectNothingElseHappened();
    std::filesystem::remove(configurationFile());
    expectTheNextOneRuns();
    EXPECT_EQ(linesWithMeanwhile(exchange), refusedLines({kGoingTo, kNotOpened}));
}

TEST_F(ADebugLoggingChangeWhoseFileChanges, EndsWhenItCannotBeSaved) {
    const auto exchange = [this] {
        std::filesystem::rename(configurationFile(), configurationFile() + ".real");
        std::filesystem::create_symlink(configurationFile() + ".real", configurationFile()); // never written through
    };
    EXPECT_TRUE(changeAndMeanwhile(exchange));
    EXPECT_EQ(configuration(), configurationText("true", "information"));
    expectNothingElseHappened();
    std::filesystem::remove(configurationFile());
    expectTheNextOneRuns();
    EXPECT_EQ(linesWithMeanwhile(exchange), refusedLines({kGoingTo, kNotSaved}));
}

TEST_F(ADebugLoggingChangeWhoseFileChanges, WinsOverAnotherProcessAndLeavesTheFileWhole) {
    EXPECT_TRUE(changeAndMeanwhile([this] { writeConfiguration("false", "alert"); }));
    EXPECT_EQ(configuration(), configurationText("true", "debug"));
    EXPECT_TRUE(preferences().getDebugLoggingStatus());
}

// The hub.

TEST_F(ADebugLoggingChange, LeavesFileAndMemoryAsTheyAreWhenTheReloadFails) {
    for (const bool succeeded : {true, false}) {
        hub.answer = [succeeded](HVB::CommandResult& result) {
            result.m_bSucceeded = succeeded;
            result.m_bValid = !succeeded;
        };
        EXPECT_TRUE(change(true));
        EXPECT_EQ(configuration(), configurationText("true", "debug"));
        EXPECT_TRUE(preferences().getDebugLoggingStatus());
        const Lines failed{kReloaded[0], kReloaded[1],
                           "1 STPreferenceController::updateHVConfigAndReloadHVB - CMD_RELOAD_HVB failed"};
        EXPECT_EQ(linesOf([] { change(true); }), callerLines(true) + workerLines(true, failed));
    }
}

TEST_F(ADebugLoggingChange, EndsWhenTheBrokerThrowsAtTheReloadAndTheNextOneRuns) {
    hub.before = [](const std::string& operation) {
        if (operation == "sendCommand") {
            throw HVB::HVBException(-110, "no answer");
        }
    };
    EXPECT_TRUE(change(true));
    EXPECT_TRUE(preferences().getDebugLoggingStatus());
    EXPECT_EQ(linesOf([] { change(true); }),
              callerLines(true) + workerLines(true, {kReloaded[0], kReloaded[1], kUnknown}));
    hub.before = nullptr;
    EXPECT_TRUE(change(false));
    EXPECT_FALSE(preferences().getDebugLoggingStatus());
}

TEST_F(ADebugLoggingChange, SendsNoReloadWhenTheSignalThrows) {
    hub.before = [](const std::string& operation) {
        if (operation == "sendEventNotification") {
            throw HVB::HVBException(-1, "no hub");
        }
    };
    EXPECT_TRUE(change(true));
    EXPECT_TRUE(preferences().getDebugLoggingStatus());
    EXPECT_THAT(hub.commands, IsEmpty());
    EXPECT_EQ(linesOf([] { change(true); }), callerLines(true) + workerLines(true, {kUnknown}));
}

TEST_F(ADebugLoggingChange, TracesAnExceptionOfThisModuleWithItsMessage) {
    hub.before = [](const std::string& operation) {
        if (operation == "sendCommand") {
            throw Sentrel::VXException(5, "the\tfifth");
        }
    };
    EXPECT_EQ(linesOf([] { change(true); }),
              callerLines(true) +
                  workerLines(true, {kReloaded[0], kReloaded[1],
                                     "1  STPreferenceController::updateHVConfigAndReloadHVB - Got exception "
                                     "the\\x09fifth."}));
}

// Many.

TEST_F(ADebugLoggingChange, LeavesNothingBehindAlsoAfterAThousandOfThem) {
    const auto mappedStacks = [] {
        const std::string maps = readFile("/proc/self/maps");
        return std::count(maps.begin(), maps.end(), '\n');
    };
    change(true);
    const auto before = mappedStacks();
    WorkerGate gate;
    gate.open();
    for (int number = 0; number < 1000; ++number) {
        ASSERT_TRUE(eventually([&] { return preferences().setDebugLoggingStatus(number % 2 == 0); }));
        gate.waitUntilAllEnded();
    }
    EXPECT_EQ(gate.starts, 1000);
    EXPECT_LT(mappedStacks(), before + 100) << "a thread that nobody lets go of keeps its stack";
    EXPECT_FALSE(preferences().getDebugLoggingStatus());
    EXPECT_EQ(hub.commands.size(), 1001U);
}

} // namespace
} // namespace testing_support
