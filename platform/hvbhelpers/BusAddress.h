// The hub's socket path as a D-Bus address.
#pragma once

#include <string>
#include <string_view>

namespace HVB::bus {

/// The address of the bus that listens at @p socketPath. What has a meaning in an address is escaped.
inline std::string busAddress(std::string_view socketPath) {
    constexpr std::string_view plain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_/.";
    constexpr std::string_view digits = "0123456789abcdef";
    std::string address = "unix:path=";
    for (const char c : socketPath) {
        if (plain.find(c) != std::string_view::npos) {
            address += c;
        } else {
            const auto byte = static_cast<unsigned char>(c);
            address += {'%', digits[byte >> 4U], digits[byte & 0xFU]};
        }
    }
    return address;
}

} // namespace HVB::bus
