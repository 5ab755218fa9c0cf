// The saved policy.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace HVBEnterprise::agent {

/// The file with the policy message in force, as it came: a signature is checked again whenever it is read.
/// Threads: any; one writer at a time. Owner: a value.
class PolicyStore {
public:
    explicit PolicyStore(std::string path) : m_path(std::move(path)) {}

    const std::string& path() const { return m_path; }

    /// The message, or nothing when none was saved. @throws std::system_error when it cannot be read.
    std::optional<std::string> load() const;

    /// Saves the message whole. @throws std::system_error; what was saved before stays.
    void save(std::string_view message) const;

private:
    std::string m_path;
};

} // namespace HVBEnterprise::agent
