// sentrelctl log: the stored reports.
//
// A listing ends with the newest record there was when it began, so that a busy hub cannot keep it going for ever.
// Following subscribes before the first read and reads on behind the last record shown: nothing falls between.
//
// The hub gives records by their ids alone. So what filters ask for is looked for here, record by record. Only where
// --since begins is found by halves, with a day's allowance for a clock that was set back.
#include "apps/sentrelctl/Verbs.h"
#include "apps/sentrelctl/clients/HubClient.h"
#include "apps/sentrelctl/reports/LogFilter.h"
#include "apps/sentrelctl/reports/LogPages.h"
#include "apps/sentrelctl/reports/ReportLayout.h"
#include "apps/sentrelctl/reports/ReportTable.h"
#include "apps/sentrelctl/terminal/Failure.h"
#include "apps/sentrelctl/terminal/Progress.h"
#include "apps/sentrelctl/terminal/StopSignals.h"
#include "apps/sentrelctl/terminal/Times.h"
#include "base/Paths.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <memory>

namespace Sentrel::ctl {
namespace {

constexpr std::uint32_t kPageRecords = 200; // a page is held in memory whole
constexpr std::uint32_t kDefaultLimit = 20; // without a filter

constexpr const char* kLogExample = "  sentrelctl log --limit 5\n"
                                    "  sentrelctl log --table --since yesterday --user anna\n"
                                    "  sentrelctl log --follow --json=short";

struct LogOptions {
    std::uint32_t limit = kDefaultLimit;
    bool hasLimit = false;
    bool follow = false;
    bool isTable = false;
    std::uint64_t id = 0; // 0: none
    std::string since;
    std::string until;
    LogFilter filter;
    double timeout = kDefaultTimeout;
};

/// The log as one run of the verb reads and shows it.
class Listing {
public:
    Listing(Session& session, HubClient& hub, const LogOptions& options)
        : m_session(session), m_hub(hub), m_options(options), m_table(session.palette, session.out.columns()) {}

    /// Shows the newest records. @return the id of the last there is, 0 when there is none.
    std::uint64_t showNewest();
    /// Shows the record of the id that was asked for. @throws Failure when there is none.
    void showOne();
    /// Shows each new record behind @p shown until the user ends it or nobody reads any more.
    void follow(std::uint64_t shown, const StopSignals& stop);

private:
    std::uint64_t idOfNewest();
    std::uint64_t showUpTo(std::uint64_t after, std::uint64_t last);
    void show(const std::vector<StoredRecord>& records);
    ReadPage reader() {
        return [this](std::uint64_t after) { return m_hub.readLog(after, kPageRecords, false); };
    }

