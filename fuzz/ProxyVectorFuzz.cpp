// Feeds an archive text to the reader of the proxy event's list. It gives one whose elements the text really held, or
// an archive exception.
#include "fuzz/ArchivePayload.h"
#include "hub/Payloads.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (const auto proxies = fuzz::readAndRewrite<std::vector<proxySettings>>(data, size)) {
        constexpr std::size_t shortestElement = 12; // six values, each with its separator
        fuzz::require(proxies->size() <= size / shortestElement);
    }
    return 0;
}
