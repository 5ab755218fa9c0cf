// The per-user data file. Real: directories and files under a private root. Not real: the current user's home.
#include "events/CFileFinder.h"

#include "tests/unit/events/EventsRoot.h"
#include "tests/unit/events/SystemDouble.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using NOrvanta::CFileFinder;
using testing::UnorderedElementsAre;
using testing_support::privateRoot;
using testing_support::SystemDouble;

constexpr int kDone = 0;
constexpr int kSystemFailure = -9;
constexpr int kNoSuchFile = 10;
constexpr int kNoCallback = -1;

/// A machine with a directory of users and a home of the test's own.
class AFileFinder : public testing::Test {
protected:
    AFileFinder() {
        fs::create_directories(users);
        fs::create_directories(home);
        SystemDouble::instance() = {};
        SystemDouble::instance().homeDirectory = home;
    }
    ~AFileFinder() override {
        SystemDouble::instance() = {};
        fs::remove_all(users);
        fs::remove_all(home);
    }

    static void writeFile(const std::string& path) {
        fs::create_directories(fs::path(path).parent_path());
        std::ofstream(path) << "data";
    }
    /// Makes a user's data file that was modified at @p seconds and @p nanoseconds.
    void dataFileOf(const std::string& user, std::time_t seconds, long nanoseconds = 0) {
        const std::string path = users + "/" + user + "/.orvanta/local.bin";
        writeFile(path);
        const timespec times[2] = {{seconds, nanoseconds}, {seconds, nanoseconds}};
        ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    }

    const std::string users = privateRoot() + "/Users";
    const std::string home = privateRoot() + "/home";
    const std::string directory = home + "/.orvanta/";
    const std::string file = directory + "local.bin";
    std::string result = "old";
};

bool collect(const std::string& path, void* context) {
    static_cast<std::vector<std::string>*>(context)->push_back(path);
    return true;
}

bool collectOne(const std::string& path, void* context) {
    collect(path, context);
    return false;
}

TEST_F(AFileFinder, GivesTheDataDirectoryOfTheCurrentUser) {
    EXPECT_EQ(CFileFinder::GetMyHome(result), kDone);
    EXPECT_EQ(result, directory);
}

TEST_F(AFileFinder, AsksTheSystemForTheCurrentUsersHome) {
    SystemDouble::instance() = {};
    const passwd* account = getpwuid(getuid());
    ASSERT_NE(account, nullptr);
    EXPECT_EQ(CFileFinder::GetMyHome(result), kDone);
    EXPECT_EQ(result, std::string(account->pw_dir) + "/.orvanta/");
}

TEST_F(AFileFinder, FailsForAUserWithoutAnAccountAndForOneThatDoesNotFitItsBuffer) {
    SystemDouble::instance().noAccount = true;
    EXPECT_EQ(CFileFinder::GetMyHome(result), kSystemFailure);
    SystemDouble::instance().noAccount = false;
    SystemDouble::instance().homeDirectory = "/" + std::string(1022, 'h');
    EXPECT_EQ(CFileFinder::GetMyHome(result), kDone);
    SystemDouble::instance().homeDirectory = "/" + std::string(1023, 'h');
    EXPECT_EQ(CFileFinder::GetMyHome(result), kSystemFailure);
    EXPECT_EQ(CFileFinder::GetDefaultName(result, false), kSystemFailure);
    EXPECT_EQ(CFileFinder::GetDefaultPath(result, false), kSystemFailure);
}

TEST_F(AFileFinder, CallsBackForEachHomeButHiddenOnes) {
    for (const char* name : {"ann", "bob", ".hidden"}) {
        fs::create_directory(users + "/" + name);
    }
    std::vector<std::string> homes;
    EXPECT_EQ(CFileFinder::EnumHomes(collect, &homes), kDone);
    EXPECT_THAT(homes, UnorderedElementsAre(users + "/ann", users + "/bob"));
}

TEST_F(AFileFinder, EndsTheScanWithSuccessWhenTheCallbackSaysSo) {
    for (const char* name : {"ann", "bob"}) {
        fs::create_directory(users + "/" + name);
    }
    std::vector<std::string> homes;
    EXPECT_EQ(CFileFinder::EnumHomes(collectOne, &homes), kDone);
    EXPECT_EQ(homes.size(), 1U);
}

TEST_F(AFileFinder, RefusesANullCallback) {
    EXPECT_EQ(CFileFinder::EnumHomes(nullptr, nullptr), kNoCallback);
}

TEST_F(AFileFinder, FailsToScanWhereThereAreNoHomes) {
    fs::remove_all(users);
    std::vector<std::string> homes;
    EXPECT_EQ(CFileFinder::EnumHomes(collect, &homes), kSystemFailure);
    EXPECT_EQ(CFileFinder::GetLatestName(result), kSystemFailure);
}

TEST_F(AFileFinder, NamesTheDataFileWithoutLookingForIt) {
    EXPECT_EQ(CFileFinder::GetDefaultName(result, false), kDone);
    EXPECT_EQ(result, file);
}

TEST_F(AFileFinder, FindsARegularFileThatItsOwnerMayRead) {
    writeFile(file);
    EXPECT_EQ(CFileFinder::GetDefaultName(result, true), kDone);
    EXPECT_EQ(result, file);
    fs::permissions(file, fs::perms::owner_read);
    EXPECT_EQ(CFileFinder::GetDefaultName(result, true), kDone);
}

