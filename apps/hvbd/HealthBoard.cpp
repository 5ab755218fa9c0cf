#include "apps/hvbd/HealthBoard.h"

#include "platform/hvbhelpers/HubProtocol.h"

#include <fmt/chrono.h>
#include <syslog.h>

#include <array>

namespace HVB::hub {
namespace {

struct HealthTexts {
    const char* word;
    int priority;
    const char* sentence;
};

const HealthTexts& textsOf(Health health) {
    static constexpr std::array<HealthTexts, 4> texts{{
        {"well", LOG_INFO, "is well"},
        {"unwell", LOG_WARNING, "says that it is not well"},
        {"silent", LOG_WARNING, "does not answer its health check"},
        {"gone", LOG_WARNING, "is gone from the bus"},
    }};
    return texts.at(static_cast<std::size_t>(health));
}

std::string changeLine(int moduleId, const std::optional<Health>& before, Health now, const std::string& detail) {
    std::string line = fmt::format("module {} {}", moduleId, textsOf(now).sentence);
    if (before == Health::Gone) {
        line = fmt::format("module {} is back and {}", moduleId, textsOf(now).sentence);
    } else if (before && now == Health::Well) {
        line += " again";
    }
    return detail.empty() ? line : line + ": " + detail;
}

} // namespace

const char* healthWord(Health health) {
    return textsOf(health).word;
}

std::optional<HealthNews> HealthBoard::note(int moduleId, Health health, const std::string& detail, Time now) {
    const auto known = m_entries.find(moduleId);
    if (known != m_entries.end() && known->second.health == health) {
        return std::nullopt;
    }
    const auto before = known != m_entries.end() ? std::optional(known->second.health) : std::nullopt;
    m_entries[moduleId] = {health, now};
    return HealthNews{textsOf(health).priority, changeLine(moduleId, before, health, detail)};
}

std::vector<HealthNews> HealthBoard::notePresent(const std::set<int>& moduleIds, Time now) {
    std::vector<HealthNews> news;
    for (const auto& [moduleId, entry] : m_entries) {
        if (moduleIds.count(moduleId) > 0) {
            continue;
        }
        if (auto gone = note(moduleId, Health::Gone, "", now)) {
            news.push_back(std::move(*gone));
        }
    }
    return news;
}

std::optional<int> moduleIdOf(const std::string& busName) {
    const auto id = bus::memberId(busName, std::string(bus::kModuleInterface));
    // Compared whole: "Module07" is not module 7.
    return id && bus::moduleName(*id) == busName ? id : std::nullopt;
}

std::string isoTime(HealthBoard::Time time) {
    return fmt::format("{:%Y-%m-%dT%H:%M:%SZ}", fmt::gmtime(std::chrono::system_clock::to_time_t(time)));
}

} // namespace HVB::hub
