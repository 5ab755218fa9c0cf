#include "tests/integration/MachineDay.h"

#include "events/ReportRecords.h"
#include "events/VXHVBLogWrapper.h"
#include "tests/integration/HvbdSystemLog.h"
#include "tests/support/ArchiveValue.h"
#include "tests/support/Eventually.h"
#include "tests/support/PolicyAnswers.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <regex>
#include <string_view>
#include <thread>
#include <utility>

namespace testing_support {

using namespace Sentrel;
using nlohmann::json;

/// The system log of this process and of all that it starts, read all the time, since its writers wait for a reader.
/// Threads: thread-safe. Owner: the day; made before any other process.
class SystemLog {
public:
    explicit SystemLog(const std::string& directory) : m_socket(directory), m_reader([this] { read(); }) {}
    ~SystemLog() {
        m_ended = true;
        m_reader.join();
    }
    SystemLog(const SystemLog&) = delete;
    SystemLog& operator=(const SystemLog&) = delete;

    /// What the hub says of the module, and the module through the hub, in their order.
    std::vector<std::string> ofTheModule() const {
        static const std::regex about(R"(\d+ (module 7 \(Sentrel\): |configuration of module 7 |reload refused).*)");
        const std::lock_guard lock(m_mutex);
        std::vector<std::string> lines;
        std::copy_if(m_lines.begin(), m_lines.end(), std::back_inserter(lines),
                     [](const std::string& line) { return std::regex_match(line, about); });
        return lines;
    }

private:
    void read() {
        while (!m_ended) {
            static_cast<void>(eventually([this] { // ends with the day, or looks again
                const std::vector<std::string> lines = m_socket.lines();
                const std::lock_guard lock(m_mutex);
                m_lines.insert(m_lines.end(), lines.begin(), lines.end());
                return m_ended.load();
            }));
        }
    }

    SystemLogSocket m_socket; ///< read by the reader alone
    std::atomic<bool> m_ended{false};
    mutable std::mutex m_mutex;
    std::vector<std::string> m_lines; ///< guarded by m_mutex
    std::thread m_reader;             ///< the last: it uses the others
};

namespace {

constexpr const char* kTopic = "orvanta/v1/here/m1/";

std::string dataFile(const std::string& name) {
    return SENTREL_SOURCE_DIR "/tests/data/machine-day/" + name;
}

/// The records that the store must hold at the end of the day, each as recordShown shows it.
std::vector<std::string> recordsTold() {
    std::ifstream file(dataFile("store.txt"));
    std::vector<std::string> records;
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("record ")) {
            records.emplace_back();
        }
        if (!records.empty()) {
            records.back() += line + "\n";
        }
    }
    return records;
}

std::string narrow(const std::wstring& text) {
    return {text.begin(), text.end()}; // all of it is ASCII here
}

std::string shown(const ReportData& report) {
    return "  " + narrow(report.m_reportName) + ", " + narrow(report.m_subType) + ", " +
           std::to_string(report.m_reportType) + "\n";
}

/// What is another at every time and on every machine is shown by its form, and the address, which not every machine
/// has, not at all.
std::string shown(const DetailReportData& detail) {
    static const std::regex time(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)");
    std::string text = "  " + narrow(detail.m_name) + ", " + std::to_string(detail.m_reportType) + "\n";
    for (const auto& [key, value] : detail.attributes) {
        if (key.starts_with(L"Target")) {
            text += "    " + narrow(key) + (value.empty() ? " is empty\n" : " is this machine's\n");
        } else if (key != L"SourceIPV4") {
            text += "    " + narrow(key) + " = " + std::regex_replace(narrow(value), time, "a time") + "\n";
        }
    }
    for (const auto& [key, value] : detail.info) {
        text += "    " + narrow(key) + ": " + narrow(value) + "\n";
    }
    return text;
}

std::string recordShown(const Machine::Stored& record) {
    const std::string head = "record " + std::to_string(record.id) + ", source " + std::to_string(record.source) +
                             ", type " + std::to_string(record.type) + ", count " + std::to_string(record.count) + "\n";
    if (record.type == HVB::LOG_TYPE_RECENT_EVENT) {
        return head + shown(valueIn<DetailReportData>(record.text)) + narrow(record.detail);
    }
    return head + shown(valueIn<ReportData>(record.text)) + shown(valueIn<DetailReportData>(record.detail));
}

