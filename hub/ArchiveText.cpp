// Wide text archives, within bounds and byte for byte.
//
// The archive library allocates what a length declares before it reads, so sixty bytes can cost gigabytes. The readers
// of strings and counts are therefore our own specialisations of its hook for primitives: they hold each number
// against what is left of the stream. They find the stream through a helper of the archive, which makeInArchive sets;
// an archive that was made elsewhere has none and is read as the library does. The library would read its header before
// a helper can be set, and so the header is read here.
//
// A program that saves a class through a pointer somewhere tracks it: each object of it has a number in front, and the
// library counts them from 0 in the order of the text. A number that was there before stands for an object that has
// been read already and brings none of its own. Programs that send values have no such thing, so it is refused: it
// would make an element of two characters, of which a container could be full, and be looked up by a number from
// outside.
//
// A narrow string becomes one wide character a byte, 0 to 255, whatever the process's locale is (ByteCtype).
#include "hub/ArchiveText.h"

#include <algorithm>
#include <utility>

namespace HVB {
namespace {

/// Maps bytes to the wide characters 0 to 255 and back, and leaves the classification to the classic locale.
class ByteCtype : public std::ctype<wchar_t> {
protected:
    wchar_t do_widen(char c) const override { return static_cast<unsigned char>(c); }

    const char* do_widen(const char* low, const char* high, wchar_t* to) const override {
        std::transform(low, high, to, [](char c) { return static_cast<wchar_t>(static_cast<unsigned char>(c)); });
        return high;
    }

    char do_narrow(wchar_t c, char fallback) const override { return narrowed(c, fallback); }

    const wchar_t* do_narrow(const wchar_t* low, const wchar_t* high, char fallback, char* to) const override {
        std::transform(low, high, to, [fallback](wchar_t c) { return narrowed(c, fallback); });
        return high;
    }

private:
    static char narrowed(wchar_t c, char fallback) {
        constexpr wchar_t lastByte = 0xFF;
        return c >= 0 && c <= lastByte ? static_cast<char>(static_cast<unsigned char>(c)) : fallback;
    }
};

/// Identifies ArchiveSource among the helpers of an archive.
char archiveSourceId;

[[noreturn]] void refuseInput() {
    throw boost::archive::archive_exception(boost::archive::archive_exception::input_stream_error);
}

std::size_t remaining(std::wistream& stream) {
    const std::streamsize available = stream.rdbuf()->in_avail();
    return available > 0 ? static_cast<std::size_t>(available) : 0;
}

std::unique_ptr<boost::archive::text_wiarchive> makeHeadlessArchive(std::wistream& stream) {
    auto archive = std::make_unique<boost::archive::text_wiarchive>(stream, boost::archive::no_header);
    detail::ArchiveSource::of(*archive).stream = &stream;
    return archive;
}

/// As the library reads it, but the signature without a length from outside, and later versions too.
void readHeader(boost::archive::text_wiarchive& archive, std::wistream& stream) {
    const std::string signature = boost::archive::BOOST_ARCHIVE_SIGNATURE();
    const std::string start = std::to_string(signature.size()) + " " + signature + " ";
    std::wstring head(start.size(), L'\0');
    stream.read(head.data(), static_cast<std::streamsize>(head.size()));
    if (!stream || !std::equal(head.begin(), head.end(), start.begin())) {
        throw boost::archive::archive_exception(boost::archive::archive_exception::invalid_signature);
    }
    boost::archive::library_version_type version;
    archive >> version;
    const boost::archive::library_version_type own = boost::archive::BOOST_ARCHIVE_VERSION();
    if (std::max(own, boost::archive::library_version_type(kLatestArchiveVersion)) < version) {
        throw boost::archive::archive_exception(boost::archive::archive_exception::unsupported_version);
    }
    archive.set_library_version(std::min(version, own));
}

} // namespace

const std::locale& byteLocale() {
    static const std::locale locale(std::locale::classic(), new ByteCtype);
    return locale;
}

std::unique_ptr<std::wstringstream> makeOutStream(std::ios_base::openmode mode, std::size_t expectedCharacters) {
    auto stream = std::make_unique<std::wstringstream>(mode);
    std::wstring room;
    room.reserve(expectedCharacters);
    stream->str(std::move(room));
    stream->imbue(byteLocale());
    return stream;
}

std::unique_ptr<std::wstringstream> makeInStream(std::wstring text) {
    auto stream = std::make_unique<std::wstringstream>(std::move(text), std::ios_base::in | std::ios_base::binary);
    stream->imbue(byteLocale());
    return stream;
}

std::unique_ptr<boost::archive::text_wiarchive> makeInArchive(std::wistream& stream) {
    auto archive = makeHeadlessArchive(stream);
    readHeader(*archive, stream);
    return archive;
}

std::unique_ptr<boost::archive::text_wiarchive> makeDeliveredArchive(std::wistream& stream) {
    auto archive = makeHeadlessArchive(stream);
    try {
        readHeader(*archive, stream);
    } catch (const boost::archive::archive_exception& refusal) {
        detail::ArchiveSource::of(*archive).refusal = refusal.code;
        stream.setstate(std::ios_base::failbit); // for values whose readers do not ask
    }
    return archive;
}

namespace detail {

ArchiveSource& ArchiveSource::of(boost::archive::text_wiarchive& archive) {
    return archive.get_helper<ArchiveSource>(&archiveSourceId);
}

void ArchiveSource::requireReadable() const {
    if (refusal) {
        throw boost::archive::archive_exception(*refusal);
    }
}

std::size_t ArchiveSource::readLength(boost::archive::text_wiarchive& archive) {
    requireReadable();
    std::size_t length = 0;
    archive >> length;
    // One separator stands between the length and the text.
    if (length >= remaining(*stream)) {
        if (length > 0 || remaining(*stream) > 0) {
            refuseInput();
        }
        return 0;
    }
    stream->get();
    return length;
}

} // namespace detail
} // namespace HVB

