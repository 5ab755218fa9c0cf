// Where sentrelctl writes: a file descriptor without a buffer, so that what was written is seen at once.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace Sentrel::ctl {

/// Thrown when the reader of the output is gone, as after "sentrelctl log | head". Nobody is left to tell: the
/// program ends quietly.
class OutputClosed {};

/// One of the two outputs.
/// Threads: one at a time. Owner: main; the descriptor is not owned.
class Output {
public:
    explicit Output(int fd) : m_fd(fd) {}

    int fd() const { return m_fd; }
    bool isTerminal() const;

    /// Writes all of @p text. Requires that SIGPIPE is ignored.
    /// @throws OutputClosed when nobody reads any more, Failure when it cannot be written (a full disk).
    void write(std::string_view text);

private:
    int m_fd;
};

enum class JsonMode { Off, Short, Pretty };

/// Marks for the eye. Empty texts when colours are off.
struct Palette {
    const char* strong = "";
    const char* alarm = "";
    const char* caution = "";
    const char* faint = "";
    const char* plain = "";

    static Palette of(bool colored);
};

/// Keeps the order in which fields are added, so that a reader finds them in the same place.
using Json = nlohmann::ordered_json;

/// One value on one line, or over several when @p mode is Pretty, with its newline. Everything but ASCII is escaped,
/// so that the text is harmless on a terminal. Requires that every string in it is valid UTF-8.
std::string jsonText(const Json& value, JsonMode mode);

} // namespace Sentrel::ctl
