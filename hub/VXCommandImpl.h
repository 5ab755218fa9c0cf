// The receiver of the hub commands for this module.
#pragma once

#include "hub/HVBInterfaces.h"
#include "hub/HubIds.h"

namespace Sentrel {

/// Receives the hub commands for this module. No command has a handler yet, so each is refused as unknown, which its
/// sender learns at once.
/// Threads: broker threads, several at a time; it holds no state. Owner: VXController::main.
class VXCommandImpl : public HVB::CommandInterface {
public:
    VXCommandImpl();
    ~VXCommandImpl() override;
    VXCommandImpl(const VXCommandImpl&) = delete;
    VXCommandImpl& operator=(const VXCommandImpl&) = delete;

    bool handleCommand(HVB::CommandData& data) override;

    /// Only traces: the daemon waits for the result of the one command it sends.
    void handleCommandResponse(HVB::CommandResult& result) override;
};

} // namespace Sentrel
