// The hub's question whether this module is well.
#pragma once

#include "hub/HVBInterfaces.h"

namespace Sentrel {

/// Answers the hub's health check, and takes it as the occasion to refresh the managed status.
/// Threads: broker threads. Owner: a member of VXController.
class VXHealthCheckImpl : public HVB::HealthCheckInterface {
public:
    VXHealthCheckImpl();
    ~VXHealthCheckImpl() override;
    VXHealthCheckImpl(const VXHealthCheckImpl&) = delete;
    VXHealthCheckImpl& operator=(const VXHealthCheckImpl&) = delete;

    /// Always true: answering is what is checked.
    bool handleHealthCheck() override;
};

} // namespace Sentrel