namespace boost::archive {

template <>
void load_access::load_primitive<text_wiarchive, std::wstring>(text_wiarchive& archive, std::wstring& text) {
    HVB::detail::ArchiveSource& source = HVB::detail::ArchiveSource::of(archive);
    if (source.stream == nullptr) {
        archive.load(text);
        return;
    }
    text.resize(source.readLength(archive));
    source.stream->read(text.data(), static_cast<std::streamsize>(text.size()));
}

template <>
void load_access::load_primitive<text_wiarchive, std::string>(text_wiarchive& archive, std::string& text) {
    HVB::detail::ArchiveSource& source = HVB::detail::ArchiveSource::of(archive);
    if (source.stream == nullptr) {
        archive.load(text);
        return;
    }
    std::wstring wide(source.readLength(archive), L'\0');
    source.stream->read(wide.data(), static_cast<std::streamsize>(wide.size()));
    text.resize(wide.size());
    std::use_facet<std::ctype<wchar_t>>(HVB::byteLocale())
        .narrow(wide.data(), wide.data() + wide.size(), '\0', text.data());
}

template <>
void load_access::load_primitive<text_wiarchive, serialization::collection_size_type>(
    text_wiarchive& archive, serialization::collection_size_type& count) {
    archive.load(count);
    const std::size_t declared = std::as_const(count);
    HVB::detail::ArchiveSource& source = HVB::detail::ArchiveSource::of(archive);
    // Each element takes at least a separator and one character.
    constexpr std::size_t charactersPerElement = 2;
    if (source.stream != nullptr && declared > HVB::remaining(*source.stream) / charactersPerElement) {
        HVB::refuseInput();
    }
}

template <>
void load_access::load_primitive<text_wiarchive, tracking_type>(text_wiarchive& archive, tracking_type& isTracked) {
    HVB::detail::ArchiveSource::of(archive).requireReadable();
    archive.load(isTracked);
}

template <>
void load_access::load_primitive<text_wiarchive, object_id_type>(text_wiarchive& archive, object_id_type& id) {
    archive.load(id);
    HVB::detail::ArchiveSource& source = HVB::detail::ArchiveSource::of(archive);
    if (source.stream != nullptr && std::as_const(id) != source.trackedObjects++) {
        HVB::refuseInput();
    }
}

template <>
void load_access::load_primitive<text_wiarchive, int>(text_wiarchive& archive, int& number) {
    HVB::detail::ArchiveSource::of(archive).requireReadable();
    archive.load(number);
}

template <>
void load_access::load_primitive<text_wiarchive, bool>(text_wiarchive& archive, bool& truth) {
    HVB::detail::ArchiveSource::of(archive).requireReadable();
    archive.load(truth);
}

template <>
void save_access::save_primitive<text_woarchive, std::string>(text_woarchive& archive, const std::string& text) {
    std::wstring wide(text.size(), L'\0');
    std::use_facet<std::ctype<wchar_t>>(HVB::byteLocale()).widen(text.data(), text.data() + text.size(), wide.data());
    archive.save(wide);
}

} // namespace boost::archive
