// What people read when the log store cannot do its work.
#pragma once

#include "base/Database.h"

#include <string>

namespace HVB::hub {

/// What was to be done when the file or its layout cannot be had.
inline constexpr const char* kOpeningLogStore = "cannot open the log store";

/// A sentence on why @p path cannot be used, and one on what to do about it. The same text for the same trouble.
std::string explain(const std::string& path, const Sentrel::DatabaseError& error);
/// The same for a file that could not be opened or made. @param error an errno value.
std::string explainFile(const std::string& path, int error);
std::string explainNewer(const std::string& path, std::int64_t version);
std::string explainForeign(const std::string& path);
std::string explainReplaced(const std::string& path);
std::string explainPinned(const std::string& path);
std::string explainOrphans(const std::string& path, int kept);

} // namespace HVB::hub
