// The settings file as a format and what is done with one that is as it should be. Real: the file, and the sqlite3
// program, which writes what is read here and reads what is written.
#include "tests/unit/store/SettingsTestSupport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <list>
#include <thread>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;

struct Key {
    const char* name;
    unsigned long boundLength;
    bool isText;
};

constexpr Key kKeys[]{
    {"Enabled", 8, false},
    {"SSOn", 5, false},
    {"RedSiteAction", 14, false},
    {"YellowSiteAction", 17, false},
    {"UnverifiedSiteAction", 21, false},
    {"GenPolicyUnverifiedAction", 26, false},
    {"CAT_Enabled", 12, false},
    {"ALLOW_OVER_Block", 17, false},
    {"GenPolicyBlockPhishingAction", 29, false},
    {"GenPolicyRPXUnReachableAction", 30, false},
    {"PrivateIPRangeChecksum", 23, false},
    {"AllowBlockListChecksum", 23, false},
    {"CategoryBlockListChecksum", 26, false},
    {"GenPolicyLogGreenSiteAction", 28, false},
    {"GenPolicyLogAllowSiteAction", 28, false},
    {"UNCAT_Block", 12, false},
    {"Enabled_Debug_Log", 18, false},
    {"RPXProxyHost", 13, true},
    {"HttpAuthUname", 14, true},
    {"HttpAuthPass", 13, true},
    {"RPXProxyPort", 13, false},
    {"RPXProxyType", 13, false},
    {"EnableHttpAuth", 15, false},
};

std::string hex(const std::string& bytes) {
    std::string digits;
    for (const char byte : bytes) {
        constexpr const char* kDigits = "0123456789ABCDEF";
        const auto value = static_cast<unsigned char>(byte);
        digits += {kDigits[value >> 4U], kDigits[value & 15U]};
    }
    return digits;
}

std::string bytesOf(std::int32_t value) {
    std::string bytes(sizeof value, '\0');
    std::memcpy(bytes.data(), &value, sizeof value);
    return bytes;
}

/// A value for a key that no other key has.
std::string sampleFor(const Key& key) {
    return key.isText ? std::string("text of ") + key.name : bytesOf(-1000 + int(&key - kKeys));
}

TEST_F(ASettingsFile, HasEveryKeyWithItsNulAndTheValueAsABlob) {
    file.layOut();
    ASSERT_TRUE(init());
    std::string expected;
    for (const Key& key : kKeys) {
        const std::string value = sampleFor(key);
        ASSERT_TRUE(settings.Set(key.name, key.boundLength, value.data(), value.size(), TABLE_GENERAL_SETTING));
        expected += hex(key.name) + "00|text|" + std::to_string(key.boundLength) + "|" + hex(value) + "|blob|" +
                    std::to_string(value.size()) + "\n";
    }
    EXPECT_EQ(file.sqlite("select hex(name), typeof(name), length(cast(name as blob)), hex(value), typeof(value), "
                          "length(value) from vxsetting order by rowid"),
              expected);
}

TEST_F(ASettingsFile, GivesEveryKeyThatWasWrittenFromOutside) {
    file.layOut();
    std::string sql;
    for (const Key& key : kKeys) {
        sql +=
            "insert into vxsetting values (cast(x'" + hex(key.name) + "00' as text), x'" + hex(sampleFor(key)) + "');";
    }
    ASSERT_EQ(file.sqlite(sql), "");
    ASSERT_TRUE(init());
    for (const Key& key : kKeys) {
        SCOPED_TRACE(key.name);
        std::string value(sampleFor(key).size(), '#');
        EXPECT_TRUE(
            settings.Get(key.name, key.boundLength, value.data(), value.size(), nullptr, TABLE_GENERAL_SETTING));
        EXPECT_EQ(value, sampleFor(key));
    }
}

TEST_F(ASettingsFile, StoresTheSwitchAsEightBytesOfNameAndFourOfValue) {
    file.layOut();
    ASSERT_TRUE(init());
    const std::int32_t on = 1;
    ASSERT_TRUE(settings.Set("Enabled", 8, &on, sizeof on, TABLE_GENERAL_SETTING));
    EXPECT_EQ(file.sqlite("select hex(name), hex(value) from vxsetting"), "456E61626C656400|01000000\n");
}

