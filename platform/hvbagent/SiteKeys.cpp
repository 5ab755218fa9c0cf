#include "platform/hvbagent/SiteKeys.h"

#include "base/FileReading.h"
#include "base/FileWriting.h"
#include "base/WipeAtEnd.h"

#include <algorithm>
#include <cerrno>
#include <fmt/format.h>
#include <sodium.h>
#include <stdexcept>
#include <system_error>
#include <unistd.h>

namespace HVBEnterprise::agent {
namespace {

/// A pair as libsodium has it; the secret half begins with the seed. Wiped at the end of its life.
struct Pair {
    std::array<unsigned char, crypto_sign_PUBLICKEYBYTES> open{};
    std::array<unsigned char, crypto_sign_SECRETKEYBYTES> secret{};
    std::array<unsigned char, crypto_sign_SEEDBYTES> seed{};

    Pair() { requireSodium(); }
    Pair(const Pair&) = delete;
    Pair& operator=(const Pair&) = delete;
    ~Pair() {
        sodium_memzero(secret.data(), secret.size());
        sodium_memzero(seed.data(), seed.size());
    }

    void derive() { crypto_sign_seed_keypair(open.data(), secret.data(), seed.data()); }
};

template <class Bytes>
std::string_view textOf(const Bytes& bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

/// The bytes whose base64 is in a file. @throws std::runtime_error when there are not that many.
template <class Bytes>
void load(const std::string& path, Sentrel::FileAccess access, Bytes& bytes) {
    std::string text = Sentrel::readRegularFile(path, kMaxKeyFileBytes, access);
    const Sentrel::WipeAtEnd wipedText(text);
    const std::string_view line(text.data(), text.ends_with('\n') ? text.size() - 1 : text.size());
    std::string read = bytesOfBase64(line).value_or("");
    const Sentrel::WipeAtEnd wipedRead(read);
    const bool fits = read.size() == bytes.size();
    if (fits) {
        std::transform(read.begin(), read.end(), bytes.begin(), [](char c) { return static_cast<unsigned char>(c); });
    }
    if (!fits) {
        throw std::runtime_error(path + ": is not the base64 of " + std::to_string(bytes.size()) + " bytes");
    }
}

} // namespace

std::string makeSigningPair(const SigningFiles& files) {
    if (::access(files.open.c_str(), F_OK) == 0) { // before the other half is there
        throw std::system_error(EEXIST, std::generic_category(), files.open);
    }
    Pair pair;
    randombytes_buf(pair.seed.data(), pair.seed.size());
    pair.derive();
    std::string seed = base64Of(textOf(pair.seed));
    const Sentrel::WipeAtEnd wipedSeed(seed);
    std::string secret;
    secret.reserve(kMaxKeyFileBytes);
    const Sentrel::WipeAtEnd wipedSecret(secret);
    secret.append(seed).append("\n");
    Sentrel::makeFile(files.secret, secret, Sentrel::NewFileFor::Maker);
    std::string open = base64Of(textOf(pair.open));
    Sentrel::makeFile(files.open, open + "\n", Sentrel::NewFileFor::MakerAndReaders);
    return open;
}

std::string signedMessage(std::string_view document, const std::string& secretFile) {
    Pair pair;
    load(secretFile, Sentrel::FileAccess::OwnerAlone, pair.seed);
    pair.derive();
    std::array<unsigned char, crypto_sign_BYTES> signature{};
    crypto_sign_detached(signature.data(), nullptr, reinterpret_cast<const unsigned char*>(document.data()),
                         document.size(), pair.secret.data());
    return fmt::format(R"({{"payload":"{}","signature":"{}"}})", base64Of(document), base64Of(textOf(signature)));
}

PublicKey loadPublicKey(const std::string& path) {
    PublicKey key{};
    load(path, Sentrel::FileAccess::Anybody, key);
    return key;
}

} // namespace HVBEnterprise::agent
