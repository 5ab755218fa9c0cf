// sentrelctl log: the stored reports.
//
// A listing ends with the newest record there was when it began, so that a busy hub cannot keep it going for ever.
// Following subscribes before the first read and reads on behind the last record shown: nothing falls between.
#include "apps/sentrelctl/Verbs.h"
#include "apps/sentrelctl/clients/HubClient.h"
#include "apps/sentrelctl/reports/ReportLayout.h"
#include "apps/sentrelctl/terminal/Failure.h"
#include "apps/sentrelctl/terminal/StopSignals.h"
#include "base/Paths.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <memory>

namespace Sentrel::ctl {
namespace {

constexpr std::uint32_t kPageRecords = 200; // a page is held in memory whole

constexpr const char* kLogExample = "  sentrelctl log --limit 5\n"
                                    "  sentrelctl log --follow --json=short";

struct LogOptions {
    std::uint32_t limit = 20;
    bool follow = false;
    double timeout = kDefaultTimeout;
};

void show(Session& session, const StoredRecord& record) {
    const DecodedReport decoded = decodeReport(record);
    session.out.write(session.json == JsonMode::Off ? reportText(record, decoded, session.palette)
                                                    : jsonText(reportJson(record, decoded), session.json));
}

/// Shows the records behind @p after up to and including @p last. @return the last one that was looked at.
std::uint64_t showUpTo(Session& session, HubClient& hub, std::uint64_t after, std::uint64_t last) {
    while (after < last) {
        const std::vector<StoredRecord> page = hub.readLog(after, kPageRecords, false);
        if (page.empty()) {
            return last;
        }
        for (const StoredRecord& record : page) {
            if (record.id <= after || record.id > last) {
                return last;
            }
            show(session, record);
            after = record.id;
        }
    }
    return after;
}

/// Shows the newest records. @return the id of the last, 0 when there is none.
std::uint64_t list(Session& session, HubClient& hub, std::uint32_t limit) {
    const std::vector<StoredRecord> newest = hub.readLog(0, 1, true);
    if (newest.empty()) {
        return 0;
    }
    // The hub numbers its records without gaps, so the distance of two ids is a number of records.
    const std::uint64_t last = newest.back().id;
    const std::uint64_t first = limit == 0 || limit >= last ? 0 : last - limit;
    return showUpTo(session, hub, first, last);
}

void follow(Session& session, HubClient& hub, std::uint64_t shown, const StopSignals& stop) {
    while (hub.waitForRecord(stop.fd(), session.out.fd()) == HubClient::Wake::Record) {
        const std::vector<StoredRecord> newest = hub.readLog(0, 1, true);
        if (newest.empty()) {
            continue;
        }
        // Ids below those that were shown: the hub has begun a new store.
        const std::uint64_t last = newest.back().id;
        shown = showUpTo(session, hub, last < shown ? 0 : shown, last);
    }
}

void log(Session& session, const LogOptions& options) {
    const std::string path = paths::hubSocket();
    try {
        HubClient hub(path, options.timeout);
        if (!options.follow) {
            list(session, hub, options.limit);
            return;
        }
        const StopSignals stop;
        hub.subscribeToLog();
        follow(session, hub, list(session, hub, options.limit), stop);
    } catch (const HVB::HVBException& error) {
        throw hubFailure(error, "cannot read the log");
    }
}

Work describeLog(OptionSet& set, Session& session) {
    const auto options = std::make_shared<LogOptions>();
    set.add("-n,--limit", options->limit, "Only the newest N (default 20); 0: all").shownAs("N");
    set.addFlag("-f,--follow", options->follow, "Go on with each new report until Ctrl-C");
    set.addTimeout(options->timeout);
    return [options, &session] { log(session, *options); };
}

} // namespace

Verbs logVerbs() {
    static constexpr std::array<Verb, 1> verbs{{
        {"", "log", "Shows the stored reports, the newest last.", kLogExample, describeLog},
    }};
    return verbs;
}

} // namespace Sentrel::ctl
