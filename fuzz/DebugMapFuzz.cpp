// Feeds an archive text to the reader of the debug-logging event's map. It gives one whose entries the text really
// held, or an archive exception.
#include "fuzz/ArchivePayload.h"

#include <boost/serialization/map.hpp>
#include <boost/serialization/utility.hpp>

#include <map>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (const auto states = fuzz::readAndRewrite<std::map<int, bool>>(data, size)) {
        constexpr std::size_t shortestEntry = 4; // two values, each with its separator
        fuzz::require(states->size() <= size / shortestEntry);
    }
    return 0;
}
