// The two records of a report. A log record carries both as archive texts, the short one and the detailed one.
#pragma once

#include "hub/ArchiveText.h"

#include <boost/serialization/map.hpp>
#include <boost/serialization/string.hpp>
#include <cstdint>
#include <map>
#include <string>

/// The short record of a report.
/// Threads: one at a time. Owner: whoever built it.
class ReportData {
public:
    ReportData();

    /// The record as a wide text archive, header included.
    std::wstring toWstring() const;

    std::uint64_t m_rowId; ///< all bits set; the daemon never assigns it
    std::wstring m_reportName;
    std::wstring m_subType;
    std::int64_t m_time; ///< seconds since the epoch
    std::int32_t m_reportType;

    template <class Archive>
    void serialize(Archive& archive, unsigned int version) {
        HVB::detail::refuseLaterVersion<ReportData, Archive>(version);
        archive& m_rowId;
        archive& m_reportName;
        archive& m_subType;
        archive& m_time;
        archive& m_reportType;
    }
};

/// The detailed record of a report.
/// Threads: one at a time. Owner: whoever built it.
class DetailReportData {
public:
    using Attributes = std::map<std::wstring, std::wstring>;
    using Information = std::multimap<std::wstring, std::wstring>;

    DetailReportData();

    /// The record as a wide text archive, header included.
    std::wstring toWstring() const;

    std::wstring m_name;
    Attributes attributes;
    Information info;                                 ///< equal keys stay separate, in the order of insertion
    std::multimap<std::wstring, Attributes> m_nested; ///< from class version 1 on; the daemon leaves it empty
    bool m_flag;                                      ///< from class version 1 on; the daemon leaves it false
    std::int64_t m_time;                              ///< seconds since the epoch
    std::int32_t m_reportType;

    template <class Archive>
    void serialize(Archive& archive, unsigned int version) {
        HVB::detail::refuseLaterVersion<DetailReportData, Archive>(version);
        archive& m_name;
        archive& attributes;
        archive& info;
        if (version != 0) {
            archive& m_nested;
            archive& m_flag;
        }
        archive& m_time;
        archive& m_reportType;
    }
};

BOOST_CLASS_VERSION(ReportData, 0)
BOOST_CLASS_VERSION(DetailReportData, 1)