    Session& m_session;
    HubClient& m_hub;
    const LogOptions& m_options;
    ReportTable m_table;
};

void Listing::show(const std::vector<StoredRecord>& records) {
    if (m_options.isTable) {
        m_session.out.write(m_table.text(records));
        return;
    }
    for (const StoredRecord& record : records) {
        const DecodedReport decoded = decodeReport(record);
        m_session.out.write(m_session.json == JsonMode::Off ? reportText(record, decoded, m_session.palette)
                                                            : jsonText(reportJson(record, decoded), m_session.json));
    }
}

/// Shows the wanted ones of the records behind @p after up to and including @p last. @return the last one that was
/// looked at.
std::uint64_t Listing::showUpTo(std::uint64_t after, std::uint64_t last) {
    return forEachPage(reader(), after, last, [this](std::vector<StoredRecord> page) {
        std::erase_if(page, [this](const StoredRecord& record) { return !m_options.filter.wants(record); });
        show(page);
    });
}

std::uint64_t Listing::idOfNewest() {
    const std::vector<StoredRecord> newest = m_hub.readLog(0, 1, true);
    return newest.empty() ? 0 : newest.back().id;
}

std::uint64_t Listing::showNewest() {
    const std::uint64_t last = idOfNewest();
    const bool isUnlimited = m_options.limit == 0 || (!m_options.hasLimit && !m_options.filter.isEmpty());
    std::uint64_t first = 0;
    if (m_options.filter.since) {
        first = beginOfTime([this](std::uint64_t after) { return m_hub.readLog(after, 1, false); }, last,
                            *m_options.filter.since);
    }
    if (!isUnlimited) {
        const Progress searching(m_session.err, "Searching the log");
        first = beginOfNewest(reader(), first, last, m_options.limit,
                              [this](const StoredRecord& record) { return m_options.filter.wants(record); });
    }
    return showUpTo(first, last);
}

void Listing::showOne() {
    const std::vector<StoredRecord> found = m_hub.readLog(m_options.id - 1, 1, false);
    if (found.empty() || found.front().id != m_options.id) {
        throw Failure(ExitCode::Failed, "cannot show the record", std::to_string(m_options.id), "there is none",
                      "It was never stored, or the hub has made room since, or made one of several like it");
    }
    show(found);
}

void Listing::follow(std::uint64_t shown, const StopSignals& stop) {
    while (m_hub.waitForRecord(stop.fd(), m_session.out.fd()) == HubClient::Wake::Record) {
        if (const std::uint64_t last = idOfNewest(); last != 0) {
            // Ids below those that were shown: the hub has begun a new store.
            shown = showUpTo(last < shown ? 0 : shown, last);
        }
    }
}

std::optional<std::int64_t> timeOf(const char* option, const std::string& text) {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto meant = timeMeant(text, std::chrono::duration_cast<std::chrono::microseconds>(now).count());
    if (!text.empty() && !meant) {
        throw Failure(ExitCode::BadUsage, "bad usage", option, fmt::format("'{}' is no time", text),
                      "Give one as '2023-11-14 22:13', 22:13, today, yesterday, or 30min, 2h, 3d for so long ago");
    }
    return meant;
}

void refuseContradictions(const Session& session, const LogOptions& options) {
    if (options.isTable && session.json != JsonMode::Off) {
        throw Failure(ExitCode::BadUsage, "bad usage", "", "a table is no JSON", "Leave out --table or --json");
    }
    if (options.follow && (options.id != 0 || !options.until.empty())) {
        throw Failure(ExitCode::BadUsage, "bad usage", "", "--follow goes on for ever, and --until and --id end",
                      "Leave out one of them");
    }
}

void log(Session& session, LogOptions options) {
    refuseContradictions(session, options);
    options.filter.since = timeOf("--since", options.since);
    options.filter.until = timeOf("--until", options.until);
    try {
        HubClient hub(paths::hubSocket(), options.timeout);
        Listing listing(session, hub, options);
        if (options.id != 0) {
            listing.showOne();
        } else if (!options.follow) {
            listing.showNewest();
        } else {
            const StopSignals stop;
            hub.subscribeToLog();
            listing.follow(listing.showNewest(), stop);
        }
    } catch (const HVB::HVBException& error) {
        throw hubFailure(error, "cannot read the log");
    }
}

Work describeLog(OptionSet& set, Session& session) {
    const auto options = std::make_shared<LogOptions>();
    Option limit = set.add("-n,--limit", options->limit, "Only the newest N (default 20, with a filter all); 0: all");
    limit.shownAs("N");
    set.addFlag("-f,--follow", options->follow, "Go on with each new report until Ctrl-C");
    set.addFlag("-t,--table", options->isTable, "One line a report");
    Option since = set.add("--since", options->since, "Stored then or later: '2023-11-14 22:13', 22:13, yesterday, 2h");
    since.shownAs("TIME");
    Option until = set.add("--until", options->until, "Stored before");
    until.shownAs("TIME");
    Option url = set.add("--url", options->filter.url, "The URL holds TEXT, in capitals or not").shownAs("TEXT");
    Option user = set.add("--user", options->filter.user, "Of this user: NAME or NAME@HOST").shownAs("NAME");
    Option id = set.add("--id", options->id, "The one record with this number").shownAs("N").between(1, INT64_MAX);
    for (const Option* other : {&limit, &since, &until, &url, &user}) {
        id.excludes(*other);
    }
    set.addTimeout(options->timeout);
    return [options, limit, &session] {
        options->hasLimit = limit.isGiven();
        log(session, *options);
    };
}

} // namespace

Verbs logVerbs() {
    static constexpr std::array<Verb, 1> verbs{{
        {"", "log", "Shows the stored reports, the newest last.", kLogExample, describeLog},
    }};
    return verbs;
}

} // namespace Sentrel::ctl