/// A line without its stamp, or its stamps: that of one thread and the line of another may have met. What is another in
/// every run is replaced by a word.
std::string lineShown(const std::string& line) {
    static const std::regex stamps("^([A-Z][a-z]+ [0-9]{2}, [0-9]{4} [0-9]{2}:[0-9]{2}:[0-9]{2} )+");
    static const std::regex port(R"(127\.0\.0\.1:\d+)");
    static const std::regex number(R"((thread id|our pid) \d+)");
    const std::string text = std::regex_replace(line, stamps, "");
    return std::regex_replace(std::regex_replace(text, port, "127.0.0.1:PORT"), number, "$1 N");
}

std::string blobShown(const void* data, std::size_t size) {
    std::string text;
    for (const char byte : std::string_view(static_cast<const char*>(data), size)) {
        constexpr std::string_view digits = "0123456789ABCDEF";
        const auto value = static_cast<unsigned char>(byte);
        text += digits[value >> 4U];
        text += digits[value & 0xFU];
    }
    return "X'" + text + "'";
}

/// All rows as "table key = value". A key that is stored with its NUL is shown with a "0" behind it.
constexpr const char* kAllRows =
    "select t || ' ' || substr(k, 1, length(k)) || (case when hex(k) like '%00' then '\\0' else '' end) || ' = ' || v "
    "from (select 'vxsetting' t, name k, quote(value) v from vxsetting "
    "union all select 'catblockinginfo', name, quote(value) from catblockinginfo "
    "union all select 'allowblocksettings', name, quote(value) from allowblocksettings "
    "union all select 'privateIPRange', range, '' from privateIPRange)";

} // namespace

MachineDay::MachineDay()
    : m_systemLog(::geteuid() == 0 ? std::make_unique<SystemLog>(m_systemLogPlace.file("dev")) : nullptr),
      m_transcript(readTranscript(dataFile("trace.txt"))), m_storeTold(recordsTold()) {
    ::setenv("SENTREL_INSTALL_ROOT", machine.root().path().c_str(), 1); // of this process, before anything asks for it
    std::ofstream levels(machine.root().varDirectory() + "/traceValues.xml");
    levels << "<TraceValues>";
    for (const char* flow : {"stDaemonFlow", "configFlow", "stCmdFlow", "mgsFlow", "hcFlow"}) {
        levels << "<" << flow << ">5</" << flow << ">";
    }
    levels << "</TraceValues>";
    machine.initSettings();
}

MachineDay::~MachineDay() {
    m_listener.reset(); // before the bus
}

void MachineDay::step(const std::string& name) {
    ASSERT_LT(m_stepsSeen, m_transcript.size()) << "the transcript has no step \"" << name << "\"";
    const Step& told = m_transcript[m_stepsSeen++];
    ASSERT_EQ(told.name, name) << "is the transcript's next step";
    std::vector<std::string> lines;
    std::optional<std::string> reason;
    static_cast<void>(eventually([&] {
        lines = machine.traceLines();
        lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(m_linesSeen));
        std::transform(lines.begin(), lines.end(), lines.begin(), lineShown);
        reason = whyNot(lines, told);
        return !reason.has_value();
    }));
    ASSERT_FALSE(reason.has_value()) << *reason;
    m_linesSeen += lines.size();
    m_now.lines += lines.size();
    ++m_now.steps;
}

std::string MachineDay::settingsShown() const {
    std::string text;
    for (const auto& [key, value] : m_settings) {
        text.append(key).append(" = ").append(value).append("\n");
    }
    return text;
}

void MachineDay::expectSettings() {
    EXPECT_EQ(machine.sql(std::string(kAllRows) + " order by 1"), settingsShown());
    m_now.rows = m_settings.size();
}

void MachineDay::expectStore(std::size_t records) {
    ASSERT_LE(records, m_storeTold.size());
    std::vector<std::string> found;
    for (const Machine::Stored& record : machine.stored()) {
        found.push_back(recordShown(record));
    }
    EXPECT_THAT(found, testing::ElementsAreArray(m_storeTold.begin(),
                                                 m_storeTold.begin() + static_cast<std::ptrdiff_t>(records)));
    m_now.records = records;
}

