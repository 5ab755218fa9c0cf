#include "apps/sentrelctl/preferences/ListChange.h"

#include "apps/sentrelctl/terminal/Progress.h"

#include <fmt/format.h>

namespace Sentrel::ctl {
namespace {

void refuseDifference(const UrlList& wanted, const UrlList& now) {
    const UrlList missing = missingFrom(now, wanted);
    const UrlList unexpected = missingFrom(wanted, now);
    if (!missing.empty()) {
        throw Failure(
            ExitCode::Failed, "the list was not stored whole",
            fmt::format("{} of {} entries are missing", missing.size(), wanted.size()),
            fmt::format("the first is {}", missing.front().url),
            "Run 'sentrelctl settings init'; if no table is missing, the file may be locked or the disk full");
    }
    if (!unexpected.empty()) {
        throw Failure(ExitCode::Failed, "not what was asked for",
                      fmt::format("the list has {} more than that", unexpected.size()),
                      fmt::format("the first is {}", unexpected.front().url),
                      "Somebody else may have changed it at the same time; try again");
    }
}

} // namespace

UrlList replaceList(Session& session, PreferenceClient& client, const UrlList& wanted) {
    const Progress progress(session.err, fmt::format("Storing {}", countText(wanted)));
    client.writeList(wanted);
    UrlList now = client.read(ST_ALLOW_BLOCK_LIST).list;
    refuseDifference(wanted, now);
    return now;
}

} // namespace Sentrel::ctl
