// JSON from outside, read strictly and within bounds.
#pragma once

#include "platform/hvbagent/DocumentError.h"

#include <nlohmann/json_fwd.hpp>

#include <cstddef>
#include <string_view>

namespace HVBEnterprise::agent {

struct JsonBounds {
    std::size_t bytes;
    std::size_t depth;  ///< of objects and arrays in one another
    std::size_t values; ///< of all kinds together
};

/// Reads a JSON text. Beyond the grammar it refuses a name that an object has twice, and U+0000 in a name or a text,
/// where the next reader's text would end.
/// @throws DocumentError when it is not well-formed, not UTF-8, or beyond @p bounds. The work until then is linear.
nlohmann::json readStrictJson(std::string_view text, const JsonBounds& bounds);

} // namespace HVBEnterprise::agent
