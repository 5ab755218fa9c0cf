#include "tests/support/Machine.h"

#include "platform/hvbhelpers/HubProtocol.h"
#include "tests/support/Eventually.h"
#include "tests/support/ProcessMemory.h"
#include "tests/support/UnixSocket.h"

#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace testing_support {
namespace {

HVB::bus::Deadline soon() {
    return std::chrono::steady_clock::now() + HVB::bus::kCallTimeout;
}

template <std::size_t Size>
void put(char (&field)[Size], const std::string& text) {
    std::memcpy(field, text.data(), std::min(Size, text.size()));
}

ChildOptions optionsFor(const PrivateRoot& root, const char* outputName) {
    ChildOptions options;
    options.environment = {"SENTREL_INSTALL_ROOT=" + root.path().string()};
    options.outputFile = root.file(outputName);
    return options;
}

uid_t uidOf(const std::string& user) {
    const passwd* const entry = getpwnam(user.c_str());
    if (entry == nullptr) {
        throw std::runtime_error("there is no user " + user);
    }
    return entry->pw_uid;
}

Machine::Stored readStored(sd_bus_message& reply) {
    Machine::Stored record{};
    std::int64_t storedAt = 0;
    HVB::bus::check(sd_bus_message_read(&reply, "txii", &record.id, &storedAt, &record.source, &record.type),
                    "cannot read a record");
    record.text = HVB::bus::readText(reply);
    record.detail = HVB::bus::readText(reply);
    HVB::bus::check(sd_bus_message_read(&reply, "i", &record.count), "cannot read a record");
    return record;
}

} // namespace

std::string programUnderTest(const char* variable) {
    const char* program = std::getenv(variable);
    if (program == nullptr || *program == '\0') {
        throw std::runtime_error(std::string(variable) + " does not name the program under test");
    }
    return program;
}

STEventData sampleEvent(const std::string& url) {
    STEventData event{};
    put(event.eventId, "sample");
    put(event.url, url);
    put(event.browserProcessName, "firefox");
    event.urlRating = 60;
    event.action = 3;
    event.isRpxReachable = 1;
    event.count = 1;
    return event;
}

EventClient::EventClient(const std::string& socketPath) : m_fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    if (m_fd < 0 || !connectSocket(m_fd, socketPath)) {
        const int error = errno;
        close();
        throw std::system_error(error, std::generic_category(), socketPath);
    }
}

EventClient::EventClient(EventClient&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}

EventClient::~EventClient() {
    close();
}

void EventClient::close() {
    if (m_fd >= 0) {
        ::close(std::exchange(m_fd, -1));
    }
}

void EventClient::send(std::string_view bytes) {
    const ssize_t sent = ::send(m_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent != static_cast<ssize_t>(bytes.size())) {
        throw std::system_error(errno, std::generic_category(), "send");
    }
}

std::string EventClient::readAll() {
    std::string all;
    char buffer[4096];
    for (ssize_t got = 0; (got = read(m_fd, buffer, sizeof buffer)) > 0;) {
        all.append(buffer, static_cast<std::size_t>(got));
    }
    return all;
}

Machine::Machine() : m_bus(m_root) {
    installConfiguration();
}

Machine::Machine(const std::string& daemonUser, const std::string& adminGroup)
    : m_daemonUser(uidOf(daemonUser)), m_bus(m_root, {.socketPath = "",
                                                      .daemonUser = daemonUser,
                                                      .hubUser = std::to_string(geteuid()),
                                                      .adminGroup = adminGroup}) {
    installConfiguration();
    const std::string configuration = configurationFile();
    for (const std::string& path : {m_root.sharedDirectory(), m_root.varDirectory(), configuration,
                                    configuration.substr(0, configuration.rfind('/'))}) {
        PrivateRoot::giveTo(path, *m_daemonUser, static_cast<gid_t>(-1));
    }
}

