// The doctor's checks of what is on the disk, but for the settings file. fileChecks() lists them in the order in which
// a person mends them: the directories, then the configuration.
//
// Each check looks at owner and mode first, then at the content. The daemon's user is taken to be the owner of the
// shared directory, and what else belongs to the daemon is compared with that.
//
// What must stay so:
// - The bus configuration is not parsed. Its users and its group are picked out, this version's configuration is made
//   for them, and the two texts are compared. So the check cannot fall behind what hvbd writes.
// - What this user may not read is "unseen" and no fault, so needReadable() comes before each reading.
// - The module configuration is read by the rules that hvbd goes by as well, which are the daemon's. A file that the
//   daemon cannot use is a failure, all else a warning.
#include "apps/sentrelctl/doctor/Doctor.h"
#include "base/FileReading.h"
#include "base/Paths.h"
#include "platform/hvbagent/Fleet.h"
#include "platform/hvbhelpers/BusConfiguration.h"
#include "platform/hvbutils/LoggingConfiguration.h"
#include "platform/hvbutils/XmlFile.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <grp.h>
#include <pwd.h>
#include <regex>
#include <set>
#include <unistd.h>

namespace Sentrel::ctl {
namespace {

namespace agent = HVBEnterprise::agent;

constexpr std::size_t kUsersOfTheBus = 3; // root, the daemon's and hvbd's

Diagnosis missingFile(FindingId id, const std::string& path, std::string advice) {
    return {Verdict::Failed, id, "there is no " + path, std::move(advice)};
}

// Directories.

/// Whether users besides the owner can write into a directory, as far as @p mayGroup lets them.
bool canOthersWriteInto(const struct stat& facts, bool mayGroup) {
    return (facts.st_mode & (mayGroup ? S_IWOTH : S_IWGRP | S_IWOTH)) != 0;
}

/// What every directory must be. @param isForAll whether other users reach something in it.
/// @param mayGroup whether its group may write into it.
Diagnosis directoryDiagnosis(const std::string& path, bool isForAll, bool mayGroup = false) {
    constexpr mode_t everybodyIn = S_IXUSR | S_IXGRP | S_IXOTH;
    const std::optional<struct stat> facts = factsOf(path);
    if (!facts) {
        return missingFile("directory-missing", path,
                           fmt::format("Make it for the user whose it is to be: install -d -m 0755 -o USER {}", path));
    }
    if (!S_ISDIR(facts->st_mode)) {
        return failed("directory-no-directory", path + " is no directory",
                      "Move away what is there, and make the directory with mode 0755");
    }
    if (canOthersWriteInto(*facts, mayGroup)) {
        return failed("directory-open",
                      fmt::format("others than its owner can write into {}: it has {}", path, modeText(*facts)),
                      "chmod go-w " + path + ", and look whether what is in it is yours");
    }
    if (isForAll && (facts->st_mode & everybodyIn) != everybodyIn) {
        return failed("directory-unreachable",
                      fmt::format("other users cannot reach what is in {}: it has {}", path, modeText(*facts)),
                      "chmod a+rx " + path);
    }
    return healthy(fmt::format("{} is {}'s, {}", path, userName(facts->st_uid), modeText(*facts)));
}

Diagnosis sharedDirectory(double /*timeout*/) {
    return directoryDiagnosis(paths::sharedDirectory(), true);
}

Diagnosis varDirectory(double /*timeout*/) {
    const std::string path = paths::varDirectory();
    Diagnosis diagnosis = directoryDiagnosis(path, false);
    const std::optional<struct stat> facts = factsOf(path);
    const std::optional<uid_t> daemon = daemonUser();
    if (diagnosis.verdict == Verdict::Ok && daemon && facts->st_uid != *daemon) {
        return failed("directory-owner",
                      fmt::format("{} is {}'s and {} is {}'s: both must be the daemon's", path, userName(facts->st_uid),
                                  paths::sharedDirectory(), userName(*daemon)),
                      "Give both to the user whom sentreld runs as, with chown");
    }
    return diagnosis;
}

/// Who else is in a group, as the users' and the groups' tables have it.
std::vector<std::string> membersBeside(gid_t gid, const std::set<uid_t>& known) {
    std::set<std::string> members;
    const group* const entry = ::getgrgid(gid);
    for (char** name = entry != nullptr ? entry->gr_mem : nullptr; name != nullptr && *name != nullptr; ++name) {
        members.insert(*name);
    }
    std::set<std::string> knownNames;
    ::setpwent();
    while (const passwd* const user = ::getpwent()) {
        if (known.count(user->pw_uid) > 0) {
            knownNames.insert(user->pw_name);
        } else if (user->pw_gid == gid) {
            members.insert(user->pw_name);
        }
    }
    ::endpwent();
    std::vector<std::string> strangers;
    std::set_difference(members.begin(), members.end(), knownNames.begin(), knownNames.end(),
                        std::back_inserter(strangers));
    return strangers;
}

Diagnosis hubDirectory(double /*timeout*/) {
    const std::string path = paths::hubVarDirectory();
    const std::optional<struct stat> facts = factsOf(path);
    const std::optional<uid_t> hub = hubUser();
    if (!facts || !hub || (facts->st_mode & S_IWGRP) == 0) {
        return directoryDiagnosis(path, true);
    }
    const std::optional<struct stat> socket = factsOf(paths::hubSocket());
    const uid_t bus = socket ? socket->st_uid : facts->st_uid;
    if (*hub == facts->st_uid && bus == facts->st_uid) {
        return directoryDiagnosis(path, true);
    }
    // The bus makes its socket in it, and hvbd its store. Where they are two users, a group of these two is the way.
    const std::vector<std::string> strangers = membersBeside(facts->st_gid, {0, facts->st_uid, *hub, bus});
    if (!strangers.empty()) {
        return failed("directory-open",
                      fmt::format("others than the users of the bus and of hvbd can write into {}: its group has {}",
                                  path, fmt::join(strangers, ", ")),
                      fmt::format("Give it a group that has {} and {} alone", userName(facts->st_uid), userName(*hub)));
    }
    return directoryDiagnosis(path, true, true);
}

Diagnosis configurationDirectory(double /*timeout*/) {
    return directoryDiagnosis(directoryOf(paths::moduleConfiguration()), false);
}

// Configuration.

Diagnosis busConfiguration(double /*timeout*/) {
    const std::string path = busConfigurationFile();
    const std::optional<struct stat> facts = factsOf(path);
    if (!facts) {
        return missingFile("bus-configuration-missing", path,
                           "Make it with 'hvbd --print-bus-config', see 'hvbd --help'");
    }
    if (!S_ISREG(facts->st_mode)) {
        return failed("bus-configuration-no-file", path + " is no regular file",
                      "Make it with 'hvbd --print-bus-config', see 'hvbd --help'");
    }
    if (othersCanWrite(*facts)) {
        return failed("bus-configuration-open",
                      fmt::format("others than its owner can write {}: it has {}", path, modeText(*facts)),
                      fmt::format("chmod go-w {}, and make it anew with 'hvbd --print-bus-config'", path));
    }
    needReadable(path);
    return busConfigurationDiagnosis(path, readRegularFile(path, kMaxBusConfigurationBytes, FileAccess::Anybody),
                                     HVB::bus::groupExists);
}

/// What reading one element comes to: empty, or what is wrong with it.
template <class Read>
std::string problemOf(const Read& read) {
    try {
        return read();
    } catch (const LibXmlError& error) {
        return error.what();
    }
}

std::vector<std::string> missingVersionsOf(const XmlFile& document) {
    std::vector<std::string> missing;
    for (const char* element : {"HVVersion", "BuildNumber", "PatchVersion", "ServicePack", "Hotfixes"}) {
        const std::string xpath = std::string("/HVConfiguration/") + element;
        if (!problemOf([&] {
                 document.textAt(xpath.c_str());
                 return std::string();
             }).empty()) {
            missing.emplace_back(element);
        }
    }
    return missing;
}

/// The right for the owner, for the group and for others.
struct RightBits {
    mode_t owner;
    mode_t group;
    mode_t others;
};
constexpr RightBits kMayRead{S_IRUSR, S_IRGRP, S_IROTH};
constexpr RightBits kMayWrite{S_IWUSR, S_IWGRP, S_IWOTH};

/// Whether the mode gives @p uid this right: what else may give or forbid it is not looked at.
bool mayByMode(const struct stat& facts, uid_t uid, const RightBits& right) {
    if (uid == 0) {
        return true;
    }
    if (facts.st_uid == uid) {
        return (facts.st_mode & right.owner) != 0;
    }
    const passwd* const entry = ::getpwuid(uid);
    constexpr int most = 1024;
    std::vector<gid_t> groups(most);
    int count = most;
    if (entry == nullptr || ::getgrouplist(entry->pw_name, entry->pw_gid, groups.data(), &count) < 0) {
        count = 0;
    }
    groups.resize(static_cast<std::size_t>(count));
    const bool isMember = std::find(groups.begin(), groups.end(), facts.st_gid) != groups.end();
    return (facts.st_mode & (isMember ? right.group : right.others)) != 0;
}

/// What the daemon or hvbd does without, in a file that the daemon can use; empty when that is nothing.
std::string shortcomingOf(const XmlFile& document, const HVB::LoggingConfiguration& logging, bool isLink) {
    if (isLink) {
        return "is a symbolic link, which the daemon does not replace: debug logging cannot be switched";
    }
    if (logging.level == HVB::LogLevelWord::Unknown) {
        return fmt::format(
            "has the LogLevel \"{}\", which is none: the daemon takes it for debug logging off, hvbd for "
            "information",
            logging.text);
    }
    const std::vector<std::string> missing = missingVersionsOf(document);
    return missing.empty() ? "" : fmt::format("has no {}: 'sentrelctl about' tells less", fmt::join(missing, ", "));
}

/// What is wrong with the rights to a file that the daemon reads; none when nothing is.
std::optional<Diagnosis> unreadableForDaemon(const std::string& path) {
    struct stat facts {};
    const std::optional<uid_t> daemon = daemonUser();
    if (!daemon || ::stat(path.c_str(), &facts) != 0 || mayByMode(facts, *daemon, kMayRead)) {
        return std::nullopt;
    }
    return failed("module-configuration-unreadable",
                  fmt::format("the daemon's user {} cannot read {}: it is {}'s, {}", userName(*daemon), path,
                              userName(facts.st_uid), modeText(facts)),
                  fmt::format("chown {} {}", userName(*daemon), path));
}

Diagnosis moduleConfiguration(double /*timeout*/) {
    constexpr const char* advice = "Mend it: an example, HVConfig.example.xml, comes with the package";
    const std::string path = paths::moduleConfiguration();
    const std::optional<struct stat> facts = factsOf(path);
    if (!facts) {
        return missingFile("module-configuration-missing", path,
                           "Put one there: an example, HVConfig.example.xml, comes with the package");
    }
    if (std::optional<Diagnosis> unreadable = unreadableForDaemon(path)) {
        return *unreadable;
    }
    needReadable(path);
    try {
        const XmlFile document = HVB::openModuleConfiguration(path);
        const std::string shortcoming = shortcomingOf(document, HVB::loggingIn(document), S_ISLNK(facts->st_mode));
        if (!shortcoming.empty()) {
            return warning("module-configuration-incomplete", path + " " + shortcoming, advice);
        }
    } catch (const LibXmlError& error) {
        return failed("module-configuration-unusable", std::string("the daemon cannot use ") + error.what(), advice);
    }
    return healthy(path + " is complete");
}

Diagnosis debugSwitch(double /*timeout*/) {
    const std::string directory = directoryOf(paths::moduleConfiguration());
    const std::optional<struct stat> facts = factsOf(directory);
    const std::optional<uid_t> daemon = daemonUser();
    if (!facts || !daemon) {
        throw CannotSee("the directories of the configuration and of the daemon are not both there");
    }
    const std::string name = userName(*daemon);
    if (!mayByMode(*facts, *daemon, kMayWrite)) {
        return warning("debug-switch-stuck",
                       fmt::format("the daemon's user {} cannot replace files in {}: debug logging cannot be switched",
                                   name, directory),
                       fmt::format("chown {} {}, if debug logging is to be switched on this machine", name, directory));
    }
    return healthy(fmt::format("the daemon's user {} can replace files in {}", name, directory));
}

/// The level of a flow; none when it is not a number from 0 to 5.
std::optional<int> levelIn(const std::string& text) {
    constexpr int highest = 5;
    int level = -1;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), level);
    const bool isLevel = error == std::errc() && end == text.data() + text.size() && level >= 0 && level <= highest;
    return isLevel ? std::optional(level) : std::nullopt;
}

