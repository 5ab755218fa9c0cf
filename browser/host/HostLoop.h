// The host at work: its browser, the settings and the daemon, until the browser ends.
#pragma once

#include "browser/host/SettingsCache.h"
#include "browser/ratings/RatingProvider.h"

#include <string>

namespace Sentrel::host {

/// What a host is made of.
struct HostPlaces {
    int input;
    int output;
    int stopFd; ///< readable when the host is to end
    std::string release;
    std::string hubSocket;
    std::string eventSocket;
    std::string cacheFile;
};

/// Serves one browser until its input ends, nothing can be written to it, or the host is to end; then sends what is
/// queued for two seconds at the most.
/// @param rater who rates sites; null: nobody does.
/// Threads: the main thread's; makes one more. @return whether the input ended as it is to; a line on the standard
/// error says why not. @throws std::exception when the system gives no thread or descriptor.
bool serveBrowser(const HostPlaces& places, ratings::RatingProvider* rater);

} // namespace Sentrel::host
