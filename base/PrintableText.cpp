#include "base/PrintableText.h"

#include <boost/locale/utf.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <iterator>

namespace Sentrel::text {
namespace {

namespace utf = boost::locale::utf;
using Utf8 = utf::utf_traits<char>;

struct Range {
    utf::code_point first;
    utf::code_point last;
};

// Characters that change how the rest of a line is shown, or that show nothing.
constexpr std::array<Range, 12> kSteering{{
    {0x00, 0x1F},
    {0x7F, 0x9F},
    {0xAD, 0xAD},
    {0x61C, 0x61C},
    {0x180E, 0x180E},
    {0x200B, 0x200F},
    {0x2028, 0x202E},
    {0x2060, 0x206F},
    {0xFE00, 0xFE0F},
    {0xFEFF, 0xFEFF},
    {0xFFF9, 0xFFFB},
    {0xE0000, 0xE0FFF},
}};

bool isSteering(utf::code_point character) {
    return std::any_of(kSteering.begin(), kSteering.end(),
                       [character](const Range& range) { return character >= range.first && character <= range.last; });
}

std::string escapedCharacter(utf::code_point character) {
    constexpr utf::code_point lastAscii = 0x7F;
    return character <= lastAscii ? fmt::format("\\x{:02x}", character) : fmt::format("\\u{{{:04x}}}", character);
}

template <class MustEscape>
std::string escaped(std::string_view text, MustEscape mustEscape) {
    std::string result;
    result.reserve(text.size());
    const char* at = text.data();
    const char* const end = at + text.size();
    while (at != end) {
        const char* next = at;
        const utf::code_point character = Utf8::decode(next, end);
        if (character == utf::illegal || character == utf::incomplete) {
            next = at + 1;
            result += fmt::format("\\x{:02x}", static_cast<unsigned char>(*at));
        } else if (mustEscape(character)) {
            result += escapedCharacter(character);
        } else {
            result.append(at, next);
        }
        at = next;
    }
    return result;
}

} // namespace

std::string validUtf8(std::string_view text) {
    return escaped(text, [](utf::code_point) { return false; });
}

std::string printable(std::string_view text) {
    return escaped(text, isSteering);
}

std::string narrowed(std::wstring_view text) {
    constexpr std::uint32_t firstSignExtended = 0xFFFFFF80;
    std::string bytes;
    bytes.reserve(text.size());
    for (const wchar_t wide : text) {
        const auto value = std::bit_cast<std::uint32_t>(wide);
        if (value >= firstSignExtended) {
            bytes += static_cast<char>(static_cast<unsigned char>(value));
        } else if (utf::is_valid_codepoint(value)) {
            Utf8::encode(value, std::back_inserter(bytes));
        } else {
            bytes += fmt::format("\\u{{{:08x}}}", value);
        }
    }
    return bytes;
}

std::string shortened(std::string text, std::size_t maxBytes) {
    constexpr std::string_view ellipsis = "…";
    if (text.size() <= maxBytes) {
        return text;
    }
    std::size_t cut = maxBytes >= ellipsis.size() ? maxBytes - ellipsis.size() : 0;
    while (cut > 0 && Utf8::is_trail(text[cut])) {
        --cut;
    }
    text.resize(cut);
    return maxBytes >= ellipsis.size() ? text.append(ellipsis) : text;
}

} // namespace Sentrel::text
