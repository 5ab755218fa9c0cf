// What all checks of the doctor share: how one is run, how its diagnosis is shown, how it looks at files and asks
// others.
//
// A check that finds a fault says how to mend it. A check that cannot see its subject says so and blames nobody: it
// throws CannotSee, and examined() also turns a refused access into that verdict.
//
// What must stay so:
// - A check changes nothing and ends in time, also on a machine where nothing works. Whatever may block without a
//   deadline of its own (the look-up of the host's name), or needs another user's rights, runs in a child: inChild()
//   kills it at the deadline, and its exit status is the answer.
// - The child leaves by _exit: what the parent has buffered must not be written twice.
// - The child gives up its groups first, then the group id, then the user id. Without root's rights the first two would
//   fail.
// - Files are looked at with lstat. A link is itself the finding, not what it points to.
#include "apps/sentrelctl/doctor/Doctor.h"

#include "apps/sentrelctl/terminal/Failure.h"
#include "base/Paths.h"
#include "base/PrintableText.h"
#include "base/UniqueFd.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <fmt/format.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Sentrel::ctl {

using Sentrel::text::printable;
using Sentrel::text::validUtf8;
namespace {

constexpr mode_t kModeBits = 07777;

struct VerdictTexts {
    const char* word;
    const char* jsonWord;
    const char* Palette::*color;
};

const VerdictTexts& textsOf(Verdict verdict) {
    static constexpr std::array<VerdictTexts, 4> texts{{
        {"ok", "ok", &Palette::plain},
        {"warning", "warning", &Palette::caution},
        {"FAILED", "failed", &Palette::alarm},
        {"unseen", "unseen", &Palette::faint},
    }};
    return texts.at(static_cast<std::size_t>(verdict));
}

/// Becomes the user and gives up every right that comes with another one.
/// What the user makes has its own group: another one with the user's number has no right to it.
bool become(uid_t uid) {
    const passwd* const entry = ::getpwuid(uid);
    const gid_t gid = entry != nullptr ? entry->pw_gid : uid;
    return ::setgroups(0, nullptr) == 0 && ::setresgid(gid, gid, gid) == 0 && ::setresuid(uid, uid, uid) == 0;
}

[[noreturn]] void answerInChild(std::optional<uid_t> uid, const std::function<int()>& question) {
    constexpr int noAnswer = 125;
    int answer = noAnswer;
    try {
        if (!uid || become(*uid)) {
            answer = question();
        }
    } catch (...) {
        answer = noAnswer;
    }
    ::_exit(answer); // what the parent has buffered is the parent's to write
}

/// Waits for the end of the child, and ends it at the deadline. @return its status.
int statusOf(pid_t child, double seconds) {
    constexpr double millisecondsPerSecond = 1000;
    const UniqueFd descriptor(static_cast<int>(::syscall(SYS_pidfd_open, child, 0)));
    pollfd ended{descriptor.get(), POLLIN, 0};
    if (!descriptor.isOpen() || ::poll(&ended, 1, static_cast<int>(std::ceil(seconds * millisecondsPerSecond))) <= 0) {
        ::kill(child, SIGKILL);
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

} // namespace

Diagnosis examined(const Check& check, double timeout) {
    try {
        return check.examine(timeout);
    } catch (const CannotSee& error) {
        return unseen(error.what());
    } catch (const Failure& failure) {
        if (failure.code() == ExitCode::NoAccess) {
            return unseen("cannot be seen as this user: " + failure.why());
        }
        return failed("check-failed", failure.why(), failure.nextStep());
    } catch (const std::exception& error) {
        return failed("check-failed", error.what(), "");
    }
}

std::string diagnosisText(std::string_view name, const Diagnosis& diagnosis, const Palette& palette) {
    const VerdictTexts& texts = textsOf(diagnosis.verdict);
    std::string text = fmt::format("{:<23}{}{:<8}{} {}\n", name, palette.*texts.color, texts.word, palette.plain,
                                   printable(diagnosis.what));
    if (!diagnosis.advice.empty()) {
        text += fmt::format("{:<32}-> {}\n", "", printable(diagnosis.advice));
    }
    if (!diagnosis.id.name().empty()) {
        text += fmt::format("{:<32}{}({}){}\n", "", palette.faint, diagnosis.id.name(), palette.plain);
    }
    return text;
}

Json diagnosisJson(std::string_view name, const Diagnosis& diagnosis) {
    return Json{{"check", name},
                {"result", textsOf(diagnosis.verdict).jsonWord},
                {"id", diagnosis.id.name().empty() ? Json(nullptr) : Json(diagnosis.id.name())},
                {"what", validUtf8(diagnosis.what)},
                {"advice", diagnosis.advice.empty() ? Json(nullptr) : Json(validUtf8(diagnosis.advice))}};
}

std::size_t countOf(const std::vector<Diagnosis>& diagnoses, Verdict verdict) {
    return static_cast<std::size_t>(std::count_if(
        diagnoses.begin(), diagnoses.end(), [verdict](const Diagnosis& each) { return each.verdict == verdict; }));
}

std::string summaryText(const std::vector<Diagnosis>& diagnoses) {
    const std::size_t warnings = countOf(diagnoses, Verdict::Warning);
    return fmt::format("{} checks: {} ok, {} {}, {} failed, {} unseen.\n", diagnoses.size(),
                       countOf(diagnoses, Verdict::Ok), warnings, warnings == 1 ? "warning" : "warnings",
                       countOf(diagnoses, Verdict::Failed), countOf(diagnoses, Verdict::Unseen));
}

std::vector<Check> allChecks(bool withProbes) {
    std::vector<Check> all;
    for (const auto* const checks :
         {&fileChecks(), &diskChecks(), &settingsChecks(), &processChecks(), &browserChecks()}) {
        all.insert(all.end(), checks->begin(), checks->end());
    }
    if (withProbes) {
        all.insert(all.end(), probeChecks().begin(), probeChecks().end());
    }
    return all;
}

std::optional<struct stat> factsOf(const std::string& path) {
    struct stat facts {};
    if (::lstat(path.c_str(), &facts) == 0) {
        return facts;
    }
    if (errno == ENOENT || errno == ENOTDIR) {
        return std::nullopt;
    }
    throw CannotSee(fmt::format("{} cannot be seen as this user: {}", path, errnoText(errno)));
}

void needReadable(const std::string& path) {
    if (::access(path.c_str(), R_OK) != 0 && errno == EACCES) {
        throw CannotSee(path + " cannot be read as this user");
    }
}

std::string directoryOf(const std::string& path) {
    return path.substr(0, path.rfind('/'));
}

std::string userName(uid_t uid) {
    const passwd* const entry = ::getpwuid(uid);
    return entry != nullptr ? entry->pw_name : std::to_string(uid);
}

std::optional<uid_t> daemonUser() {
    const std::optional<struct stat> facts = factsOf(paths::sharedDirectory());
    return facts ? std::optional(facts->st_uid) : std::nullopt;
}

bool othersCanWrite(const struct stat& facts) {
    return (facts.st_mode & (S_IWGRP | S_IWOTH)) != 0;
}

std::string modeText(const struct stat& facts) {
    return fmt::format("mode {:04o}", facts.st_mode & kModeBits);
}

std::optional<int> inChild(std::optional<uid_t> uid, double seconds, const std::function<int()>& question) {
    constexpr int mostThatIsAnAnswer = 100;
    const pid_t child = ::fork();
    if (child < 0) {
        throw CannotSee(std::string("no process for it: ") + errnoText(errno));
    }
    if (child == 0) {
        answerInChild(uid, question);
    }
    const int status = statusOf(child, seconds);
    const bool hasAnswered = WIFEXITED(status) && WEXITSTATUS(status) <= mostThatIsAnAnswer;
    return hasAnswered ? std::optional(WEXITSTATUS(status)) : std::nullopt;
}

} // namespace Sentrel::ctl
