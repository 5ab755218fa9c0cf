#include "platform/hvbagent/Encoding.h"

#include "base/PrintableText.h"
#include "platform/hvbagent/AgentLimits.h"

#include <boost/locale/encoding_utf.hpp>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <sodium.h>

#include <chrono>
#include <stdexcept>

namespace HVBEnterprise::agent {
namespace {

const unsigned char* unsignedBytes(std::string_view bytes) {
    return reinterpret_cast<const unsigned char*>(bytes.data());
}

} // namespace

void requireSodium() {
    static const int ready = sodium_init();
    if (ready < 0) {
        throw std::runtime_error("libsodium cannot be used");
    }
}

std::string base64Of(std::string_view bytes) {
    std::string text(sodium_base64_encoded_len(bytes.size(), sodium_base64_VARIANT_ORIGINAL), '\0');
    sodium_bin2base64(text.data(), text.size(), unsignedBytes(bytes), bytes.size(), sodium_base64_VARIANT_ORIGINAL);
    text.pop_back(); // the terminator is counted
    return text;
}

std::optional<std::string> bytesOfBase64(std::string_view text) {
    std::string bytes(text.size() / 4 * 3 + 3, '\0');
    std::size_t length = 0;
    const char* end = nullptr;
    const int bad = sodium_base642bin(reinterpret_cast<unsigned char*>(bytes.data()), bytes.size(), text.data(),
                                      text.size(), nullptr, &length, &end, sodium_base64_VARIANT_ORIGINAL);
    if (bad != 0 || end != text.data() + text.size()) {
        sodium_memzero(bytes.data(), bytes.size());
        return std::nullopt;
    }
    bytes.resize(length);
    return bytes;
}

std::string sha256Of(std::string_view bytes) {
    std::array<unsigned char, crypto_hash_sha256_BYTES> hash{};
    crypto_hash_sha256(hash.data(), unsignedBytes(bytes), bytes.size());
    std::string text(hash.size() * 2 + 1, '\0');
    sodium_bin2hex(text.data(), text.size(), hash.data(), hash.size());
    text.pop_back();
    return text;
}

std::wstring wideOf(std::string_view utf8) {
    return boost::locale::conv::utf_to_utf<wchar_t>(utf8.data(), utf8.data() + utf8.size());
}

std::string timeText() {
    using std::chrono::milliseconds;
    const auto now = std::chrono::time_point_cast<milliseconds>(std::chrono::system_clock::now());
    const auto part =
        std::chrono::duration_cast<milliseconds>(now.time_since_epoch()).count() % milliseconds::period::den;
    return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:03}Z", fmt::gmtime(std::chrono::system_clock::to_time_t(now)), part);
}

std::string shortPrintable(std::string_view text) {
    return Sentrel::text::shortened(Sentrel::text::printable(text.substr(0, kMaxQuoted)), kMaxQuoted);
}

} // namespace HVBEnterprise::agent
