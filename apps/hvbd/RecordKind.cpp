#include "apps/hvbd/RecordKind.h"

#include "events/ReportRecords.h"
#include "hub/ArchiveText.h"
#include "platform/hvbhelpers/HubProtocol.h"

#include <sodium.h>

#include <array>
#include <cstring>
#include <exception>
#include <string>

namespace HVB::hub {
namespace {

std::optional<DetailReportData> readReport(std::string_view detail) {
    const std::optional<std::wstring> text = bus::fromBytes(detail.data(), detail.size());
    if (!text || text->empty()) {
        return std::nullopt;
    }
    try {
        const auto stream = makeInStream(*text);
        const auto archive = makeInArchive(*stream);
        DetailReportData report;
        *archive >> report;
        return report;
    } catch (const std::exception&) {
        return std::nullopt; // somebody else's record
    }
}

} // namespace

std::optional<std::int64_t> kindOf(std::string_view detail) {
    const std::optional<DetailReportData> report = readReport(detail);
    if (!report) {
        return std::nullopt;
    }
    const auto site = report->info.find(L"DomainName");
    const auto action = report->info.find(L"ActionID");
    const auto process = report->attributes.find(L"SourceProcessName");
    if (site == report->info.end() || action == report->info.end() || process == report->attributes.end()) {
        return std::nullopt;
    }
    // The lengths keep the parts apart.
    const std::wstring parts = std::to_wstring(site->second.size()) + L" " + std::to_wstring(process->second.size()) +
                               L" " + site->second + process->second + action->second;
    const std::string_view bytes = bus::asBytes(parts);
    std::array<unsigned char, crypto_generichash_BYTES_MIN> hash{};
    // Cannot fail with these sizes.
    (void)crypto_generichash(hash.data(), hash.size(), reinterpret_cast<const unsigned char*>(bytes.data()),
                             bytes.size(), nullptr, 0);
    std::int64_t kind = 0;
    std::memcpy(&kind, hash.data(), sizeof kind);
    return kind;
}

} // namespace HVB::hub