TEST_F(AFileFinder, MissesAFileThatIsNotThereOrOfAnotherKindOrClosedToItsOwner) {
    EXPECT_EQ(CFileFinder::GetDefaultName(result, true), kNoSuchFile);
    fs::create_directories(file);
    EXPECT_EQ(CFileFinder::GetDefaultName(result, true), kNoSuchFile);
    fs::remove(file);
    writeFile(file);
    fs::permissions(file, fs::perms::owner_write | fs::perms::group_read);
    EXPECT_EQ(CFileFinder::GetDefaultName(result, true), kNoSuchFile);
}

TEST_F(AFileFinder, FailsWhenTheFileCannotBeLookedAt) {
    writeFile(home + "/.orvanta");
    EXPECT_EQ(CFileFinder::GetDefaultName(result, true), kSystemFailure);
}

TEST_F(AFileFinder, GivesTheDataFileThatWasModifiedLast) {
    dataFileOf("ann", 2000);
    dataFileOf("bob", 3000);
    dataFileOf("cid", 1000);
    dataFileOf("dan", 2000, 999'999'999);
    fs::create_directory(users + "/eve");
    EXPECT_EQ(CFileFinder::GetLatestName(result), kDone);
    EXPECT_EQ(result, users + "/bob/.orvanta/local.bin");
    dataFileOf("cid", 3000, 1);
    EXPECT_EQ(CFileFinder::GetLatestName(result), kDone);
    EXPECT_EQ(result, users + "/cid/.orvanta/local.bin");
}

TEST_F(AFileFinder, GivesTheFirstThatItFindsOfEquallyOldDataFiles) {
    for (const char* user : {"ann", "bob", "cid"}) {
        dataFileOf(user, 3000, 5);
    }
    std::vector<std::string> homes; // in the order of the scan
    EXPECT_EQ(CFileFinder::EnumHomes(collect, &homes), kDone);
    ASSERT_EQ(homes.size(), 3U);
    EXPECT_EQ(CFileFinder::GetLatestName(result), kDone);
    EXPECT_EQ(result, homes.front() + "/.orvanta/local.bin");
}

TEST_F(AFileFinder, FindsNoLatestFileWhereNoUserHasOne) {
    fs::create_directory(users + "/ann");
    EXPECT_EQ(CFileFinder::GetLatestName(result), kNoSuchFile);
    EXPECT_EQ(result, "old");
}

TEST_F(AFileFinder, NamesTheDataDirectoryWithoutMakingIt) {
    EXPECT_EQ(CFileFinder::GetDefaultPath(result, false), kDone);
    EXPECT_EQ(result, directory);
    EXPECT_FALSE(fs::exists(directory));
}

TEST_F(AFileFinder, MakesTheDataDirectory) {
    const mode_t old = umask(0);
    EXPECT_EQ(CFileFinder::GetDefaultPath(result, true), kDone);
    umask(old);
    EXPECT_EQ(result, directory);
    ASSERT_TRUE(fs::is_directory(directory));
    EXPECT_EQ(fs::status(directory).permissions(), fs::perms(0755));
}

TEST_F(AFileFinder, KeepsADataDirectoryWithAnOwnersPermission) {
    writeFile(file);
    for (const auto permission : {fs::perms::owner_read, fs::perms::owner_write, fs::perms::owner_exec}) {
        fs::permissions(directory, permission);
        EXPECT_EQ(CFileFinder::GetDefaultPath(result, true), kDone);
    }
    fs::permissions(directory, fs::perms::owner_all);
    EXPECT_TRUE(fs::exists(file));
}

TEST_F(AFileFinder, FailsForADataDirectoryWithoutAnyOwnersPermission) {
    fs::create_directory(directory);
    fs::permissions(directory, fs::perms::group_all);
    EXPECT_EQ(CFileFinder::GetDefaultPath(result, true), kSystemFailure);
    fs::permissions(directory, fs::perms::owner_all);
}

TEST_F(AFileFinder, ReplacesWhatStandsInTheDirectorysPlace) {
    writeFile(home + "/.orvanta");
    EXPECT_EQ(CFileFinder::GetDefaultPath(result, true), kDone);
    EXPECT_TRUE(fs::is_directory(directory));
}

TEST_F(AFileFinder, FailsWhereTheDirectoryCannotBeMade) {
    fs::remove_all(home);
    EXPECT_EQ(CFileFinder::GetDefaultPath(result, true), kSystemFailure);
    writeFile(home);
    EXPECT_EQ(CFileFinder::GetDefaultPath(result, true), kSystemFailure);
    EXPECT_TRUE(fs::is_regular_file(home)) << "only what stands in the directory's own place is removed";
}

TEST_F(AFileFinder, TellsWhetherAFileExists) {
    EXPECT_FALSE(CFileFinder::FileExists(file));
    writeFile(file);
    EXPECT_TRUE(CFileFinder::FileExists(file));
    EXPECT_TRUE(CFileFinder::FileExists(directory));
}

TEST_F(AFileFinder, HasNoInstallPath) {
    EXPECT_EQ(CFileFinder::GetInstallPath(result), -7);
    EXPECT_EQ(result, "old");
}

} // namespace
