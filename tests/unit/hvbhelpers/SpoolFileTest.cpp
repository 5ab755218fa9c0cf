// The spool's file, on a real file system: what comes back after any cut, any flipped bit and any number of rounds, and
// which files are left alone.
#include "platform/hvbhelpers/SpoolFile.h"
#include "hub/Exceptions.h"
#include "tests/support/Files.h"
#include "tests/support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

using HVB::detail::kSpoolDataOffset;
using HVB::detail::SpoolFile;
using testing_support::readFile;
namespace fs = std::filesystem;

constexpr std::size_t kRing = 1024;
constexpr std::size_t kSmall = kSpoolDataOffset + kRing;

class ASpoolFile : public testing::Test {
protected:
    std::unique_ptr<SpoolFile> open(std::size_t fileBytes = kSmall) const {
        return std::make_unique<SpoolFile>(path, fileBytes);
    }

    /// The code of what opening throws; 0 when it opens.
    int refusal() const {
        try {
            open();
            return 0;
        } catch (const HVB::HVBException& error) {
            return error.code();
        }
    }

    void write(const std::string& bytes) const { std::ofstream(path, std::ios::binary) << bytes; }

    /// Takes out all that the file at the path holds.
    std::vector<std::string> drain() const {
        std::vector<std::string> records;
        const auto spool = open();
        while (const auto record = spool->first()) {
            records.push_back(*record);
            spool->removeFirst(SpoolFile::End::Delivered);
        }
        EXPECT_TRUE(spool->isEmpty());
        return records;
    }

    /// The file's bytes with these records in it.
    std::string fileWith(const std::vector<std::string>& records) const {
        fs::remove(path);
        const auto spool = open();
        for (const std::string& record : records) {
            EXPECT_TRUE(spool->append(record));
        }
        return readFile(path);
    }

    testing_support::TemporaryDirectory directory;
    const std::string path = directory.file("spool");
};

TEST_F(ASpoolFile, GivesRecordsInTheirOrder) {
    const auto spool = open();
    EXPECT_TRUE(spool->isEmpty());
    EXPECT_EQ(spool->first(), std::nullopt);
    EXPECT_TRUE(spool->append("one"));
    EXPECT_TRUE(spool->append(""));
    EXPECT_EQ(spool->counts().waiting, 2U);
    EXPECT_EQ(spool->first(), "one");
    EXPECT_EQ(spool->first(), "one") << "until it is removed";
    spool->removeFirst(SpoolFile::End::Delivered);
    EXPECT_EQ(spool->first(), "");
    spool->removeFirst(SpoolFile::End::Delivered);
    EXPECT_TRUE(spool->isEmpty());
}

TEST_F(ASpoolFile, HoldsItsRecordsForTheNextProcess) {
    open()->append("one");
    open()->append("two");
    EXPECT_EQ(open()->counts().waiting, 2U);
    EXPECT_EQ(drain(), (std::vector<std::string>{"one", "two"}));
    EXPECT_EQ(drain(), std::vector<std::string>{});
}

TEST_F(ASpoolFile, HasItsWholeSizeAndItsOwnersModeFromTheStart) {
    const mode_t before = umask(0);
    open();
    umask(before);
    struct stat facts {};
    ASSERT_EQ(stat(path.c_str(), &facts), 0);
    EXPECT_EQ(facts.st_mode & 07777U, 0600U);
    EXPECT_EQ(facts.st_size, static_cast<off_t>(kSmall));
    EXPECT_GE(static_cast<std::size_t>(facts.st_blocks) * 512, kSmall) << "its blocks are taken";
    ASSERT_EQ(chmod(path.c_str(), 0644), 0);
    open();
    ASSERT_EQ(stat(path.c_str(), &facts), 0);
    EXPECT_EQ(facts.st_mode & 07777U, 0600U) << "one that others could read is private again";
}

TEST_F(ASpoolFile, TakesNoRecordBeyondItsSizeAndCountsIt) {
    const auto spool = open();
    const std::string record(100, 'x'); // 128 bytes of the ring each
    for (std::size_t i = 0; i < kRing / 128; ++i) {
        EXPECT_TRUE(spool->append(record));
    }
    EXPECT_FALSE(spool->append(""));
    EXPECT_FALSE(spool->append(record));
    EXPECT_EQ(spool->counts().refusedFull, 2U);
    spool->removeFirst(SpoolFile::End::Delivered);
    EXPECT_TRUE(spool->append(record)) << "there is room again";
    EXPECT_FALSE(spool->append(record));
    EXPECT_FALSE(spool->append(std::string(kRing, 'x'))) << "larger than the whole ring";
}

