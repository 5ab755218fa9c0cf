// Feeds an archive text to the reader of the preferences. It gives them or an archive exception, and their allow/block
// list unwrapped or a complaint about its base64. What was unwrapped survives being wrapped again.
#include "fuzz/ArchivePayload.h"
#include "hub/STPreferences.h"

#include <boost/archive/iterators/dataflow_exception.hpp>

#include <algorithm>

namespace {

bool areEqual(const Sentrel::AllowBlockDetails& left, const Sentrel::AllowBlockDetails& right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end());
}

void wrapAgain(const Sentrel::STPreferences& preferences) {
    Sentrel::AllowBlockDetails details;
    try {
        details = preferences.getAllowBlockDetails();
    } catch (const boost::archive::iterators::dataflow_exception&) {
        return;
    }
    fuzz::require(details.size() == preferences.m_allowBlockDetails.size());
    Sentrel::STPreferences again;
    again.setAllowBlockDetails(details);
    fuzz::require(areEqual(again.getAllowBlockDetails(), details));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (const auto preferences = fuzz::readAndRewrite<Sentrel::STPreferences>(data, size)) {
        wrapAgain(*preferences);
    }
    return 0;
}