Diagnosis traceLevelsDiagnosis(const XmlFile& document, const std::string& path) {
    constexpr std::array<const char*, 12> flows{"stDaemonFlow", "configFlow",    "loggerFlow",       "stCmdFlow",
                                                "hcFlow",       "cmdHelperFlow", "regHelperFlow",    "hvInitFlow",
                                                "hvCommFlow",   "mgsFlow",       "safariPluginFlow", "ipcFlow"};
    constexpr int levelThatTellsPasswords = 3;
    bool tellsPasswords = false;
    std::vector<std::string> unusable;
    for (const std::string flow : flows) {
        std::optional<int> level;
        const std::string problem = problemOf([&] {
            level = levelIn(document.textAt(("/TraceValues/" + flow).c_str()));
            return std::string();
        });
        if (!level) {
            unusable.push_back(flow);
        }
        tellsPasswords = tellsPasswords || (flow == "configFlow" && level.value_or(0) >= levelThatTellsPasswords);
    }
    if (!unusable.empty()) {
        return warning("trace-levels-incomplete",
                       fmt::format("{} has no level from 0 to 5 for {}", path, fmt::join(unusable, ", ")),
                       "Mend it: an example, traceValues.example.xml, comes with the package");
    }
    if (tellsPasswords) {
        return warning("trace-levels-password",
                       "with configFlow at 3 and above the proxy's password goes to the trace log as it is stored",
                       fmt::format("Lower it in {} when nobody needs it, and restart the daemon", path));
    }
    return healthy(path + " is complete");
}

