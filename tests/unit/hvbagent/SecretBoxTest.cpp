// Texts that only a site's machines can read. All real.
#include "platform/hvbagent/SecretBox.h"
#include "platform/hvbagent/AgentLimits.h"
#include "platform/hvbagent/Encoding.h"
#include "platform/hvbagent/SiteKeys.h"
#include "tests/support/FreedMemory.h"
#include "tests/support/PrivateRoot.h"

#include <gtest/gtest.h>
#include <sodium.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <sstream>
#include <system_error>

namespace {

using namespace HVBEnterprise::agent;

/// A key, and a directory for its file.
class ASecretBox : public ::testing::Test {
protected:
    std::string write(const std::string& text, mode_t mode = 0600) const {
        std::ofstream(m_file) << text;
        ::chmod(m_file.c_str(), mode);
        return m_file;
    }

    testing_support::PrivateRoot m_root;
    const std::string m_file = m_root.file("agent.key");
    const SecretKey m_key = SecretKey::generate();
};

TEST_F(ASecretBox, GivesBackWhatWasPutIn) {
    std::string every;
    for (int i = 0; i < 256; ++i) {
        every += static_cast<char>(i);
    }
    for (const std::string& clear : {std::string(), std::string("p"), every, std::string(kMaxClearText, 'x')}) {
        const std::string text = encrypted(m_key, clear);
        EXPECT_EQ(text.substr(0, 3), "v1:");
        EXPECT_EQ(decrypted(m_key, text), clear);
    }
    EXPECT_THROW((void)encrypted(m_key, std::string(kMaxClearText + 1, 'x')), std::runtime_error);
}

TEST_F(ASecretBox, LooksDifferentEachTime) {
    EXPECT_NE(encrypted(m_key, "clear"), encrypted(m_key, "clear"));
    EXPECT_EQ(encrypted(m_key, "clear").find("clear"), std::string::npos);
}

TEST_F(ASecretBox, IsTheOneOfTheLibraryWithTheNonceInFront) {
    const std::string box = bytesOfBase64(encrypted(m_key, "clear").substr(3)).value();
    ASSERT_EQ(box.size(), 24U + 16U + 5U);
    const auto* bytes = reinterpret_cast<const unsigned char*>(box.data());
    std::string clear(5, '\0');
    EXPECT_EQ(crypto_secretbox_open_easy(reinterpret_cast<unsigned char*>(clear.data()), bytes + 24, box.size() - 24,
                                         bytes, m_key.bytes().data()),
              0);
    EXPECT_EQ(clear, "clear");
}

TEST_F(ASecretBox, DoesNotOpenWithAnotherKey) {
    EXPECT_THROW((void)decrypted(SecretKey::generate(), encrypted(m_key, "clear")), std::runtime_error);
}

TEST_F(ASecretBox, DoesNotOpenWhenAnyByteOfItIsForged) {
    const std::string box = bytesOfBase64(encrypted(m_key, "clear").substr(3)).value();
    for (std::size_t i = 0; i < box.size(); ++i) {
        std::string forged = box;
        forged[i] = static_cast<char>(forged[i] ^ 1);
        EXPECT_THROW((void)decrypted(m_key, "v1:" + base64Of(forged)), std::runtime_error) << i;
    }
}

TEST_F(ASecretBox, DoesNotOpenWhenItIsCutAnywhere) {
    const std::string text = encrypted(m_key, "clear");
    for (std::size_t length = 0; length < text.size(); ++length) {
        EXPECT_THROW((void)decrypted(m_key, text.substr(0, length)), std::runtime_error) << length;
    }
}

TEST_F(ASecretBox, DoesNotOpenInAnotherForm) {
    const std::string text = encrypted(m_key, "clear");
    for (const std::string& bad : {"v2:" + text.substr(3), text.substr(3), " " + text, text + "\n", "v1:" + text,
                                   text + std::string(5'000'000, 'A'), std::string("v1:")}) {
        EXPECT_THROW((void)decrypted(m_key, bad), std::runtime_error);
    }
}

TEST_F(ASecretBox, HasItsKeyInAFileOfItsOwnersAlone) {
    m_key.save(m_file);
    struct stat facts {};
    ASSERT_EQ(::stat(m_file.c_str(), &facts), 0);
    EXPECT_EQ(facts.st_mode & 07777U, 0600U);
    EXPECT_EQ(facts.st_size, 45);
    EXPECT_EQ(SecretKey::load(m_file).bytes(), m_key.bytes());
    ::chmod(m_file.c_str(), 0640);
    EXPECT_THROW((void)SecretKey::load(m_file), std::runtime_error);
}

TEST_F(ASecretBox, KeepsAKeyFileThatIsThere) {
    m_key.save(m_file);
    EXPECT_THROW(SecretKey::generate().save(m_file), std::system_error);
    EXPECT_EQ(SecretKey::load(m_file).bytes(), m_key.bytes());
}

TEST_F(ASecretBox, RefusesAKeyFileOfAnotherForm) {
    for (const std::string& bad :
         {std::string(), std::string("\n"), base64Of(std::string(31, 'k')), base64Of(std::string(33, 'k')),
          base64Of(std::string(32, 'k')) + "\n\n", base64Of(std::string(32, 'k')) + "x", std::string(1000, 'A')}) {
        EXPECT_THROW((void)SecretKey::load(write(bad)), std::runtime_error) << bad;
    }
    EXPECT_EQ(SecretKey::load(write(base64Of(std::string(32, 'k')))).bytes()[31], 'k');
    EXPECT_THROW((void)SecretKey::load(m_root.file("none")), std::system_error);
}

TEST_F(ASecretBox, LeavesNoKeyInMemory) {
    m_key.save(m_file);
    std::ifstream file(m_file);
    std::string line;
    std::getline(file, line);
    const std::string_view bytes(reinterpret_cast<const char*>(m_key.bytes().data()), SecretKey::kBytes);
    const testing_support::FreedMemory text(line.substr(0, 24));
    ::unlink(m_file.c_str());
    m_key.save(m_file);
    { const SecretKey loaded = SecretKey::load(m_file); }
    EXPECT_THROW(m_key.save(m_file), std::system_error);
    EXPECT_EQ(text.found(), 0U) << "as base64";
    ::unlink(m_file.c_str());
    const testing_support::FreedMemory raw{std::string(bytes)};
    m_key.save(m_file);
    { const SecretKey loaded = SecretKey::load(m_file); }
    EXPECT_EQ(raw.found(), 0U) << "as bytes";
}

/// While it lives, libsodium draws one byte again and again, so that the test knows a secret that nobody gets.
class DrawsTheSame {
public:
    DrawsTheSame() { randombytes_set_implementation(&m_implementation); }
    ~DrawsTheSame() { randombytes_set_implementation(&randombytes_sysrandom_implementation); }
    DrawsTheSame(const DrawsTheSame&) = delete;
    DrawsTheSame& operator=(const DrawsTheSame&) = delete;

    static constexpr const char* kSeedText = "QUFBQUFBQUFBQUFBQUFB"; ///< of the byte in base64

private:
    randombytes_implementation m_implementation{
        .implementation_name = [] { return "the same"; },
        .random = [] { return std::uint32_t{0x41414141}; },
        .stir = nullptr,
        .uniform = nullptr,
        .buf = [](void* buffer, std::size_t size) { std::memset(buffer, 'A', size); },
        .close = nullptr};
};

TEST_F(ASecretBox, LeavesNoSigningKeyInMemory) {
    const DrawsTheSame draws;
    const SigningFiles files(m_root.file("site"));
    ASSERT_EQ(::mkdir(files.secret.c_str(), 0700), 0) << "in the way";
    const testing_support::FreedMemory text(DrawsTheSame::kSeedText);
    EXPECT_THROW(makeSigningPair(files), std::system_error);
    EXPECT_EQ(text.found(), 0U) << "of a pair that could not be made";
    ::rmdir(files.secret.c_str());
    makeSigningPair(files);
    (void)signedMessage("document", files.secret);
    EXPECT_EQ(text.found(), 0U);
}

} // namespace
