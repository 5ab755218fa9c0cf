// What an exception says, in a form that an error reply can carry.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace HVB::detail {

/// The text of the exception being handled: its message where its type has one that is known here. Bounded, and
/// ASCII only, since the bus takes no message that is not UTF-8. Requires that an exception is being handled.
std::string currentExceptionText() noexcept;

/// The code of the exception being handled: an HVBException's or a VXException's own, 0 for any other type. Requires
/// that an exception is being handled.
std::int32_t currentExceptionCode() noexcept;

/// Writes a line, what happened and why, to the system log when the flow of hub messages is traced. Takes no memory of
/// the heap: it is called where an exception is being handled, which may be that there is none.
void traceComm(std::string_view what, std::string_view why = {}) noexcept;

} // namespace HVB::detail
