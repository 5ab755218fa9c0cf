#include "apps/sentrelctl/reports/LogFilter.h"

#include "apps/sentrelctl/reports/ReportFields.h"

#include <algorithm>
#include <string_view>

namespace Sentrel::ctl {
namespace {

/// Of ASCII alone: the locale has no say in what a URL is.
char inSmall(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool holds(std::string_view text, std::string_view part) {
    const auto* const found = std::search(text.begin(), text.end(), part.begin(), part.end(),
                                          [](char left, char right) { return inSmall(left) == inSmall(right); });
    return found != text.end();
}

bool isOfUser(const DetailReportData& detail, const std::string& user) {
    const std::string named = userAtHostOf(detail);
    return named == user || named.substr(0, named.find('@')) == user || attributeOf(detail, L"TargetUserName") == user;
}

} // namespace

// The times first: they cost nothing, and a report is decoded for the others.
bool LogFilter::wants(const StoredRecord& record) const {
    if ((since && record.storedAt < *since) || (until && record.storedAt >= *until)) {
        return false;
    }
    if (url.empty() && user.empty()) {
        return true;
    }
    const DecodedReport decoded = decodeReport(record);
    return decoded.detail && (url.empty() || holds(informationOf(*decoded.detail, L"URL"), url)) &&
           (user.empty() || isOfUser(*decoded.detail, user));
}

} // namespace Sentrel::ctl
