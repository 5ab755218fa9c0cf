// Turns one browser decision into one log record for the hub.
#pragma once

#include "events/STEventData.h"

#include <boost/thread/mutex.hpp>

#include <string>

/// Decides whether an event is reported, classifies it, and sends its report. Nothing is cached, queued or retried:
/// each event costs a name look-up, a compiled expression and a synchronous send, and one that the hub does not take
/// is lost with a trace line.
/// Threads: the event server's. Owner: a singleton that lives until the process ends.
class EventReporter {
public:
    static EventReporter* getInstance();
    /// Nothing calls it.
    static void releaseInstance();
    virtual ~EventReporter() = default;

    void sendSTEvent(STEventData& event);

    /// The whole work; throws nothing.
    void sendBlockEventToHVB(STEventData& event);

    /// False only for a warning that the user has not answered yet.
    bool ShouldSendEvent(const STEventData& event);

    /// Whether @p url has a path behind its scheme, or is one of the block page's own reports.
    bool isValidUrl(const std::string& url);

    // Each a pure function of the record, with the numbers that the report's reader knows.
    int GetActionInfoID(const STEventData& event);
    int GetReasonInfoID(const STEventData& event);
    int GetRatingColorID(int rating);
    int GetListID(const STEventData& event);
    std::string GetActionString(int action);

private:
    EventReporter() = default;

    static EventReporter* m_pSelf;
    static boost::mutex m_instanceMutex;
};
