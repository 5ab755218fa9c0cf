// Feeds an archive text to the reading side of both report records. It gives a record or an archive exception; what was
// read can be written and read again.
#include "events/ReportRecords.h"
#include "fuzz/Require.h"

#include <cstdint>

namespace {

template <class Record>
void readAndRewrite(const std::wstring& text) {
    Record record;
    try {
        const auto stream = HVB::makeInStream(text);
        *HVB::makeInArchive(*stream) >> record;
    } catch (const boost::archive::archive_exception&) {
        return;
    }
    const std::wstring written = record.toWstring();
    Record again;
    const auto stream = HVB::makeInStream(written);
    *HVB::makeInArchive(*stream) >> again;
    fuzz::require(again.toWstring() == written);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // One byte a character, sign-extended: this reaches every character that a report can hold.
    std::wstring text;
    for (std::size_t at = 1; at < size; ++at) {
        text += static_cast<wchar_t>(static_cast<std::int8_t>(data[at]));
    }
    if (size > 0 && data[0] % 2 == 0) {
        readAndRewrite<ReportData>(text);
    } else {
        readAndRewrite<DetailReportData>(text);
    }
    return 0;
}
