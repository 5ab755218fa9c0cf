// Which records of the log somebody wants to see.
#pragma once

#include "apps/sentrelctl/reports/Report.h"

#include <cstdint>
#include <optional>
#include <string>

namespace Sentrel::ctl {

/// What a record must have to be wanted; what is not set does not count. A record that cannot be decoded has neither
/// URL nor user. Threads: a plain value.
struct LogFilter {
    std::optional<std::int64_t> since; ///< microseconds since the epoch: stored then or later
    std::optional<std::int64_t> until; ///< stored before
    std::string url;                   ///< the URL holds this, capitals and small letters alike
    std::string user;                  ///< whose event it was: user, user@host or host\user

    bool isEmpty() const { return !since && !until && url.empty() && user.empty(); }
    bool wants(const StoredRecord& record) const;
};

} // namespace Sentrel::ctl
