#include "platform/hvbagent/PolicyStore.h"

#include "base/FileReading.h"
#include "base/FileWriting.h"
#include "platform/hvbagent/AgentLimits.h"

#include <cerrno>
#include <system_error>

namespace HVBEnterprise::agent {

std::optional<std::string> PolicyStore::load() const {
    try {
        return Sentrel::readRegularFile(m_path, kMaxPolicyMessageBytes, Sentrel::FileAccess::OwnerWrites);
    } catch (const std::system_error& error) {
        if (error.code().value() == ENOENT) {
            return std::nullopt;
        }
        throw;
    }
}

void PolicyStore::save(std::string_view message) const {
    Sentrel::replaceFile(m_path, message, Sentrel::Replace::AsPrivate);
}

} // namespace HVBEnterprise::agent
