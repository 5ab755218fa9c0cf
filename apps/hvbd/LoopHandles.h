// The handles of sd-event and sd-bus, under hvbd's own name.
#pragma once

#include "platform/hvbhelpers/EventLoop.h"

namespace HVB::hub {

using bus::EventPtr;
using bus::SlotPtr;
using bus::SourcePtr;

} // namespace HVB::hub
