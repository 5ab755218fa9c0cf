#include "browser/host/SettingsCache.h"

#include "base/UniqueFd.h"
#include "tests/support/AsUser.h"
#include "tests/support/Files.h"
#include "tests/support/PrivateRoot.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <stdexcept>

namespace Sentrel::host {
namespace {

namespace fs = std::filesystem;
using settings::SettingsSnapshot;
using testing_support::readFile;
using testing_support::writeFile;

SettingsSnapshot sampleSnapshot() {
    SettingsSnapshot snapshot;
    snapshot.state = settings::SnapshotState::Whole;
    snapshot.readAt = 5;
    snapshot.numbers = {{"Enabled", 1}};
    snapshot.allowBlock = {{"blocked.example\xFF", 1}};
    snapshot.privateRanges = {"10.0.0.0/8"};
    snapshot.proxy.host = "proxy.example";
    snapshot.check = settings::FileCheck{7, ""};
    return snapshot;
}

mode_t modeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777U;
}

class ASettingsCache : public testing::Test {
protected:
    testing_support::TemporaryDirectory m_directory;
    std::string m_path = m_directory.file("cache/sentrel/settings");
    SettingsCache m_cache{m_path};
};

TEST_F(ASettingsCache, GivesBackWhatDecides) {
    EXPECT_EQ(m_cache.read(), std::nullopt);
    m_cache.write(sampleSnapshot());
    EXPECT_EQ(m_cache.read(), whatDecides(sampleSnapshot()));
    EXPECT_EQ(m_cache.read()->allowBlock, sampleSnapshot().allowBlock);
    EXPECT_EQ(m_cache.read()->readAt, 5);
}

TEST_F(ASettingsCache, IsForItsUserAlone) {
    m_cache.write(sampleSnapshot());
    EXPECT_EQ(modeOf(m_path), 0600U);
    EXPECT_EQ(modeOf(fs::path(m_path).parent_path()), 0700U);
}

TEST_F(ASettingsCache, HoldsNoProxy) {
    m_cache.write(sampleSnapshot());
    EXPECT_EQ(readFile(m_path).find("proxy.example"), std::string::npos);
}

TEST_F(ASettingsCache, IsPassedOverWhenItIsSpoilt) {
    m_cache.write(sampleSnapshot());
    const std::string whole = readFile(m_path);
    for (const std::string& spoilt : {std::string(), std::string("{}"), whole.substr(0, whole.size() / 2), whole + "x",
                                      settings::textOf(SettingsSnapshot{})}) {
        writeFile(m_path, spoilt);
        EXPECT_THROW(m_cache.read(), std::runtime_error) << spoilt;
    }
    m_cache.write(sampleSnapshot());
    EXPECT_EQ(m_cache.read(), whatDecides(sampleSnapshot()));
}

TEST_F(ASettingsCache, IsPassedOverWhenOthersMayHaveWrittenIt) {
    m_cache.write(sampleSnapshot());
    ::chmod(m_path.c_str(), 0666);
    EXPECT_THROW(m_cache.read(), std::runtime_error);
    ::chmod(m_path.c_str(), 0600);
    fs::rename(m_path, m_path + ".else");
    fs::create_symlink(m_path + ".else", m_path);
    EXPECT_THROW(m_cache.read(), std::runtime_error);
    fs::remove(m_path);
    ASSERT_EQ(::mkfifo(m_path.c_str(), 0600), 0);
    EXPECT_THROW(m_cache.read(), std::runtime_error) << "and it does not wait there";
}

TEST_F(ASettingsCache, IsPassedOverWhenItIsAnotherUsers) {
    if (!testing_support::canActAsOthers()) {
        GTEST_SKIP() << "needs root to act as another user";
    }
    m_cache.write(sampleSnapshot());
    testing_support::PrivateRoot::giveTo(m_path, testing_support::kNobody, static_cast<gid_t>(-1));
    EXPECT_THROW(m_cache.read(), std::runtime_error);
}

TEST_F(ASettingsCache, IsLeftToAnotherProcessThatWritesIt) {
    m_cache.write(sampleSnapshot());
    const std::string before = readFile(m_path);
    const UniqueFd other(::open(fs::path(m_path).parent_path().c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(::flock(other.get(), LOCK_EX), 0);
    SettingsSnapshot snapshot = sampleSnapshot();
    snapshot.allowBlock.clear();
    m_cache.write(snapshot);
    EXPECT_EQ(readFile(m_path), before);
}

TEST_F(ASettingsCache, SaysWhenItCannotBeKept) {
    writeFile(m_directory.file("cache"), "no directory");
    EXPECT_THROW(m_cache.write(sampleSnapshot()), std::system_error);
    const SettingsCache none("");
    none.write(sampleSnapshot());
    EXPECT_EQ(none.read(), std::nullopt) << "a user without a home keeps nothing";
}

TEST(ThePlaceOfTheCache, IsTheUsersCacheDirectory) {
    const auto with = [](const char* cache, const char* home) {
        ::setenv("XDG_CACHE_HOME", cache, 1);
        ::setenv("HOME", home, 1);
        return settingsCachePath();
    };
    EXPECT_EQ(with("/caches", "/home/x"), "/caches/sentrel/settings");
    EXPECT_EQ(with("", "/home/x"), "/home/x/.cache/sentrel/settings");
    EXPECT_EQ(with("relative", "/home/x"), "/home/x/.cache/sentrel/settings");
    EXPECT_TRUE(with("", "relative").ends_with("/.cache/sentrel/settings")) << "of the user's entry";
}

} // namespace
} // namespace Sentrel::host
