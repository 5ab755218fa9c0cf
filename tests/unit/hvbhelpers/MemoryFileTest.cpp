// Texts in memory files. All real: descriptors, seals.
#include "platform/hvbhelpers/MemoryFile.h"
#include "hub/Exceptions.h"
#include "platform/hvbhelpers/Carriers.h"
#include "platform/hvbhelpers/HubProtocol.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <string>
#include <tuple>

namespace {

using HVB::detail::MemoryFile;

constexpr std::size_t kMost = std::size_t{1} << 20U;
constexpr int kSeals = F_SEAL_SEAL | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE;

/// What `arrived` says of a file; empty when it takes it.
std::string refusalOf(int fd, std::uint8_t width = 1, std::size_t maxBytes = kMost) {
    try {
        std::ignore = MemoryFile::arrived(fd, width, maxBytes);
        return {};
    } catch (const HVB::HVBException& exception) {
        EXPECT_EQ(exception.code(), -EBADMSG);
        return exception.message();
    }
}

/// A memory file as another program would make it.
Sentrel::UniqueFd memoryFile(const std::string& bytes, int seals) {
    Sentrel::UniqueFd file(::memfd_create("test", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    EXPECT_EQ(::write(file.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    EXPECT_EQ(::fcntl(file.get(), F_ADD_SEALS, seals), 0);
    return file;
}

TEST(AMemoryFile, TakesOneByteACharacterWhenAllAreBytes) {
    const auto file = MemoryFile::of(std::wstring(L"a\0\x7f\x80\xff", 5), kMost);
    EXPECT_EQ(file->width(), 1);
    EXPECT_EQ(file->bytes(), 5U);
    EXPECT_EQ(file->text(), std::wstring(L"a\0\x7f\x80\xff", 5));
}

TEST(AMemoryFile, GivesBytesBackAsTheyWere) {
    const std::string bytes("a\0\x7f\x80\xff", 5);
    const auto file = MemoryFile::ofBytes(bytes, bytes.size());
    EXPECT_EQ(file->content(), bytes);
    EXPECT_EQ(refusalOf(file->fd()), "");
    EXPECT_EQ(MemoryFile::arrived(file->fd(), 1, kMost)->content(), bytes);
    EXPECT_THROW((void)MemoryFile::ofBytes(bytes, bytes.size() - 1), HVB::HVBException);
}

TEST(AMemoryFile, TakesFourBytesACharacterWhenOneIsNoByte) {
    for (const wchar_t odd : {wchar_t{0x100}, wchar_t{0x10FFFF}, wchar_t{INT_MAX}, wchar_t{-1}, wchar_t{INT_MIN}}) {
        const std::wstring text = std::wstring(L"ab") + odd;
        const auto file = MemoryFile::of(text, kMost);
        EXPECT_EQ(file->width(), 4);
        EXPECT_EQ(file->bytes(), 12U);
        EXPECT_EQ(file->text(), text);
    }
}

TEST(AMemoryFile, KeepsTextsThatAreLongerThanAPieceOfItsReading) {
    for (const wchar_t last : {L'z', wchar_t{0x20AC}}) {
        std::wstring text;
        for (int i = 0; i < 100'000; ++i) {
            text += static_cast<wchar_t>(i % 256);
        }
        text += last;
        const auto file = MemoryFile::of(text, kMost);
        EXPECT_EQ(file->text(), text);
        EXPECT_TRUE(file->holds(text));
        text[70'000] = L'\x01' + text[70'000] % 2;
        EXPECT_FALSE(file->holds(text));
    }
}

TEST(AMemoryFile, HoldsOnlyItsOwnText) {
    const auto file = MemoryFile::of(L"abcd", kMost);
    EXPECT_TRUE(file->holds(L"abcd"));
    EXPECT_FALSE(file->holds(L"abc"));
    EXPECT_FALSE(file->holds(L"abcde"));
    EXPECT_FALSE(file->holds(L"abce"));
    EXPECT_FALSE(file->holds(L"abc\x164")); // whose low byte is that of d
    EXPECT_TRUE(MemoryFile::of(L"", kMost)->holds(L""));
}

TEST(AMemoryFile, CannotBeChangedByWhoGetsIt) {
    const auto file = MemoryFile::of(L"text", kMost);
    EXPECT_EQ(::fcntl(file->fd(), F_GET_SEALS), kSeals);
    EXPECT_LT(::pwrite(file->fd(), "x", 1, 0), 0);
    EXPECT_LT(::ftruncate(file->fd(), 0), 0);
}

TEST(AMemoryFile, RefusesATextBeyondItsBound) {
    std::ignore = MemoryFile::of(std::wstring(8, L'x'), 8);
    std::ignore = MemoryFile::of(std::wstring(2, wchar_t{0x100}), 8);
    EXPECT_THROW(MemoryFile::of(std::wstring(9, L'x'), 8), HVB::HVBException);
    EXPECT_THROW(MemoryFile::of(std::wstring(3, wchar_t{0x100}), 8), HVB::HVBException);
}

TEST(AnArrivedFile, HasTheTextThatWasPutIntoIt) {
    const auto sent = MemoryFile::of(L"a text", kMost);
    const auto file = MemoryFile::arrived(sent->fd(), sent->width(), kMost);
    EXPECT_NE(file->fd(), sent->fd()) << "a message closes its descriptor with itself";
    EXPECT_EQ(file->text(), L"a text");
}

TEST(AnArrivedFile, ComesFromAnyProgramThatSealsIt) {
    const Sentrel::UniqueFd file = memoryFile("caf\xe9", F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE);
    EXPECT_EQ(MemoryFile::arrived(file.get(), 1, kMost)->text(), L"caf\u00e9");
    const Sentrel::UniqueFd wide = memoryFile(std::string("\xac\x20\0\0", 4), kSeals);
    EXPECT_EQ(MemoryFile::arrived(wide.get(), 4, kMost)->text(), L"\u20ac");
}

TEST(AnArrivedFile, IsRefusedWhenItsSenderCouldStillChangeIt) {
    const std::string refusal = "a payload's file is no memory file that is sealed against change";
    EXPECT_EQ(refusalOf(memoryFile("text", 0).get()), refusal);
    EXPECT_EQ(refusalOf(memoryFile("text", F_SEAL_SHRINK | F_SEAL_GROW).get()), refusal);
    EXPECT_EQ(refusalOf(memoryFile("text", F_SEAL_WRITE | F_SEAL_GROW).get()), refusal);
    EXPECT_EQ(refusalOf(memoryFile("text", F_SEAL_WRITE | F_SEAL_SHRINK).get()), refusal);
}

TEST(AnArrivedFile, IsRefusedWhenItIsNoFileInMemory) {
    const std::string refusal = "a payload's file is no memory file that is sealed against change";
    const Sentrel::UniqueFd file(::open("/proc/self/exe", O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(refusalOf(file.get()), refusal);
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    const Sentrel::UniqueFd reading(ends[0]);
    const Sentrel::UniqueFd writing(ends[1]);
    EXPECT_EQ(refusalOf(reading.get()), refusal) << "reading it would wait";
}

TEST(AnArrivedFile, IsRefusedBeyondItsBoundAndWithHalfACharacter) {
    const Sentrel::UniqueFd file = memoryFile("123456", kSeals);
    EXPECT_EQ(refusalOf(file.get(), 1, 6), "");
    EXPECT_EQ(refusalOf(file.get(), 1, 5), "a payload's file has 6 bytes, which is more than 5");
    EXPECT_EQ(refusalOf(file.get(), 4), "a payload's file has 6 bytes, which is no whole number of characters");
}

TEST(AnArrivedFile, IsRefusedWithAnotherWidth) {
    const Sentrel::UniqueFd file = memoryFile("12345678", kSeals);
    for (const int width : {0, 2, 3, 8, 255}) {
        EXPECT_EQ(refusalOf(file.get(), static_cast<std::uint8_t>(width)),
                  "a payload's file has " + std::to_string(width) + " bytes a character, neither 1 nor 4");
    }
}

// Payloads that leave.

HVB::detail::Payload payloadOfLength(std::size_t characters) {
    return {true, std::wstring(characters, L'x')};
}

constexpr std::size_t kMostInAMessage = HVB::bus::kMaxTextBytes / sizeof(wchar_t);

TEST(APayloadThatLeaves, StaysInItsMessageUpToTheLargestText) {
    HVB::detail::PayloadFiles files;
    auto payload = payloadOfLength(kMostInAMessage);
    files.moveOut(payload, kMost);
    EXPECT_EQ(payload.file, nullptr);
    EXPECT_EQ(payload.text.size(), kMostInAMessage);
}

TEST(APayloadThatLeaves, GoesIntoAFileBeyondThatWithItsText) {
    HVB::detail::PayloadFiles files;
    auto payload = payloadOfLength(kMostInAMessage + 1);
    files.moveOut(payload, kMost);
    ASSERT_NE(payload.file, nullptr);
    EXPECT_EQ(payload.bytes(), 0U);
    EXPECT_EQ(payload.takeText(), payloadOfLength(kMostInAMessage + 1).text);
}

TEST(APayloadThatLeaves, SharesItsFileWithTheNextOneOfTheSameText) {
    HVB::detail::PayloadFiles files;
    auto first = payloadOfLength(kMostInAMessage + 1);
    auto same = first;
    auto other = payloadOfLength(kMostInAMessage + 2);
    files.moveOut(first, kMost);
    files.moveOut(same, kMost);
    files.moveOut(other, kMost);
    EXPECT_EQ(first.file, same.file);
    EXPECT_NE(first.file, other.file);
    EXPECT_EQ(first.takeText(), payloadOfLength(kMostInAMessage + 1).text);
}

} // namespace