void MachineDay::expectEvents(const std::vector<int>& ids) {
    std::vector<ReceivedEvent> told;
    std::transform(ids.begin(), ids.end(), std::back_inserter(told), [](int id) { return ReceivedEvent{id, false}; });
    m_listener->waitForEvents(m_eventsSeen + ids.size());
    const std::vector<ReceivedEvent> all = m_listener->eventsUntilNow();
    EXPECT_EQ(std::vector<ReceivedEvent>(all.begin() + static_cast<std::ptrdiff_t>(m_eventsSeen), all.end()), told);
    m_eventsSeen = all.size();
    m_now.events += ids.size();
}

void MachineDay::expectSystemLog(const std::vector<std::string>& lines) {
    if (m_systemLog == nullptr) {
        return;
    }
    std::vector<std::string> found;
    static_cast<void>(eventually([&] {
        found = m_systemLog->ofTheModule();
        return found.size() >= m_systemLinesSeen + lines.size();
    }));
    found.erase(found.begin(), found.begin() + static_cast<std::ptrdiff_t>(m_systemLinesSeen));
    EXPECT_EQ(found, lines);
    m_systemLinesSeen += found.size();
    m_now.syslog += lines.size();
}

void MachineDay::expectDashboard(DashBoardStatus status, const std::string& stepName) {
    const bool isOn = status == DASHBOARD_LOCAL_ENABLED || status == DASHBOARD_MANAGED_ENABLED;
    auto board = answerOf<DashBoardData>(CMD_DASH_BOARD_REQUEST);
    EXPECT_EQ(board.m_moduleId, HVB::MODULE_SENTREL);
    EXPECT_EQ(board.m_statusItems.size(), 1U);
    const DashBoardDispalyContents line = board.m_statusItems[L"ST_DASHBOARD_STATUS_KEY"];
    EXPECT_EQ(line.m_status, status);
    EXPECT_EQ(line.m_displayText, isOn ? L"ENABLED_STRING" : L"DISABLED_STRING");
    step(stepName);
}

void MachineDay::endChapter(const std::string& name) {
    expectSettings();
    m_now.chapter = name;
    if (!m_compared.empty()) {
        m_now.records = std::max(m_now.records, m_compared.back().records);
    }
    m_compared.push_back(std::exchange(m_now, {}));
}

void MachineDay::expectTheEndOfWhatWasTold() const {
    EXPECT_EQ(m_stepsSeen, m_transcript.size()) << "the transcript tells of more";
    EXPECT_EQ(m_compared.back().records, m_storeTold.size()) << "there are to be more records";
}

void MachineDay::printSummary() const {
    std::printf("%-32s %6s %6s %9s %8s %7s %7s\n", "chapter", "steps", "trace", "settings", "store", "events",
                "syslog");
    std::printf("%-32s %6s %6s %9s %8s %7s %7s\n", "", "", "lines", "rows", "records", "", "lines");
    Compared all;
    for (const Compared& one : m_compared) {
        std::printf("%-32s %6zu %6zu %9zu %8zu %7zu %7zu\n", one.chapter.c_str(), one.steps, one.lines, one.rows,
                    one.records, one.events, one.syslog);
        all = {"",          all.steps + one.steps,   all.lines + one.lines,  one.rows,
               one.records, all.events + one.events, all.syslog + one.syslog};
    }
    std::printf("%-32s %6zu %6zu %9zu %8zu %7zu %7zu\n", "the day", all.steps, all.lines, all.rows, all.records,
                all.events, all.syslog);
}

void MachineDay::mustHold(const std::string& key, int number) {
    m_settings["vxsetting " + key + "\\0"] = blobShown(&number, sizeof number);
}

void MachineDay::mustHold(const std::string& key, const std::string& text) {
    m_settings["vxsetting " + key + "\\0"] = blobShown(text.data(), text.size());
}

void MachineDay::mustHoldSites(const Urls& urls) {
    std::erase_if(m_settings, [](const auto& row) { return row.first.starts_with("allowblocksettings "); });
    for (const auto& [url, action] : urls) {
        m_settings["allowblocksettings " + url] = std::to_string(action);
    }
}