TEST_F(ASpoolFile, KeepsItsCountsForTheNextProcess) {
    {
        const auto spool = open();
        EXPECT_FALSE(spool->append(std::string(kRing, 'x')));
        spool->append("one");
        spool->append("two");
        spool->append("three");
        spool->first();
        spool->removeFirst(SpoolFile::End::RefusedByHub);
        spool->first();
        spool->removeFirst(SpoolFile::End::Damaged);
        spool->countRefusedByHub();
    }
    const auto spool = open();
    EXPECT_EQ(spool->counts().waiting, 1U);
    EXPECT_EQ(spool->counts().refusedFull, 1U);
    EXPECT_EQ(spool->counts().refusedByHub, 2U);
    EXPECT_EQ(spool->counts().damaged, 1U);
    const auto counts = HVB::detail::spoolCounts(path);
    ASSERT_TRUE(counts);
    EXPECT_EQ(counts->waiting, 1U);
    EXPECT_EQ(counts->refusedByHub, 2U);
}

TEST_F(ASpoolFile, GivesEveryRecordOnceThroughManyRoundsOfItsRingAndManyProcesses) {
    std::mt19937 random(7);
    std::deque<std::string> waiting;
    auto spool = open();
    for (int step = 0; step < 5000; ++step) {
        if (random() % 20 == 0) {
            spool.reset();
            spool = open();
            ASSERT_EQ(spool->counts().waiting, waiting.size());
        }
        if (random() % 2 == 0) {
            std::string record(random() % 200, static_cast<char>(random()));
            if (spool->append(record)) {
                waiting.push_back(record);
            } else {
                ASSERT_GT(waiting.size(), 2U) << "refused though there is room";
            }
        } else if (!waiting.empty()) {
            ASSERT_EQ(spool->first(), waiting.front());
            spool->removeFirst(SpoolFile::End::Delivered);
            waiting.pop_front();
        }
    }
    EXPECT_EQ(spool->counts().damaged, 0U);
}

/// A process that is killed while it appends leaves the first bytes of the record; so does a power cut.
TEST_F(ASpoolFile, HoldsTheRecordsBeforeOneThatWasWrittenInPart) {
    const std::string before = fileWith({"one", "two"});
    open()->append("three");
    const std::string after = readFile(path);
    const std::size_t begin = kSpoolDataOffset + std::size_t{2} * 32; // two records of 27 bytes, aligned
    constexpr std::size_t size = 24 + 5;
    for (std::size_t written = 0; written <= size; ++written) {
        write(before.substr(0, begin) + after.substr(begin, written) + before.substr(begin + written));
        std::vector<std::string> expected{"one", "two"};
        if (written == size) {
            expected.emplace_back("three");
        }
        ASSERT_EQ(drain(), expected) << written;
    }
}

TEST_F(ASpoolFile, GivesWhatIsWholeOfAFileThatWasCutAnywhere) {
    const std::vector<std::string> records{"one", "twotwo", "three", "4"};
    const std::string whole = fileWith(records);
    for (std::size_t size = 0; size <= whole.size(); size += size < 200 || size > kSpoolDataOffset - 50 ? 1 : 97) {
        write(whole.substr(0, size));
        if (size > 0 && size < 96) {
            ASSERT_EQ(refusal(), -EBADMSG) << "no head is left of it at " << size;
            continue;
        }
        const std::vector<std::string> found = drain();
        ASSERT_TRUE(std::equal(found.begin(), found.end(), records.begin())) << size;
        std::size_t left = 0;
        while (left < records.size() && size >= kSpoolDataOffset + 32 * left + 24 + records[left].size()) {
            ++left;
        }
        ASSERT_EQ(found.size(), left) << size;
        ASSERT_EQ(fs::file_size(path), kSmall) << "it has its blocks again";
    }
}

TEST_F(ASpoolFile, PassesOverADamagedRecordAloneWhicheverBitIsFlipped) {
    const std::vector<std::string> records{"one", "two", "three"};
    const std::string whole = fileWith(records);
    for (std::size_t at = kSpoolDataOffset; at < kSpoolDataOffset + std::size_t{3} * 32; ++at) {
        const std::size_t damaged = (at - kSpoolDataOffset) / 32;
        const std::size_t within = (at - kSpoolDataOffset) % 32;
        std::string bytes = whole;
        bytes[at] = static_cast<char>(bytes[at] ^ (1 << (at % 8)));
        write(bytes);
        std::vector<std::string> expected = records;
        const bool isPadding = within >= 24 + records[damaged].size();
        if (!isPadding) {
            expected.erase(expected.begin() + static_cast<std::ptrdiff_t>(damaged));
        }
        EXPECT_EQ(open()->counts().damaged, isPadding ? 0U : 1U) << at;
        ASSERT_EQ(drain(), expected) << at;
        EXPECT_EQ(open()->counts().damaged, isPadding ? 0U : 1U) << "counted once, at " << at;
    }
}

