// What sentrelctl doctor finds in the requests for access and in the rating lists. Each test breaks one thing and asks.
#include "tests/integration/DoctorFixture.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"

#include <gtest/gtest.h>

#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <string>

namespace testing_support {
namespace {

namespace fs = std::filesystem;

/// A machine on which somebody has asked for access.
class AnInstallationWithRequests : public ARunningInstallation {
protected:
    AnInstallationWithRequests() {
        EXPECT_EQ(ctl(m_machine.root(), {"requests", "ask", "http://site.example/"}).code, 0);
    }
    std::string m_path = std::string(kHubVar) + "/requests.db";
};

TEST_F(AnInstallationWithRequests, HasAStoreThatIsWhole) {
    EXPECT_EQ(finding("request-store"), (Finding{"ok", m_path + " is whole", ""}));
}

TEST_F(AnInstallationWithRequests, FailsWithAStoreThatIsDamaged) {
    write(m_path, std::string(8192, 'x'));
    setMode(m_path, 0640);
    const Finding found = finding("request-store");
    EXPECT_EQ(found.id, "request-store-damaged");
    EXPECT_EQ(found.what, m_path + " is damaged: nobody can ask for access, and grants do not end");
}

TEST_F(AnInstallationWithRequests, FailsWithAStoreThatHvbdRefuses) {
    ChildProcess program("sqlite3", {.arguments = {at(m_path), "PRAGMA user_version=2"},
                                     .environment = {},
                                     .outputFile = "",
                                     .uid = {},
                                     .gid = {}});
    ASSERT_EQ(program.waitUntil(patience()), 0);
    m_machine.hub().kill(SIGKILL);
    m_machine.hub().terminate();
    m_machine.startHub();
    const Finding found = finding("request-store");
    EXPECT_EQ(found.id, "request-store-unusable");
    EXPECT_NE(found.what.find("was written by a newer hvbd (layout 2)"), std::string::npos) << found.what;
}

TEST_F(AnInstallationWithRequests, FailsWithAStoreThatOthersMayUse) {
    setMode(m_path, 0644);
    expectFailed("request-store",
                 "other users may use " + m_path + ", which holds what people asked for: it has mode 0644",
                 "chmod o= " + m_path + "*", "request-store-open");
    setMode(m_path, 0640);
    if (canActAsOthers()) {
        giveToNobody(m_path);
        expectFailed("request-store", m_path + " is nobody's and not hvbd's", "chown root " + m_path + "*",
                     "request-store-owner");
    }
}

/// A machine with a rating list.
class AnInstallationWithRatings : public AnInstallation {
protected:
    AnInstallationWithRatings() { importList(); }

    void importList() {
        const std::string file = m_machine.root().file("list.txt");
        std::ofstream(file) << "bad.example\n";
        const timespec times[2] = {{m_changed, 0}, {m_changed, 0}};
        EXPECT_EQ(::utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
        EXPECT_EQ(ctl(m_machine.root(), {"ratings", "import", "a", file, "--format", "domains", "--rating", "60"}).code,
                  0);
    }
    std::time_t m_changed = ::time(nullptr);
    std::string m_directory = std::string(kVar) + "/ratings";
    std::string m_path = m_directory + "/ratings.cdb";
};

TEST_F(AnInstallationWithRatings, HasListsThatCanBeUsed) {
    EXPECT_EQ(finding("rating-lists"), (Finding{"ok", m_path + " has 1 lists", ""}));
}

TEST_F(AnInstallationWithRatings, FailsWithADamagedDatabase) {
    fs::resize_file(at(m_path), fs::file_size(at(m_path)) - 1);
    const Finding found = finding("rating-lists");
    EXPECT_EQ(found.id, "rating-lists-unusable");
    EXPECT_EQ(found.what, m_path + ": the rating database cannot be used: it is damaged, or cut");
}

TEST_F(AnInstallationWithRatings, WarnsOfListsThatAreTooOld) {
    m_changed -= std::time_t{32} * 24 * 3600;
    importList();
    EXPECT_EQ(finding("rating-lists").id, "rating-lists-old");
    EXPECT_EQ(finding("rating-lists").result, "warning");
}

TEST_F(AnInstallationWithRatings, FailsWithADatabaseThatOthersThanRootMayWrite) {
    setMode(m_path, 0664);
    EXPECT_EQ(finding("rating-lists").id, "rating-lists-open");
    setMode(m_path, 0644);
    if (canActAsOthers()) {
        giveToNobody(m_path);
        EXPECT_EQ(finding("rating-lists").id, "rating-lists-open");
    }
}

TEST_F(AnInstallationWithRatings, FailsWithADatabaseThatUsersCannotRead) {
    setMode(m_path, 0600);
    EXPECT_EQ(finding("rating-lists").id, "rating-lists-unreadable");
    setMode(m_path, 0644);
    setMode(m_directory, 0700);
    EXPECT_EQ(finding("rating-lists").id, "rating-lists-unreadable");
}

} // namespace
} // namespace testing_support