void MachineDay::mustHoldCategories(const std::vector<std::string>& names) {
    std::erase_if(m_settings, [](const auto& row) { return row.first.starts_with("catblockinginfo "); });
    for (const std::string& name : names) {
        const int blocked = 1;
        m_settings["catblockinginfo " + name] = blobShown(&blocked, sizeof blocked);
    }
}

void MachineDay::mustHoldRange(const std::string& range) {
    m_settings["privateIPRange " + range] = "";
}

void MachineDay::setOne(const STPreferences& wanted, const std::string& stepName) {
    EXPECT_EQ(client().code(ST_SET_PREFS_INDIVIDUAL, payloadOf(wanted)), ST_ERROR_NONE);
    step(stepName);
}

void MachineDay::setDebug(bool isOn, const std::string& stepName) {
    const WireClient::Answer answer = client().command(CMD_SET_DEBUG_LOGGING_STATUS, payloadOf(isOn));
    EXPECT_TRUE(answer.error.empty() && answer.succeeded && answer.valid && !answer.hasPayload) << answer.error;
    step(stepName);
}

void MachineDay::browse(const std::string& url, int rating, int action, int userAction) {
    STEventData event = sampleEvent(url);
    event.urlRating = rating;
    event.action = action;
    event.userAction = userAction;
    machine.deliver(event);
}

void MachineDay::listen() {
    m_listener.reset();
    m_listener.emplace(machine.bus().socketPath());
    m_listener->listen();
    m_eventsSeen = 0;
}

// The daemon logs nothing this way by itself. This is its own code for it, on another process's connection.
void MachineDay::logAtTwoLevels(const std::string& what) {
    for (const auto& [level, word] :
         {std::pair{HVB::LOG_LEVEL_DEBUG, "debug"}, std::pair{HVB::LOG_LEVEL_INFORMATION, "information"}}) {
        VXHVBLogWrapper::sendLogMessage(HVB::LOG_TYPE_BROWSER_EVENT, level, "%s %s", word, what.c_str());
    }
}

bool MachineDay::isTracing() {
    const std::string files = "/proc/" + std::to_string(machine.daemon().pid()) + "/fd";
    for (const auto& file : std::filesystem::directory_iterator(files)) {
        std::error_code gone; // closed meanwhile
        if (std::filesystem::read_symlink(file.path(), gone).filename() == "STTrace.log") {
            return true;
        }
    }
    return false;
}

void MachineDay::enrol() {
    broker.emplace(machine.root());
    observer.emplace(broker->port());
    const json configuration = {
        {"broker", {{"host", "127.0.0.1"}, {"port", broker->port()}}}, {"site", "here"}, {"machine", "m1"}};
    std::ofstream(machine.root().hubConfigDirectory() + "/agent.json") << configuration.dump();
}

json MachineDay::next(const std::string& topic) {
    const auto message = observer->next(kTopic + topic);
    return message ? json::parse(message->payload) : json();
}

void MachineDay::expectProperties(bool isOn, bool complies) {
    json document = next("properties");
    EXPECT_EQ(document["full"], true);
    json& sections = document["sections"];
    EXPECT_TRUE(sections["General"]["Language"].is_string());
    sections["General"].erase("Language"); // the machine's
    EXPECT_EQ(sections, (json{{"CustomProps", {{"bComplianceStatus", complies ? "1" : "0"}}},
                              {"General",
                               {{"Hotfixes", ""},
                                {"LoadableCH", "2"},
                                {"LoadableFF", "1"},
                                {"LoadableIE", "1"},
                                {"LoadableSafari", "2"},
                                {"Patch", ""},
                                {"szInstallDir", "/usr/local/Orvanta/Sentrel"},
                                {"szProductVer", " 0.1.0.1"}}},
                              {"Options", {{"bSTEnabled", isOn ? "1" : "0"}}}}));
}

void MachineDay::expectInForce() {
    const json answer = answerOn(*observer, std::string(kTopic) + "policy/result", pushed);
    EXPECT_EQ(answer["fate"], "in force") << answer;
    EXPECT_EQ(answer["enforced"], true) << answer;
}

void MachineDay::push(const json& policy, bool isOn, const std::string& stepName) {
    observer->publish(std::string(kTopic) + "policy", policy.dump());
    pushed = policy.dump();
    expectInForce();
    expectProperties(isOn, true);
    step(stepName);
}

} // namespace testing_support