Diagnosis traceLevels(double /*timeout*/) {
    const std::string path = paths::traceLevels();
    if (!factsOf(path)) {
        return healthy("there is no " + path + ": nothing is traced");
    }
    needReadable(path);
    try {
        return traceLevelsDiagnosis(XmlFile(path), path);
    } catch (const LibXmlError& error) {
        return failed("trace-levels-malformed", error.what(), "Mend it, or remove it, which ends tracing");
    }
}

// The management agent.

/// What is wrong with a file that only the daemon may read; empty when nothing is.
std::string problemOfPrivateFile(const std::string& path, bool mayBeMissing) {
    constexpr mode_t others = 077;
    const std::optional<struct stat> facts = factsOf(path);
    if (!facts) {
        return mayBeMissing ? "" : "there is no " + path;
    }
    if (!S_ISREG(facts->st_mode)) {
        return path + " is no regular file";
    }
    if ((facts->st_mode & others) != 0) {
        return fmt::format("others than its owner may use {}: it has {}", path, modeText(*facts));
    }
    const std::optional<uid_t> daemon = daemonUser();
    if (daemon && facts->st_uid != *daemon) {
        return fmt::format("{} is {}'s and not the daemon's", path, userName(facts->st_uid));
    }
    return "";
}

Diagnosis privateFilesDiagnosis(const agent::AgentConfiguration& configuration) {
    std::vector<std::pair<std::string, bool>> files{
        {paths::agentKey(), true}, {paths::agentPolicy(), true}, {paths::agentPolicyRecord(), true}};
    if (!configuration.credentialsFile.empty()) {
        files.emplace_back(configuration.credentialsFile, false);
    }
    if (configuration.tls && !configuration.tls->key.empty()) {
        files.emplace_back(configuration.tls->key, false);
    }
    for (const auto& [path, mayBeMissing] : files) {
        if (std::string problem = problemOfPrivateFile(path, mayBeMissing); !problem.empty()) {
            return failed("enrolment-secret", std::move(problem),
                          fmt::format("It must be the daemon's user's with mode 0600: {}", path));
        }
    }
    return healthy(fmt::format("enrolled as {} of {} at {}:{}", configuration.machine, configuration.site,
                               configuration.host, configuration.port));
}

