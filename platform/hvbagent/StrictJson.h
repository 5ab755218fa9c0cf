// JSON from outside, read strictly and within bounds.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>

namespace HVBEnterprise::agent {

/// What is wrong with a document, and where: a line and a column, or a JSON pointer. Printable, and bounded.
class DocumentError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
    /// @param place a JSON pointer; "" is the document itself.
    DocumentError(const std::string& place, const std::string& what);
};

struct JsonBounds {
    std::size_t bytes;
    std::size_t depth;  ///< of objects and arrays in one another
    std::size_t values; ///< of all kinds together
};

/// Reads a JSON text. Beyond the grammar it refuses a name that an object has twice, and U+0000 in a name or a text,
/// where the next reader's text would end.
/// @throws DocumentError when it is not well-formed, not UTF-8, or beyond @p bounds. The work until then is linear.
nlohmann::json readStrictJson(std::string_view text, const JsonBounds& bounds);

/// The place of a member: @p parent as a JSON pointer, and its name.
std::string memberPlace(const std::string& parent, std::string_view name);

} // namespace HVBEnterprise::agent
