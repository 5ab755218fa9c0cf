// Who has the settings file open. Real: files, locks, processes that are killed, another user.
#include "base/SettingsHandover.h"
#include "tests/support/AsUser.h"
#include "tests/support/Eventually.h"
#include "tests/support/Files.h"
#include "tests/support/OtherProcess.h"
#include "tests/support/PrivateRoot.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <future>
#include <memory>
#include <optional>
#include <system_error>

namespace {

using namespace Sentrel;
using namespace std::chrono_literals;
using testing_support::canActAsOthers;
using testing_support::eventually;
using testing_support::kNobody;
using testing_support::kNogroup;
using testing_support::OtherProcess;
using testing_support::PrivateRoot;

/// A directory for a settings file, and the two sides.
class ASettingsHandover : public ::testing::Test {
protected:
    std::error_code codeOf(std::chrono::milliseconds patience) const {
        try {
            const SettingsHandover handover(m_settings, patience);
        } catch (const std::system_error& error) {
            return error.code();
        }
        return {};
    }
    /// A process that runs @p setUp and stays.
    static std::unique_ptr<OtherProcess> processWith(const std::function<void()>& setUp) {
        return std::make_unique<OtherProcess>(::getuid(), ::getgid(), std::vector<gid_t>{}, [&](const auto& ready) {
            setUp();
            ready();
            for (;;) {
                ::pause(); // what setUp made stays
            }
        });
    }
    std::unique_ptr<OtherProcess> keeperProcess() {
        return processWith([this] { m_hold.take(); });
    }

    PrivateRoot m_root;
    const std::string m_settings = m_root.sharedDirectory() + "/product.db";
    const std::string m_file = m_root.sharedDirectory() + "/product.db.handover";
    SettingsHold m_hold{m_settings};
};

TEST_F(ASettingsHandover, DoesNotWaitWithoutAKeeper) {
    EXPECT_EQ(codeOf(0ms), std::error_code());
}

TEST_F(ASettingsHandover, WaitsUntilTheKeeperHasLetGo) {
    ASSERT_TRUE(m_hold.take());
    EXPECT_FALSE(m_hold.isAskedFor());
    std::atomic<bool> hasIt{false};
    std::promise<void> enough;
    std::future<void> converts = std::async(std::launch::async, [&] {
        const SettingsHandover handover(m_settings, testing_support::kPatience);
        hasIt = true;
        testing_support::await(enough.get_future(), "the end of the conversion");
    });
    ASSERT_TRUE(eventually([this] { return m_hold.isAskedFor(); }));
    EXPECT_FALSE(hasIt);
    m_hold.letGo();
    ASSERT_TRUE(eventually([&] { return hasIt.load(); }));
    EXPECT_FALSE(m_hold.take()) << "during the conversion";
    enough.set_value();
    testing_support::await(converts, "the conversion");
    EXPECT_TRUE(m_hold.take()) << "after it";
}

TEST_F(ASettingsHandover, KeepsAKeeperFromComingBackWhileSomebodyWaits) {
    auto otherKeeper = keeperProcess();
    ASSERT_TRUE(m_hold.take());
    std::future<std::error_code> asks =
        std::async(std::launch::async, [this] { return codeOf(testing_support::kPatience); });
    ASSERT_TRUE(eventually([this] { return m_hold.isAskedFor(); }));
    m_hold.letGo();
    EXPECT_FALSE(m_hold.take());
    otherKeeper.reset();
    EXPECT_EQ(testing_support::await(asks, "the handover"), std::error_code());
}

TEST_F(ASettingsHandover, GivesUpAtItsDeadlineAndSaysWhatToDo) {
    const auto keeper = keeperProcess();
    try {
        const SettingsHandover handover(m_settings, 50ms);
        FAIL() << "it has the file";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code().value(), ETIMEDOUT);
        EXPECT_NE(std::string(error.what()).find("the settings keeper does not let go of " + m_settings + "; stop it"),
                  std::string::npos)
            << error.what();
    }
    // Nobody asks any more.
    EXPECT_TRUE(m_hold.take());
    EXPECT_FALSE(m_hold.isAskedFor());
}

TEST_F(ASettingsHandover, IsOneProcessAtATime) {
    const SettingsHandover first(m_settings, 0ms);
    EXPECT_EQ(codeOf(50ms).value(), ETIMEDOUT);
}

TEST_F(ASettingsHandover, IsFreeWhenAKeeperWasKilled) {
    auto keeper = keeperProcess();
    EXPECT_EQ(codeOf(0ms).value(), ETIMEDOUT);
    keeper.reset();
    EXPECT_EQ(codeOf(0ms), std::error_code());
}

TEST_F(ASettingsHandover, IsOverWhenItsProcessWasKilled) {
    std::optional<SettingsHandover> kept;
    auto converter = processWith([&] { kept.emplace(m_settings, 0ms); });
    EXPECT_FALSE(m_hold.take());
    converter.reset();
    EXPECT_TRUE(m_hold.take());
}

TEST_F(ASettingsHandover, TouchesItsFileWhenItAsks) {
    const auto keeper = keeperProcess();
    const auto longAgo = std::filesystem::last_write_time(m_file) - 1h;
    std::filesystem::last_write_time(m_file, longAgo);
    EXPECT_EQ(codeOf(0ms).value(), ETIMEDOUT);
    EXPECT_GT(std::filesystem::last_write_time(m_file), longAgo);
}

TEST_F(ASettingsHandover, TellsAKeeperWhoseLockWasReplacedToLetGo) {
    ASSERT_TRUE(m_hold.take());
    std::filesystem::remove(m_file);
    EXPECT_TRUE(m_hold.isAskedFor());
    m_hold.letGo();
    ASSERT_TRUE(m_hold.take());
    EXPECT_FALSE(m_hold.isAskedFor());
}

TEST_F(ASettingsHandover, LeavesWhatIsNoRegularFileAlone) {
    std::filesystem::create_symlink(m_root.file("elsewhere"), m_file);
    EXPECT_EQ(codeOf(0ms).value(), ELOOP);
    EXPECT_THROW(m_hold.take(), std::system_error);
    EXPECT_FALSE(std::filesystem::exists(m_root.file("elsewhere")));
    std::filesystem::remove(m_file);
    ASSERT_EQ(::mkfifo(m_file.c_str(), 0600), 0);
    EXPECT_EQ(codeOf(0ms).value(), EINVAL);
}

TEST_F(ASettingsHandover, GivesItsFileToTheOwnerOfTheDirectoryAlone) {
    if (!canActAsOthers()) {
        GTEST_SKIP() << "needs root";
    }
    PrivateRoot::giveTo(m_root.sharedDirectory(), kNobody, kNogroup);
    EXPECT_EQ(codeOf(0ms), std::error_code());
    struct stat facts {};
    ASSERT_EQ(::lstat(m_file.c_str(), &facts), 0);
    EXPECT_EQ(facts.st_uid, kNobody);
    EXPECT_EQ(facts.st_gid, kNogroup);
    EXPECT_EQ(facts.st_mode & 07777U, 0600U);
    EXPECT_EQ(testing_support::asNobody([this] { return m_hold.take() ? "held" : "not held"; }), "held");
}

} // namespace
