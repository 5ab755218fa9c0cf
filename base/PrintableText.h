// Text from outside, made fit to be logged and shown: no forged lines, no terminal control, nothing that a stream's
// conversion refuses.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// Free functions without state. Threads: any. Owner: none.
namespace Sentrel::text {

/// @p text as valid UTF-8: a byte that does not belong to it becomes \xNN. Everything else stays, control characters
/// included, so this is for writers that escape those themselves (JSON).
std::string validUtf8(std::string_view text);

/// @p text as valid UTF-8 on one line: as validUtf8, and control characters become \xNN, other characters that steer
/// how text is shown (C1, direction marks, line separators, invisible ones) \u{NNNN}. The backslash stands for itself,
/// so the result is for reading and not for decoding.
std::string printable(std::string_view text);

/// The bytes of a wide text. Reports widen bytes by their sign, so 0xFFFFFF80 to 0xFFFFFFFF stand for the bytes 0x80 to
/// 0xFF and are turned back into them. Other values are characters and become UTF-8; those that UTF-8 cannot encode
/// become \u{NNNNNNNN}. The result need not be valid UTF-8: pass it through one of the functions above.
std::string narrowed(std::wstring_view text);

/// @p text, or as much of it as fits into @p maxBytes with "…" behind it. A character is never cut in two.
/// Requires that text is valid UTF-8.
std::string shortened(std::string text, std::size_t maxBytes);

} // namespace Sentrel::text
