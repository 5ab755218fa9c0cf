// Files that hold a secret or a decision. Real files; a second user where the test may act as one.
#include "platform/hvbagent/PrivateFile.h"
#include "tests/support/AsUser.h"
#include "tests/support/PrivateRoot.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <barrier>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>
#include <thread>

namespace {

using namespace HVBEnterprise::agent;
using testing_support::canActAsOthers;

constexpr std::size_t kMax = 100;

/// A file "f" in a directory of its own.
class APrivateFile : public ::testing::Test {
protected:
    void write(const std::string& text, mode_t mode = 0600) const {
        std::ofstream(m_path, std::ios::binary) << text;
        ::chmod(m_path.c_str(), mode);
    }
    std::string text() const {
        std::ostringstream text;
        text << std::ifstream(m_path).rdbuf();
        return text.str();
    }
    int errorOfReading(FileAccess access = FileAccess::Anybody) const {
        try {
            (void)readRegularFile(m_path, kMax, access);
        } catch (const std::system_error& error) {
            EXPECT_NE(std::string(error.what()).find(m_path), std::string::npos);
            return error.code().value();
        }
        return 0;
    }
    std::size_t filesInTheDirectory() const {
        const std::filesystem::directory_iterator files(m_root.varDirectory());
        return static_cast<std::size_t>(std::distance(begin(files), end(files)));
    }

