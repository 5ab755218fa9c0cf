// Writing files: all of a text, and a new content in one step. Real: files, users, kill -9, a limit on their size.
#include "base/FileWriting.h"
#include "base/UniqueFd.h"
#include "tests/support/AsUser.h"
#include "tests/support/Files.h"
#include "tests/support/PrivateRoot.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <barrier>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace {

using namespace Sentrel;
using testing_support::canActAsOthers;
using testing_support::kNobody;
using testing_support::kNogroup;
using testing_support::PrivateRoot;
using testing_support::readFile;
using testing_support::writeFile;

/// The errno with which @p work fails; 0 when it does not.
int errorOf(const std::function<void()>& work) {
    try {
        work();
    } catch (const std::system_error& error) {
        return error.code().value();
    }
    return 0;
}

/// A file "f" in a directory of its own.
class AFileThatIsWritten : public ::testing::Test {
protected:
    void write(const std::string& text, mode_t mode = 0600) const {
        writeFile(m_path, text);
        ::chmod(m_path.c_str(), mode);
    }
    std::string text() const { return readFile(m_path); }
    struct stat facts() const {
        struct stat facts {};
        EXPECT_EQ(::lstat(m_path.c_str(), &facts), 0);
        return facts;
    }
    mode_t mode() const { return facts().st_mode & 07777U; }
    std::size_t filesInTheDirectory() const { return testing_support::countEntries(m_root.varDirectory()); }
    int errorOfKeepingReplace(const std::string& text) const {
        return errorOf([&] { replaceFile(m_path, text, Replace::KeepingModeAndOwner); });
    }

    PrivateRoot m_root;
    const std::string m_path = m_root.varDirectory() + "/f";
};

TEST(WriteAll, WritesWholeWhatAPipeTakesInPieces) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    const UniqueFd reader(ends[0]);
    UniqueFd writer(ends[1]);
    const std::string text(1'000'000, 'x');
    std::thread writing([&] {
        writeAll(writer.get(), text, "pipe");
        writer.reset();
    });
    std::size_t length = 0;
    std::array<char, 4096> part{};
    for (ssize_t got = 1; got > 0; length += static_cast<std::size_t>(got)) {
        got = ::read(reader.get(), part.data(), part.size());
    }
    writing.join();
    EXPECT_EQ(length, text.size());
}

TEST(WriteAll, TellsWhatCouldNotBeWritten) {
    const UniqueFd full(::open("/dev/full", O_WRONLY | O_CLOEXEC));
    EXPECT_EQ(errorOf([&] { writeAll(full.get(), "x", "full"); }), ENOSPC);
    EXPECT_EQ(errorOf([&] { writeAll(full.get(), "", "full"); }), 0);
}

TEST_F(AFileThatIsWritten, KeepsItsModeWhateverTheUmask) {
    write("old");
    for (const mode_t mask : {0000U, 0022U, 0077U}) {
        const mode_t before = ::umask(mask);
        for (const mode_t wanted : {0600U, 0644U, 0640U, 0664U, 0400U}) {
            ASSERT_EQ(::chmod(m_path.c_str(), wanted), 0);
            const ino_t old = facts().st_ino;
            replaceFile(m_path, "new", Replace::KeepingModeAndOwner);
            EXPECT_EQ(mode(), wanted);
            EXPECT_NE(facts().st_ino, old);
        }
        ::umask(before);
    }
    EXPECT_EQ(text(), "new");
    EXPECT_EQ(filesInTheDirectory(), 1U);
}

TEST_F(AFileThatIsWritten, IsReplacedByANameWithoutADirectory) {
    write("old");
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(m_root.varDirectory());
    EXPECT_EQ(errorOf([] { replaceFile("f", "new", Replace::KeepingModeAndOwner); }), 0);
    EXPECT_EQ(text(), "new");
    EXPECT_EQ(errorOf([] { replaceFile("f", "newer", Replace::AsPrivate); }), 0);
    std::filesystem::current_path(before);
    EXPECT_EQ(text(), "newer");
}

TEST_F(AFileThatIsWritten, KeepsItsOwnerWhenRootReplacesIt) {
    if (!canActAsOthers()) {
        GTEST_SKIP() << "needs root to give a file away";
    }
    write("old", 0640);
    PrivateRoot::giveTo(m_path, kNobody, kNogroup);
    replaceFile(m_path, "new", Replace::KeepingModeAndOwner);
    EXPECT_EQ(facts().st_uid, kNobody);
    EXPECT_EQ(facts().st_gid, kNogroup);
    EXPECT_EQ(mode(), 0640U);
}

