// Compiling the kept lists into the database.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Sentrel::ratings {

/// What came of it. Threads: a plain value. Owner: the holder.
struct DatabaseSize {
    std::uint64_t names = 0; ///< that have a record
    std::uint64_t bytes = 0;
};

/// Compiles the lists at @p lists, in the order of their names, and puts the database at @p path in one step. It takes
/// memory of 16 bytes a name.
/// @throws UnusableList when a list is damaged or they are too much together, std::system_error when the system
/// refuses.
DatabaseSize buildDatabase(const std::vector<std::string>& lists, const std::string& path);

} // namespace Sentrel::ratings
