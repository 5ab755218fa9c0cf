// How the operations on files of this folder fail.
#pragma once

#include <string>
#include <system_error>

namespace Sentrel {

/// @throws std::system_error of the errno @p error that says "<name>: <what>".
[[noreturn]] inline void failFile(int error, const std::string& name, const char* what) {
    throw std::system_error(error, std::system_category(), name + ": " + what);
}

} // namespace Sentrel
