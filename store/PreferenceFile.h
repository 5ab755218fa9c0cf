// What all of the controller's operations share: opening the settings file, and what becomes of an exception.
#pragma once

#include "base/UserDBPath.h"
#include "daemon/Trace.h"
#include "hub/HubIds.h"
#include "store/DBSettings.h"
#include "store/PreferencesException.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

namespace Sentrel::detail {

constexpr std::size_t kPathBufferBytes = 128;

/// Writes a line to standard output. Text from outside is made printable by the caller.
inline void printLine(const std::string& text) {
    static_cast<void>(std::puts(text.c_str())); // nothing depends on who reads it
    static_cast<void>(std::fflush(stdout));
}

/// Opens the settings file for one operation. Its tables are taken as they are.
/// @param noPath, noHandle called when there is no path, and when the file cannot be opened.
/// @return null after one of them was called.
template <class NoPath, class NoHandle>
std::unique_ptr<CVXDBSettings> openSettings(NoPath noPath, NoHandle noHandle) {
    char path[kPathBufferBytes] = "";
    if (!NPlgHelper::GetUserDBPath(path, sizeof path)) {
        noPath();
        return nullptr;
    }
    auto settings = std::make_unique<CVXDBSettings>();
    if (!settings->Init(path, false)) {
        settings.reset();
        noHandle();
        return nullptr;
    }
    return settings;
}

/// A key of the general table is stored with its terminator.
inline unsigned long keyLength(const char* key) {
    return std::strlen(key) + 1;
}

/// Stores a number or a switch under @p key, as the four bytes of an int.
inline bool storeNumber(CVXDBSettings& settings, const char* key, int value) {
    return settings.Set(key, keyLength(key), &value, sizeof value, TABLE_GENERAL_SETTING);
}

/// Reads what storeNumber stored. @return false, with @p value unchanged, when there is no such row.
inline bool readNumber(CVXDBSettings& settings, const char* key, int& value) {
    return settings.Get(key, keyLength(key), &value, sizeof value, nullptr, TABLE_GENERAL_SETTING);
}

/// Runs a setter's work; an exception becomes its trace line and the setter's result.
template <class Work>
int guarded(const char* setter, Work work) {
    try {
        return work();
    } catch (const PreferencesException& exception) {
        ST_TRACE(configFlow, 1, L"STPreferenceController::%s - Caught Preferences exception %s\n", setter,
                 trace::printable(exception.what()).c_str());
        return ST_ERROR_PREFERENCES_EXCEPTION;
    } catch (...) {
        ST_TRACE(configFlow, 1, L"STPreferenceController::%s - Caught generic exception \n", setter);
        return ST_ERROR_GENERIC;
    }
}

} // namespace Sentrel::detail
