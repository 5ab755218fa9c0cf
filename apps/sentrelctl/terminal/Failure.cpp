#include "apps/sentrelctl/terminal/Failure.h"
#include "base/PrintableText.h"

#include <cerrno>
#include <fmt/format.h>
#include <pwd.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace Sentrel::ctl {

using Sentrel::text::printable;
namespace {

const char* nextStepOfHub(ExitCode code) {
    switch (code) {
    case ExitCode::NotRunning:
        return "Start the hub (its dbus-daemon and hvbd), then try again";
    case ExitCode::TimedOut:
        return "Try again, or give it longer with --timeout";
    default:
        return "'sentrelctl hub ping' tells which part answers";
    }
}

} // namespace

Failure::Failure(ExitCode code, std::string what, std::string where, std::string why, std::string nextStep)
    : m_code(code), m_what(std::move(what)), m_where(std::move(where)), m_why(std::move(why)),
      m_nextStep(std::move(nextStep)) {}

std::string Failure::line() const {
    std::string text = "sentrelctl";
    for (const std::string* part : {&m_what, &m_where, &m_why}) {
        if (!part->empty()) {
            text += ": " + printable(*part);
        }
    }
    if (text.ends_with('.')) {
        text.pop_back();
    }
    return m_nextStep.empty() ? text + "." : text + ". " + printable(m_nextStep) + ".";
}

// -1 is no EPERM here: it stands for a failure without an errno, and a refusal is always -EACCES.
ExitCode exitCodeOfHub(int code) {
    switch (-code) {
    case ENOENT:
    case ECONNREFUSED:
    case EHOSTUNREACH:
    case ENOTCONN:
    case EPIPE:
        return ExitCode::NotRunning;
    case ECONNRESET: // so the bus ends a connection whose user it cannot look up
        return missingEntry().empty() ? ExitCode::NotRunning : ExitCode::NoAccess;
    case ETIMEDOUT:
        return ExitCode::TimedOut;
    case EACCES:
        return ExitCode::NoAccess;
    default:
        return ExitCode::Failed;
    }
}

ExitCode exitCodeOfErrno(int number) {
    switch (number) {
    case ENOENT:
    case ECONNREFUSED:
        return ExitCode::NotRunning;
    case ETIMEDOUT:
        return ExitCode::TimedOut;
    case EACCES:
    case EPERM:
        return ExitCode::NoAccess;
    default:
        return ExitCode::Failed;
    }
}

Failure fileFailure(std::string what, std::string name, int number) {
    const bool isRight = number == EACCES || number == EPERM;
    return {isRight ? ExitCode::NoAccess : ExitCode::Failed, std::move(what), std::move(name), errnoText(number), ""};
}

std::string errnoText(int number) {
    return std::system_category().message(number);
}

std::string missingEntry() {
    const uid_t user = ::geteuid();
    return ::getpwuid(user) != nullptr
               ? std::string()
               : fmt::format("the user id {} has no entry in the user database, and the bus lets nobody in without one",
                             user);
}

// What helps comes first. The bus's own text names members, rules and processes, for whom that is of use.
Failure hubFailure(const HVB::HVBException& error, std::string what) {
    const ExitCode code = exitCodeOfHub(error.code());
    if (code == ExitCode::NoAccess) {
        std::string entry = error.code() == -ECONNRESET ? missingEntry() : "";
        if (!entry.empty()) {
            return {code, std::move(what), "", std::move(entry), "Add the user, or run it as another"};
        }
        return {code, std::move(what), "", "only root and members of the group sentrel-admin may",
                fmt::format("The hub says: {}", error.message())};
    }
    return {code, std::move(what), "", error.message(), nextStepOfHub(code)};
}

} // namespace Sentrel::ctl
