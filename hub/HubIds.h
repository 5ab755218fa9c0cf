// Every number that the modules on the hub share. A value here is a wire format: it never changes, it is only added to.
#pragma once

#include <array>
#include <cstdint>

namespace HVB {

/// Modules known to this project. The other ids belong to the hub's other modules.
enum ModuleId : std::int32_t {
    MODULE_HUB = 1,     ///< hvbd
    MODULE_SENTREL = 7, ///< sentreld
};

/// Kinds of log record. Only these three numbers are in use here; the names say what writes them.
enum typeOfLog_enum : std::int32_t {
    LOG_TYPE_HISTORY_EVENT = 3,
    LOG_TYPE_RECENT_EVENT = 7,
    LOG_TYPE_BROWSER_EVENT = 8,
};

/// Severity of a log line, in the order of the levels of syslog(3) that they map to.
enum hv_logLevel_enum : std::int32_t {
    LOG_LEVEL_ERROR = 0,
    LOG_LEVEL_WARNING = 1,
    LOG_LEVEL_INFORMATION = 2,
    LOG_LEVEL_DEBUG = 3,
};

} // namespace HVB

namespace Sentrel {

enum CommandId : std::int32_t {
    CMD_DASH_BOARD_REQUEST = 1003,
    CMD_ABOUT_BOX_REQUEST = 1004,
    CMD_SET_DEBUG_LOGGING_STATUS = 1021,
    CMD_GET_DEBUG_LOGGING_STATUS = 1022,
    CMD_RELOAD_HVB = 1023, ///< the one command that module 1 receives
    // In this family the command that sets is the lower one of each pair.
    ST_SET_PREFS = 100000,
    ST_GET_PREFS = 100001,
    ST_SET_PREFS_INDIVIDUAL = 100002,
    ST_GET_PREFS_INDIVIDUAL = 100003,
    ST_RESET_PREFS = 100004,
};

/// Who may send a command. The hub's bus enforces it: there is one bus member for each command.
enum class CommandAccess {
    Everyone,       ///< every local user: it only reads
    Administrators, ///< root and the administrators' group
};

/// What the hub knows of a command: the single source of the bus policy and of the clients' help.
struct CommandInfo {
    CommandId id;
    const char* name;
    HVB::ModuleId receiver;
    CommandAccess access;
    /// Whether the receiver runs them one after the other: each replaces what the others replace, row by row.
    bool isInTurn = false;
};

inline constexpr std::array<CommandInfo, 10> kCommands{{
    {CMD_DASH_BOARD_REQUEST, "CMD_DASH_BOARD_REQUEST", HVB::MODULE_SENTREL, CommandAccess::Everyone},
    {CMD_ABOUT_BOX_REQUEST, "CMD_ABOUT_BOX_REQUEST", HVB::MODULE_SENTREL, CommandAccess::Everyone},
    {CMD_SET_DEBUG_LOGGING_STATUS, "CMD_SET_DEBUG_LOGGING_STATUS", HVB::MODULE_SENTREL, CommandAccess::Administrators},
    {CMD_GET_DEBUG_LOGGING_STATUS, "CMD_GET_DEBUG_LOGGING_STATUS", HVB::MODULE_SENTREL, CommandAccess::Everyone},
    {CMD_RELOAD_HVB, "CMD_RELOAD_HVB", HVB::MODULE_HUB, CommandAccess::Administrators},
    {ST_SET_PREFS, "ST_SET_PREFS", HVB::MODULE_SENTREL, CommandAccess::Administrators, true},
    {ST_GET_PREFS, "ST_GET_PREFS", HVB::MODULE_SENTREL, CommandAccess::Everyone},
    {ST_SET_PREFS_INDIVIDUAL, "ST_SET_PREFS_INDIVIDUAL", HVB::MODULE_SENTREL, CommandAccess::Administrators, true},
    {ST_GET_PREFS_INDIVIDUAL, "ST_GET_PREFS_INDIVIDUAL", HVB::MODULE_SENTREL, CommandAccess::Everyone},
    {ST_RESET_PREFS, "ST_RESET_PREFS", HVB::MODULE_SENTREL, CommandAccess::Administrators, true},
}};

/// Event ids are a space of their own: 1003 is a command and also an event.
enum EventId : std::int32_t {
    EVT_DASHBOARD_STATUS_CHANGE = 1002, ///< published by module 7, no payload
    EVT_PREFERENCES_CHANGE = 1003,      ///< published by module 7, no payload
    EVT_DEBUG_LOG_CHANGE = 1005,        ///< subscribed: std::map<int, bool>, module id to debug logging
    EVT_PROXY_SETTINGS_CHANGE = 1007,   ///< subscribed: std::vector<proxySettings>
};

/// Result of the preference setters and of the preference commands.
enum STError : std::int32_t {
    ST_ERROR_NONE = 180000,
    ST_ERROR_GENERIC = 180001,               ///< an unknown exception was caught
    ST_ERROR_DATABASE = 180003,              ///< no handle or path of the settings file, or the update failed
    ST_ERROR_INVALID_PREFERENCE = 180004,    ///< unknown type, or the individual flag not set
    ST_ERROR_PREFERENCES_EXCEPTION = 180006, ///< a setter caught a PreferencesException
};

/// Selects one preference, or all of them.
enum STPrefType : std::int32_t {
    ST_ENABLE = 0,
    ST_SAFE_SEARCH = 1,
    ST_RED_SITE_ACTION = 2,
    ST_YELLOW_SITE_ACTION = 3,
    ST_UNRATED_SITE_ACTION = 4,
    ST_UNVERIFIED_ACTION = 5,
    ST_CATEGORY_BLOCKING = 6,
    ST_ALLOW_BLOCK_LIST = 7,
    ST_CATEGORY_BLOCK_LIST = 8,
    ST_DEBUG_LOGGING = 9, ///< only signalled, never taken from a command
    ST_ALL_PREFERENCES = 10,
};

} // namespace Sentrel
