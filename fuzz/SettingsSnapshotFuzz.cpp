// Feeds the text of a settings snapshot, as hvbd serves it, to its reader. What is read is written as a text that reads
// as the same again and shows no password in the clear; what is refused says why.
#include "fuzz/Require.h"
#include "platform/settings/SettingsSnapshot.h"

#include <cstdint>
#include <optional>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace Sentrel::settings;
    using fuzz::require;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    std::optional<SettingsSnapshot> snapshot;
    try {
        snapshot = snapshotOf(text);
    } catch (const SnapshotError& refused) {
        require(*refused.what() != '\0');
        return 0;
    }
    require(snapshotOf(textOf(*snapshot)) == *snapshot);
    require(!snapshot->proxy.cipheredPassword || isCipherText(*snapshot->proxy.cipheredPassword));
    return 0;
}