constexpr const char* kMendEnrolment =
    "Mend the enrolment, or remove it, which leaves the machine unmanaged; then restart the daemon";

Diagnosis managementAgent(double /*timeout*/) {
    const std::string path = paths::agentConfiguration();
    const std::optional<struct stat> facts = factsOf(path);
    if (!facts) {
        return healthy("there is no " + path + ": the machine is not managed");
    }
    if (othersCanWrite(*facts)) {
        return failed("enrolment-open",
                      fmt::format("others than its owner can write {}: it has {}", path, modeText(*facts)),
                      "chmod go-w " + path + ", and look whether it is still what you wrote");
    }
    needReadable(path);
    try {
        return privateFilesDiagnosis(agent::readEnrolment(path));
    } catch (const agent::DocumentError& error) { // names the place in the document, not the file
        return failed("enrolment-wrong", path + ": " + error.what(), kMendEnrolment);
    } catch (const std::system_error& error) {
        return failed("enrolment-wrong", error.what(), kMendEnrolment);
    }
}

/// For whom @p text, the bus's configuration, has sections of this kind, in order.
std::vector<std::string> sectionsFor(const char* kind, const std::string& text) {
    const std::regex policy(fmt::format(R"re(<policy {}="([^"]*)">)re", kind));
    std::vector<std::string> names;
    for (std::sregex_iterator found(text.begin(), text.end(), policy); found != std::sregex_iterator(); ++found) {
        names.push_back((*found)[1]);
    }
    return names;
}

} // namespace

std::string busConfigurationFile() {
    const std::string packaged = paths::packagedBusConfiguration();
    return factsOf(packaged) ? packaged : paths::hubBusConfiguration();
}

std::optional<uid_t> hubUser() {
    std::vector<std::string> users;
    try {
        users = sectionsFor("user",
                            readRegularFile(busConfigurationFile(), kMaxBusConfigurationBytes, FileAccess::Anybody));
    } catch (const std::system_error&) {
        return std::nullopt; // 'bus-configuration' tells why
    }
    if (users.size() != kUsersOfTheBus) {
        return std::nullopt;
    }
    uid_t uid = 0;
    const std::string& name = users.back();
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), uid);
    if (error == std::errc() && end == name.data() + name.size()) {
        return uid;
    }
    const passwd* const entry = ::getpwnam(name.c_str());
    return entry != nullptr ? std::optional(entry->pw_uid) : std::nullopt;
}

