// The one constructor of the carriers that the library supplies.
#include "hub/HVBMessages.h"

namespace HVB {
namespace {

/// Goes on where another archive stopped: no header, and a separator in front of the first value. Values of a class
/// that the other archive has already described must not be appended.
class ContinuedArchive : public boost::archive::text_woarchive {
public:
    explicit ContinuedArchive(std::wostream& stream)
        : boost::archive::text_woarchive(stream, boost::archive::no_header) {
        this->delimiter = this->space;
    }
};

} // namespace

// The base is named because gcc asks for that in a copy constructor.
// NOLINTNEXTLINE(readability-redundant-member-init)
EventData::EventData(const EventData& other) : BasicEventData(other.m_eventId), SerializedData() {
    m_sequence = other.m_sequence;
    m_bHasPayload = other.m_bHasPayload;
    if (other.m_pOutStream != nullptr) {
        const std::wstring text = other.m_pOutStream->str();
        m_pOutStream =
            makeOutStream(std::ios_base::in | std::ios_base::out | std::ios_base::binary, text.size()).release();
        m_pOutStream->write(text.data(), static_cast<std::streamsize>(text.size()));
        if (other.m_pOutArchive != nullptr) {
            m_pOutArchive = new (std::nothrow) ContinuedArchive(*m_pOutStream);
        }
    }
    if (other.m_pInStream != nullptr) {
        m_pInStream = makeInStream(other.m_pInStream->str()).release();
        if (other.m_pInArchive != nullptr) {
            m_pInArchive = makeDeliveredArchive(*m_pInStream).release();
        }
    }
}

} // namespace HVB