TEST_F(ASettingsFile, StoresAChecksumInTheLowByteOfFour) {
    file.layOut();
    ASSERT_TRUE(init());
    const std::int32_t checksum = 'A';
    ASSERT_TRUE(settings.Set("AllowBlockListChecksum", 23, &checksum, sizeof checksum, TABLE_GENERAL_SETTING));
    EXPECT_EQ(file.sqlite("select hex(value) from vxsetting"), "41000000\n");
}

TEST_F(ASettingsFile, HasTheNamesOfTheListsWithoutANul) {
    file.layOut();
    ASSERT_TRUE(init());
    const std::int32_t action = 3;
    EXPECT_TRUE(settings.Set("Adult", 5, &action, sizeof action, TABLE_CATEGORY_BLOCKING));
    EXPECT_TRUE(settings.Set("bad.example", 1, TABLE_ALLOW_BLOCK));
    EXPECT_TRUE(settings.Set("good.example", 0, TABLE_ALLOW_BLOCK));
    EXPECT_TRUE(settings.Set("10.0.0.0/8", TABLE_PRIVATE_IP_RANGE));
    EXPECT_EQ(file.sqlite("select hex(name), typeof(name), hex(value), typeof(value) from catblockinginfo"),
              "4164756C74|text|03000000|blob\n");
    EXPECT_EQ(file.sqlite("select name, length(cast(name as blob)), value, typeof(value) from allowblocksettings"),
              "bad.example|11|1|integer\ngood.example|12|0|integer\n");
    EXPECT_EQ(file.sqlite("select range, length(cast(range as blob)), typeof(range) from privateIPRange"),
              "10.0.0.0/8|10|text\n");
}

TEST_F(ASettingsFile, KeepsANameOfTheListsWholeEvenWithANulInIt) {
    file.layOut();
    ASSERT_TRUE(init());
    EXPECT_TRUE(settings.Set(std::string("a\0b", 3), 1, TABLE_ALLOW_BLOCK));
    EXPECT_TRUE(settings.Set(std::string("c\0d", 3), TABLE_PRIVATE_IP_RANGE));
    EXPECT_EQ(file.sqlite("select hex(name) from allowblocksettings; select hex(range) from privateIPRange"),
              "610062\n630064\n");
}

TEST_F(ASettingsFile, FindsAKeyOnlyWithTheLengthItWasStoredWith) {
    file.layOut();
    ASSERT_EQ(file.sqlite("insert into vxsetting values ('Enabled', x'73686F7274')"), "");
    ASSERT_TRUE(init());
    EXPECT_EQ(get(std::string("Enabled\0", 8)), "-");
    EXPECT_EQ(get("Enabled"), "short");
    ASSERT_TRUE(set(std::string("Enabled\0", 8), "long"));
    EXPECT_EQ(get(std::string("Enabled\0", 8)), "long");
    EXPECT_EQ(get("Enabled"), "short");
    EXPECT_EQ(file.sqlite("select count(*) from vxsetting"), "2\n");
}

TEST_F(ASettingsFile, TakesALengthOfZeroForThatOfTheName) {
    file.layOut();
    ASSERT_TRUE(init());
    ASSERT_TRUE(settings.Set("SSOn", 0, "yes", 3, TABLE_GENERAL_SETTING));
    EXPECT_EQ(file.sqlite("select hex(name) from vxsetting"), "53534F6E\n");
    std::array<char, 3> value{};
    EXPECT_TRUE(settings.Get("SSOn", 0, value.data(), value.size(), nullptr, TABLE_GENERAL_SETTING));
    EXPECT_THAT(value, ElementsAre('y', 'e', 's'));
}

TEST_F(ASettingsFile, ReplacesTheRowOfANameThatIsWrittenAgain) {
    ASSERT_NO_FATAL_FAILURE(open());
    EXPECT_TRUE(set("key", "first"));
    EXPECT_TRUE(set("key", "second"));
    EXPECT_EQ(get("key"), "second");
    EXPECT_TRUE(settings.Set("good.example", 1, TABLE_ALLOW_BLOCK));
    EXPECT_TRUE(settings.Set("192.168.0.0/16", TABLE_PRIVATE_IP_RANGE));
    EXPECT_EQ(file.sqlite(kCounts), "2\n2\n3\n2\n");
    EXPECT_EQ(file.sqlite("select value from allowblocksettings where name = 'good.example'"), "1\n");
}

