#include "hub/STPreferences.h"

#include <boost/archive/iterators/base64_from_binary.hpp>
#include <boost/archive/iterators/binary_from_base64.hpp>
#include <boost/archive/iterators/dataflow_exception.hpp>
#include <boost/archive/iterators/transform_width.hpp>

#include <cstddef>

namespace Sentrel {
namespace {

namespace iterators = boost::archive::iterators;

constexpr int kBitsOfByte = 8;
constexpr int kBitsOfDigit = 6;
constexpr std::size_t kBytesOfGroup = 3;
constexpr std::size_t kDigitsOfGroup = 4;

std::string encodeKey(const std::string& key) {
    using Digits = iterators::base64_from_binary<
        iterators::transform_width<std::string::const_iterator, kBitsOfDigit, kBitsOfByte>>;
    std::string text;
    text.reserve((key.size() / kBytesOfGroup + 1) * kDigitsOfGroup);
    for (Digits digit(key.begin()); digit != Digits(key.end()); ++digit) {
        text += *digit;
    }
    text.append((kBytesOfGroup - key.size() % kBytesOfGroup) % kBytesOfGroup, '=');
    return text;
}

/// Padding counts as zero bits. The bytes that it adds are removed with the NULs at the end.
std::string decodeKey(const std::string& text) {
    using Digits = iterators::binary_from_base64<std::string::const_iterator>;
    using Bytes = iterators::transform_width<Digits, kBitsOfByte, kBitsOfDigit>;
    for (Digits digit(text.begin()); digit != Digits(text.end()); ++digit) {
        static_cast<void>(*digit); // must be in the table, even when its bits make no whole byte
    }
    std::string key;
    const std::size_t whole = text.size() * kBitsOfDigit / kBitsOfByte;
    key.reserve(whole);
    Bytes byte(text.begin());
    for (std::size_t at = 0; at < whole; ++at, ++byte) {
        key += *byte;
    }
    key.erase(key.find_last_not_of('\0') + 1);
    return key;
}

} // namespace

void STPreferences::setAllowBlockDetails(const AllowBlockDetails& details) {
    for (const auto& [key, action] : details) {
        m_allowBlockDetails.emplace(encodeKey(key), action);
    }
}

AllowBlockDetails STPreferences::getAllowBlockDetails() const {
    AllowBlockDetails details;
    for (const auto& [key, action] : m_allowBlockDetails) {
        details.emplace(decodeKey(key), action);
    }
    return details;
}

} // namespace Sentrel
