// A file's new content in one step.
#pragma once

#include <string>
#include <string_view>

/// Gives the regular file at @p path the bytes @p content: a temporary file beside it takes its place when it is on the
/// disk. The mode stays, and the owner where this process may give files away. What an earlier call left behind when
/// it was killed does not matter, and stays.
/// @return false when that cannot be done, also where a symbolic link or no file is; the file is then as it was. Only
/// when the disk fails after the exchange is it the new one.
/// Threads: any; of two calls for one file the later exchange remains.
bool replaceFile(const std::string& path, std::string_view content);
