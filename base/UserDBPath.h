// Where the settings file is, as the browser side and the store ask for it.
#pragma once

namespace NPlgHelper {

/// Copies the settings file's path with its terminator. Requires a buffer of 128 bytes; @p size is not looked at.
/// Always true. @throws std::length_error for an install root that makes the path 128 bytes long or more.
/// Threads: any.
bool GetUserDBPath(char* buffer, unsigned long size);

} // namespace NPlgHelper
