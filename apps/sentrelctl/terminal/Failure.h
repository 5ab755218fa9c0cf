// How sentrelctl ends: its exit codes, and the one exception that carries a reason to the user.
#pragma once

#include "hub/Exceptions.h"

#include <exception>
#include <string>
#include <string_view>
#include <utility>

namespace Sentrel::ctl {

/// What the process ends with. Scripts depend on the numbers: they never change.
enum class ExitCode : int {
    Done = 0,
    Failed = 1,     ///< refused, or it did not work
    BadUsage = 2,   ///< the arguments cannot be what was meant
    TimedOut = 3,   ///< nobody answered in time
    NoAccess = 4,   ///< this user may not do that
    NotRunning = 8, ///< the hub or the daemon is not running
};

/// An error as the user reads it: "<what>: <where>: <why>. <next step>". A part that is empty is left out.
class Failure : public std::exception {
public:
    Failure(ExitCode code, std::string what, std::string where, std::string why, std::string nextStep);

    ExitCode code() const { return m_code; }
    const std::string& why() const { return m_why; }
    const std::string& nextStep() const { return m_nextStep; }

    /// The same failure of another undertaking.
    Failure of(std::string what) const { return {m_code, std::move(what), m_where, m_why, m_nextStep}; }

    /// The whole line without its newline, fit for a terminal whatever the parts held.
    std::string line() const;

    /// The reason alone; line() is what the user reads.
    const char* what() const noexcept override { return m_why.c_str(); }

private:
    ExitCode m_code;
    std::string m_what;
    std::string m_where;
    std::string m_why;
    std::string m_nextStep;
};

/// Why the bus refuses this process's user, when it has no entry in the user database; else empty.
std::string missingEntry();

/// The exit code for a negative errno of the hub's client library.
ExitCode exitCodeOfHub(int code);

/// The exit code for an errno of the event socket.
ExitCode exitCodeOfErrno(int number);

/// The failure to use the file @p name, for an errno: NoAccess when this user may not, or else Failed.
Failure fileFailure(std::string what, std::string name, int number);

/// The system's text for an errno, as a part of a sentence.
std::string errnoText(int number);

/// A hub failure with the next step that fits its kind. The library's own text names the socket where that matters.
Failure hubFailure(const HVB::HVBException& error, std::string what);

} // namespace Sentrel::ctl
