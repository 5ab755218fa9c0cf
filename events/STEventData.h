// The record that a browser component writes to the event socket.
#pragma once

#include <cstddef>
#include <cstdint>

/// One browser decision as it arrives, in host byte order. The layout is the wire format: browser components that
/// were built long ago write it.
/// Threads: one at a time. Owner: whoever read it. Nothing in it is to be trusted: texts may lack their NUL and numbers
/// may be anything.
struct STEventData {
    char eventId[16];                     ///< NUL-terminated text; only traced
    char url[272];                        ///< NUL-terminated URL
    char browserProcessName[64];          ///< NUL-terminated process name
    std::int32_t urlRating;               ///< site rating; -100 means no rating
    std::int32_t action;                  ///< 1 allowed, 2 warned, 3 blocked
    std::int32_t inAllowBlockList;        ///< 1 when the URL is on the allow/block list
    std::int32_t blockedInAllowBlockList; ///< 1 when the list entry blocks it
    std::int32_t blockedInCategory;       ///< 1 when blocked by its content category
    std::int32_t blockedCategoryId;       ///< category number
    std::int32_t isPhishing;              ///< 1 when it is a phishing URL
    std::int32_t isRpxReachable;          ///< reachability of the reputation service
    std::int32_t count;                   ///< event count, reported as it is
    std::int32_t userAction;              ///< non-zero once the user has answered a warning
};

inline constexpr std::size_t kEventRecordBytes = 392;
static_assert(sizeof(STEventData) == kEventRecordBytes);
static_assert(offsetof(STEventData, eventId) == 0 && offsetof(STEventData, url) == 16);
static_assert(offsetof(STEventData, browserProcessName) == 288 && offsetof(STEventData, urlRating) == 352);
static_assert(offsetof(STEventData, action) == 356 && offsetof(STEventData, inAllowBlockList) == 360);
static_assert(offsetof(STEventData, blockedInAllowBlockList) == 364);
static_assert(offsetof(STEventData, blockedInCategory) == 368 && offsetof(STEventData, blockedCategoryId) == 372);
static_assert(offsetof(STEventData, isPhishing) == 376 && offsetof(STEventData, isRpxReachable) == 380);
static_assert(offsetof(STEventData, count) == 384 && offsetof(STEventData, userAction) == 388);
