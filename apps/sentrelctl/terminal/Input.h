// What a verb is given to read.
#pragma once

#include <cstddef>
#include <string>

/// Free functions. Threads: any. Owner: none.
namespace Sentrel::ctl {

/// Everything in the file @p name, or on @p inputFd when the name is "-".
/// @throws Failure when it cannot be read, with NoAccess when this user may not, and with BadUsage when it holds more
/// than @p limit bytes.
std::string contentOf(const std::string& name, int inputFd, std::size_t limit);

} // namespace Sentrel::ctl
