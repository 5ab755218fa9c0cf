// Text that carries archives: streams that keep every byte and every wide character, and readers that a lying length
// cannot hurt. Include this wherever a wide archive is read or written, so that all readers share the checks.
#pragma once

#include <boost/archive/archive_exception.hpp>
#include <boost/archive/text_wiarchive.hpp>
#include <boost/archive/text_woarchive.hpp>
#include <boost/serialization/collection_size_type.hpp>
#include <boost/serialization/version.hpp>
#include <cstddef>
#include <istream>
#include <locale>
#include <memory>
#include <optional>
#include <sstream>
#include <string>

namespace HVB {

/// A locale whose wide characters 0 to 255 are the 256 byte values, in both directions. The C library's own widening
/// loses every byte above 127, and with it the rest of an archive. Constant after construction; any thread.
const std::locale& byteLocale();

/// The sum of the characters that a writer expects to need. A stream with room for all of them never asks its buffer
/// for more while a character that equals WEOF (the wide form of byte 0xFF) is on its way; it would be lost there.
std::unique_ptr<std::wstringstream> makeOutStream(std::ios_base::openmode mode, std::size_t expectedCharacters);

/// A stream that holds @p text, ready to be read as an archive.
std::unique_ptr<std::wstringstream> makeInStream(std::wstring text);

/// The latest archive version that is read. Boost 1.83 writes it, and the same text behind it as Boost 1.74 behind 18,
/// which is the latest that Boost 1.74 reads by itself.
constexpr unsigned int kLatestArchiveVersion = 19;

/// An archive reader over @p stream whose strings and containers are refused, before anything is allocated for them,
/// when the rest of the text cannot hold them. An object that claims to be another one is refused too: the second
/// mention of a tracked one takes two characters. @p stream must outlive the reader.
/// @throws boost::archive::archive_exception when the text does not begin like an archive that can be read.
std::unique_ptr<boost::archive::text_wiarchive> makeInArchive(std::wistream& stream);

/// As makeInArchive, for a text that somebody has sent: one that does not begin like an archive gets a reader all the
/// same, from which each payload throws what makeInArchive would have thrown. Whoever reads nothing does not notice.
std::unique_ptr<boost::archive::text_wiarchive> makeDeliveredArchive(std::wistream& stream);

namespace detail {

/// What the bounded readers know of their archive. Archives made elsewhere have no stream here and read unbounded.
struct ArchiveSource {
    std::wistream* stream = nullptr;
    /// Why nothing can be read, when the text does not begin like an archive.
    std::optional<boost::archive::archive_exception::exception_code> refusal;
    unsigned int trackedObjects = 0; ///< so many have been read

    static ArchiveSource& of(boost::archive::text_wiarchive& archive);

    /// @throws archive_exception when the text does not begin like an archive.
    void requireReadable() const;

    /// Reads the length that stands in front of a string. @throws archive_exception when the text cannot hold it.
    std::size_t readLength(boost::archive::text_wiarchive& archive);
};

/// Refuses, on reading, a record of a later class version than this reader's: it would be misread. The archive library
/// does not look. @throws boost::archive::archive_exception.
template <class Record, class Archive>
void refuseLaterVersion(unsigned int version) {
    if (Archive::is_loading::value && version > boost::serialization::version<Record>::value) {
        throw boost::archive::archive_exception(boost::archive::archive_exception::unsupported_class_version);
    }
}

} // namespace detail
} // namespace HVB

// These are the places at which the archive library believes a number that came from outside, and those at which a
// payload begins.
namespace boost::archive {

template <>
void load_access::load_primitive<text_wiarchive, std::wstring>(text_wiarchive& archive, std::wstring& text);

template <>
void load_access::load_primitive<text_wiarchive, std::string>(text_wiarchive& archive, std::string& text);

template <>
void load_access::load_primitive<text_wiarchive, serialization::collection_size_type>(
    text_wiarchive& archive, serialization::collection_size_type& count);

/// Stands in front of every class and container.
template <>
void load_access::load_primitive<text_wiarchive, tracking_type>(text_wiarchive& archive, tracking_type& isTracked);

/// Stands in front of every object of a tracked class.
template <>
void load_access::load_primitive<text_wiarchive, object_id_type>(text_wiarchive& archive, object_id_type& id);

template <>
void load_access::load_primitive<text_wiarchive, int>(text_wiarchive& archive, int& number);

template <>
void load_access::load_primitive<text_wiarchive, bool>(text_wiarchive& archive, bool& truth);

/// Writes what the library itself writes, in one go in place of character by character.
template <>
void save_access::save_primitive<text_woarchive, std::string>(text_woarchive& archive, const std::string& text);

} // namespace boost::archive
