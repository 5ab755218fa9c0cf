// The proxy settings as they stand in the settings file.
#pragma once

#include "apps/sentrelctl/terminal/Json.h"
#include "apps/sentrelctl/terminal/Output.h"
#include "hub/Payloads.h"
#include "platform/settings/SettingsSnapshot.h"

#include <cstdint>
#include <optional>
#include <string>

namespace Sentrel::ctl {

/// Stands for "no host", "no user" or "no password": the daemon stores no empty text, and would leave the fields behind
/// it as they were.
inline constexpr const char* kNoProxyText = "0";

/// The fields that are stored; a text that stands for none is none.
struct StoredProxy {
    std::optional<std::string> host;
    std::optional<std::string> user;
    std::optional<std::string> password;
    std::optional<std::int32_t> port;
    std::optional<std::int32_t> type;
    std::optional<std::int32_t> httpAuth;

    bool operator==(const StoredProxy&) const = default;
};

/// Reads them from the settings file at @p path. Nothing is changed, and no daemon is needed.
/// @throws Failure when there is no such file, or it cannot be read.
StoredProxy readStoredProxy(const std::string& path);

/// The same as the hub serves it. A password that it does not show is there without its text.
StoredProxy proxyIn(const settings::SettingsSnapshot& stored);

/// What the file holds when @p settings are stored whole.
StoredProxy storedFormOf(const proxySettings& settings);

/// A row for each field. Of the password only whether there is one.
std::string proxyText(const StoredProxy& proxy, const Palette& palette);

/// The same for programs.
Json proxyJson(const StoredProxy& proxy);

} // namespace Sentrel::ctl
