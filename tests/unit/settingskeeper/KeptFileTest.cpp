// Reading the settings file. Real: SQLite, files, another connection that writes.
#include "apps/settings-keeper/KeptFile.h"

#include "KeptFileFixture.h"

#include <gmock/gmock.h>

namespace {

using namespace Sentrel;
using namespace Sentrel::keeper;
using settings::ListEntry;
using settings::SettingsSnapshot;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;
using testing_support::ASettingsFile;

const std::string kCipherText = "v1:6e2pRa9RGCUlbxtTyz7+e+qSPBIIXXSFIGxKDQbF2ILTDIvGW5Am6G6J8PwxVg==";

SettingsSnapshot read(KeptFile& file) {
    SettingsSnapshot snapshot;
    file.readSingles(snapshot);
    file.readLists(snapshot);
    return snapshot;
}

TEST_F(ASettingsFile, GivesItsNumbersByName) {
    setNumber("Enabled", 1);
    setNumber("RedSiteAction", -2);
    KeptFile file(m_path);
    EXPECT_THAT(read(file).numbers, UnorderedElementsAre(Pair("Enabled", 1), Pair("RedSiteAction", -2)));
    EXPECT_THAT(read(file).unreadable, IsEmpty());
}

TEST_F(ASettingsFile, TellsWhichRowsHoldNoNumber) {
    setText("SSOn", "x");
    setText("Enabled", "12345");
    run("insert into vxsetting values (cast(x'" + hexOf("RPXProxyPort") + "00' as text), NULL)");
    KeptFile file(m_path);
    EXPECT_THAT(read(file).numbers, IsEmpty());
    EXPECT_THAT(read(file).unreadable, UnorderedElementsAre("SSOn", "Enabled", "RPXProxyPort"));
}

TEST_F(ASettingsFile, TakesNoRowWhoseNameLacksItsNulOrIsUnknown) {
    run("insert into vxsetting values ('Enabled', x'01000000')");
    setNumber("Unheard", 1);
    KeptFile file(m_path);
    EXPECT_EQ(read(file), SettingsSnapshot());
}

TEST_F(ASettingsFile, GivesItsListsInTheOrderOfItsRows) {
    addUrl("http://b.example/", 1);
    addUrl("http://a.example/", 0);
    addUrl(std::string("\xC3\x00z", 3), 7);
    run("insert into catblockinginfo values ('Games', x'04000000'), ('Odd', x'04')");
    run("insert into privateIPRange values ('10.0.0.0-10.0.0.9'), ('')");
    KeptFile file(m_path);
    const SettingsSnapshot snapshot = read(file);
    EXPECT_THAT(snapshot.allowBlock, ElementsAre(ListEntry{"http://b.example/", 1}, ListEntry{"http://a.example/", 0},
                                                 ListEntry{std::string("\xC3\x00z", 3), 7}));
    EXPECT_THAT(snapshot.categories, ElementsAre(ListEntry{"Games", 4}, ListEntry{"Odd", 0}));
    EXPECT_THAT(snapshot.privateRanges, ElementsAre("10.0.0.0-10.0.0.9", ""));
}

TEST_F(ASettingsFile, ShowsAProxyPasswordOnlyAsTheSitesCipherText) {
    setText("RPXProxyHost", "proxy.example");
    setNumber("RPXProxyPort", 3128);
    setText("HttpAuthPass", "secret");
    KeptFile file(m_path);
    settings::ProxySettings proxy = read(file).proxy;
    EXPECT_EQ(proxy.host, "proxy.example");
    EXPECT_EQ(proxy.user, std::nullopt);
    EXPECT_EQ(proxy.port, 3128);
    EXPECT_TRUE(proxy.hasPassword);
    EXPECT_EQ(proxy.cipheredPassword, std::nullopt);
    setText("HttpAuthPass", kCipherText);
    EXPECT_EQ(read(file).proxy.cipheredPassword, kCipherText);
}

TEST_F(ASettingsFile, HasAnotherVersionAfterEachChange) {
    KeptFile file(m_path);
    const std::int64_t first = file.version();
    EXPECT_EQ(file.version(), first);
    addUrl("http://a.example/");
    const std::int64_t second = file.version();
    EXPECT_NE(second, first);
    setNumber("Enabled", 1);
    EXPECT_NE(file.version(), second);
}

TEST_F(ASettingsFile, LetsItsWriterWriteAndEmptyItsLogBetweenTwoReads) {
    KeptFile file(m_path);
    addUrl("http://a.example/");
    static_cast<void>(read(file));
    EXPECT_TRUE(emptyWriteAheadLog(*m_writer)) << "a read transaction would be in its way";
    EXPECT_EQ(std::filesystem::file_size(m_path + "-wal"), 0U);
}

TEST_F(ASettingsFile, KeepsTheLogOfAWriterThatCloses) {
    KeptFile file(m_path);
    addUrl("http://a.example/");
    m_writer.reset();
    EXPECT_TRUE(std::filesystem::exists(m_path + "-wal"));
    EXPECT_EQ(read(file).allowBlock.size(), 1U);
}

TEST_F(ASettingsFile, IsAnotherOneAfterItWasReplaced) {
    KeptFile file(m_path);
    EXPECT_TRUE(file.isInPlace());
    std::filesystem::rename(m_path, m_path + ".old");
    EXPECT_FALSE(file.isInPlace());
    std::ofstream(m_path) << "another";
    EXPECT_FALSE(file.isInPlace());
}

TEST_F(ASettingsFile, IsNotOpenedThroughALinkAndNotMade) {
    EXPECT_THROW(KeptFile(m_path + ".none"), DatabaseError);
    EXPECT_FALSE(std::filesystem::exists(m_path + ".none"));
    std::filesystem::create_symlink(m_path, m_path + ".link");
    EXPECT_THROW(KeptFile(m_path + ".link"), DatabaseError);
    std::ofstream(m_path + ".text") << std::string(5000, 'x');
    EXPECT_THROW(KeptFile(m_path + ".text"), DatabaseError);
}

TEST_F(ASettingsFile, IsFoundDamagedByItsCheck) {
    for (int i = 0; i < 300; ++i) {
        addUrl("http://host" + std::to_string(i) + ".example/a/path/that/takes/room");
    }
    EXPECT_EQ(KeptFile(m_path).check(), "");
    ASSERT_TRUE(emptyWriteAheadLog(*m_writer));
    m_writer.reset();
    {
        std::fstream file(m_path, std::ios::in | std::ios::out | std::ios::binary);
        constexpr std::uintmax_t page = 4096;
        file.seekp(static_cast<std::streamoff>(std::filesystem::file_size(m_path) / 2 / page * page));
        file << std::string(2048, '\x5A');
    }
    KeptFile file(m_path);
    std::string found;
    try {
        found = file.check();
    } catch (const DatabaseError& error) {
        found = error.what();
    }
    EXPECT_NE(found, "");
}

} // namespace
