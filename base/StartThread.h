// How a library makes its threads.
#pragma once

#include <functional>
#include <thread>

namespace Sentrel {

/// Starts a thread with every signal blocked: a program's handlers run on its own threads, never on a library's.
/// @param name shown by ps and gdb; at most 15 characters.
/// @throws std::system_error when the system cannot make one.
std::thread startThread(const char* name, std::function<void()> body);

} // namespace Sentrel