    testing_support::PrivateRoot m_root;
    const std::string m_path = m_root.varDirectory() + "/f";
};

TEST_F(APrivateFile, IsReadWholeUpToItsBound) {
    write(std::string("a\0b", 3));
    EXPECT_EQ(readRegularFile(m_path, kMax, FileAccess::OwnerAlone), std::string("a\0b", 3));
    write(std::string(kMax, 'x'));
    EXPECT_EQ(errorOfReading(), 0);
    write(std::string(kMax + 1, 'x'));
    EXPECT_EQ(errorOfReading(), EFBIG);
}

TEST_F(APrivateFile, IsNotReadWhenItIsNoRegularFile) {
    EXPECT_EQ(errorOfReading(), ENOENT);
    ASSERT_EQ(::symlink("/etc/passwd", m_path.c_str()), 0);
    EXPECT_EQ(errorOfReading(), ELOOP);
    ::unlink(m_path.c_str());
    ASSERT_EQ(::mkfifo(m_path.c_str(), 0600), 0);
    EXPECT_EQ(errorOfReading(), EINVAL); // at once: it does not wait for a writer
    ::unlink(m_path.c_str());
    ASSERT_EQ(::mkdir(m_path.c_str(), 0700), 0);
    EXPECT_EQ(errorOfReading(), EINVAL);
}

TEST_F(APrivateFile, IsNotReadWhenOthersMayTouchIt) {
    for (const mode_t mode : {0610U, 0620U, 0640U, 0601U, 0602U, 0604U}) {
        write("secret", mode);
        EXPECT_EQ(errorOfReading(FileAccess::OwnerAlone), EACCES) << mode;
        EXPECT_EQ(errorOfReading(FileAccess::Anybody), 0) << mode;
    }
    write("secret", 0400);
    EXPECT_EQ(errorOfReading(FileAccess::OwnerAlone), 0);
}

TEST_F(APrivateFile, IsNotReadWhenItIsAnotherUsers) {
    if (!canActAsOthers()) {
        GTEST_SKIP() << "needs root to give a file away";
    }
    write("secret", 0600);
    testing_support::PrivateRoot::giveTo(m_path, testing_support::kNobody, testing_support::kNogroup);
    EXPECT_EQ(errorOfReading(FileAccess::OwnerAlone), EACCES);
}

TEST_F(APrivateFile, IsNotReadAsADecisionWhenOthersMayWriteIt) {
    for (const mode_t mode : {0620U, 0664U, 0602U, 0666U}) {
        write("decision", mode);
        EXPECT_EQ(errorOfReading(FileAccess::OwnerWrites), EACCES) << mode;
    }
    for (const mode_t mode : {0600U, 0644U, 0440U}) {
        write("decision", mode);
        EXPECT_EQ(errorOfReading(FileAccess::OwnerWrites), 0) << mode;
        ::unlink(m_path.c_str());
    }
    if (canActAsOthers()) {
        write("decision", 0644);
        testing_support::PrivateRoot::giveTo(m_path, testing_support::kNobody, testing_support::kNogroup);
        EXPECT_EQ(errorOfReading(FileAccess::OwnerWrites), EACCES);
    }
}

TEST_F(APrivateFile, IsRequiredToBeItsOwnersAloneBehindALinkToo) {
    const std::string link = m_root.file("link");
    ASSERT_EQ(::symlink(m_path.c_str(), link.c_str()), 0);
    EXPECT_THROW(requireOwnerAlone(link), std::system_error); // not there
    write("secret", 0640);
    EXPECT_THROW(requireOwnerAlone(link), std::system_error);
    write("secret", 0600);
    EXPECT_NO_THROW(requireOwnerAlone(link));
}

TEST_F(APrivateFile, IsReplacedWithModeSixHundredAndNothingLeftBeside) {
    write("old", 0644);
    write("old", 0644);
    replaceFile(m_path, std::string(100'000, 'n'));
    EXPECT_EQ(text(), std::string(100'000, 'n'));
    struct stat facts {};
    ASSERT_EQ(::stat(m_path.c_str(), &facts), 0);
    EXPECT_EQ(facts.st_mode & 07777U, 0600U);
    EXPECT_EQ(filesInTheDirectory(), 1U);
}

TEST_F(APrivateFile, IsReplacedOverWhatAKilledWriterLeft) {
    std::ofstream(m_path + ".new") << "half";
    replaceFile(m_path, "whole");
    EXPECT_EQ(text(), "whole");
    EXPECT_EQ(filesInTheDirectory(), 1U);
}

TEST_F(APrivateFile, IsReplacedWithoutFollowingALink) {
    const std::string victim = m_root.file("victim");
    std::ofstream(victim) << "untouched";
    ASSERT_EQ(::symlink(victim.c_str(), m_path.c_str()), 0);
    ASSERT_EQ(::symlink(victim.c_str(), (m_path + ".new").c_str()), 0);
    replaceFile(m_path, "policy");
    std::ostringstream kept;
    kept << std::ifstream(victim).rdbuf();
    EXPECT_EQ(kept.str(), "untouched");
    EXPECT_FALSE(std::filesystem::is_symlink(m_path));
    EXPECT_EQ(text(), "policy");
}

TEST_F(APrivateFile, StaysWhenItCannotBeReplaced) {
    write("old");
    std::filesystem::create_directories(m_path + ".new/in-the-way");
    EXPECT_THROW(replaceFile(m_path, "new"), std::system_error);
    EXPECT_EQ(text(), "old");
    EXPECT_THROW(replaceFile(m_root.file("no/such/directory"), "new"), std::system_error);
}

/// Who came second once removed what the first had made.
TEST_F(APrivateFile, IsMadeByOneOfTwoWhoComeAtOnceAndStays) {
    constexpr int rounds = 200;
    for (int round = 0; round < rounds; ++round) {
        std::barrier together(2);
        std::atomic<int> made{0};
        const auto make = [&](const std::string& text) {
            together.arrive_and_wait();
            try {
                makeFile(m_path, text);
                ++made;
            } catch (const std::system_error& error) {
                EXPECT_EQ(error.code().value(), EEXIST);
            }
        };
        std::thread other([&] { make("other"); });
        make("first");
        other.join();
        ASSERT_EQ(made, 1);
        ASSERT_TRUE(text() == "first" || text() == "other") << round;
        ::unlink(m_path.c_str());
    }
}

TEST_F(APrivateFile, IsMadeOnlyWhereNoneIs) {
    makeFile(m_path, "first");
    EXPECT_EQ(text(), "first");
    EXPECT_THROW(makeFile(m_path, "second"), std::system_error);
    EXPECT_EQ(text(), "first");
    ::unlink(m_path.c_str());
    ASSERT_EQ(::symlink("nowhere", m_path.c_str()), 0);
    EXPECT_THROW(makeFile(m_path, "second"), std::system_error);
    EXPECT_TRUE(std::filesystem::is_symlink(m_path));
}

} // namespace
