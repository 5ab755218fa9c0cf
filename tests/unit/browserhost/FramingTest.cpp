#include "browser/host/Framing.h"

#include <gtest/gtest.h>

#include <string>

namespace Sentrel::host {
namespace {

using std::string_literals::operator""s;

TEST(AFrameReader, FindsMessagesHoweverTheyAreCut) {
    const std::string bytes = framed("one") + framed("") + framed("three");
    for (std::size_t size = 1; size <= bytes.size(); ++size) {
        FrameReader reader;
        std::string found;
        for (std::size_t begin = 0; begin < bytes.size(); begin += size) {
            reader.add(std::string_view(bytes).substr(begin, size));
            while (const auto message = reader.next()) {
                found += "<" + *message + ">";
            }
        }
        EXPECT_EQ(found, "<one><><three>") << size;
        EXPECT_TRUE(reader.isBetweenMessages());
    }
}

TEST(AFrameReader, SaysWhenAMessageIsNotWhole) {
    FrameReader reader;
    EXPECT_TRUE(reader.isBetweenMessages());
    reader.add("\x05\x00"s);
    EXPECT_EQ(reader.next(), std::nullopt);
    EXPECT_FALSE(reader.isBetweenMessages());
    reader.add("\x00\x00"
               "four"s);
    EXPECT_EQ(reader.next(), std::nullopt);
    EXPECT_FALSE(reader.isBetweenMessages());
}

TEST(AFrameReader, TakesAMessageOfOneMebibyteAndNoByteMore) {
    FrameReader reader;
    reader.add(framed(std::string(kMaxFrameBytes, 'x')));
    EXPECT_EQ(reader.next().value_or("").size(), kMaxFrameBytes);
    reader.add("\x01\x00\x10\x00"s);
    EXPECT_THROW(reader.next(), FramingError);
}

TEST(AFrameReader, RefusesALengthOfFiveMegabytesBeforeTheyCome) {
    FrameReader reader;
    reader.add("\x40\x4b\x4c\x00"s);
    EXPECT_THROW(reader.next(), FramingError);
}

TEST(AFrame, BeginsWithItsLengthInTheOrderOfTheMachine) {
    EXPECT_EQ(framed("{}"), "\x02\x00\x00\x00{}"s);
}

TEST(APiece, EndsBetweenTwoCharacters) {
    const std::string euro = "\xE2\x82\xAC";
    for (std::size_t shift = 0; shift < euro.size(); ++shift) {
        std::string text(shift, 'x');
        while (text.size() < 2 * kPieceBytes) {
            text += euro;
        }
        const std::size_t length = pieceLength(text, 0);
        EXPECT_LE(length, kPieceBytes);
        EXPECT_GT(length, kPieceBytes - euro.size());
        EXPECT_EQ((length - shift) % euro.size(), 0U) << shift;
    }
    EXPECT_EQ(pieceLength("rest", 1), 3U);
}

TEST(APiece, FitsIntoAFrameWhenAllOfItIsQuoted) {
    EXPECT_LT(2 * kPieceBytes + 1000, kMaxFrameBytes);
}

} // namespace
} // namespace Sentrel::host
