// What a mistyped word may have been meant for.
#pragma once

#include <optional>
#include <string_view>
#include <vector>

namespace Sentrel::ctl {

/// Which of @p candidates a mistyped @p word may have been meant for. None when none is near. The word may be very
/// long: one that cannot be near is not compared.
std::optional<std::string_view> nearest(std::string_view word, const std::vector<std::string_view>& candidates);

} // namespace Sentrel::ctl
