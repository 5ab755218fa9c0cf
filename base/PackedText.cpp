#include "base/PackedText.h"

#include <zlib.h>

#include <array>
#include <cstdint>
#include <cstring>

namespace Sentrel {
namespace {

constexpr std::size_t kBytesPerCharacter = 4;
constexpr std::size_t kSizeBytes = 4;
constexpr char kAsItIs = 'r';
constexpr char kNarrow = 'n';
constexpr char kNarrowDeflated = 'd';
constexpr char kWideDeflated = 'w';

/// One byte a character. None when a character needs more.
std::optional<std::string> narrowed(std::string_view wide) {
    if (wide.size() % kBytesPerCharacter != 0) {
        return std::nullopt;
    }
    std::string narrow(wide.size() / kBytesPerCharacter, '\0');
    for (std::size_t i = 0; i < narrow.size(); ++i) {
        const std::string_view character = wide.substr(i * kBytesPerCharacter, kBytesPerCharacter);
        if (character.substr(1) != std::string_view("\0\0\0", 3)) {
            return std::nullopt;
        }
        narrow[i] = character.front();
    }
    return narrow;
}

std::string widened(std::string_view narrow) {
    std::string wide(narrow.size() * kBytesPerCharacter, '\0');
    for (std::size_t i = 0; i < narrow.size(); ++i) {
        wide[i * kBytesPerCharacter] = narrow[i];
    }
    return wide;
}

/// @p bytes deflated, with @p kind and their size in front. Empty when the library has no memory.
std::string deflated(char kind, std::string_view bytes) {
    uLongf size = compressBound(bytes.size());
    std::string packed(1 + kSizeBytes + size, kind);
    const auto before = static_cast<std::uint32_t>(bytes.size());
    std::memcpy(packed.data() + 1, &before, kSizeBytes);
    const int result = compress(reinterpret_cast<Bytef*>(packed.data() + 1 + kSizeBytes), &size,
                                reinterpret_cast<const Bytef*>(bytes.data()), bytes.size());
    packed.resize(result == Z_OK ? 1 + kSizeBytes + size : 0);
    return packed;
}

std::optional<std::string> inflated(std::string_view packed, std::size_t maxBytes) {
    std::uint32_t before = 0;
    if (packed.size() < kSizeBytes) {
        return std::nullopt;
    }
    std::memcpy(&before, packed.data(), kSizeBytes);
    packed.remove_prefix(kSizeBytes);
    // A size that so few bytes cannot stand for is not believed: nothing is allocated for it.
    constexpr std::size_t bestRatio = 1040;
    if (before > maxBytes || before > packed.size() * bestRatio) {
        return std::nullopt;
    }
    std::string bytes(before, '\0');
    uLongf size = before;
    std::array<Bytef, 1> none{};
    Bytef* const target = bytes.empty() ? none.data() : reinterpret_cast<Bytef*>(bytes.data());
    const int result = uncompress(target, &size, reinterpret_cast<const Bytef*>(packed.data()), packed.size());
    return result == Z_OK && size == before ? std::optional(std::move(bytes)) : std::nullopt;
}

} // namespace

std::string packWide(std::string_view wide) {
    const std::optional<std::string> narrow = narrowed(wide);
    std::string packed = narrow ? deflated(kNarrowDeflated, *narrow) : deflated(kWideDeflated, wide);
    const std::string_view plain = narrow ? std::string_view(*narrow) : wide;
    if (packed.empty() || packed.size() > 1 + plain.size()) {
        packed.assign(1, narrow ? kNarrow : kAsItIs);
        packed += plain;
    }
    return packed;
}

std::optional<std::string> unpackWide(std::string_view packed, std::size_t maxBytes) {
    if (packed.empty()) {
        return std::nullopt;
    }
    const char kind = packed.front();
    packed.remove_prefix(1);
    std::optional<std::string> bytes;
    if (kind == kNarrowDeflated || kind == kWideDeflated) {
        bytes = inflated(packed, kind == kWideDeflated ? maxBytes : maxBytes / kBytesPerCharacter);
    } else if ((kind == kNarrow && packed.size() <= maxBytes / kBytesPerCharacter) ||
               (kind == kAsItIs && packed.size() <= maxBytes)) {
        bytes = std::string(packed);
    }
    const bool isNarrow = kind == kNarrow || kind == kNarrowDeflated;
    return bytes && isNarrow ? std::optional(widened(*bytes)) : bytes;
}

} // namespace Sentrel
