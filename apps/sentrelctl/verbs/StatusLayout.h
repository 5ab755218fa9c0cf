// What the daemon says of itself, in words: the line of the dashboard, its health, the reports that wait, its versions;
// and what rates sites on this machine, which decides how much is blocked.
#pragma once

#include "apps/sentrelctl/terminal/Json.h"
#include "apps/sentrelctl/terminal/Output.h"
#include "browser/ratings/RatingLists.h"
#include "hub/Payloads.h"

#include <cstdint>
#include <optional>
#include <string>

namespace Sentrel::ctl {

/// The health of the daemon as hvbd found it, or why that is not known.
struct KnownHealth {
    std::string state; ///< "well", "unwell", "silent", "gone"; "unknown" with an error
    std::string since; ///< as hvbd tells it; empty when it is unknown
    std::string error; ///< why it is unknown; else empty
};

/// What became of the reports that the hub did not take at once, or why that is not known.
struct KnownReports {
    std::uint64_t waiting = 0; ///< for the hub
    std::uint64_t refused = 0; ///< ever, by a full spool or by the hub
    std::uint64_t damaged = 0; ///< ever, in the spool
    std::string error;         ///< why they are unknown; else empty
};

/// What is known beside the line of the dashboard.
struct KnownBesides {
    KnownHealth health;
    KnownReports reports;
    ratings::RatingStatus ratings; ///< lists of this machine
};

/// The one line of the dashboard in @p data. None when the daemon sent another.
std::optional<DashBoardDispalyContents> statusLine(const DashBoardData& data);

/// Rows of status, management, protection, the reason, the rating lists, the health and the reports.
std::string statusText(const DashBoardDispalyContents& line, const KnownBesides& known, const Palette& palette);

/// The same for programs.
Json statusJson(const DashBoardDispalyContents& line, const KnownBesides& known);

/// Rows of the version, the service pack and the hotfixes. A text that is missing or blank is "none".
std::string aboutText(const AboutBoxData& data, const Palette& palette);

/// The texts as they came; null for one that did not.
Json aboutJson(const AboutBoxData& data);

} // namespace Sentrel::ctl
