#include "apps/hvbd/SilenceMarks.h"

#include "apps/hvbd/HvbdLimits.h"
#include "base/FileWriting.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace HVB::hub {

SilenceMarks::SilenceMarks(std::string directory, const SystemLog& log)
    : m_directory(std::move(directory)), m_log(log) {}

void SilenceMarks::note(int moduleId, Health health) {
    if (m_directory.empty()) {
        return;
    }
    const std::string path = fmt::format("{}/module-{}", m_directory, moduleId);
    if (health != Health::Silent) {
        m_missed.erase(moduleId);
        remove(path);
    } else if (++m_missed[moduleId] == kMissedForMark) {
        m_missed.erase(moduleId);
        leave(path, moduleId);
    }
}

void SilenceMarks::leave(const std::string& path, int moduleId) const {
    try {
        Sentrel::replaceFile(path, "", Sentrel::Replace::AsPrivate);
        m_log.write(LOG_WARNING, fmt::format("module {} has missed {} health checks and is marked for a restart",
                                             moduleId, kMissedForMark));
    } catch (const std::system_error& error) {
        m_log.write(LOG_WARNING, fmt::format("module {} cannot be marked for a restart: {}", moduleId, error.what()));
    }
}

void SilenceMarks::remove(const std::string& path) const {
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
        m_log.write(LOG_WARNING,
                    fmt::format("the mark {} cannot be removed: {}", path, std::system_category().message(errno)));
    }
}

} // namespace HVB::hub
