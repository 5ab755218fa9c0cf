// What the controller makes of its two files when it is first asked for.
#include "hub/Exceptions.h"
#include "platform/hvbutils/LoggingConfiguration.h"
#include "tests/support/ConfigurationFiles.h"
#include "tests/unit/store/PreferenceFixture.h"

#include <fstream>
#include <stdexcept>

namespace testing_support {
namespace {

using Sentrel::STPreferenceController;

class AControllerThatLoads : public PreferenceFixture {
protected:
    static STPreferenceController& it() { return controller(); }

    /// Writes a row of the general table the way the daemon does, with the key's NUL.
    void write(const std::string& key, const std::string& blob) const {
        sql("insert or replace into vxsetting values(cast(x'" + hex(key) + "00' as text), x'" + blob + "')");
    }

    static std::string hex(const std::string& text) {
        std::string digits;
        for (const char c : text) {
            constexpr const char* table = "0123456789abcdef";
            digits += table[static_cast<unsigned char>(c) >> 4U];
            digits += table[static_cast<unsigned char>(c) & 0xFU];
        }
        return digits;
    }

    static void expectDefaults() {
        EXPECT_TRUE(it().getEnableSentrel());
        EXPECT_FALSE(it().getEnableSafeSearch());
        EXPECT_EQ(it().getRedSiteAction(), 3);
        EXPECT_EQ(it().getYellowSiteAction(), 2);
        EXPECT_EQ(it().getUnratedSiteAction(), 1);
        EXPECT_EQ(it().getSTUnVerifiedAction(), 1);
        EXPECT_TRUE(it().getEnableCategoryBlocking());
        EXPECT_FALSE(it().getAllowOverBlockPrecedenceStatus());
        EXPECT_TRUE(it().getBlockPhishingStatus());
        EXPECT_FALSE(it().getRPXUnReachableAction());
        EXPECT_EQ(it().getPrivateIpChecksum(), '0');
        EXPECT_EQ(it().getAllowBlockListChecksum(), '0');
        EXPECT_EQ(it().getCategoryBlockListChecksum(), '0');
    }
};

TEST_F(AControllerThatLoads, ComesUpWithTheDefaultsOverAnAbsentFile) {
    expectDefaults();
}

TEST_F(AControllerThatLoads, ComesUpWithTheDefaultsOverEmptyTables) {
    makeTables();
    expectDefaults();
}

TEST_F(AControllerThatLoads, ComesUpWithTheDefaultsOverAFileThatIsNoDatabase) {
    std::ofstream(file()) << std::string(5000, 'x');
    expectDefaults();
    EXPECT_EQ(std::filesystem::file_size(file()), 5000u);
}

TEST_F(AControllerThatLoads, TakesEveryScalarFromTheFile) {
    makeTables();
    write("Enabled", "00000000");
    write("SSOn", "01000000");
    write("RedSiteAction", "07000000");
    write("YellowSiteAction", "08000000");
    write("UnverifiedSiteAction", "09000000");
    write("GenPolicyUnverifiedAction", "feffffff");
    write("CAT_Enabled", "00000000");
    write("ALLOW_OVER_Block", "05000000");
    write("GenPolicyBlockPhishingAction", "00000000");
    write("GenPolicyRPXUnReachableAction", "01000000");
    write("PrivateIPRangeChecksum", "f1000000");
    write("AllowBlockListChecksum", "02010000");
    write("CategoryBlockListChecksum", "00000000");
    EXPECT_FALSE(it().getEnableSentrel());
    EXPECT_TRUE(it().getEnableSafeSearch());
    EXPECT_EQ(it().getRedSiteAction(), 7);
    EXPECT_EQ(it().getYellowSiteAction(), 8);
    EXPECT_EQ(it().getUnratedSiteAction(), 9);
    EXPECT_EQ(it().getSTUnVerifiedAction(), -2);
    EXPECT_FALSE(it().getEnableCategoryBlocking());
    EXPECT_TRUE(it().getAllowOverBlockPrecedenceStatus());
    EXPECT_FALSE(it().getBlockPhishingStatus());
    EXPECT_TRUE(it().getRPXUnReachableAction());
    EXPECT_EQ(it().getPrivateIpChecksum(), 0xF1);
    EXPECT_EQ(it().getAllowBlockListChecksum(), 2) << "the low byte counts";
    EXPECT_EQ(it().getCategoryBlockListChecksum(), 0);
}

TEST_F(AControllerThatLoads, TakesASwitchThatIsOffByDefaultForOffWhenItsRowIsMissingOrZero) {
    makeTables();
    EXPECT_FALSE(it().getEnableSafeSearch());
    write("SSOn", "00000000");
    EXPECT_FALSE(restarted().getEnableSafeSearch());
}

TEST_F(AControllerThatLoads, TakesASwitchThatIsOnByDefaultForOnUnlessItsRowIsZero) {
    makeTables();
    write("Enabled", "02000000");
    EXPECT_TRUE(it().getEnableSentrel());
    write("Enabled", "00000000");
    EXPECT_FALSE(restarted().getEnableSentrel());
    sql("delete from vxsetting");
    EXPECT_TRUE(restarted().getEnableSentrel());
}

TEST_F(AControllerThatLoads, DoesNotSeeAKeyWithoutItsTerminator) {
    makeTables();
    sql("insert into vxsetting values('Enabled', x'00000000')");
    EXPECT_TRUE(it().getEnableSentrel());
}

TEST_F(AControllerThatLoads, TakesAValueThatIsTooLongForMissing) {
    makeTables();
    write("RedSiteAction", "0100000000");
    EXPECT_EQ(it().getRedSiteAction(), 3);
}

TEST_F(AControllerThatLoads, ServesDefaultsAndListsWhenTheFirstTableIsMissing) {
    makeTables();
    sql("drop table vxsetting; insert into allowblocksettings values('http://a.example', 1);"
        "insert into catblockinginfo values('Games', x'01000000')");
    expectDefaults();
    Sentrel::AllowBlockDetails urls;
    it().getAllowBlockDetails(urls);
    EXPECT_EQ(urls.size(), 1u);
    Sentrel::CategoryBlockDetails categories;
    it().getCategoryBlockDetails(categories);
    EXPECT_EQ(categories, (Sentrel::CategoryBlockDetails{{"Games", 1}}));
}

TEST_F(AControllerThatLoads, SaysWhatItFound) {
    makeTables();
    sql("insert into catblockinginfo values('News', x'03000000'), ('Games', x'00000000')");
    const Lines lines = leveled([] {}, [] { controller(); });
    EXPECT_EQ(lines, (Lines{"2 STPreferenceController::loadPreferenceData - entered",
                            "2 STPreferenceController::loadPrefenceDataFromDB - entered",
                            "1 STPreferenceController::loadPrefenceDataFromDB found category blocking data in DB",
                            "1 Category Name is News and action is 1", "1 Category Name is Games and action is 1",
                            "2 STPreferenceController::loadPrefenceDataFromConfigFile - entered"}));
}

TEST_F(AControllerThatLoads, SaysThatThereAreNoCategories) {
    const Lines lines = leveled([] {}, [] { controller(); });
    EXPECT_EQ(lines, (Lines{"2 STPreferenceController::loadPreferenceData - entered",
                            "2 STPreferenceController::loadPrefenceDataFromDB - entered",
                            "1 STPreferenceController::loadPrefenceDataFromDB found no category blocking data in DB",
                            "2 STPreferenceController::loadPrefenceDataFromConfigFile - entered"}));
}

TEST_F(AControllerThatLoads, GoesOnWithTheDefaultsWithoutAPath) {
    settingsPath() = [](std::string&) { return false; };
    const Lines lines = leveled([] {}, [] { controller(); });
    EXPECT_EQ(lines[2], "1 STPreferenceController::loadPrefenceDataFromDB - Error while getting DB handle");
    EXPECT_EQ(printed([] { restarted(); }), "Preferences error while getting DB path \n");
    expectDefaults();
}

TEST_F(AControllerThatLoads, GoesOnWithTheDefaultsWhenTheFileCannotBeOpened) {
    settingsPath() = [this](std::string& path) {
        path = file() + ".d/no/such";
        return true;
    };
    const Lines lines = leveled([] {}, [] { controller(); });
    EXPECT_EQ(lines[2], "1 STPreferenceController::setEnableSentrel - Error while getting DB handle");
    EXPECT_EQ(printed([] { restarted(); }), "Preferences error while getting DB handle \n");
    expectDefaults();
}

TEST_F(AControllerThatLoads, GoesOnWithTheDefaultsAfterAnException) {
    settingsPath() = [](std::string&) -> bool { throw std::runtime_error("unknown"); };
    EXPECT_EQ(printed([] { restarted(); }), "Unknown exception file loading preference from DB\n");
    expectDefaults();
}

TEST_F(AControllerThatLoads, ThrowsWithoutTheHubsConfigurationEachTimeItIsAsked) {
    std::filesystem::remove(configurationFile());
    const TraceLog log;
    for (int attempt = 0; attempt < 2; ++attempt) {
        try {
            controller();
            FAIL() << "came up";
        } catch (const HVB::HVBException& exception) {
            EXPECT_EQ(exception.code(), 3);
            EXPECT_EQ(exception.message(), "Reading log level information from HVConfig.xml failed");
        }
    }
    const Lines lines = log.lines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "STPreferenceController::loadPreferenceData - entered"), 2);
    writeConfiguration("true", "debug");
    EXPECT_TRUE(controller().getDebugLoggingStatus());
}

