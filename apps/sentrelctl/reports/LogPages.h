// Going through the hub's log, which gives its records page by page and forwards only.
#pragma once

#include "apps/sentrelctl/reports/Report.h"

#include <cstdint>
#include <functional>
#include <vector>

namespace Sentrel::ctl {

/// Gives some records behind an id in ascending order: at least one, when there is one.
using ReadPage = std::function<std::vector<StoredRecord>(std::uint64_t after)>;

/// Takes a page of records.
using TakePage = std::function<void(const std::vector<StoredRecord>& page)>;

/// Hands over the records behind @p after up to and including @p last, page by page.
/// @return the last id that was looked at. @throws what the two throw.
std::uint64_t forEachPage(const ReadPage& read, std::uint64_t after, std::uint64_t last, const TakePage& take);

/// Behind which id the newest @p count records from @p after up to @p last begin, of those that @p isWanted takes; @p
/// after when there are fewer. Ids may have gaps, where the hub has dropped records or has made several one. Each
/// record is read once.
std::uint64_t beginOfNewest(const ReadPage& read, std::uint64_t after, std::uint64_t last, std::uint64_t count,
                            const std::function<bool(const StoredRecord&)>& isWanted);

/// Behind which id all records up to @p last stand that were stored at @p time, in microseconds, or later; some earlier
/// ones may stand there too. It finds them by few readings, so @p read should give one record each time. It misses none
/// unless the hub's clock was set back by more than a day.
std::uint64_t beginOfTime(const ReadPage& read, std::uint64_t last, std::int64_t time);

} // namespace Sentrel::ctl
