#include "browser/decision/PrivateRanges.h"

#include <algorithm>
#include <arpa/inet.h>
#include <charconv>

namespace Sentrel::browsing {
namespace {

constexpr unsigned kAddressBits = 32;

std::optional<std::uint32_t> dotted(std::string_view text) {
    constexpr std::string_view blanks = " \t";
    const std::size_t first = std::min(text.find_first_not_of(blanks), text.size());
    const std::string trimmed(text.substr(first, text.find_last_not_of(blanks) + 1 - first));
    std::uint32_t network = 0;
    return inet_pton(AF_INET, trimmed.c_str(), &network) == 1 ? std::optional(ntohl(network)) : std::nullopt;
}

/// A mask of "255.0.0.0" or of "8".
std::optional<std::uint32_t> maskOf(std::string_view text) {
    if (text.find('.') != std::string_view::npos) {
        const std::optional<std::uint32_t> mask = dotted(text);
        const bool isMask = mask && (~*mask & (~*mask + 1)) == 0; // ones, then zeros
        return isMask ? mask : std::nullopt;
    }
    unsigned bits = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), bits);
    if (error != std::errc() || end != text.data() + text.size() || bits > kAddressBits) {
        return std::nullopt;
    }
    return bits == 0 ? 0 : ~std::uint32_t{0} << (kAddressBits - bits);
}

} // namespace

std::optional<AddressRange> parseAddressRange(std::string_view text) {
    const std::size_t mark = text.find_first_of("/-");
    const std::optional<std::uint32_t> first = dotted(text.substr(0, mark));
    if (!first) {
        return std::nullopt;
    }
    if (mark == std::string_view::npos) {
        return AddressRange{*first, *first};
    }
    const std::string_view rest = text.substr(mark + 1);
    if (text[mark] == '-') {
        const std::optional<std::uint32_t> last = dotted(rest);
        return last && *first <= *last ? std::optional(AddressRange{*first, *last}) : std::nullopt;
    }
    const std::optional<std::uint32_t> mask = maskOf(rest);
    return mask ? std::optional(AddressRange{*first & *mask, *first | ~*mask}) : std::nullopt;
}

PrivateRanges::PrivateRanges(const std::vector<std::string>& texts) {
    std::vector<Stretch> all;
    for (std::size_t place = 0; place < texts.size(); ++place) {
        if (const std::optional<AddressRange> range = parseAddressRange(texts[place])) {
            all.push_back({*range, place});
        } else {
            m_unreadable.push_back(place);
        }
    }
    std::stable_sort(all.begin(), all.end(),
                     [](const Stretch& a, const Stretch& b) { return a.range.first < b.range.first; });
    for (const Stretch& stretch : all) { // one that lies within an earlier one adds nothing
        if (m_stretches.empty() || stretch.range.last > m_stretches.back().range.last) {
            m_stretches.push_back(stretch);
        }
    }
}

std::size_t PrivateRanges::find(std::uint32_t address) const {
    const auto behind =
        std::upper_bound(m_stretches.begin(), m_stretches.end(), address,
                         [](std::uint32_t wanted, const Stretch& each) { return wanted < each.range.first; });
    if (behind == m_stretches.begin() || address > std::prev(behind)->range.last) {
        return kNone;
    }
    return std::prev(behind)->place;
}

} // namespace Sentrel::browsing
