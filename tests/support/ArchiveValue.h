// A value out of an archive's text, and a text on its way to a receiver.
#pragma once

#include "hub/ArchiveText.h"
#include "hub/SerializedData.h"

#include <boost/archive/basic_archive.hpp>

#include <string>

namespace testing_support {

/// What every text begins with: the signature with its length, and the version that the library writes here, 18 on
/// Debian 12 and 19 on Debian 13.
inline std::wstring archiveHeader() {
    const boost::archive::library_version_type version = boost::archive::BOOST_ARCHIVE_VERSION();
    return L"22 serialization::archive " + std::to_wstring(static_cast<unsigned>(version));
}

/// The value that @p text holds. @throws boost::archive::archive_exception when it holds no such value.
template <class Value>
Value valueIn(const std::wstring& text) {
    const auto stream = HVB::makeInStream(text);
    Value value{};
    *HVB::makeInArchive(*stream) >> value;
    return value;
}

/// Puts @p text where the broker puts a payload that arrived, also one that cannot be read.
inline void deliverText(HVB::SerializedData& carrier, const std::wstring& text) {
    carrier.m_pInStream = HVB::makeInStream(text).release();
    carrier.m_pInArchive = HVB::makeDeliveredArchive(*carrier.m_pInStream).release();
}

} // namespace testing_support
