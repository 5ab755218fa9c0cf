#include "platform/hvbagent/SecretBox.h"

#include "base/FileReading.h"
#include "base/FileWriting.h"
#include "base/WipeAtEnd.h"
#include "platform/hvbagent/AgentLimits.h"
#include "platform/hvbagent/Encoding.h"

#include <sodium.h>

#include <algorithm>
#include <optional>
#include <stdexcept>

namespace HVBEnterprise::agent {
namespace {

constexpr std::string_view kForm = "v1:";
constexpr std::size_t kOverhead = crypto_secretbox_NONCEBYTES + crypto_secretbox_MACBYTES;
constexpr std::size_t kLongestText = kForm.size() + (kOverhead + kMaxClearText + 2) / 3 * 4;

static_assert(SecretKey::kBytes == crypto_secretbox_KEYBYTES);

unsigned char* bytesOf(std::string& text) {
    return reinterpret_cast<unsigned char*>(text.data());
}

} // namespace

SecretKey SecretKey::generate() {
    requireSodium();
    SecretKey key;
    crypto_secretbox_keygen(key.m_bytes.data());
    return key;
}

SecretKey SecretKey::load(const std::string& path) {
    requireSodium();
    std::string text = Sentrel::readRegularFile(path, kMaxKeyFileBytes, Sentrel::FileAccess::OwnerAlone);
    const Sentrel::WipeAtEnd wipedText(text);
    std::string_view line = text;
    if (line.ends_with('\n')) {
        line.remove_suffix(1);
    }
    std::string bytes = bytesOfBase64(line).value_or("");
    const Sentrel::WipeAtEnd wipedBytes(bytes);
    if (bytes.size() != kBytes) {
        throw std::runtime_error(path + ": is not the base64 of " + std::to_string(kBytes) + " bytes");
    }
    SecretKey key;
    std::copy_n(bytesOf(bytes), kBytes, key.m_bytes.begin());
    return key;
}

void SecretKey::save(const std::string& path) const {
    std::string encoded = base64Of({reinterpret_cast<const char*>(m_bytes.data()), m_bytes.size()});
    const Sentrel::WipeAtEnd wipedEncoded(encoded);
    std::string text;
    text.reserve(kMaxKeyFileBytes);
    const Sentrel::WipeAtEnd wipedText(text);
    text.append(encoded).append("\n");
    Sentrel::makeFile(path, text, Sentrel::NewFileFor::DirectoryOwner);
}

SecretKey::SecretKey(SecretKey&& other) noexcept : m_bytes(other.m_bytes) {
    sodium_memzero(other.m_bytes.data(), other.m_bytes.size());
}

SecretKey::~SecretKey() {
    sodium_memzero(m_bytes.data(), m_bytes.size());
}

std::string encrypted(const SecretKey& key, std::string_view clear) {
    requireSodium();
    if (clear.size() > kMaxClearText) {
        throw std::runtime_error("the clear text is longer than " + std::to_string(kMaxClearText) + " bytes");
    }
    std::string box(kOverhead + clear.size(), '\0');
    unsigned char* const nonce = bytesOf(box);
    randombytes_buf(nonce, crypto_secretbox_NONCEBYTES);
    if (crypto_secretbox_easy(nonce + crypto_secretbox_NONCEBYTES, reinterpret_cast<const unsigned char*>(clear.data()),
                              clear.size(), nonce, key.bytes().data()) != 0) {
        throw std::runtime_error("the text cannot be encrypted");
    }
    return std::string(kForm) + base64Of(box);
}

std::string decrypted(const SecretKey& key, std::string_view text) {
    requireSodium();
    if (!text.starts_with(kForm) || text.size() > kLongestText) {
        throw std::runtime_error("the text has no form that is known here");
    }
    std::string box = bytesOfBase64(text.substr(kForm.size())).value_or("");
    if (box.size() < kOverhead || box.size() > kOverhead + kMaxClearText) {
        throw std::runtime_error("the text is not whole");
    }
    std::string clear(box.size() - kOverhead, '\0');
    const unsigned char* const nonce = bytesOf(box);
    if (crypto_secretbox_open_easy(bytesOf(clear), nonce + crypto_secretbox_NONCEBYTES,
                                   box.size() - crypto_secretbox_NONCEBYTES, nonce, key.bytes().data()) != 0) {
        throw std::runtime_error("the text is not whole, or was made with another key");
    }
    return clear;
}

} // namespace HVBEnterprise::agent
