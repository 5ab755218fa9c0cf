#include "apps/sentrelctl/reports/Report.h"

#include "hub/HubIds.h"

#include <exception>
#include <new>

namespace Sentrel::ctl {
namespace {

/// Reads one record from @p text, or says in @p error why there is none.
template <class Record>
std::optional<Record> read(const std::wstring& text, const char* name, std::string& error) {
    try {
        const auto stream = HVB::makeInStream(text);
        const auto archive = HVB::makeInArchive(*stream);
        Record record;
        *archive >> record;
        return record;
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception& failure) {
        error += (error.empty() ? "" : "; ") + std::string(name) + ": " + failure.what();
        return std::nullopt;
    }
}

} // namespace

DecodedReport decodeReport(const StoredRecord& record) {
    DecodedReport decoded;
    if (record.type == HVB::LOG_TYPE_RECENT_EVENT && record.detailText.empty()) {
        decoded.detail = read<DetailReportData>(record.text, "text", decoded.error);
        return decoded;
    }
    decoded.report = read<ReportData>(record.text, "text", decoded.error);
    decoded.detail = read<DetailReportData>(record.detailText, "detail", decoded.error);
    return decoded;
}

} // namespace Sentrel::ctl
