// Reading files whole, up to a limit. Real files and pipes; a second user where the test may act as one.
#include "base/FileReading.h"
#include "base/UniqueFd.h"
#include "tests/support/AsUser.h"
#include "tests/support/PrivateRoot.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <functional>
#include <system_error>
#include <thread>

namespace {

using namespace Sentrel;
using testing_support::canActAsOthers;

constexpr std::size_t kMax = 100;

/// A file "f" in a directory of its own.
class APrivateFile : public ::testing::Test {
protected:
    void write(const std::string& text, mode_t mode = 0600) const {
        std::ofstream(m_path, std::ios::binary) << text;
        ::chmod(m_path.c_str(), mode);
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

TEST_F(APrivateFile, IsReadBehindALinkWhereThatIsAllowed) {
    const std::string link = m_root.file("link");
    ASSERT_EQ(::symlink(m_path.c_str(), link.c_str()), 0);
    write("text");
    EXPECT_EQ(readRegularFile(link, kMax, FileAccess::Anybody, Links::Follow), "text");
    EXPECT_THROW(readRegularFile(link, kMax, FileAccess::Anybody), std::system_error);
}

TEST_F(APrivateFile, IsNotReadBehindALinkThatLeadsToWhatOnlySomeMayRead) {
    const std::string link = m_root.file("link");
    ASSERT_EQ(::symlink(m_path.c_str(), link.c_str()), 0);
    write("text", 0644);
    EXPECT_EQ(readRegularFile(link, kMax, FileAccess::Anybody, Links::FollowToPublic), "text");
    write("text", 0640);
    EXPECT_THROW(readRegularFile(link, kMax, FileAccess::Anybody, Links::FollowToPublic), UnsafeFile);
    EXPECT_EQ(readRegularFile(m_path, kMax, FileAccess::Anybody, Links::FollowToPublic), "text") << "which is no link";
}

/// A pipe, as standard input often is.
class APipe : public ::testing::Test {
protected:
    APipe() {
        std::array<int, 2> ends{};
        EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
        m_reader.reset(ends[0]);
        m_writer.reset(ends[1]);
    }

    /// Gives the text to the pipe in small pieces, then closes it, while @p read reads.
    std::string readWhileWriting(const std::string& text, const std::function<std::string()>& read) {
        std::thread writer([&] {
            for (std::size_t at = 0; at < text.size(); at += kPiece) {
                const std::string piece = text.substr(at, kPiece);
                EXPECT_EQ(::write(m_writer.get(), piece.data(), piece.size()), static_cast<ssize_t>(piece.size()));
            }
            m_writer.reset();
        });
        std::string got = read();
        writer.join();
        return got;
    }

    static constexpr std::size_t kPiece = 1000;
    UniqueFd m_reader;
    UniqueFd m_writer;
};

TEST_F(APipe, IsReadWholeWhateverPiecesItComesIn) {
    std::string text;
    for (int number = 0; text.size() < 300'000; ++number) {
        text += std::to_string(number) + '\0';
    }
    EXPECT_EQ(readWhileWriting(text, [&] { return readUpTo(m_reader.get(), text.size(), "pipe"); }), text);
}

TEST_F(APipe, IsReadFurtherThanItsLimitByNobody) {
    std::size_t held = 0;
    try {
        (void)::write(m_writer.get(), "12345678", 8);
        (void)readUpTo(m_reader.get(), 5, "the pipe");
        ADD_FAILURE() << "nothing was thrown";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code().value(), EFBIG);
        EXPECT_TRUE(std::string(error.what()).starts_with("the pipe: is too large: it has more than 5 bytes"))
            << error.what();
        std::array<char, 8> rest{};
        held = static_cast<std::size_t>(::read(m_reader.get(), rest.data(), rest.size()));
    }
    EXPECT_EQ(held, 2U) << "one byte behind the limit is enough to know";
}

TEST_F(APipe, IsWhatADashStandsFor) {
    EXPECT_EQ(readWhileWriting("given", [&] { return readFileOrInput("-", m_reader.get(), kMax); }), "given");
}

TEST_F(APrivateFile, IsReadByNameOnACommandLine) {
    write("text");
    EXPECT_EQ(readFileOrInput(m_path, -1, kMax), "text");
    EXPECT_THROW((void)readFileOrInput(m_path, -1, 3), std::system_error);
    EXPECT_EQ(readFileOrInput(m_path, -1, 4), "text");
    EXPECT_THROW((void)readFileOrInput(m_root.varDirectory(), -1, kMax), std::system_error) << "a directory";
    EXPECT_THROW((void)readFileOrInput(m_root.file("none"), -1, kMax), std::system_error);
}

} // namespace
