#include "apps/sentrelctl/reports/ReportFields.h"

#include "base/PrintableText.h"

#include <fmt/format.h>

namespace Sentrel::ctl {

using Sentrel::text::narrowed;
using Sentrel::text::printable;

std::string attributeOf(const DetailReportData& detail, const wchar_t* key) {
    const auto found = detail.attributes.find(key);
    return found != detail.attributes.end() ? narrowed(found->second) : std::string();
}

std::string informationOf(const DetailReportData& detail, const wchar_t* key) {
    const auto found = detail.info.lower_bound(key);
    return found != detail.info.end() && found->first == key ? narrowed(found->second) : std::string();
}

std::string userAtHostOf(const DetailReportData& detail) {
    const std::string target = attributeOf(detail, L"TargetUserName"); // host\user
    const std::size_t split = target.find('\\');
    return split == std::string::npos ? target : target.substr(split + 1) + "@" + target.substr(0, split);
}

bool isBrowserEvent(const DecodedReport& decoded) {
    return decoded.detail && decoded.detail->info.count(L"URL") > 0 && decoded.detail->info.count(L"ActionID") > 0;
}

std::string titleOf(const StoredRecord& record, const DecodedReport& decoded) {
    std::string name = "record";
    if (decoded.report && !decoded.report->m_reportName.empty()) {
        name = printable(narrowed(decoded.report->m_reportName));
    } else if (decoded.detail && !decoded.detail->m_name.empty()) {
        name = printable(narrowed(decoded.detail->m_name));
    }
    return fmt::format("{}, type {} from module {}", name, record.type, record.source);
}

} // namespace Sentrel::ctl