TEST_F(AControllerThatLoads, SaysAtLevelOneThatTheConfigurationCannotBeRead) {
    std::ofstream(configurationFile()) << "<HVConfiguration><SyslogEnable>tr";
    const Lines lines = leveled([] {}, [] { EXPECT_THROW(controller(), HVB::HVBException); });
    EXPECT_EQ(lines.back(), "1 STPreferenceController::loadPrefenceDataFromConfigFile-Got exception while reading log "
                            "level information from HVConfig.xml");
}

TEST_F(AControllerThatLoads, ThrowsForAConfigurationWithoutItsElements) {
    std::ofstream(configurationFile()) << "<HVConfiguration><SyslogEnable>true</SyslogEnable></HVConfiguration>";
    EXPECT_THROW(controller(), HVB::HVBException);
    std::ofstream(configurationFile()) << "<HVConfiguration><LogLevel>debug</LogLevel></HVConfiguration>";
    EXPECT_THROW(controller(), HVB::HVBException);
}

/// The verdict of whoever reads for another program must be the daemon's, file by file.
TEST_F(AControllerThatLoads, MakesOfEachConfigurationWhatTheSharedReaderDoes) {
    for (const ConfigurationFile& file : configurationFiles()) {
        lay(file, configurationFile());
        bool isUsable = true;
        bool isDebugging = false;
        try {
            isDebugging = restarted().getDebugLoggingStatus();
        } catch (const HVB::HVBException&) {
            isUsable = false;
        }
        EXPECT_EQ(isUsable, file.isUsable) << file.name;
        EXPECT_EQ(isDebugging, file.isDebugging) << file.name;
        try {
            EXPECT_EQ(HVB::loggingIn(HVB::openModuleConfiguration(configurationFile())).isDebugging(), isDebugging)
                << file.name;
            EXPECT_TRUE(isUsable) << file.name;
        } catch (const LibXmlError& error) {
            EXPECT_FALSE(isUsable) << file.name;
            EXPECT_EQ(error.reason(), file.reason) << file.name;
        }
    }
}

TEST_F(AControllerThatLoads, HasDebugLoggingOffWhenTheSystemLogIsOff) {
    writeConfiguration("false", "debug");
    EXPECT_FALSE(it().getDebugLoggingStatus());
}

struct Level {
    const char* text;
    bool isOn;
};
class ALogLevel : public AControllerThatLoads, public testing::WithParamInterface<Level> {};

INSTANTIATE_TEST_SUITE_P(Each, ALogLevel,
                         testing::Values(Level{"debug", true}, Level{"verbose", true}, Level{"audit", true},
                                         Level{"alert", true}, Level{"information", false}, Level{"Debug", false},
                                         Level{"debugging", false}, Level{"", false}));

TEST_P(ALogLevel, TurnsDebugLoggingOnOnlyWhenItIsExactlyOneOfFour) {
    writeConfiguration("true", GetParam().text);
    EXPECT_EQ(it().getDebugLoggingStatus(), GetParam().isOn);
}

} // namespace
} // namespace testing_support