std::string administratorsIn(const std::string& text) {
    const std::vector<std::string> groups = sectionsFor("group", text);
    return groups.empty() ? "" : groups.back();
}

Diagnosis busConfigurationDiagnosis(const std::string& path, const std::string& text,
                                    const std::function<bool(const std::string&)>& groupExists) {
    constexpr const char* advice =
        "Make it with 'hvbd --print-bus-config' for these users and this group, and restart the bus and all on it";
    const std::vector<std::string> users = sectionsFor("user", text);
    HVB::bus::BusConfigurationOptions options;
    options.adminGroup = administratorsIn(text);
    if (users.size() != kUsersOfTheBus) {
        return failed("bus-configuration-foreign", path + " is no configuration of this hub's bus", advice);
    }
    if (!options.adminGroup.empty() && !groupExists(options.adminGroup)) {
        return failed(
            "bus-configuration-group",
            fmt::format("{} names the group {}, which there is not on this machine", path, options.adminGroup),
            fmt::format("addgroup --system {}, then restart the bus and all on it", options.adminGroup));
    }
    options.socketPath = paths::hubSocket();
    options.daemonUser = users[1];
    options.hubUser = users[2];
    if (HVB::bus::busConfiguration(options) != text) {
        return warning("bus-configuration-changed", path + " is not as this version's hvbd makes it", advice);
    }
    return healthy(fmt::format("{}: sentreld runs as {}, hvbd as {}, administrators are {}", path, users[1], users[2],
                               options.adminGroup.empty() ? "root alone" : options.adminGroup));
}

const std::vector<Check>& fileChecks() {
    static const std::vector<Check> all{
        {"shared-directory", sharedDirectory},   {"var-directory", varDirectory},
        {"hub-directory", hubDirectory},         {"config-directory", configurationDirectory},
        {"bus-configuration", busConfiguration}, {"module-configuration", moduleConfiguration},
        {"debug-switch", debugSwitch},           {"trace-levels", traceLevels},
        {"management-agent", managementAgent},
    };
    return all;
}

} // namespace Sentrel::ctl