TEST_F(ASettingsFile, HoldsEachChangeAsSoonAsItIsMade) {
    ASSERT_NO_FATAL_FAILURE(open());
    ASSERT_TRUE(set("key", "value"));
    EXPECT_EQ(file.sqlite("select value from vxsetting where name = 'key'"), "value\n");
    ASSERT_TRUE(settings.Delete(TABLE_GENERAL_SETTING));
    EXPECT_EQ(file.sqlite("select count(*) from vxsetting"), "0\n");
}

TEST_F(ASettingsFile, ServesTwoConnectionsAtATime) {
    ASSERT_NO_FATAL_FAILURE(open());
    CVXDBSettings other;
    ASSERT_TRUE(other.Init(file.path().c_str(), false));
    ASSERT_TRUE(set("key", "mine"));
    std::array<char, 4> value{};
    EXPECT_TRUE(other.Get("key", 3, value.data(), value.size(), nullptr, TABLE_GENERAL_SETTING));
    EXPECT_THAT(value, ElementsAre('m', 'i', 'n', 'e'));
    EXPECT_TRUE(other.Set("key", 3, "other", 5, TABLE_GENERAL_SETTING));
    EXPECT_EQ(get("key"), "other");
}

TEST_F(ASettingsFile, LetsOthersWriteOnceAValueWasRead) {
    ASSERT_NO_FATAL_FAILURE(open());
    ASSERT_TRUE(set("key", "mine"));
    EXPECT_EQ(get("key"), "mine");
    EXPECT_EQ(file.sqlite("insert or replace into vxsetting values ('key', 'theirs')"), "") << "it does not wait";
    EXPECT_EQ(get("key"), "theirs");
}

TEST_F(ASettingsFile, HasTheRowsOfTwoThreadsThatWriteAtATime) {
    file.layOut();
    constexpr int kRowsOfAThread = 20;
    const auto write = [this](const std::string& prefix) {
        for (int row = 0; row < kRowsOfAThread; ++row) {
            CVXDBSettings own;
            own.Init(file.path().c_str(), false);
            own.Set(prefix + std::to_string(row), row, TABLE_ALLOW_BLOCK);
        }
    };
    std::thread first(write, "first");
    std::thread second(write, "second");
    first.join();
    second.join();
    EXPECT_EQ(file.sqlite("select count(*) from allowblocksettings; pragma integrity_check"), "40\nok\n");
}

TEST_F(ASettingsFile, TellsTheSizeOfAValueThatDoesNotFit) {
    ASSERT_NO_FATAL_FAILURE(open());
    ASSERT_TRUE(set("key", "sixsix"));
    std::array<char, 5> small{'#', '#', '#', '#', '#'};
    unsigned long size = 0;
    EXPECT_FALSE(settings.Get("key", 3, small.data(), small.size(), &size, TABLE_GENERAL_SETTING));
    EXPECT_EQ(size, 6U);
    EXPECT_THAT(small, testing::Each('#'));
    EXPECT_FALSE(settings.Get("key", 3, small.data(), small.size(), nullptr, TABLE_GENERAL_SETTING));
}

TEST_F(ASettingsFile, TellsTheSizeOfAValueWithoutABuffer) {
    ASSERT_NO_FATAL_FAILURE(open());
    ASSERT_TRUE(set("key", "sixsix"));
    unsigned long size = 0;
    EXPECT_FALSE(settings.Get("key", 3, nullptr, 100, &size, TABLE_GENERAL_SETTING));
    EXPECT_EQ(size, 6U);
    EXPECT_FALSE(settings.Get("key", 3, nullptr, 100, nullptr, TABLE_GENERAL_SETTING));
}

TEST_F(ASettingsFile, CopiesAValueThatFitsAndLeavesTheRestAndTheSizeAlone) {
    ASSERT_NO_FATAL_FAILURE(open());
    ASSERT_TRUE(set("key", "abc"));
    std::array<char, 5> buffer{'#', '#', '#', '#', '#'};
    unsigned long size = 99;
    EXPECT_TRUE(settings.Get("key", 3, buffer.data(), 3, &size, TABLE_GENERAL_SETTING));
    EXPECT_TRUE(settings.Get("key", 3, buffer.data(), buffer.size(), &size, TABLE_GENERAL_SETTING));
    EXPECT_THAT(buffer, ElementsAre('a', 'b', 'c', '#', '#'));
    EXPECT_EQ(size, 99U);
}

TEST_F(ASettingsFile, GivesAValueWithoutBytesAsItIs) {
    file.layOut();
    ASSERT_EQ(file.sqlite("insert into vxsetting values ('empty', x''), ('null', null)"), "");
    ASSERT_TRUE(init());
    EXPECT_EQ(get("empty"), "");
    EXPECT_EQ(get("null"), "");
}

