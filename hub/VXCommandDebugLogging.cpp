// The commands for the debug logging switch. Whatever fails here, the sending of the reply included, ends as a trace
// line and without a reply; the broker tells the sender.
#include "daemon/Trace.h"
#include "hub/CommandReply.h"
#include "hub/Exceptions.h"
#include "hub/VXCommandImpl.h"

namespace Sentrel {
namespace {

const char* onOrOff(bool status) {
    return status ? "ON" : "OFF";
}

/// Runs a handler's work; an exception becomes its trace line.
template <class Work>
void guarded(const char* handler, Work work) {
    try {
        work();
    } catch (const VXException& exception) {
        ST_TRACE(stCmdFlow, 1, L"VXCommandImpl::%s - Caught exception %s\n", handler,
                 trace::printable(exception.message()).c_str());
    } catch (...) {
        ST_TRACE(stCmdFlow, 1, L"VXCommandImpl::%s - - Caught generic exception \n", handler);
    }
}

} // namespace

// The first lines of both handlers bear another class's name; people search for them that way.

void VXCommandImpl::handleGetDebugLoggingStatus(HVB::CommandData& data) {
    guarded("handleGetDebugLoggingStatus", [&data] {
        ST_TRACE(stCmdFlow, 2, L"SFCommandImpl::handleGetDebugLoggingStatus- Entered\n");
        const bool status = preferences().getDebugLoggingStatus();
        ST_TRACE(stCmdFlow, 3, L"SFCommandImpl::handleGetDebugLoggingStatus Logging Status = %s\n", onOrOff(status));
        detail::replyWith(data, status);
        ST_TRACE(stCmdFlow, 2, L"SFCommandImpl::handleGetDebugLoggingStatus - Sent response through HVBCommBroker\n");
    });
}

void VXCommandImpl::handleSetDebugLoggingStatus(HVB::CommandData& data) {
    guarded("handleSetDebugLoggingStatus", [&data] {
        ST_TRACE(stCmdFlow, 2, L"SFCommandImpl::handleSetDebugLoggingStatus - Entered\n");
        bool wanted = false; // what a command without a payload asks for
        data.readPayload(wanted);
        const bool current = preferences().getDebugLoggingStatus();
        ST_TRACE(stCmdFlow, 3, L"OldStatus = %s, NewStatus = %s\n", onOrOff(current), onOrOff(wanted));
        if (wanted != current) {
            ST_TRACE(stCmdFlow, 4,
                     L"VXCommandImpl::handleSetDebugLoggingStatus LogLevel changed so would need to update "
                     L"preference\n");
            preferences().setDebugLoggingStatus(wanted);
        }
        HVB::CommandResult result;
        detail::reply(result, data, true);
        ST_TRACE(stCmdFlow, 2, L"VXCommandImpl::handleSetDebugLoggingStatus - Sent response through HVBCommBroker\n");
    });
}

} // namespace Sentrel
