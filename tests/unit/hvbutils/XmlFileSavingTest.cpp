// Saving a configuration file: whole or not at all. Real: files, users, kill -9, a limit on the size of files.
#include "base/FileWriting.h"
#include "platform/hvbutils/XmlFile.h"
#include "tests/support/AsUser.h"
#include "tests/support/Eventually.h"
#include "tests/support/OwnDisk.h"
#include "tests/unit/hvbutils/ConfigFile.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <thread>

using testing_support::asUser;
using testing_support::kNobody;
using testing_support::kNogroup;
using testing_support::PrivateRoot;

namespace {

struct stat factsOf(const std::string& path) {
    struct stat facts {};
    EXPECT_EQ(lstat(path.c_str(), &facts), 0);
    return facts;
}

/// A child process that does @p work and ends; killed when the test's process ends.
pid_t inChild(const std::function<int()>& work) {
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        _exit(work());
    }
    return child;
}

int statusOf(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

TEST_F(AConfigFile, IsReplacedAndLeavesNothingBesideIt) {
    const auto before = factsOf(path).st_ino;
    ASSERT_TRUE(save("debug"));
    EXPECT_EQ(value(), "debug");
    EXPECT_NE(factsOf(path).st_ino, before);
    EXPECT_EQ(filesInDirectory(), 1u);
}

TEST_F(AConfigFile, IsNotSavedWhereThereIsNone) {
    const XmlFile file(path);
    std::filesystem::remove(path);
    for (const char* target : {path.c_str(), "/nowhere/at/all.xml", "", "/", directory.c_str()}) {
        EXPECT_FALSE(file.saveTo(target)) << target;
    }
    EXPECT_FALSE(file.saveTo(nullptr));
    EXPECT_EQ(filesInDirectory(), 0u);
}

TEST_F(AConfigFile, IsNotSavedOverALinkADirectoryOrAPipe) {
    const XmlFile file(path);
    const std::string real = directory + "/real.xml";
    std::filesystem::rename(path, real);
    const std::string before = XmlFile(real).textAt(kLevel);
    std::filesystem::create_symlink(real, path);
    EXPECT_FALSE(file.saveTo(path.c_str()));
    EXPECT_TRUE(std::filesystem::is_symlink(path));
    std::filesystem::remove(path);
    std::filesystem::create_directory(path);
    EXPECT_FALSE(file.saveTo(path.c_str()));
    EXPECT_TRUE(std::filesystem::is_directory(path));
    std::filesystem::remove(path);
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_FALSE(file.saveTo(path.c_str()));
    EXPECT_TRUE(std::filesystem::is_fifo(path));
    EXPECT_EQ(XmlFile(real).textAt(kLevel), before);
    EXPECT_EQ(filesInDirectory(), 2u);
}

class AConfigFileOfAnother : public AConfigFile {
protected:
    void SetUp() override {
        if (!testing_support::canActAsOthers()) {
            GTEST_SKIP() << "needs root, to act as a second user";
        }
    }

    std::string savedAs(uid_t uid, gid_t gid, const std::vector<gid_t>& groups) const {
        return asUser(uid, gid, groups, [this] { return save("debug") ? "saved" : "failed"; });
    }
};

TEST_F(AConfigFileOfAnother, KeepsItsOwnerWhenRootSaves) {
    PrivateRoot::giveTo(path, kNobody, kNogroup);
    ASSERT_TRUE(save("debug"));
    EXPECT_EQ(factsOf(path).st_uid, kNobody);
    EXPECT_EQ(factsOf(path).st_gid, kNogroup);
}

/// hvbd may read it by its group, which the writer is not in.
TEST_F(AConfigFileOfAnother, StaysAsItWasWhenTheWriterCannotKeepItsOwnerAndGroup) {
    constexpr gid_t shared = 4242;
    PrivateRoot::giveTo(directory, kNobody, kNogroup);
    PrivateRoot::giveTo(path, kNobody, shared);
    ASSERT_EQ(chmod(path.c_str(), 0640), 0);
    EXPECT_EQ(savedAs(kNobody, kNogroup, {}), "failed");
    EXPECT_EQ(value(), "information");
    EXPECT_EQ(factsOf(path).st_gid, shared);
    EXPECT_EQ(savedAs(kNobody, kNogroup, {shared}), "saved") << "by a member of the group";
    EXPECT_EQ(factsOf(path).st_uid, kNobody);
    EXPECT_EQ(factsOf(path).st_gid, shared);
    EXPECT_EQ(factsOf(path).st_mode & 07777, 0640u);
    writeInside("<LogLevel/>");
    PrivateRoot::giveTo(path, 0, kNogroup);
    ASSERT_EQ(chmod(path.c_str(), 0644), 0);
    EXPECT_EQ(savedAs(kNobody, kNogroup, {}), "failed");
    EXPECT_EQ(factsOf(path).st_uid, 0u);
}

TEST_F(AConfigFileOfAnother, StaysAsItWasWhenItsDirectoryIsClosedToTheWriter) {
    ASSERT_EQ(chmod(path.c_str(), 0666), 0);
    EXPECT_EQ(savedAs(kNobody, kNogroup, {}), "failed");
    EXPECT_EQ(value(), "information");
    EXPECT_EQ(filesInDirectory(), 1u);
}

TEST_F(AConfigFile, StaysAsItWasWhenTheDiskTakesNoMore) {
    const std::string before = content();
    const pid_t child = inChild([this] {
        const XmlFile file(path);
        constexpr rlimit aFewBytes{100, 100};
        std::signal(SIGXFSZ, SIG_IGN);
        return setrlimit(RLIMIT_FSIZE, &aFewBytes) == 0 && !file.saveTo(path.c_str()) ? 0 : 1;
    });
    EXPECT_EQ(statusOf(child), 0);
    EXPECT_EQ(content(), before);
    EXPECT_EQ(filesInDirectory(), 1u);
}

/// Its directory is a file system of its own that is easily filled. Requires root.
class AConfigFileOnASmallDisk : public AConfigFile {
protected:
    void SetUp() override {
        const std::string before = content();
        const std::string trouble = disk.mount(directory, "size=64k");
        if (!trouble.empty()) {
            GTEST_SKIP() << trouble << "; a full disk was not tested";
        }
        write(before);
    }

    testing_support::OwnDisk disk;
};

TEST_F(AConfigFileOnASmallDisk, IsSavedOnceThereIsRoom) {
    const std::string before = content();
    disk.fill();
    EXPECT_FALSE(save("debug"));
    EXPECT_EQ(content(), before);
    EXPECT_EQ(filesInDirectory(), 2u) << "the file and the filler";
    disk.free();
    EXPECT_TRUE(save("debug"));
    EXPECT_EQ(value(), "debug");
}

TEST_F(AConfigFile, IsSavedAsItWasReadThoughAnotherProcessSavedMeanwhile) {
    const std::string before = content();
    XmlFile file(path);
    file.setTextAt(kLevel, "debug");
    ASSERT_EQ(statusOf(inChild([this] {
                  Sentrel::replaceFile(path, "<HVConfiguration/>", Sentrel::Replace::KeepingModeAndOwner);
                  return 0;
              })),
              0);
    ASSERT_EQ(content(), "<HVConfiguration/>");
    ASSERT_TRUE(file.saveTo(path.c_str()));
    EXPECT_EQ(content(), std::string(before).replace(before.find("information"), 11, "debug"));
}

TEST_F(AConfigFile, IsRefusedWhenHalfOfItIsWrittenAndWholeAfterASave) {
    XmlFile file(path);
    file.setTextAt(kLevel, "debug");
    const std::string half = content().substr(0, content().size() / 2);
    ASSERT_EQ(statusOf(inChild([&] {
                  write(half);
                  return 0;
              })),
              0);
    ASSERT_EQ(content(), half);
    EXPECT_NE(refusal(), "accepted");
    ASSERT_TRUE(file.saveTo(path.c_str()));
    EXPECT_EQ(value(), "debug");
}

TEST_F(AConfigFile, IsWholeForEveryReaderWhileItIsSaved) {
    std::atomic<bool> done{false};
    std::atomic<int> reads{0};
    const auto read = [&] {
        while (!done) {
            const std::string level = value();
            EXPECT_TRUE(level == "information" || level == std::string(20000, 'x') || level == "y") << level;
            ++reads;
        }
    };
    std::thread first(read);
    std::thread second(read);
    for (int round = 0; round < 200; ++round) {
        EXPECT_TRUE(save(round % 2 == 0 ? std::string(20000, 'x').c_str() : "y"));
    }
    EXPECT_TRUE(testing_support::eventually([&] { return reads > 0; }));
    done = true;
    first.join();
    second.join();
    EXPECT_EQ(filesInDirectory(), 1u);
}

/// Saves without end, each time another text.
int saveForEver(const std::string& path) {
    for (int round = 0;; ++round) {
        XmlFile file(path);
        file.setTextAt(kLevel, std::string(10000, round % 2 == 0 ? 'x' : 'y').c_str());
        if (!file.saveTo(path.c_str())) {
            return 1;
        }
    }
}

TEST_F(AConfigFile, IsWholeAfterAKillInTheMiddleOfASaveAndCanBeSavedAgain) {
    constexpr int kills = 40;
    for (int round = 0; round < kills; ++round) {
        const auto before = factsOf(path).st_ino;
        const pid_t child = inChild([this] { return saveForEver(path); });
        EXPECT_TRUE(testing_support::eventually([&] { return factsOf(path).st_ino != before; }));
        kill(child, SIGKILL);
        const int status = statusOf(child);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
        EXPECT_EQ(value().size(), 10000u);
    }
    EXPECT_TRUE(save("debug"));
    EXPECT_EQ(value(), "debug");
    EXPECT_EQ(factsOf(path).st_nlink, 1u);
}

} // namespace
