// How the broker makes its threads.
#pragma once

#include <functional>
#include <thread>

namespace HVB::detail {

/// Starts a thread with every signal blocked: a module's handlers run on the module's own threads, never on these.
/// @param name shown by ps and gdb; at most 15 characters.
/// @throws std::system_error when there is no thread to be had.
std::thread startThread(const char* name, std::function<void()> body);

} // namespace HVB::detail
