#include "base/Takeover.h"

#include <atomic>

namespace Sentrel {
namespace {

std::atomic<bool> takenOver{false};

} // namespace

bool isTakenOver() noexcept {
    return takenOver;
}

void setTakenOver(bool isTakenOver) noexcept {
    takenOver = isTakenOver;
}

} // namespace Sentrel
