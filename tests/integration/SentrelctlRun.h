// Using the real sentrelctl in a private root, as a user at a shell does.
#pragma once

#include "tests/support/ChildProcess.h"
#include "tests/support/PrivateRoot.h"

#include <optional>
#include <string>
#include <vector>

namespace testing_support {

/// What a run of sentrelctl came to.
struct CtlResult {
    int code;
    std::string out;
    std::string err;
};

/// A run of sentrelctl that may still go on. Its standard output and error are kept apart.
class CtlRun {
public:
    /// @param input what it finds on its standard input.
    /// @param uid the user it runs as; another than the test's own requires root.
    CtlRun(const PrivateRoot& root, const std::vector<std::string>& arguments, const std::string& input = "",
           std::optional<uid_t> uid = {});

    std::string out() const;
    std::string err() const;
    ChildProcess& process() { return m_process; }

    /// Waits for its end; a run that does not end is a failure of the test and ends with code -1.
    CtlResult finish();

private:
    std::string m_prefix;
    ChildProcess m_process;
};

/// Runs sentrelctl to its end.
CtlResult ctl(const PrivateRoot& root, const std::vector<std::string>& arguments, const std::string& input = "",
              std::optional<uid_t> uid = {});

/// Runs a command of the shell, in which $CTL is sentrelctl. Its output and error are one. The shell is bash.
CtlResult shell(const PrivateRoot& root, const std::string& command);

/// What the completion for bash offers for the last of @p words, which are quoted as for a shell, each with a blank
/// behind it and sorted. @param line the command line up to the cursor as it was typed; words as bash parts them.
std::string offeredInBash(const PrivateRoot& root, const std::string& words, const std::string& line = "");

/// Whether this machine has pseudo-terminals; a bare chroot has none. A test that needs one skips itself then.
bool hasTerminals();

/// @p text with every time of day and every duration in it made the same.
std::string withoutTimes(const std::string& text);

} // namespace testing_support
