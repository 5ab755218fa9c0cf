#include "events/ReportRecords.h"

#include <ctime>

namespace {

/// An upper bound for the characters of numbers, class information and separators around the texts of a record.
constexpr std::size_t kArchiveOverhead = 1024;
/// The same for one entry of a container: two lengths and their separators.
constexpr std::size_t kEntryOverhead = 48;

template <class Container>
std::size_t textLength(const Container& entries) {
    std::size_t length = 0;
    for (const auto& [key, value] : entries) {
        length += key.size() + value.size() + kEntryOverhead;
    }
    return length;
}

std::size_t expectedLength(const ReportData& record) {
    return kArchiveOverhead + record.m_reportName.size() + record.m_subType.size();
}

std::size_t expectedLength(const DetailReportData& record) {
    std::size_t length = kArchiveOverhead + record.m_name.size();
    length += textLength(record.attributes) + textLength(record.info);
    for (const auto& [key, attributes] : record.m_nested) {
        length += key.size() + kEntryOverhead + textLength(attributes);
    }
    return length;
}

template <class Record>
std::wstring archiveTextOf(const Record& record) {
    const auto stream = HVB::makeOutStream(std::ios_base::in | std::ios_base::out, expectedLength(record));
    boost::archive::text_woarchive archive(*stream, 0);
    archive << record;
    return stream->str(); // before the archive ends: its destructor would append a line end
}

} // namespace

ReportData::ReportData() : m_rowId(~std::uint64_t{0}), m_time(std::time(nullptr)), m_reportType(0) {}

std::wstring ReportData::toWstring() const {
    return archiveTextOf(*this);
}

DetailReportData::DetailReportData() : m_flag(false), m_time(std::time(nullptr)), m_reportType(0) {}

std::wstring DetailReportData::toWstring() const {
    return archiveTextOf(*this);
}