TEST_F(ASettingsFile, HasNoValueForAMissingRowOrName) {
    ASSERT_NO_FATAL_FAILURE(open());
    unsigned long size = 99;
    std::array<char, 8> buffer{};
    EXPECT_FALSE(settings.Get("absent", 6, buffer.data(), buffer.size(), &size, TABLE_GENERAL_SETTING));
    EXPECT_FALSE(settings.Get(nullptr, 6, buffer.data(), buffer.size(), &size, TABLE_GENERAL_SETTING));
    EXPECT_EQ(size, 99U);
}

TEST_F(ASettingsFile, HasNoSinglePrivateRangeToGive) {
    ASSERT_NO_FATAL_FAILURE(open());
    EXPECT_EQ(get("192.168.0.0/16", TABLE_PRIVATE_IP_RANGE), "-");
}

TEST_F(ASettingsFile, GivesValuesOfTheListsByName) {
    ASSERT_NO_FATAL_FAILURE(open());
    EXPECT_EQ(get("Gambling", TABLE_CATEGORY_BLOCKING), std::string("\7\0\0\0", 4));
    EXPECT_EQ(get("bad.example", TABLE_ALLOW_BLOCK), "1") << "an integer, asked for as bytes, is its text";
}

TEST_F(ASettingsFile, CannotStoreNothing) {
    file.layOut();
    ASSERT_TRUE(init());
    EXPECT_FALSE(settings.Set("key", 3, "", 0, TABLE_GENERAL_SETTING));
    EXPECT_FALSE(settings.Set("key", 3, nullptr, 4, TABLE_GENERAL_SETTING));
    EXPECT_FALSE(settings.Set(nullptr, 3, "value", 5, TABLE_GENERAL_SETTING));
    EXPECT_FALSE(settings.Set("", 1, TABLE_ALLOW_BLOCK));
    EXPECT_FALSE(settings.Set("", TABLE_PRIVATE_IP_RANGE));
    EXPECT_EQ(file.sqlite(kCounts), "0\n0\n0\n0\n");
}

TEST_F(ASettingsFile, CannotStoreTwoColumnsInATableOfOne) {
    file.layOut();
    ASSERT_TRUE(init());
    EXPECT_FALSE(set("10.0.0.0/8", "value", TABLE_PRIVATE_IP_RANGE));
    EXPECT_FALSE(settings.Set("10.0.0.0/8", 1, TABLE_PRIVATE_IP_RANGE));
    EXPECT_EQ(file.sqlite(kCounts), "0\n0\n0\n0\n");
}

TEST_F(ASettingsFile, EmptiesOneTableAndCanDoSoAgain) {
    ASSERT_NO_FATAL_FAILURE(open());
    EXPECT_TRUE(settings.Delete(TABLE_ALLOW_BLOCK));
    EXPECT_EQ(file.sqlite(kCounts), "1\n2\n0\n2\n");
    ASSERT_TRUE(settings.Set("again.example", 1, TABLE_ALLOW_BLOCK));
    EXPECT_TRUE(settings.Delete(TABLE_ALLOW_BLOCK));
    EXPECT_EQ(file.sqlite(kCounts), "1\n2\n0\n2\n");
    EXPECT_TRUE(settings.Delete(TABLE_GENERAL_SETTING));
    EXPECT_TRUE(settings.Delete(TABLE_CATEGORY_BLOCKING));
    EXPECT_TRUE(settings.Delete(TABLE_PRIVATE_IP_RANGE));
    EXPECT_EQ(file.sqlite(kCounts), "0\n0\n0\n0\n");
}

TEST_F(ASettingsFile, GivesTheNamesOfTheCategoriesInTheOrderOfTheFile) {
    ASSERT_NO_FATAL_FAILURE(open());
    EXPECT_THAT(rows(TABLE_CATEGORY_BLOCKING), ElementsAre(Pair("Gambling", testing::_), Pair("Adult", testing::_)));
}

TEST_F(ASettingsFile, GivesTheAllowBlockListByItsValueInEitherOrder) {
    ASSERT_NO_FATAL_FAILURE(open());
    EXPECT_THAT(rows(TABLE_ALLOW_BLOCK, true),
                ElementsAre(Pair("good.example", 0), Pair("bad.example", 1), Pair("bad.example/2", 1)));
    EXPECT_THAT(rows(TABLE_ALLOW_BLOCK, false),
                ElementsAre(Pair("bad.example", 1), Pair("bad.example/2", 1), Pair("good.example", 0)));
}

