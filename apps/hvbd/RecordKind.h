// Which reports are of like kind.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace HVB::hub {

/// A number for the site, the process and the action of the report in @p detail, the bytes of a detail text. Reports of
/// one number are of like kind; nobody can choose a report that has the number of another kind.
/// @return nothing when the text is no such report. Nothing it holds can do harm.
std::optional<std::int64_t> kindOf(std::string_view detail);

} // namespace HVB::hub
