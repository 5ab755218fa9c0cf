// A text too long for a message: the message carries a descriptor of it.
#pragma once

#include "base/UniqueFd.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace HVB::detail {

/// A wide text in a file that lies in memory and cannot change any more (memfd_create(2), sealed as fcntl(2) has it).
/// The bus copies none of it, and all receivers of one file share its memory. A character takes one byte when all
/// characters of the text are 0 to 255, as those of an archive mostly are, otherwise four, low byte first. Threads:
/// thread-safe. Owner: whoever holds a pointer to it; the descriptors that receivers get are their own.
class MemoryFile {
public:
    using Ptr = std::shared_ptr<const MemoryFile>;

    /// Puts @p text into a new file. @throws HVBException with -EMSGSIZE when it takes more than @p maxBytes, or with
    /// the system's code when it gives no memory or no descriptor.
    static Ptr of(std::wstring_view text, std::size_t maxBytes);

    /// As of, for bytes, each of which counts as a character.
    static Ptr ofBytes(std::string_view bytes, std::size_t maxBytes);

    /// Takes a copy of a descriptor that arrived. @param width bytes a character, as the message says.
    /// @throws HVBException with -EBADMSG when it is no sealed memory file, its size is not a whole number of
    /// characters, or
    ///         beyond @p maxBytes, or the width neither 1 nor 4.
    static Ptr arrived(int fd, std::uint8_t width, std::size_t maxBytes);

    /// @throws HVBException with -EBADMSG when the file cannot be read.
    std::wstring text() const;
    /// The bytes as they are in the file. @throws HVBException with -EBADMSG when it cannot be read.
    std::string content() const;
    /// Whether it holds exactly this text.
    bool holds(std::wstring_view text) const;

    int fd() const { return m_fd.get(); }
    std::uint8_t width() const { return m_width; }
    std::size_t bytes() const { return m_bytes; }

private:
    static Ptr sealed(std::uint8_t width, std::size_t bytes, std::size_t maxBytes,
                      const std::function<void(int)>& fill);

    MemoryFile(Sentrel::UniqueFd fd, std::uint8_t width, std::size_t bytes)
        : m_fd(std::move(fd)), m_width(width), m_bytes(bytes) {}

    // constant after construction
    const Sentrel::UniqueFd m_fd;
    const std::uint8_t m_width;
    const std::size_t m_bytes;
};

} // namespace HVB::detail
