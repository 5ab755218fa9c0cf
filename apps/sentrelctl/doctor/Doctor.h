// What is looked at when an installation does not work: a list of checks, each of which finds one thing out and knows
// how to mend it.
#pragma once

#include "apps/sentrelctl/doctor/Findings.h"
#include "apps/sentrelctl/terminal/Json.h"
#include "apps/sentrelctl/terminal/Output.h"

#include <cstddef>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace Sentrel::ctl {

enum class Verdict {
    Ok,
    Warning, ///< the machine works, but not as it could
    Failed,  ///< something does not work, or is not safe
    Unseen,  ///< this user, or a machine in this state, does not let it be seen
};

/// What a check found.
struct Diagnosis {
    Verdict verdict;
    FindingId id; ///< of a warning or a failure; else empty
    std::string what;
    std::string advice; ///< how to mend it; empty when nothing is to be done
};

inline Diagnosis healthy(std::string what) {
    return {Verdict::Ok, {}, std::move(what), ""};
}

inline Diagnosis unseen(std::string why) {
    return {Verdict::Unseen, {}, std::move(why), ""};
}

inline Diagnosis warning(FindingId id, std::string what, std::string advice) {
    return {Verdict::Warning, id, std::move(what), std::move(advice)};
}

inline Diagnosis failed(FindingId id, std::string what, std::string advice) {
    return {Verdict::Failed, id, std::move(what), std::move(advice)};
}

/// Thrown by a check that cannot see what it is about.
class CannotSee : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// One check. The names are an interface, as exit codes are: they are added to, never changed.
struct Check {
    const char* name;
    /// @param timeout seconds that each question to another process may take.
    /// @throws CannotSee, and anything else when it could not be carried out.
    Diagnosis (*examine)(double timeout);
};

/// Directories and configuration, in the order in which they are mended.
const std::vector<Check>& fileChecks();
/// The settings file: what it is, what it holds, and whether it is whole.
const std::vector<Check>& settingsChecks();
/// Whether there is room for what is written.
const std::vector<Check>& diskChecks();
/// The bus, the processes and what they leave behind.
const std::vector<Check>& processChecks();
/// What the browsers are told of this installation.
const std::vector<Check>& browserChecks();
/// What is tried out only when somebody asks for it, since it leaves a trace.
const std::vector<Check>& probeChecks();
/// All of them, in the order in which faults are best mended.
std::vector<Check> allChecks(bool withProbes);

/// Runs @p check. What it throws becomes its diagnosis.
Diagnosis examined(const Check& check, double timeout);

/// A row, and below it the advice when there is one.
std::string diagnosisText(std::string_view name, const Diagnosis& diagnosis, const Palette& palette);
Json diagnosisJson(std::string_view name, const Diagnosis& diagnosis);

/// How many of each kind, as a sentence.
std::string summaryText(const std::vector<Diagnosis>& diagnoses);
std::size_t countOf(const std::vector<Diagnosis>& diagnoses, Verdict verdict);

// What the checks have in common.

/// The facts of what is at @p path, a link's own. None when nothing is there. @throws CannotSee.
std::optional<struct stat> factsOf(const std::string& path);
/// Throws CannotSee unless this user may read @p path.
void needReadable(const std::string& path);
/// The directory that @p path is in.
std::string directoryOf(const std::string& path);
/// The user's name, or the number of one that has none.
std::string userName(uid_t uid);
/// The configuration that the bus is started with: the package's, where there is one, or else the one made by hand.
std::string busConfigurationFile();
/// Whom the daemon runs as: the owner of the directory of its socket. None without that.
std::optional<uid_t> daemonUser();
/// Whom hvbd runs as: the last user of the bus's configuration. None when that cannot be read or names nobody.
std::optional<uid_t> hubUser();
/// "immutable", "append-only" or both, where the file system has marked what is at @p path so; else empty.
std::string lockedBits(const std::string& path);
/// Whether others than the owner can write there.
bool othersCanWrite(const struct stat& facts);
/// "mode 0755".
std::string modeText(const struct stat& facts);

/// Runs @p question in a child process, as the user @p uid when one is given, which requires root.
/// @return what it returned, which is 0 to 100; none when it did not end in time, or died.
std::optional<int> inChild(std::optional<uid_t> uid, double seconds, const std::function<int()>& question);

/// A bus with this project's policy needs some ten thousand.
inline constexpr std::size_t kMaxBusConfigurationBytes = std::size_t{1} << 20;
/// The group that @p text, the bus's configuration, gives rights to; empty when it names none.
std::string administratorsIn(const std::string& text);
/// What is wrong with @p text, the bus's configuration. Empty when nothing is.
/// @param groupExists whether a group is known on this machine.
Diagnosis busConfigurationDiagnosis(const std::string& path, const std::string& text,
                                    const std::function<bool(const std::string&)>& groupExists);

/// What a look-up of the host's own name came to: inChild's answer, 0 when it was found.
Diagnosis hostNameDiagnosis(const std::string& name, std::optional<int> answer);

/// What was found of the bus's policy: inChild's answer, one of these.
enum PolicyProbe : int { PolicyRefuses, PolicyLetsAsk, PolicyLetsSignal, PolicyUnreachable };
Diagnosis busPolicyDiagnosis(std::optional<int> answer);

} // namespace Sentrel::ctl
