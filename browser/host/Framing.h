// The frames of native messaging: a length of four bytes in the machine's order, then so many bytes of a message.
#pragma once

#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace Sentrel::host {

/// Longest message in either direction, which is what browsers take.
inline constexpr std::size_t kMaxFrameBytes = std::size_t{1} << 20U;
/// A longer message to the browser goes in pieces.
inline constexpr std::size_t kMaxWholeBytes = std::size_t{512} << 10U;
/// Bytes of a piece: quoting doubles them at the most, and a frame has room for that.
inline constexpr std::size_t kPieceBytes = std::size_t{448} << 10U;

/// Input behind which no further message can be found. Its words say what is wrong.
class FramingError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Finds the messages in what arrives, however it is cut.
/// Threads: one at a time. Owner: the holder.
class FrameReader {
public:
    void add(std::string_view bytes);

    /// The next whole message; none until more has been added. @throws FramingError when one is said to be longer than
    /// kMaxFrameBytes; nothing is kept of it.
    std::optional<std::string> next();

    /// Whether nothing is left of a message that is not whole.
    bool isBetweenMessages() const { return m_begin == m_bytes.size(); }

private:
    std::string m_bytes;
    std::size_t m_begin = 0; ///< what stands before has been taken
};

/// @p message with its length. Requires at most kMaxFrameBytes.
std::string framed(std::string_view message);

/// How many bytes of @p text, from @p begin on, make the next piece. No character is cut in two.
/// Requires valid UTF-8 and that @p begin is within it.
std::size_t pieceLength(std::string_view text, std::size_t begin);

} // namespace Sentrel::host
