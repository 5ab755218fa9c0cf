#include "apps/sentrelctl/reports/LogPages.h"

#include <algorithm>

namespace Sentrel::ctl {

std::uint64_t forEachPage(const ReadPage& read, std::uint64_t after, std::uint64_t last, const TakePage& take) {
    while (after < last) {
        std::vector<StoredRecord> page = read(after);
        // Beyond the end, or ids that fall: the hub has begun a new store meanwhile.
        const auto end = std::find_if(page.begin(), page.end(), [&](const StoredRecord& record) {
            return record.id <= after || record.id > last;
        });
        const bool isEnd = page.empty() || end != page.end();
        page.erase(end, page.end());
        after = isEnd ? last : page.back().id;
        take(page);
    }
    return after;
}

// The hub cannot be asked for what stands in front of an id. So stretches of ids are read, each in front of the one
// before and twice as long, until enough wanted records were seen.
std::uint64_t beginOfNewest(const ReadPage& read, std::uint64_t after, std::uint64_t last, std::uint64_t count,
                            const std::function<bool(const StoredRecord&)>& isWanted) {
    constexpr std::uint64_t shortest = 64;
    std::uint64_t missing = count;
    std::uint64_t length = std::max(count, shortest);
    for (std::uint64_t end = last; end > after && missing > 0; length *= 2) {
        const std::uint64_t begin = end - after > length ? end - length : after;
        std::vector<std::uint64_t> wanted;
        forEachPage(read, begin, end, [&](const std::vector<StoredRecord>& page) {
            for (const StoredRecord& record : page) {
                if (isWanted(record)) {
                    wanted.push_back(record.id);
                }
            }
        });
        if (wanted.size() >= missing) {
            return wanted[wanted.size() - missing] - 1;
        }
        missing -= wanted.size();
        end = begin;
    }
    return after;
}

// By halves, as if times rose with the ids. They do unless the clock is set back. What is looked for is a time a day
// earlier: a record of the time asked for that stood in front of the place found would have one behind it that is more
// than a day older.
std::uint64_t beginOfTime(const ReadPage& read, std::uint64_t last, std::int64_t time) {
    constexpr std::int64_t day = std::int64_t{24} * 60 * 60 * 1000000;
    const std::int64_t sought = time < INT64_MIN + day ? INT64_MIN : time - day;
    std::uint64_t begin = 0;
    for (std::uint64_t end = last; begin < end;) {
        const std::uint64_t middle = begin + (end - begin) / 2;
        const std::vector<StoredRecord> page = read(middle);
        if (page.empty() || page.front().id > last || page.front().storedAt >= sought) {
            end = middle;
        } else {
            begin = std::max(page.front().id, middle + 1);
        }
    }
    return begin;
}

} // namespace Sentrel::ctl
