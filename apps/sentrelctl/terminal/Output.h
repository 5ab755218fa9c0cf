// Where sentrelctl writes: a file descriptor without a buffer, so that what was written is seen at once.
#pragma once

#include <cstddef>
#include <exception>
#include <string_view>

namespace Sentrel::ctl {

/// Thrown when the reader of the output is gone, as after "sentrelctl log | head". Nobody is left to tell: the
/// program ends quietly.
class OutputClosed : public std::exception {
public:
    const char* what() const noexcept override { return "nobody reads the output"; }
};

/// One of the two outputs.
/// Threads: one at a time. Owner: main; the descriptor is not owned.
class Output {
public:
    explicit Output(int fd) : m_fd(fd) {}

    int fd() const { return m_fd; }
    bool isTerminal() const;
    /// How many columns the terminal has; 0 when this is none, or it does not tell.
    std::size_t columns() const;

    /// Writes all of @p text. Requires that SIGPIPE is ignored.
    /// @throws OutputClosed when nobody reads any more, Failure when it cannot be written (a full disk).
    void write(std::string_view text);

private:
    int m_fd;
};

/// Marks for the eye. Empty texts when colours are off.
struct Palette {
    const char* strong = "";
    const char* alarm = "";
    const char* caution = "";
    const char* faint = "";
    const char* plain = "";

    static Palette of(bool colored);
};

} // namespace Sentrel::ctl
