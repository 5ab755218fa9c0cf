// What the checks of the settings file share.
#pragma once

#include "apps/sentrelctl/doctor/Doctor.h"

#include <string>

namespace Sentrel::ctl {

/// Throws CannotSee unless the file at @p path may and can be opened.
void needSettingsFile(const std::string& path);
/// Throws CannotSee unless it also has all of its tables: another check tells what is wrong otherwise.
void needSettingsTables(const std::string& path);

/// Whether every row holds what the daemon reads.
Diagnosis settingsValues(double timeout);

} // namespace Sentrel::ctl
