// The payload that every message carries: one text archive out, one text archive in.
#pragma once

#include "hub/ArchiveText.h"

namespace HVB {

/// Carrier of a serialised payload. A writer appends values to the output archive; on an object that the broker
/// delivers, a reader takes them from the input archive in the same order.
/// Threads: one at a time; messages are never shared. Owner: whoever built it; delivered ones belong to the broker
/// and live for the length of the callback.
class SerializedData {
public:
    SerializedData() = default;
    SerializedData(const SerializedData&) = delete;
    SerializedData& operator=(const SerializedData&) = delete;
    virtual ~SerializedData() { releaseArchives(); }

    /// Appends @p value to the payload. Does nothing when there is no output archive. Wide texts of a payload hold
    /// characters: one equal to WEOF may be lost when it makes the stream's buffer grow (see makeOutStream).
    template <class T>
    void writePayload(const T& value) {
        if (m_pOutArchive != nullptr) {
            m_bHasPayload = true;
            *m_pOutArchive << value;
        }
    }

    /// Reads the next value of the payload. Leaves @p value as it is when there is no input archive.
    /// @throws boost::archive::archive_exception on a text that is not such a value.
    template <class T>
    void readPayload(T& value) {
        if (m_pInArchive != nullptr) {
            *m_pInArchive >> value;
        }
    }

    std::wstringstream* m_pOutStream = nullptr;
    std::wstringstream* m_pInStream = nullptr;
    boost::archive::text_woarchive* m_pOutArchive = nullptr;
    boost::archive::text_wiarchive* m_pInArchive = nullptr;
    bool m_bHasPayload = false;

protected:
    /// Opens the output side. The archive's header is written here and stands in front of every payload.
    void openOutput() {
        makeOutputStream();
        m_pOutArchive = new boost::archive::text_woarchive(*m_pOutStream, 0);
    }

    /// As openOutput, but a lack of memory for the archive leaves it null and the object usable.
    void openOutputIfPossible() {
        makeOutputStream();
        m_pOutArchive = new (std::nothrow) boost::archive::text_woarchive(*m_pOutStream, 0);
    }

    /// The archives are destroyed before their streams: an archive's destructor still writes.
    void releaseArchives() {
        delete m_pOutArchive;
        m_pOutArchive = nullptr;
        delete m_pInArchive;
        m_pInArchive = nullptr;
        delete m_pOutStream;
        m_pOutStream = nullptr;
        delete m_pInStream;
        m_pInStream = nullptr;
    }

private:
    void makeOutputStream() {
        // Enough for the header and a short reply; a longer payload makes the buffer grow.
        constexpr std::size_t expectedCharacters = 512;
        m_pOutStream =
            makeOutStream(std::ios_base::in | std::ios_base::out | std::ios_base::binary, expectedCharacters).release();
    }
};

} // namespace HVB
