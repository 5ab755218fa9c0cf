// Texts that only the machines of a site can read: passwords in policies and pages.
#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

namespace HVBEnterprise::agent {

/// The key that a site's machines share. It is wiped from memory when it ends.
/// Threads: one at a time. Owner: whoever made it, for as short as possible.
class SecretKey {
public:
    static constexpr std::size_t kBytes = 32;

    /// A new random key.
    static SecretKey generate();

    /// The key in a file: base64 and a newline, in a regular file that its owner alone may access.
    /// @throws std::runtime_error that says what is wrong with the file.
    static SecretKey load(const std::string& path);

    /// Writes it to a file that is not there yet, with mode 0600; root gives it to the owner of the directory, who is
    /// to read it. @throws std::system_error; EEXIST keeps what is there.
    void save(const std::string& path) const;

    SecretKey(SecretKey&& other) noexcept;
    SecretKey& operator=(SecretKey&&) = delete;
    ~SecretKey();

    const std::array<unsigned char, kBytes>& bytes() const { return m_bytes; }

private:
    SecretKey() = default;

    std::array<unsigned char, kBytes> m_bytes{};
};

/// "v1:" and the base64 of a random nonce and the box. @p clear may hold any bytes.
/// @throws std::runtime_error when it is longer than kMaxClearText.
std::string encrypted(const SecretKey& key, std::string_view clear);

/// The clear text of such a text. @throws std::runtime_error when the key is another one, or the text is cut, forged,
/// too long or of another form; the messages do not tell the first three apart.
std::string decrypted(const SecretKey& key, std::string_view text);

} // namespace HVBEnterprise::agent
