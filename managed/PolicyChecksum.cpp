#include "managed/PolicyChecksum.h"

#include <cstddef>

std::uint8_t calculate_checksum(const char* bytes, std::uint8_t length) {
    unsigned sum = 0;
    for (std::size_t at = 0; at < length; ++at) {
        sum += static_cast<unsigned char>(bytes[at]);
    }
    return static_cast<std::uint8_t>(0U - sum);
}
