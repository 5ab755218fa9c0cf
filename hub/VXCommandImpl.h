// The receiver of the hub commands for this module.
#pragma once

#include "hub/HVBInterfaces.h"
#include "hub/HVBMessages.h"
#include "hub/HubIds.h"

namespace Sentrel {

/// Receives the hub commands for this module and answers them.
///
/// A reply carries the header of its command. When a preference could not be set, the STError in the payload says so
/// and both flags stay true. Only a request for an unknown preference is answered with m_bSucceeded false. The commands
/// for all preferences signal the change whatever the result, those for one preference only on success.
///
/// What is thrown while a payload is read, or by the controller or the broker outside a set, leaves handleCommand: the
/// broker tells the sender. The two commands for debug logging catch it and send no reply, of which the broker tells
/// the sender too.
/// Threads: broker threads, several at a time; it holds no state. A set is not atomic: a get that runs at the same time
/// may see a part of it. Owner: VXController::main.
class VXCommandImpl : public HVB::CommandInterface {
public:
    VXCommandImpl();
    ~VXCommandImpl() override;
    VXCommandImpl(const VXCommandImpl&) = delete;
    VXCommandImpl& operator=(const VXCommandImpl&) = delete;

    /// @return false for an unknown command, which is not answered. Otherwise the reply was sent.
    bool handleCommand(HVB::CommandData& data) override;

    /// Only traces: the daemon waits for the result of the one command it sends.
    void handleCommandResponse(HVB::CommandResult& result) override;

private:
    struct Route;
    static const Route* routeOf(int commandId);

    void handleGetPrefs(HVB::CommandData& data);
    void handleSetPrefs(HVB::CommandData& data);
    void handleResetPrefs(HVB::CommandData& data);
    void handleGetPrefIndividual(HVB::CommandData& data);
    void handleSetPrefIndividual(HVB::CommandData& data);
    void handleDashBoard(HVB::CommandData& data);
    void handleAboutBox(HVB::CommandData& data);
    void handleSetDebugLoggingStatus(HVB::CommandData& data);
    void handleGetDebugLoggingStatus(HVB::CommandData& data);

    /// Answers with @p error and m_bSucceeded false. No command needs it at present.
    void sendCommandError(HVB::CommandData& data, STError error);
};

} // namespace Sentrel
