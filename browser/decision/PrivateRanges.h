// The private address ranges of the settings.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Sentrel::browsing {

/// The addresses of a range, both ends among them, in host byte order.
struct AddressRange {
    std::uint32_t first;
    std::uint32_t last;

    bool operator==(const AddressRange&) const = default;
};

/// Reads "10.0.0.1", "10.0.0.0/8", "10.0.0.0/255.0.0.0" or "10.0.0.0-10.0.0.9"; blanks around an address do not count.
/// None for any other text.
std::optional<AddressRange> parseAddressRange(std::string_view text);

/// Threads: any, it never changes. Owner: the holder.
class PrivateRanges {
public:
    static constexpr std::size_t kNone = static_cast<std::size_t>(-1);

    explicit PrivateRanges(const std::vector<std::string>& texts);

    /// The place of a range that has @p address in it, counted from 0; kNone when none has.
    std::size_t find(std::uint32_t address) const;

    /// Places of the texts that are no range.
    const std::vector<std::size_t>& unreadable() const { return m_unreadable; }

private:
    struct Stretch {
        AddressRange range;
        std::size_t place;
    };

    std::vector<Stretch> m_stretches; ///< by their first addresses, and by their last ones too
    std::vector<std::size_t> m_unreadable;
};

} // namespace Sentrel::browsing
