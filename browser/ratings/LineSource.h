// The lines of a file from outside, within bounds.
#pragma once

#include "base/UniqueFd.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Sentrel::ratings {

inline constexpr std::size_t kMaxLineBytes = std::size_t{64} << 10U; // filters with many options are long

/// Threads: one. Owner: the operation; the descriptor is not owned.
class LineSource {
public:
    /// @param name what the text of a failure calls the descriptor.
    LineSource(int fd, std::string name) : m_fd(fd), m_name(std::move(name)) {}

    struct Line {
        std::uint64_t number;  ///< from 1
        std::string_view text; ///< without its end and a mark of byte order; valid until the next call
        const char* fault;     ///< why it cannot be read, as the end of a sentence; null when it can
    };

    /// The next line; none at the end. A line that is too long is skipped, and its text is empty.
    /// @throws std::system_error when the system refuses.
    std::optional<Line> next();

private:
    bool fill();
    std::string_view takeLine();

    const int m_fd;
    const std::string m_name;
    std::string m_buffer;
    std::size_t m_at = 0; ///< where the next line begins in the buffer
    std::uint64_t m_number = 0;
    bool m_isAtEnd = false;
};

} // namespace Sentrel::ratings