void Machine::installConfiguration() {
    std::ofstream file(configurationFile());
    file << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<HVConfiguration>\n"
            "<SyslogEnable>true</SyslogEnable>\n<LogLevel>information</LogLevel>\n<HVVersion>0.1.0</HVVersion>\n"
            "<BuildNumber>1</BuildNumber>\n<PatchVersion></PatchVersion>\n<ServicePack> </ServicePack>\n"
            "<Hotfixes> </Hotfixes>\n</HVConfiguration>\n";
}

void Machine::initSettings() {
    sql("pragma journal_mode=wal;"
        "create table if not exists vxsetting(name text NOT NULL, value blob, PRIMARY KEY(name));"
        "create table if not exists catblockinginfo(name text NOT NULL, value blob, PRIMARY KEY(name));"
        "create table if not exists allowblocksettings(name text NOT NULL, value INTEGER, PRIMARY KEY(name));"
        "create table if not exists privateIPRange(range text NOT NULL, PRIMARY KEY(range));");
    constexpr mode_t daemonAlone = 0640; // as 'sentrelctl settings init' makes it
    ::chmod(settingsFile().c_str(), daemonAlone);
    if (m_daemonUser) {
        PrivateRoot::giveTo(settingsFile(), *m_daemonUser, static_cast<gid_t>(-1));
    }
}

SqliteRun Machine::runSqlite(const std::string& statement, const std::string& setting) const {
    const std::string outputFile = m_root.file("sqlite3." + std::to_string(m_sqliteRuns++));
    ChildProcess program("sqlite3", {.arguments = {"-bail", settingsFile(), setting, statement},
                                     .environment = {},
                                     .outputFile = outputFile,
                                     .uid = {},
                                     .gid = {}});
    const std::optional<ExitStatus> status = program.waitUntil(patience());
    if (!status) {
        throw std::runtime_error("sqlite3 does not end: " + statement);
    }
    SqliteRun run{*status, program.output()};
    std::filesystem::remove(outputFile);
    return run;
}

std::string Machine::sql(const std::string& statement) const {
    SqliteRun run = runSqlite(statement, ".timeout 10000");
    if (run.status != 0) {
        throw std::runtime_error("sqlite3 fails: " + run.output);
    }
    return run.output;
}

SqliteRun Machine::trySql(const std::string& statement) const {
    return runSqlite(statement, ".timeout 0");
}

void Machine::setTraceLevels(int level) {
    std::ofstream file(m_root.varDirectory() + "/traceValues.xml");
    file << "<TraceValues>";
    for (const char* flow : {"stDaemonFlow", "configFlow", "loggerFlow", "stCmdFlow", "hcFlow", "cmdHelperFlow",
                             "regHelperFlow", "hvInitFlow", "hvCommFlow", "mgsFlow", "safariPluginFlow", "ipcFlow"}) {
        file << "<" << flow << ">" << level << "</" << flow << ">";
    }
    file << "</TraceValues>";
}

void Machine::startHub(std::vector<std::string> arguments) {
    m_hub.reset();
    ChildOptions options = optionsFor(m_root, "hvbd.out");
    options.arguments = std::move(arguments);
    m_hub.emplace(programUnderTest("HVBD_ROOTED"), options);
    if (!eventually([this] { return hubAnswers(); })) {
        throw std::runtime_error("hvbd does not answer: " + m_hub->output());
    }
}

ChildOptions Machine::daemonOptions() const {
    ChildOptions options = optionsFor(m_root, "sentreld.out");
    options.uid = m_daemonUser;
    return options;
}

void Machine::launchKeeper() {
    m_keeper.reset();
    ChildOptions options = optionsFor(m_root, "keeper.out");
    options.uid = m_daemonUser;
    m_keeper.emplace(programUnderTest("SENTREL_SETTINGS_KEEPER_ROOTED"), options);
}

void Machine::startKeeper() {
    launchKeeper();
    if (!eventually([this] { return isOnBus(HVB::bus::kKeeperName) || !m_keeper->isRunning(); }) ||
        !m_keeper->isRunning()) {
        throw std::runtime_error("the settings keeper does not come to the bus: " + m_keeper->output());
    }
}