TEST_F(ASettingsFile, GivesRowsWithoutAnOrderOfTheirOwn) {
    file.layOut();
    ASSERT_EQ(file.sqlite("insert into catblockinginfo values (cast(x'7A0031' as text), 5), ('a', 6),"
                          "(cast(x'7A0032' as text), 7)"),
              "");
    ASSERT_TRUE(init());
    EXPECT_THAT(rows(TABLE_CATEGORY_BLOCKING), ElementsAre(Pair("z", 5), Pair("a", 6), Pair("z", 7)))
        << "two names that are equal up to their NUL, and a later one that sorts before them";
}

TEST_F(ASettingsFile, GivesTheScalarSettingsForATypeWithoutATable) {
    ASSERT_NO_FATAL_FAILURE(open());
    EXPECT_THAT(rows(TABLE_GENERAL_SETTING), ElementsAre(Pair("Enabled", testing::_)));
    EXPECT_THAT(rows(static_cast<TableType>(4)), ElementsAre(Pair("Enabled", testing::_)));
}

TEST_F(ASettingsFile, GivesNoRowsOfAnEmptyTableAndIsFineWithThat) {
    file.layOut();
    ASSERT_TRUE(init());
    EXPECT_THAT(rows(TABLE_CATEGORY_BLOCKING), IsEmpty());
}

TEST_F(ASettingsFile, DoesNotGivePrivateRangesAsRows) {
    ASSERT_NO_FATAL_FAILURE(open());
    EXPECT_THAT(rows(TABLE_PRIVATE_IP_RANGE), ElementsAre(Pair("failed", 0)));
}

TEST_F(ASettingsFile, TakesANameThatIsNullForEmpty) {
    ASSERT_EQ(file.sqlite("create table catblockinginfo(name, value); insert into catblockinginfo values (null, 1)"),
              "");
    ASSERT_TRUE(init());
    EXPECT_THAT(rows(TABLE_CATEGORY_BLOCKING), ElementsAre(Pair("", 1)));
}

TEST_F(ASettingsFile, AppendsThePrivateRangesAndTellsNothingByTheResult) {
    ASSERT_NO_FATAL_FAILURE(open());
    std::list<std::string> ranges{"there before"};
    EXPECT_FALSE(settings.GetPrivateRangeList(ranges));
    EXPECT_THAT(ranges, ElementsAre("there before", "10.0.0.0-10.255.255.255", "192.168.0.0/16"));
}

TEST_F(ASettingsFile, GivesTheTextsOfTheProxyThatAreStored) {
    ASSERT_NO_FATAL_FAILURE(open());
    EXPECT_THAT(settings.GetProxyStrings(), IsEmpty());
    ASSERT_TRUE(set(std::string("RPXProxyHost\0", 13), "proxy.example"));
    ASSERT_TRUE(set(std::string("HttpAuthUname\0", 14), "user"));
    ASSERT_TRUE(set(std::string("RPXProxyPort\0", 13), "1234"));
    ASSERT_EQ(file.sqlite("insert into vxsetting values (cast(x'48747470417574685061737300' as text), x'')"), "");
    EXPECT_THAT(settings.GetProxyStrings(),
                UnorderedElementsAre(Pair("RPXProxyHost", "proxy.example"), Pair("HttpAuthUname", "user")));
    ASSERT_TRUE(set(std::string("HttpAuthPass\0", 13), "secret"));
    EXPECT_THAT(settings.GetProxyStrings(), testing::Contains(Pair("HttpAuthPass", "secret")));
}

TEST_F(ASettingsFile, StaysOpenForReadingWhenItsWritersAreGivenBack) {
    ASSERT_NO_FATAL_FAILURE(open());
    settings.Close();
    EXPECT_FALSE(set("key", "value"));
    EXPECT_FALSE(settings.Set("new.example", 1, TABLE_ALLOW_BLOCK));
    EXPECT_FALSE(settings.Set("10.0.0.0/8", TABLE_PRIVATE_IP_RANGE));
    EXPECT_TRUE(getsARow(TABLE_GENERAL_SETTING));
    EXPECT_TRUE(settings.Delete(TABLE_ALLOW_BLOCK));
    EXPECT_EQ(file.sqlite(kCounts), "1\n2\n0\n2\n");
    settings.Close();
}

} // namespace
