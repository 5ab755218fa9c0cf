// A module's configuration file: what it may say, and what stays in force when it says something else. The files are
// real.
#include "apps/hvbd/ModuleConfiguration.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <utility>

using namespace HVB;
using namespace HVB::hub;

namespace {

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

TEST_F(AModuleConfiguration, IsInformationByDefault) {
    EXPECT_EQ(parsed(""), (ModuleConfiguration{true, LOG_LEVEL_INFORMATION}));
}

TEST_F(AModuleConfiguration, TakesEachLevelByItsWord) {
    for (const auto& [word, level] : {std::pair{"error", LOG_LEVEL_ERROR},
                                      {"warning", LOG_LEVEL_WARNING},
                                      {"information", LOG_LEVEL_INFORMATION},
                                      {"debug", LOG_LEVEL_DEBUG},
                                      {"verbose", LOG_LEVEL_DEBUG},
                                      {"audit", LOG_LEVEL_DEBUG},
                                      {"alert", LOG_LEVEL_DEBUG}}) {
        EXPECT_EQ(parsed("<LogLevel>" + std::string(word) + "</LogLevel>").level, level) << word;
    }
}

TEST_F(AModuleConfiguration, TakesASwitchWithBlanksAndTextsWithCommentsAndCharacterData) {
    const auto configuration = parsed("<Other/><SyslogEnable> false\n</SyslogEnable>"
                                      "<LogLevel><!-- for a day --><![CDATA[debug]]></LogLevel>");
    EXPECT_EQ(configuration, (ModuleConfiguration{false, LOG_LEVEL_DEBUG}));
    EXPECT_TRUE(parsed("<SyslogEnable>1</SyslogEnable>").syslogEnabled);
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

TEST_F(AModuleConfiguration, IsRefusedWithTheReasonWhenItIsMalformed) {
    EXPECT_EQ(refusal(document("<LogLevel>loud</LogLevel>")), "LogLevel is \"loud\" and not one of the known levels");
    EXPECT_EQ(refusal(document("<LogLevel> debug</LogLevel>")),
              "LogLevel is \" debug\" and not one of the known levels");
    EXPECT_EQ(refusal(document("<LogLevel/>")), "LogLevel is \"\" and not one of the known levels");
    EXPECT_EQ(refusal(document("<SyslogEnable>yes</SyslogEnable>")),
              "/HVConfiguration/SyslogEnable: \"yes\" is neither true nor false");
    EXPECT_EQ(refusal(document("<LogLevel><b>debug</b></LogLevel>")),
              "line 2: /HVConfiguration/LogLevel holds more than a text");
    EXPECT_EQ(refusal(document("<LogLevel>debug</LogLevel><LogLevel>error</LogLevel>")),
              "/HVConfiguration/LogLevel: finds several");
    EXPECT_EQ(refusal("<Other/>"), "the outermost element is not HVConfiguration");
    EXPECT_EQ(refusal("<HVConfiguration>\n<LogLevel>\n</HVConfiguration>").substr(0, 8), "line 3: ");
    EXPECT_EQ(refusal("").substr(0, 8), "line 1: ");
    EXPECT_EQ(refusal(std::string("\0\1\2", 3)).substr(0, 8), "line 1: ");
}

TEST_F(AModuleConfiguration, IsRefusedBehindALink) {
    std::ofstream(directory.file("other.xml")) << document("<LogLevel>debug</LogLevel>");
    std::filesystem::create_symlink(directory.file("other.xml"), path);
    EXPECT_EQ(refusal(), "a symbolic link, which is not followed here");
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

    void write(const std::string& inside) { std::ofstream(path) << document(inside); }

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
    ModuleConfigurations configurations{{{MODULE_SENTREL, path}}};
};

TEST_F(LoadedModuleConfigurations, HaveTheDefaultUntilTheFirstReload) {
    EXPECT_EQ(configurations.of(MODULE_SENTREL).level, LOG_LEVEL_INFORMATION);
    configurations.reload(MODULE_SENTREL);
    EXPECT_EQ(configurations.of(MODULE_SENTREL).level, LOG_LEVEL_DEBUG);
    EXPECT_EQ(configurations.of(99).level, LOG_LEVEL_INFORMATION);
}

TEST_F(LoadedModuleConfigurations, KeepWhatIsInForceWhenTheNewFileIsMalformed) {
    configurations.reload(MODULE_SENTREL);
    write("<LogLevel>loud</LogLevel>");
    EXPECT_EQ(refusedReload(), path + ": LogLevel is \"loud\" and not one of the known levels");
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
    const std::size_t frame = document("<LogLevel>error</LogLevel>").size();
    write("<LogLevel>error</LogLevel>" + std::string(limit - frame, ' '));
    ASSERT_EQ(std::filesystem::file_size(path), limit);
    EXPECT_EQ(refusedReload(), "accepted");
    write("<LogLevel>warning</LogLevel>" + std::string(limit - frame, ' '));
    EXPECT_EQ(refusedReload(), path + ": larger than 65536 bytes");
    EXPECT_EQ(configurations.of(MODULE_SENTREL).level, LOG_LEVEL_ERROR);
}

} // namespace
