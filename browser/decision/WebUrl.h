// The address of a web page in the one form in which pages and list entries are compared.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace Sentrel::browsing {

/// The address of a page that is fetched from a host. Userinfo and fragment are dropped.
/// Threads: a plain value. Owner: the holder.
struct WebUrl {
    std::string scheme; ///< "http" or "https"
    /// Lower case, in ASCII, without a last dot. An address in version 4 is dotted, one in version 6 is in brackets.
    std::string host;
    std::uint16_t port = 0;               ///< the scheme's own when the address names none
    std::string target;                   ///< path and query; begins with a slash, and has no empty query
    std::optional<std::uint32_t> address; ///< of a host that is a version 4 address, in host byte order

    /// The whole address; the scheme's own port is left out.
    std::string text() const;

    bool operator==(const WebUrl&) const = default;
};

/// Why a text is not the address of a web page.
enum class UrlFault {
    NoScheme,    ///< does not begin with a scheme
    OtherScheme, ///< one whose pages come from no host: about, data, file and the like
    BadHost,     ///< no host, or a name or number that no host can have
    BadPort,     ///< no number from 0 to 65535
    Malformed,   ///< anything else
};

/// What is wrong, as a part of a sentence: "it has no host that can be".
const char* faultText(UrlFault fault);

/// Reads an address as browsers do: blanks around it, tabs and line ends do not count, a backslash is a slash, and any
/// number of slashes may stand behind the scheme. Whatever @p text is, this returns, in time linear in its length.
std::variant<WebUrl, UrlFault> parseWebUrl(std::string_view text);

/// Whether @p text has a scheme and an authority in front: what may begin an entry of a list.
bool hasScheme(std::string_view text);

/// The version 4 address that @p host is, in host byte order; numbers may be decimal, octal and hexadecimal, and fewer
/// than four. None for a name.
std::optional<std::uint32_t> addressOf(const std::string& host);

/// How many bytes of @p target are its path; the query stands behind them.
inline std::size_t pathLength(std::string_view target) {
    const std::size_t mark = target.find('?');
    return mark == std::string_view::npos ? target.size() : mark;
}

} // namespace Sentrel::browsing