void Machine::kill9Keeper() {
    m_keeper->kill(SIGKILL);
    if (m_keeper->waitUntil(patience()) != -SIGKILL) {
        throw std::runtime_error("the settings keeper ended otherwise: " + m_keeper->output());
    }
}

bool Machine::isOnBus(const char* name) const {
    const HVB::bus::BusPtr bus = HVB::bus::openBus(m_bus.socketPath(), soon());
    const auto request =
        HVB::bus::newCall(*bus, HVB::bus::kDriver, HVB::bus::kDriverPath, HVB::bus::kDriver, "NameHasOwner");
    HVB::bus::check(sd_bus_message_append(request.get(), "s", name), "NameHasOwner");
    int has = 0;
    const auto reply = HVB::bus::call(*bus, *request, soon());
    HVB::bus::check(sd_bus_message_read(reply.get(), "b", &has), "NameHasOwner");
    return has != 0;
}

void Machine::launchDaemon() {
    m_daemon.reset();
    m_daemon.emplace(programUnderTest("SENTRELD_ROOTED"), daemonOptions());
}

bool Machine::startDaemon() {
    launchDaemon();
    eventually([this] { return listens() || !m_daemon->isRunning(); });
    return m_daemon->isRunning() && listens();
}

ExitStatus Machine::stopDaemon() {
    m_daemon->kill(SIGTERM);
    const std::optional<ExitStatus> status = m_daemon->waitUntil(patience());
    if (!status) {
        throw std::runtime_error("the daemon does not end");
    }
    return *status;
}

void Machine::kill9Daemon() {
    m_daemon->kill(SIGKILL);
    if (m_daemon->waitUntil(patience()) != -SIGKILL) {
        throw std::runtime_error("the daemon ended otherwise: " + m_daemon->output());
    }
}

long Machine::daemonPeakKilobytes() const {
    return processKilobytes(m_daemon->pid(), "VmHWM:");
}

bool Machine::listens() const {
    try {
        EventClient probe(eventSocket());
        return true;
    } catch (const std::system_error&) {
        return false;
    }
}

void Machine::deliver(std::string_view bytes) {
    EventClient client(eventSocket());
    client.send(bytes);
    static_cast<void>(client.readAll()); // ends when the daemon has closed
}

void Machine::deliver(const STEventData& event) {
    deliver(std::string_view(reinterpret_cast<const char*>(&event), sizeof event));
}

std::vector<Machine::Stored> Machine::stored(std::uint64_t after) {
    const HVB::bus::BusPtr bus = HVB::bus::openBus(m_bus.socketPath(), soon());
    constexpr std::uint32_t most = 1000;
    std::vector<Stored> records;
    for (bool more = true; more;) {
        const HVB::bus::MessagePtr request = HVB::bus::newCall(*bus, HVB::bus::kHubName, HVB::bus::kHubPath,
                                                               HVB::bus::kHubInterface, HVB::bus::kReadLogMember);
        HVB::bus::check(sd_bus_message_append(request.get(), HVB::bus::kReadLogSignature, after, most, 0), "ReadLog");
        const HVB::bus::MessagePtr reply = HVB::bus::call(*bus, *request, soon());
        HVB::bus::check(sd_bus_message_enter_container(reply.get(), 'a', "(txiiayayi)"), "ReadLog");
        more = false;
        while (sd_bus_message_enter_container(reply.get(), 'r', "txiiayayi") > 0) {
            records.push_back(readStored(*reply));
            after = records.back().id;
            more = true;
            HVB::bus::check(sd_bus_message_exit_container(reply.get()), "ReadLog");
        }
    }
    return records;
}

bool Machine::hubAnswers() {
    try {
        static_cast<void>(stored(~std::uint64_t{0} >> 1));
        return true;
    } catch (const HVB::HVBException&) {
        return false;
    }
}

std::vector<std::string> Machine::traceLines() const {
    std::ifstream file(m_root.varDirectory() + "/STTrace.log");
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::size_t Machine::traced(const std::string& message) const {
    std::size_t count = 0;
    for (const std::string& line : traceLines()) {
        count += line.ends_with(message) ? 1U : 0U;
    }
    return count;
}

} // namespace testing_support
