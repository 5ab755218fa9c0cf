// Laying the tables into the settings file, which the daemon itself never does.
#pragma once

#include <string>
#include <vector>

namespace Sentrel::ctl {

/// What was found and what was made.
/// Threads: a plain value. Owner: the verb.
struct SettingsTables {
    std::vector<std::string> present;
    std::vector<std::string> created;
};

/// Makes the tables that the settings file at @p path lacks, and the file when there is none. Nothing that is there is
/// touched. A process of root's becomes the owner of the directory for this, and for good: the file then belongs to
/// whom the daemon runs as, and a link planted by that user leads root nowhere.
/// @throws Failure when the file is no settings file, or cannot be read or written; nothing was changed then, unless
/// the disk failed in between.
SettingsTables makeSettingsTables(const std::string& path);

} // namespace Sentrel::ctl