TEST_F(ASpoolFile, PassesOverARecordThatIsDamagedWhileItWaits) {
    fileWith({});
    const auto spool = open();
    for (const char* record : {"one", "two", "three"}) {
        spool->append(record);
    }
    {
        std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
        file.seekp(kSpoolDataOffset + 25);
        file << "X";
    }
    EXPECT_EQ(spool->first(), "two");
    EXPECT_EQ(spool->counts().damaged, 1U);
    EXPECT_EQ(spool->counts().waiting, 2U);
    spool->append("four");
    for (const char* record : {"two", "three", "four"}) {
        EXPECT_EQ(spool->first(), record);
        spool->removeFirst(SpoolFile::End::Delivered);
    }
    EXPECT_TRUE(spool->isEmpty());
}

TEST_F(ASpoolFile, LivesOnWithEitherOfItsHeads) {
    const std::string whole = fileWith({"one", "two"});
    for (const std::size_t head : {std::size_t{0}, HVB::detail::kSpoolHeadDistance}) {
        for (std::size_t at = head; at < head + 96; ++at) {
            std::string bytes = whole;
            bytes[at] = static_cast<char>(bytes[at] ^ 0x10);
            write(bytes);
            ASSERT_EQ(drain(), (std::vector<std::string>{"one", "two"})) << at;
        }
    }
}

/// What a record's sender chose to write is no record of its own, however much it looks like one.
TEST_F(ASpoolFile, TakesNoBytesInsideARecordForARecord) {
    std::string forged = fileWith({"other spool"}).substr(kSpoolDataOffset, 40);
    fs::remove(path);
    const auto spool = open();
    const std::uint64_t position = 24; // where it would stand
    std::memcpy(forged.data() + 8, &position, sizeof position);
    spool->append(forged);
    spool->append("two");
    {
        std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
        file.seekp(kSpoolDataOffset);
        file << "X";
    }
    EXPECT_EQ(spool->first(), "two");
}

TEST_F(ASpoolFile, BelongsToOneProcessAtATime) {
    const auto spool = open();
    EXPECT_EQ(refusal(), -EBUSY);
}

/// Whatever stands in the spool's place and is no spool stays as it is.
class AFileThatIsNoSpool : public ASpoolFile {};

TEST_F(AFileThatIsNoSpool, IsLeftAsItIs) {
    const std::string content = "precious" + std::string(2 * kSmall, '\x5A');
    write(content);
    EXPECT_EQ(refusal(), -EBADMSG);
    EXPECT_EQ(readFile(path), content);
    EXPECT_THROW(HVB::detail::spoolCounts(path), HVB::HVBException);
}

/// Its records cannot be read without the key of the head, but nobody said that they may go.
TEST_F(AFileThatIsNoSpool, IsLeftAsItIsThoughItsHeadsAreZero) {
    std::string content = fileWith({"one", "two"});
    std::fill_n(content.begin(), kSpoolDataOffset, '\0');
    write(content);
    EXPECT_EQ(refusal(), -EBADMSG);
    EXPECT_TRUE(readFile(path) == content);
}

TEST_F(ASpoolFile, IsMadeInAFileOfZeroes) {
    write(std::string(2 * kSmall, '\0')); // as a process leaves it that ended before it had written a head
    EXPECT_EQ(refusal(), 0);
    EXPECT_EQ(drain(), std::vector<std::string>{});
}

TEST_F(AFileThatIsNoSpool, IsNotWrittenThroughASymbolicLink) {
    const std::string target = directory.file("target");
    fs::create_symlink(target, path);
    EXPECT_EQ(refusal(), -ELOOP);
    EXPECT_FALSE(fs::exists(target));
    EXPECT_THROW(HVB::detail::spoolCounts(path), HVB::HVBException);
}

TEST_F(AFileThatIsNoSpool, MayBeADirectoryOrAPipe) {
    fs::create_directory(path);
    EXPECT_EQ(refusal(), -EISDIR);
    fs::remove(path);
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(refusal(), -EINVAL);
}

TEST_F(AFileThatIsNoSpool, MayHaveASecondName) {
    fileWith({"one"});
    fs::create_hard_link(path, directory.file("second"));
    EXPECT_EQ(refusal(), -EPERM);
}

TEST_F(AFileThatIsNoSpool, MayBeAnotherUsers) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can give a file away; a file of another user was not tested";
    }
    fileWith({"one"});
    ASSERT_EQ(chown(path.c_str(), 65534, 65534), 0);
    EXPECT_EQ(refusal(), -EPERM);
}

TEST_F(AFileThatIsNoSpool, CannotBeMadeWithoutItsDirectory) {
    try {
        const SpoolFile spool(directory.file("none/spool"));
        FAIL() << "opened";
    } catch (const HVB::HVBException& error) {
        EXPECT_EQ(error.code(), -ENOENT);
        EXPECT_EQ(error.message(), directory.file("none/spool") + " cannot be opened: No such file or directory");
    }
    EXPECT_FALSE(HVB::detail::spoolCounts(directory.file("none/spool")));
}

} // namespace
