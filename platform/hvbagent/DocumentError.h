// What is wrong with a document, and where.
#pragma once

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

/// The place of a member: @p parent as a JSON pointer, and its name.
std::string memberPlace(const std::string& parent, std::string_view name);

} // namespace HVBEnterprise::agent
