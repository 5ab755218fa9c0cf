// Secrets on their way in: typed without being shown, and encrypted for this site.
#pragma once

#include "apps/sentrelctl/Session.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace Sentrel::ctl {

/// A line from a terminal, which does not show it, or all of standard input when that is none. The newline at the end
/// is the editor's or the shell's and not part of it. @param prompt written to standard error on a terminal. When the
/// text is longer than @p limit, a little more than the limit is returned, so that the caller notices, or a Failure is
/// thrown.
std::string secretFromInput(Session& session, std::string_view prompt, std::size_t limit);

/// @p clear, encrypted with the key in @p keyFile; a process of root's reads the key as the owner of the file. What is
/// in @p clear is wiped.
/// @throws std::runtime_error that says what is wrong with the key or the text.
std::string encryptedWith(const std::string& keyFile, std::string& clear);

} // namespace Sentrel::ctl