/// Another program may read the file by its group alone.
TEST_F(AFileThatIsWritten, StaysWhenItsGroupOrOwnerCannotBeKept) {
    if (!canActAsOthers()) {
        GTEST_SKIP() << "needs root to act as another user";
    }
    constexpr gid_t readers = 54321;
    PrivateRoot::giveTo(m_root.varDirectory(), kNobody, kNogroup);
    const auto replaceAs = [this](const std::vector<gid_t>& groups) {
        return testing_support::asUser(kNobody, kNogroup, groups, [this] {
            try {
                replaceFile(m_path, "new", Replace::KeepingModeAndOwner);
                return std::string("replaced");
            } catch (const std::system_error& error) {
                return std::string(error.what());
            }
        });
    };
    const auto refusal = [this](uid_t owner, gid_t group) {
        return m_path + ": its owner " + std::to_string(owner) + " and group " + std::to_string(group) +
               " cannot be kept by user 65534: Operation not permitted";
    };
    write("old", 0644);
    PrivateRoot::giveTo(m_path, kNobody, readers);
    EXPECT_EQ(replaceAs({}), refusal(kNobody, readers));
    EXPECT_EQ(text(), "old");
    EXPECT_EQ(facts().st_gid, readers);
    EXPECT_EQ(filesInTheDirectory(), 1U);
    EXPECT_EQ(replaceAs({readers}), "replaced") << "by a member of the group";
    EXPECT_EQ(facts().st_gid, readers);
    EXPECT_EQ(mode(), 0644U);
    write("old", 0644);
    PrivateRoot::giveTo(m_path, 0, kNogroup);
    EXPECT_EQ(replaceAs({}), refusal(0, kNogroup));
    EXPECT_EQ(text(), "old");
}

TEST_F(AFileThatIsWritten, KeepsItsAccessList) {
    write("old", 0640);
    // User 54321 may read it, as linux/posix_acl_xattr.h has it: a version, then tag, rights and id of each entry.
    const std::vector<std::uint8_t> list{2,    0, 0, 0,                          //
                                         1,    0, 6, 0, 0xFF, 0xFF, 0xFF, 0xFF,  // the owner
                                         2,    0, 4, 0, 0x31, 0xD4, 0,    0,     // user 54321
                                         4,    0, 4, 0, 0xFF, 0xFF, 0xFF, 0xFF,  // the group
                                         0x10, 0, 4, 0, 0xFF, 0xFF, 0xFF, 0xFF,  // the mask
                                         0x20, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF}; // others
    constexpr const char* name = "system.posix_acl_access";
    if (::setxattr(m_path.c_str(), name, list.data(), list.size(), 0) != 0) {
        GTEST_SKIP() << "this file system has no access lists: " << std::strerror(errno);
    }
    replaceFile(m_path, "new", Replace::KeepingModeAndOwner);
    std::vector<std::uint8_t> kept(100);
    const ssize_t size = ::getxattr(m_path.c_str(), name, kept.data(), kept.size());
    kept.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
    EXPECT_EQ(kept, list);
    EXPECT_EQ(mode(), 0640U);
    EXPECT_EQ(text(), "new");
}

/// What is made in such a directory begins with the directory's list, which the old file need not have had.
TEST_F(AFileThatIsWritten, GetsNoAccessListOfItsDirectory) {
    write("old", 0640);
    const std::vector<std::uint8_t> list{2,    0, 0, 0,                          //
                                         1,    0, 6, 0, 0xFF, 0xFF, 0xFF, 0xFF,  // the owner
                                         2,    0, 6, 0, 0x31, 0xD4, 0,    0,     // user 54321
                                         4,    0, 4, 0, 0xFF, 0xFF, 0xFF, 0xFF,  // the group
                                         0x10, 0, 6, 0, 0xFF, 0xFF, 0xFF, 0xFF,  // the mask
                                         0x20, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF}; // others
    const std::string directory = std::filesystem::path(m_path).parent_path();
    if (::setxattr(directory.c_str(), "system.posix_acl_default", list.data(), list.size(), 0) != 0) {
        GTEST_SKIP() << "this file system has no access lists: " << std::strerror(errno);
    }
    replaceFile(m_path, "new", Replace::KeepingModeAndOwner);
    EXPECT_EQ(::getxattr(m_path.c_str(), "system.posix_acl_access", nullptr, 0), -1) << "nobody else may read it";
    EXPECT_EQ(mode(), 0640U);
    EXPECT_EQ(text(), "new");
}

