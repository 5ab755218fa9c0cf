// A module's configuration file: what it may say, and what stays in force when it says something else. The files are
// real.
#include "apps/hvbd/ModuleConfiguration.h"
#include "tests/support/ConfigurationFiles.h"
#include "tests/support/Eventually.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using namespace HVB;
using namespace HVB::hub;

namespace {

const std::string kOn = "<SyslogEnable>true</SyslogEnable>";

std::string document(const std::string& inside) {
    return "<?xml version=\"1.0\"?>\n<HVConfiguration>" + inside + "</HVConfiguration>\n";
}

class AModuleConfiguration : public testing::Test {
protected:
    ModuleConfiguration parsed(const std::string& inside) const {
        std::ofstream(path) << document(inside);
        return readModuleConfiguration(path);
    }

    /// Why a file with this content is refused, without the path in front.
    std::string refusal(const std::string& xml) const {
        std::ofstream(path) << xml;
        return refusal();
    }
    std::string refusal() const {
        try {
            readModuleConfiguration(path);
        } catch (const ConfigurationError& error) {
            return std::string(error.what()).substr(path.size() + 2);
        }
        return "accepted";
    }

    testing_support::TemporaryDirectory directory;
    const std::string path = directory.file("HVConfig.xml");
};

TEST_F(AModuleConfiguration, ComesToWhatTheTableOfFilesSays) {
    for (const testing_support::ConfigurationFile& file : testing_support::configurationFiles()) {
        lay(file, path);
        try {
            EXPECT_EQ(readModuleConfiguration(path).description(), file.inForce) << file.name;
        } catch (const ConfigurationError& error) {
            EXPECT_EQ(error.reason(), file.reason) << file.name;
            EXPECT_EQ(error.what(), path + ": " + file.reason) << file.name;
        }
    }
}

TEST_F(AModuleConfiguration, TakesEachLevelByItsWord) {
    for (const auto& [word, level] : {std::pair{"error", LOG_LEVEL_ERROR},
                                      {"warning", LOG_LEVEL_WARNING},
                                      {"information", LOG_LEVEL_INFORMATION},
                                      {"debug", LOG_LEVEL_DEBUG},
                                      {"verbose", LOG_LEVEL_DEBUG},
                                      {"audit", LOG_LEVEL_DEBUG},
                                      {"alert", LOG_LEVEL_DEBUG}}) {
        EXPECT_EQ(parsed(kOn + "<LogLevel>" + std::string(word) + "</LogLevel>").level, level) << word;
    }
}

TEST_F(AModuleConfiguration, TakesASwitchWithBlanksAndTextsWithCommentsAndCharacterData) {
    const auto configuration = parsed("<Other/><SyslogEnable> true\n</SyslogEnable>"
                                      "<LogLevel><!-- for a day --><![CDATA[debug]]></LogLevel>");
    EXPECT_EQ(configuration, (ModuleConfiguration{true, LOG_LEVEL_DEBUG}));
    EXPECT_TRUE(parsed("<SyslogEnable>1</SyslogEnable><LogLevel>error</LogLevel>").syslogEnabled);
    EXPECT_FALSE(parsed("<SyslogEnable>0</SyslogEnable>").syslogEnabled);
}

TEST(ALevel, IsToldByTheWordThatTheFileHasForIt) {
    EXPECT_EQ(levelWord(LOG_LEVEL_ERROR), "error");
    EXPECT_EQ(levelWord(LOG_LEVEL_WARNING), "warning");
    EXPECT_EQ(levelWord(LOG_LEVEL_INFORMATION), "information");
    EXPECT_EQ(levelWord(LOG_LEVEL_DEBUG), "debug");
    EXPECT_EQ(levelWord(static_cast<hv_logLevel_enum>(4)), "unknown");
}

TEST_F(AModuleConfiguration, WantsLinesUpToItsLevelAndNoneWhenItIsOff) {
    const ModuleConfiguration warnings{true, LOG_LEVEL_WARNING};
    EXPECT_TRUE(warnings.wants(LOG_LEVEL_ERROR));
    EXPECT_TRUE(warnings.wants(LOG_LEVEL_WARNING));
    EXPECT_FALSE(warnings.wants(LOG_LEVEL_INFORMATION));
    EXPECT_FALSE((ModuleConfiguration{false, LOG_LEVEL_DEBUG}.wants(LOG_LEVEL_ERROR)));
}

TEST_F(AModuleConfiguration, QuotesALevelThatIsNoneInShortAndPrintable) {
    EXPECT_EQ(parsed(kOn + "<LogLevel>loud\n</LogLevel>").noLevel, "loud\\x0a");
    EXPECT_EQ(parsed(kOn + "<LogLevel>" + std::string(60'000, 'x') + "</LogLevel>").noLevel,
              std::string(61, 'x') + "…");
}

TEST_F(AModuleConfiguration, CutsAReasonThatQuotesALongText) {
    const std::string reason = refusal(document("<SyslogEnable>" + std::string(60'000, 'x') + "</SyslogEnable>"));
    EXPECT_EQ(reason.size(), 2048U);
}

TEST_F(AModuleConfiguration, IsRefusedBehindALinkToWhatOnlySomeMayRead) {
    const std::string target = directory.file("other.xml");
    std::ofstream(target) << document(kOn + "<LogLevel>debug</LogLevel>");
    std::filesystem::create_symlink(target, path);
    EXPECT_EQ(refusal(), "accepted");
    ASSERT_EQ(chmod(target.c_str(), 0640), 0);
    EXPECT_EQ(refusal(), "a symbolic link to a file that not every user may read");
}

TEST_F(AModuleConfiguration, IsRefusedWithADocumentType) {
    EXPECT_EQ(refusal("<!DOCTYPE HVConfiguration [<!ENTITY level \"debug\">]>\n"
                      "<HVConfiguration><LogLevel>&level;</LogLevel></HVConfiguration>"),
              "a document type is not allowed here");
    EXPECT_EQ(refusal("<!DOCTYPE HVConfiguration SYSTEM \"/etc/hostname\">\n<HVConfiguration/>"),
              "a document type is not allowed here");
}

class LoadedModuleConfigurations : public testing::Test {
protected:
    LoadedModuleConfigurations() { write("<LogLevel>debug</LogLevel>"); }

    void write(const std::string& inside) { std::ofstream(path) << document(kOn + inside); }

    /// Waits until a look may take the file for the same without reading it.
    void rest() {
        ASSERT_TRUE(testing_support::eventually([&] {
            const std::optional<Sentrel::FileStamp> stamp = Sentrel::stampOf(path);
            return stamp && hasRested(*stamp);
        }));
    }

    std::string refusedReload(int moduleId = MODULE_SENTREL) {
        try {
            configurations.reload(moduleId);
        } catch (const ConfigurationError& error) {
            return error.what();
        }
        return "accepted";
    }

    testing_support::TemporaryDirectory directory;
    const std::string path = directory.file("HVConfig.xml");
    std::vector<std::string> told; ///< priority and line
    ModuleConfigurations configurations{{{MODULE_SENTREL, path}}, [this](int priority, const std::string& line) {
                                            told.push_back(std::to_string(priority) + " " + line);
                                        }};
};

TEST_F(LoadedModuleConfigurations, HaveTheDefaultUntilTheFirstReload) {
    EXPECT_EQ(configurations.of(MODULE_SENTREL).level, LOG_LEVEL_INFORMATION);
    configurations.reload(MODULE_SENTREL);
    EXPECT_EQ(configurations.of(MODULE_SENTREL).level, LOG_LEVEL_DEBUG);
    EXPECT_EQ(configurations.of(99).level, LOG_LEVEL_INFORMATION);
}

TEST_F(LoadedModuleConfigurations, KeepWhatIsInForceWhenTheNewFileIsMalformed) {
    configurations.reload(MODULE_SENTREL);
    write("");
    EXPECT_EQ(refusedReload(), path + ": /HVConfiguration/LogLevel: finds nothing, line 2");
    EXPECT_EQ(configurations.of(MODULE_SENTREL).level, LOG_LEVEL_DEBUG);
}

TEST_F(LoadedModuleConfigurations, KeepWhatIsInForceWhenTheFileIsMissing) {
    configurations.reload(MODULE_SENTREL);
    std::filesystem::remove(path);
    EXPECT_EQ(refusedReload(), path + ": No such file or directory");
    EXPECT_EQ(configurations.of(MODULE_SENTREL).level, LOG_LEVEL_DEBUG);
}

TEST_F(LoadedModuleConfigurations, AreToldWhileTheyAreReadAgain) {
    configurations.reload(MODULE_SENTREL);
    std::atomic<bool> done{false};
    const auto reload = [this] {
        for (int round = 0; round < 200; ++round) {
            EXPECT_EQ(configurations.reload(MODULE_SENTREL).level, LOG_LEVEL_DEBUG);
        }
    };
    std::thread asking([&] {
        do {
            EXPECT_EQ(configurations.of(MODULE_SENTREL).level, LOG_LEVEL_DEBUG);
        } while (!done);
    });
    std::thread other(reload);
    reload();
    other.join();
    done = true;
    asking.join();
}

TEST_F(LoadedModuleConfigurations, RefuseAModuleThatHasNoFile) {
    EXPECT_EQ(refusedReload(42), "module 42 has no configuration that hvbd knows");
}

TEST_F(LoadedModuleConfigurations, RefuseADirectoryAndAPipeInTheFilesPlace) {
    std::filesystem::remove(path);
    std::filesystem::create_directory(path);
    EXPECT_EQ(refusedReload(), path + ": not a regular file");
    std::filesystem::remove(path);
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(refusedReload(), path + ": not a regular file");
}

TEST_F(LoadedModuleConfigurations, RefuseAFileBeyondTheLimitAndTakeOneWithinIt) {
    constexpr std::size_t limit = std::size_t{64} << 10;
    const std::size_t frame = document(kOn + "<LogLevel>error</LogLevel>").size();
    write("<LogLevel>error</LogLevel>" + std::string(limit - frame, ' '));
    ASSERT_EQ(std::filesystem::file_size(path), limit);
    EXPECT_EQ(refusedReload(), "accepted");
    write("<LogLevel>warning</LogLevel>" + std::string(limit - frame, ' '));
    EXPECT_EQ(refusedReload(), path + ": larger than 65536 bytes");
    EXPECT_EQ(configurations.of(MODULE_SENTREL).level, LOG_LEVEL_ERROR);
}

TEST_F(LoadedModuleConfigurations, TellOfATroubleOnceHoweverOftenItIsMet) {
    configurations.reload(MODULE_SENTREL);
    EXPECT_EQ(configurations.look(MODULE_SENTREL), "");
    EXPECT_EQ(told, std::vector<std::string>()) << "a file that can be used is no news";
    write("");
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(configurations.look(MODULE_SENTREL), "/HVConfiguration/LogLevel: finds nothing, line 2");
        refusedReload();
    }
    std::filesystem::remove(path);
    configurations.lookAtAll();
    configurations.lookAtAll();
    write("<LogLevel>error</LogLevel>");
    configurations.lookAtAll();
    configurations.lookAtAll();
    EXPECT_EQ(told, (std::vector<std::string>{"4 module 7 cannot use its configuration " + path +
                                                  ": /HVConfiguration/LogLevel: finds nothing, line 2",
                                              "4 module 7 cannot use its configuration " + path +
                                                  ": No such file or directory",
                                              "5 module 7 can use its configuration " + path + " again"}));
    EXPECT_EQ(configurations.of(MODULE_SENTREL).level, LOG_LEVEL_DEBUG) << "a look puts nothing into force";
}

TEST_F(LoadedModuleConfigurations, SeeEachChangeOfAFileThatHadRested) {
    configurations.reload(MODULE_SENTREL);
    rest();
    EXPECT_EQ(configurations.look(MODULE_SENTREL), "");
    const auto size = std::filesystem::file_size(path);
    const auto time = std::filesystem::last_write_time(path);
    write("<LogLevel>debug</LogLeve1>");
    ASSERT_EQ(std::filesystem::file_size(path), size);
    std::filesystem::last_write_time(path, time);
    EXPECT_NE(configurations.look(MODULE_SENTREL), "") << "although size and time of writing are as before";
    write("<LogLevel>debug</LogLevel>");
    EXPECT_EQ(configurations.look(MODULE_SENTREL), "");
    write("<LogLevel>debug</LogLeve1>");
    EXPECT_NE(configurations.look(MODULE_SENTREL), "") << "right after another change";
}

TEST_F(LoadedModuleConfigurations, SeeAChangeBehindALink) {
    const std::string target = directory.file("target.xml");
    std::filesystem::rename(path, target);
    std::filesystem::create_symlink(target, path);
    EXPECT_EQ(configurations.look(MODULE_SENTREL), "");
    rest();
    EXPECT_EQ(configurations.look(MODULE_SENTREL), "");
    std::ofstream(target) << "<HVConfiguration/>";
    EXPECT_EQ(configurations.look(MODULE_SENTREL), "/HVConfiguration/SyslogEnable: finds nothing, line 1");
}

TEST_F(LoadedModuleConfigurations, KnowNothingAgainstAModuleWithoutAFile) {
    EXPECT_EQ(configurations.look(42), "");
    EXPECT_EQ(configurations.modules(), std::vector<int>{MODULE_SENTREL});
}

} // namespace
