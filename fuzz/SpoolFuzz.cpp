// Feeds a spool of reports that was damaged anywhere, and the bytes of a record, to their readers. What comes out of
// the spool are records that were put in, each at most once and in their order; what reads as a record holds no more
// than its bytes can.
#include "fuzz/Require.h"
#include "hub/Exceptions.h"
#include "platform/hvbhelpers/RecordKeeper.h"
#include "platform/hvbhelpers/SpoolFile.h"
#include "tests/support/TemporaryDirectory.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

namespace {

using HVB::detail::kSpoolDataOffset;
using HVB::detail::SpoolFile;

constexpr std::size_t kFileBytes = kSpoolDataOffset + 512;
const std::array<std::string, 4> kRecords{"one", "twotwo", std::string(40, '3'), "four"};

/// Each input is a file of its own for a moment.
std::string spoolPath() {
    static const testing_support::TemporaryDirectory directory;
    return directory.file("spool");
}

/// A whole spool with the records, made once.
const std::string& wholeSpool() {
    static const std::string bytes = [] {
        const std::string path = spoolPath();
        {
            SpoolFile spool(path, kFileBytes);
            for (const std::string& record : kRecords) {
                fuzz::require(spool.append(record));
            }
        }
        std::ifstream file(path, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(file), {});
    }();
    return bytes;
}

/// Three bytes of the input each: a place, two bytes, and what the byte there is combined with.
std::string damaged(std::string bytes, std::string_view input) {
    for (; input.size() >= 3; input.remove_prefix(3)) {
        const std::size_t place = static_cast<unsigned char>(input[0]) + 256U * static_cast<unsigned char>(input[1]);
        // The heads and the ring in turn; what lies between them is empty.
        const std::size_t at = place < 192 ? place % 96 + place / 96 * HVB::detail::kSpoolHeadDistance
                                           : kSpoolDataOffset + place % (kFileBytes - kSpoolDataOffset);
        bytes[at] = static_cast<char>(bytes[at] ^ input[2]);
    }
    return bytes;
}

void drain(const std::string& bytes) {
    const std::string path = spoolPath();
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
    try {
        SpoolFile spool(path, kFileBytes);
        auto next = kRecords.begin();
        while (const auto record = spool.first()) {
            next = std::find(next, kRecords.end(), *record);
            fuzz::require(next != kRecords.end());
            ++next;
            spool.removeFirst(SpoolFile::End::Delivered);
        }
        fuzz::require(spool.isEmpty());
    } catch (const HVB::HVBException&) {
        return; // no head is left of it
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    drain(damaged(wholeSpool(), input));
    if (const auto record = HVB::detail::unpackRecord(input)) {
        constexpr std::size_t bestRatio = 4200; // four bytes a character, deflated
        fuzz::require(record->text.size() + record->detail.size() <= size * bestRatio);
        const auto again = HVB::detail::unpackRecord(HVB::detail::packRecord(*record));
        fuzz::require(again && again->number == record->number && again->text == record->text &&
                      again->detail == record->detail);
    }
    std::filesystem::remove(spoolPath());
    return 0;
}