TEST_F(AFileThatIsWritten, IsNotReplacedKeepingItsModeWhereNoRegularFileIs) {
    EXPECT_EQ(errorOfKeepingReplace("new"), ENOENT);
    const std::string victim = m_root.file("victim");
    std::ofstream(victim) << "untouched";
    ASSERT_EQ(::symlink(victim.c_str(), m_path.c_str()), 0);
    EXPECT_EQ(errorOfKeepingReplace("new"), ELOOP);
    EXPECT_TRUE(std::filesystem::is_symlink(m_path));
    ::unlink(m_path.c_str());
    ASSERT_EQ(::mkfifo(m_path.c_str(), 0600), 0);
    EXPECT_EQ(errorOfKeepingReplace("new"), EINVAL);
    ::unlink(m_path.c_str());
    ASSERT_EQ(::mkdir(m_path.c_str(), 0700), 0);
    EXPECT_EQ(errorOfKeepingReplace("new"), EINVAL);
    EXPECT_EQ(filesInTheDirectory(), 1U);
}

TEST_F(AFileThatIsWritten, StaysAsItWasWhenTheDiskTakesNoMore) {
    write("old");
    const pid_t child = ::fork();
    if (child == 0) {
        constexpr rlimit aFewBytes{100, 100};
        std::signal(SIGXFSZ, SIG_IGN);
        const std::string large(1000, 'x');
        const bool isRefused = ::setrlimit(RLIMIT_FSIZE, &aFewBytes) == 0 && errorOfKeepingReplace(large) == EFBIG &&
                               errorOf([&] { replaceFile(m_path, large, Replace::AsPrivate); }) == EFBIG &&
                               errorOf([&] { makeFile(m_path + "2", large, NewFileFor::Maker); }) == EFBIG;
        ::_exit(isRefused ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(text(), "old");
    EXPECT_EQ(filesInTheDirectory(), 1U);
}

TEST_F(AFileThatIsWritten, IsWholeWhenSeveralReplaceItAtOnce) {
    write("old");
    std::atomic<int> failures{0};
    const auto replace = [&](char letter) {
        for (int round = 0; round < 100; ++round) {
            failures += errorOfKeepingReplace(std::string(10'000, letter)) == 0 ? 0 : 1;
        }
    };
    std::thread other([&] { replace('a'); });
    replace('b');
    other.join();
    EXPECT_EQ(failures, 0);
    EXPECT_TRUE(text() == std::string(10'000, 'a') || text() == std::string(10'000, 'b'));
    EXPECT_EQ(filesInTheDirectory(), 1U);
}

TEST_F(AFileThatIsWritten, IsReplacedWithModeSixHundred) {
    write("old", 0644);
    replaceFile(m_path, std::string(100'000, 'n'), Replace::AsPrivate);
    EXPECT_EQ(text(), std::string(100'000, 'n'));
    EXPECT_EQ(mode(), 0600U);
    EXPECT_EQ(filesInTheDirectory(), 1U);
}

TEST_F(AFileThatIsWritten, IsReplacedOverWhatAKilledWriterLeft) {
    std::ofstream(m_path + ".new") << "half";
    replaceFile(m_path, "whole", Replace::AsPrivate);
    EXPECT_EQ(text(), "whole");
    EXPECT_EQ(filesInTheDirectory(), 1U);
}

TEST_F(AFileThatIsWritten, IsReplacedWithoutFollowingALink) {
    const std::string victim = m_root.file("victim");
    std::ofstream(victim) << "untouched";
    ASSERT_EQ(::symlink(victim.c_str(), m_path.c_str()), 0);
    ASSERT_EQ(::symlink(victim.c_str(), (m_path + ".new").c_str()), 0);
    replaceFile(m_path, "policy", Replace::AsPrivate);
    EXPECT_EQ(readFile(victim), "untouched");
    EXPECT_FALSE(std::filesystem::is_symlink(m_path));
    EXPECT_EQ(text(), "policy");
}

TEST_F(AFileThatIsWritten, IsReplacedPieceByPieceForEveryReader) {
    write("old");
    ASSERT_EQ(::symlink("victim", (m_path + ".new").c_str()), 0);
    const mode_t before = ::umask(0077);
    {
        FileReplacement replacement(m_path);
        writeAll(replacement.fd(), "one", m_path);
        writeAll(replacement.fd(), "two", m_path);
        EXPECT_EQ(text(), "old");
        replacement.commit();
    }
    ::umask(before);
    EXPECT_EQ(text(), "onetwo");
    EXPECT_EQ(mode(), 0644U);
    EXPECT_EQ(filesInTheDirectory(), 1U);
}

TEST_F(AFileThatIsWritten, StaysWhenItsReplacementIsGivenUp) {
    write("old");
    {
        FileReplacement replacement(m_path);
        writeAll(replacement.fd(), "half", m_path);
        EXPECT_EQ(filesInTheDirectory(), 2U);
    }
    EXPECT_EQ(text(), "old");
    EXPECT_EQ(filesInTheDirectory(), 1U);
}

TEST_F(AFileThatIsWritten, StaysWhenItCannotBeReplaced) {
    write("old");
    std::filesystem::create_directories(m_path + ".new/in-the-way");
    EXPECT_THROW(replaceFile(m_path, "new", Replace::AsPrivate), std::system_error);
    EXPECT_EQ(text(), "old");
    EXPECT_THROW(replaceFile(m_root.file("no/such/directory"), "new", Replace::AsPrivate), std::system_error);
}

/// Who came second once removed what the first had made.
TEST_F(AFileThatIsWritten, IsMadeByOnlyOneOfTwoWhoComeAtOnce) {
    constexpr int rounds = 200;
    for (int round = 0; round < rounds; ++round) {
        std::barrier together(2);
        std::atomic<int> made{0};
        const auto make = [&](const std::string& text) {
            together.arrive_and_wait();
            try {
                makeFile(m_path, text, NewFileFor::Maker);
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

struct stat factsOf(const std::string& path) {
    struct stat facts {};
    EXPECT_EQ(::stat(path.c_str(), &facts), 0);
    return facts;
}

TEST_F(AFileThatIsWritten, HasTheModeOfThoseItIsMadeFor) {
    const mode_t before = ::umask(0077);
    makeFile(m_path, "text", NewFileFor::MakerAndReaders);
    EXPECT_EQ(factsOf(m_path).st_mode & 0777U, 0644U) << "whatever the mask";
    ::unlink(m_path.c_str());
    ::umask(0);
    makeFile(m_path, "text", NewFileFor::DirectoryOwner);
    EXPECT_EQ(factsOf(m_path).st_mode & 0777U, 0600U);
    ::umask(before);
}

TEST_F(AFileThatIsWritten, GoesFromRootToTheOwnerOfItsDirectory) {
    if (!testing_support::canActAsOthers()) {
        GTEST_SKIP() << "only root can give files away";
    }
    ASSERT_EQ(::chown(std::filesystem::path(m_path).parent_path().c_str(), testing_support::kNobody,
                      testing_support::kNogroup),
              0);
    makeFile(m_path, "text", NewFileFor::DirectoryOwner);
    EXPECT_EQ(factsOf(m_path).st_uid, testing_support::kNobody);
    EXPECT_EQ(factsOf(m_path).st_gid, testing_support::kNogroup);
    ::unlink(m_path.c_str());
    makeFile(m_path, "text", NewFileFor::Maker);
    EXPECT_EQ(factsOf(m_path).st_uid, 0U) << "a file for its maker stays the maker's";
}

TEST_F(AFileThatIsWritten, IsMadeOnlyWhereNoneIs) {
    makeFile(m_path, "first", NewFileFor::Maker);
    EXPECT_EQ(text(), "first");
    EXPECT_THROW(makeFile(m_path, "second", NewFileFor::Maker), std::system_error);
    EXPECT_EQ(text(), "first");
    ::unlink(m_path.c_str());
    ASSERT_EQ(::symlink("nowhere", m_path.c_str()), 0);
    EXPECT_THROW(makeFile(m_path, "second", NewFileFor::Maker), std::system_error);
    EXPECT_TRUE(std::filesystem::is_symlink(m_path));
}

} // namespace
