// Packed texts: what comes back, how small they are, and what is no packed text.
#include "base/PackedText.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

using Sentrel::packWide;
using Sentrel::unpackWide;

namespace {

constexpr std::size_t kMany = 1U << 20U;

std::string bytesOf(const std::wstring& text) {
    return {reinterpret_cast<const char*>(text.data()), text.size() * sizeof(wchar_t)};
}

TEST(APackedText, ComesBackWhateverItHolds) {
    std::mt19937 random(7);
    std::string noise(1000, '\0');
    for (char& c : noise) {
        c = static_cast<char>(random());
    }
    for (const std::string& text :
         {std::string(), std::string("abc"), noise, bytesOf(L"x"), bytesOf(std::wstring(500, L'\xFF')),
          bytesOf(std::wstring(500, static_cast<wchar_t>(0xFFFFFFC3))),
          bytesOf(L"\x20AC and more, and more, and more")}) {
        const std::string packed = packWide(text);
        EXPECT_LE(packed.size(), text.size() + 1);
        EXPECT_EQ(unpackWide(packed, kMany), text);
    }
}

TEST(APackedText, TakesAQuarterOrLess) {
    std::mt19937 random(7);
    std::wstring noise;
    for (int i = 0; i < 1000; ++i) {
        noise += static_cast<wchar_t>(random() % 256);
    }
    EXPECT_EQ(packWide(bytesOf(noise)).size(), noise.size() + 1);
    EXPECT_LT(packWide(bytesOf(std::wstring(1000, L'x'))).size(), 50U);
}

TEST(APackedText, IsRefusedWhenItHoldsMoreThanTheCallerWants) {
    for (const std::wstring& text : {std::wstring(100, L'x'), std::wstring(L"abcd"), std::wstring(100, L'\x20AC')}) {
        const std::string bytes = bytesOf(text);
        EXPECT_EQ(unpackWide(packWide(bytes), bytes.size()), bytes);
        EXPECT_EQ(unpackWide(packWide(bytes), bytes.size() - 1), std::nullopt);
    }
}

TEST(APackedText, IsRefusedWhenItIsNone) {
    const std::string packed = packWide(bytesOf(std::wstring(1000, L'x')));
    for (std::size_t size = 0; size < packed.size(); ++size) {
        EXPECT_EQ(unpackWide(packed.substr(0, size), kMany), std::nullopt) << size;
    }
    EXPECT_EQ(unpackWide("?text", kMany), std::nullopt);
    EXPECT_EQ(unpackWide(std::string("d\xFF\xFF\xFF\xFFx", 6), ~std::size_t{0}), std::nullopt)
        << "a size that its bytes cannot stand for";
}

} // namespace
