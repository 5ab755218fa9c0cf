// The formats in which lists of hosts are passed around, read line by line.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace Sentrel::ratings {

enum class ListFormat {
    Hosts,   ///< hosts(5): an address that leads nowhere, and names
    Domains, ///< a name a line, which covers those below it
    Rpz,     ///< a zone of response policies
    Adblock, ///< filters of advertisement blockers
};

/// The format of that name ("hosts", "domains", "rpz", "adblock"), or none.
std::optional<ListFormat> formatNamed(std::string_view name);
const char* nameOfFormat(ListFormat format);

/// What an entry says of a name. Several hold at once.
using Marks = std::uint8_t;
inline constexpr Marks kItself = 1;    ///< the name is in the list
inline constexpr Marks kBelow = 2;     ///< so is every name below it
inline constexpr Marks kNotItself = 4; ///< the name is taken out
inline constexpr Marks kNotBelow = 8;  ///< so is every name below it
inline constexpr Marks kAllMarks = 15;

/// What became of a line.
enum class LineKind {
    Nothing,    ///< blank, a comment, or what every list of the format has around its entries
    Taken,      ///< it names a host
    PassedOver, ///< something of the format that names no whole host
    Bad,        ///< it cannot be what the format has
};

struct LineReading {
    LineKind kind = LineKind::Nothing;
    const char* fault = ""; ///< why it is bad, as the end of a sentence
};

/// Takes a host in its one form, and what is said of it.
using HostSink = std::function<void(std::string_view host, Marks marks)>;

/// Reads a list. Lines may hang together, so they come in their order.
/// Threads: one. Owner: the operation; the sink outlives it.
class LineReader {
public:
    LineReader() = default;
    LineReader(const LineReader&) = delete;
    LineReader& operator=(const LineReader&) = delete;
    virtual ~LineReader() = default;

    /// @param line without its end; any bytes but NUL.
    virtual LineReading read(std::string_view line, const HostSink& sink) = 0;

    /// Why the lines so far are no whole list, as the end of a sentence on the line since which it is so; nullptr when
    /// they are.
    virtual const char* faultAtEnd() const { return nullptr; }
};

std::unique_ptr<LineReader> readerOf(ListFormat format);

/// Whether a name that is taken out with those below it stays out although an entry of the list names one of these.
inline bool exceptionsBeatEntries(ListFormat format) {
    return format == ListFormat::Adblock;
}

} // namespace Sentrel::ratings
