// An address becomes its one form in three steps.
//
// 1. What browsers forgive is mended: white space, backslashes, slashes behind the scheme, userinfo, characters without
//    their escape. After this step the text is one that the RFC 3986 grammar accepts, or it is refused.
// 2. uriparser reads it and takes the dots out of the path; libidn2 brings the name into ASCII as browsers do (UTS #46,
//    non-transitional).
// 3. The host: a last dot is dropped, and what is a number is an address, in whatever base it is written.
//
// What must stay so:
// - Two texts that bring a browser to the same page should be one form, so that no other spelling gets around an entry.
//   An escape of a character that needs none is therefore no other spelling.
// - A name that libidn2 refuses but that is ASCII is kept: browsers go to such hosts.
#include "browser/decision/WebUrl.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <charconv>
#include <fmt/format.h>
#include <idn2.h>
#include <memory>
#include <uriparser/Uri.h>

namespace Sentrel::browsing {
namespace {

constexpr std::string_view kHexDigits = "0123456789ABCDEF";
constexpr std::size_t kDigitsOfEscape = 2;
constexpr std::string_view kUnreserved = "-._~";
constexpr std::string_view kReservedInPath = "!$&'()*+,;=:@/";  // may stand there as they are
constexpr std::string_view kReservedInQuery = "!$&()*+,;=:@/?"; // browsers escape the apostrophe here alone

/// uriparser's view of a text, with its path normalised. Threads: one. Owner: a local; the text outlives it.
class ParsedUri {
public:
    explicit ParsedUri(const std::string& text) {
        const char* errorAt = nullptr;
        m_isGood = uriParseSingleUriExA(&m_uri, text.data(), text.data() + text.size(), &errorAt) == URI_SUCCESS;
        m_isGood = m_isGood && (uriNormalizeSyntaxExA(&m_uri, URI_NORMALIZE_PATH) == URI_SUCCESS);
    }
    ~ParsedUri() { uriFreeUriMembersA(&m_uri); }
    ParsedUri(const ParsedUri&) = delete;
    ParsedUri& operator=(const ParsedUri&) = delete;

    explicit operator bool() const { return m_isGood; }
    const UriUriA& operator*() const { return m_uri; }

private:
    UriUriA m_uri{};
    bool m_isGood;
};

std::string_view textOf(const UriTextRangeA& range) {
    return range.first == nullptr
               ? std::string_view()
               : std::string_view(range.first, static_cast<std::size_t>(range.afterLast - range.first));
}

bool isLetterOrDigit(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

char lowered(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

/// The byte that "%XX" at @p text's begin stands for.
std::optional<char> escapedByte(std::string_view text) {
    constexpr std::size_t length = 3;
    unsigned char byte = 0;
    if (text.size() < length || text[0] != '%') {
        return std::nullopt;
    }
    const auto [end, error] = std::from_chars(text.data() + 1, text.data() + length, byte, 16);
    const bool isWhole = error == std::errc() && end == text.data() + length;
    return isWhole ? std::optional(static_cast<char>(byte)) : std::nullopt;
}

void appendEscape(std::string& text, char c) {
    const auto byte = static_cast<unsigned char>(c);
    text += '%';
    text += kHexDigits[byte >> 4U];
    text += kHexDigits[byte & 0xFU];
}

/// @p text with those escapes that are needed, and no others. @param also characters that need none here.
std::string withNeededEscapes(std::string_view text, std::string_view also) {
    std::string result;
    result.reserve(text.size());
    for (std::size_t at = 0; at < text.size(); ++at) {
        const std::optional<char> escaped = escapedByte(text.substr(at));
        const char c = escaped.value_or(text[at]);
        const bool isPlain = isLetterOrDigit(c) || kUnreserved.find(c) != std::string_view::npos;
        if (isPlain || (!escaped && also.find(c) != std::string_view::npos)) {
            result += c;
        } else {
            appendEscape(result, c);
        }
        at += escaped ? kDigitsOfEscape : 0;
    }
    return result;
}

std::string withoutEscapes(std::string_view text) {
    std::string result;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const std::optional<char> escaped = escapedByte(text.substr(at));
        result += escaped.value_or(text[at]);
        at += escaped ? kDigitsOfEscape : 0;
    }
    return result;
}

/// What browsers do before they read: white space at the ends and line ends anywhere do not count.
std::string cleaned(std::string_view text) {
    const auto isSpace = [](char c) { return c >= 0 && c <= ' '; };
    while (!text.empty() && isSpace(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && isSpace(text.back())) {
        text.remove_suffix(1);
    }
    std::string result(text.substr(0, text.find('#')));
    std::erase_if(result, [](char c) { return c == '\t' || c == '\n' || c == '\r'; });
    std::replace(result.begin(), result.begin() + static_cast<std::ptrdiff_t>(pathLength(result)), '\\', '/');
    return result;
}

/// The scheme in lower case; empty when the text does not begin with one.
std::string schemeOf(std::string_view text) {
    const std::size_t colon = text.find(':');
    if (colon == std::string_view::npos || colon == 0) {
        return {};
    }
    std::string scheme(text.substr(0, colon));
    std::transform(scheme.begin(), scheme.end(), scheme.begin(), lowered);
    const auto mayBeThere = [](char c) { return isLetterOrDigit(c) || c == '+' || c == '-' || c == '.'; };
    const bool isScheme = scheme[0] >= 'a' && scheme[0] <= 'z' && std::all_of(scheme.begin(), scheme.end(), mayBeThere);
    return isScheme ? scheme : std::string();
}

bool isAscii(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= 0; });
}

/// The name in ASCII and lower case; empty when it cannot be a host's.
std::string asciiName(const std::string& name) {
    constexpr int flags = IDN2_NONTRANSITIONAL | IDN2_NFC_INPUT;
    const bool needsLibrary = !isAscii(name) || name.find("xn--") != std::string::npos;
    char* raw = nullptr;
    if (needsLibrary && idn2_to_ascii_8z(name.c_str(), &raw, flags) == IDN2_OK) {
        const std::unique_ptr<char, decltype(&idn2_free)> ascii(raw, &idn2_free);
        return ascii.get();
    }
    return isAscii(name) ? name : std::string();
}

bool mayBeInHost(char c) {
    constexpr std::string_view never = "#%/:<>?@[\\]^|\x7f";
    return c > ' ' && never.find(c) == std::string_view::npos;
}

/// Whether a name ends in a number, as no name may that is not an address.
bool endsInNumber(std::string_view host) {
    const std::string_view last = host.substr(host.rfind('.') + 1);
    const bool isHex =
        last.starts_with("0x") && last.find_first_not_of("0123456789abcdef", 2) == std::string_view::npos;
    return !last.empty() && (isHex || last.find_first_not_of("0123456789") == std::string_view::npos);
}

std::string dottedAddress(std::uint32_t address) {
    const std::uint32_t network = htonl(address);
    std::array<char, INET_ADDRSTRLEN> text{};
    inet_ntop(AF_INET, &network, text.data(), text.size());
    return text.data();
}

/// Whether there is nothing between two dots of a name, at its begin, or at its end.
bool hasEmptyLabel(std::string_view name) {
    return name.empty() || name.starts_with('.') || name.ends_with('.') || name.find("..") != std::string_view::npos;
}

/// Fills in host and address. @return whether there can be such a host.
bool takeName(WebUrl& url, std::string_view hostText) {
    std::string name = withoutEscapes(hostText);
    if (name.find('\0') != std::string::npos) {
        return false;
    }
    std::transform(name.begin(), name.end(), name.begin(), lowered);
    name = asciiName(name);
    if (name.ends_with('.')) {
        name.pop_back();
    }
    if (hasEmptyLabel(name) || !std::all_of(name.begin(), name.end(), mayBeInHost)) {
        return false;
    }
    url.address = addressOf(name);
    url.host = url.address ? dottedAddress(*url.address) : name;
    return url.address || !endsInNumber(name);
}

/// The address as browsers write it: its last four bytes are never dotted.
std::string versionSixText(const unsigned char* bytes) {
    std::array<char, INET6_ADDRSTRLEN> buffer{};
    inet_ntop(AF_INET6, bytes, buffer.data(), buffer.size());
    const std::string text = buffer.data();
    if (text.find('.') == std::string::npos) {
        return text;
    }
    constexpr std::size_t dotted = 12; // where they begin
    const auto group = [&](std::size_t at) { return static_cast<unsigned>(bytes[at] << 8U | bytes[at + 1]); };
    return fmt::format("{}{:x}:{:x}", text.substr(0, text.rfind(':') + 1), group(dotted), group(dotted + 2));
}

bool takeHost(WebUrl& url, const UriUriA& uri) {
    if (uri.hostData.ip6 == nullptr) {
        return uri.hostData.ipFuture.first == nullptr && takeName(url, textOf(uri.hostText));
    }
    url.host = fmt::format("[{}]", versionSixText(uri.hostData.ip6->data));
    return true;
}

std::uint16_t ownPortOf(std::string_view scheme) {
    constexpr std::uint16_t http = 80;
    constexpr std::uint16_t https = 443;
    return scheme == "http" ? http : https;
}

bool takePort(WebUrl& url, std::string_view digits) {
    url.port = ownPortOf(url.scheme);
    if (digits.empty()) {
        return true;
    }
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), url.port);
    return error == std::errc() && end == digits.data() + digits.size();
}

void takeTarget(WebUrl& url, const UriUriA& uri) {
    for (const UriPathSegmentA* segment = uri.pathHead; segment != nullptr; segment = segment->next) {
        url.target.append("/").append(textOf(segment->text));
    }
    if (url.target.empty()) {
        url.target = "/";
    }
    if (const std::string_view query = textOf(uri.query); !query.empty()) {
        url.target.append("?").append(query);
    }
}

/// The text as the grammar takes it, from what stands behind the scheme's colon.
std::string mended(const std::string& scheme, std::string_view rest) {
    rest.remove_prefix(std::min(rest.find_first_not_of('/'), rest.size()));
    const std::size_t end = std::min(rest.find_first_of("/?"), rest.size());
    std::string_view authority = rest.substr(0, end);
    authority.remove_prefix(authority.rfind('@') + 1); // userinfo; nothing when there is none
    const std::string_view target = rest.substr(end);
    const std::size_t path = pathLength(target);
    return scheme + "://" + withNeededEscapes(authority, "!$&'()*+,;=:[]") +
           withNeededEscapes(target.substr(0, path), kReservedInPath) +
           (path < target.size() ? "?" + withNeededEscapes(target.substr(path + 1), kReservedInQuery) : "");
}

} // namespace

std::string WebUrl::text() const {
    return port == ownPortOf(scheme) ? fmt::format("{}://{}{}", scheme, host, target)
                                     : fmt::format("{}://{}:{}{}", scheme, host, port, target);
}

const char* faultText(UrlFault fault) {
    switch (fault) {
    case UrlFault::NoScheme:
        return "it does not begin with http:// or https://";
    case UrlFault::OtherScheme:
        return "its scheme is neither http nor https";
    case UrlFault::BadHost:
        return "it has no host, or one that cannot be";
    case UrlFault::BadPort:
        return "its port is no number from 0 to 65535";
    case UrlFault::Malformed:
        break;
    }
    return "it is malformed";
}

bool hasScheme(std::string_view text) {
    const std::size_t mark = text.find("://");
    return mark != std::string_view::npos && !schemeOf(text.substr(0, mark + 1)).empty();
}

std::optional<std::uint32_t> addressOf(const std::string& host) {
    in_addr address{};
    if (!endsInNumber(host) || inet_aton(host.c_str(), &address) == 0) {
        return std::nullopt;
    }
    return ntohl(address.s_addr);
}

std::variant<WebUrl, UrlFault> parseWebUrl(std::string_view text) {
    const std::string clean = cleaned(text);
    WebUrl url{.scheme = schemeOf(clean), .host = {}, .port = 0, .target = {}, .address = {}};
    if (url.scheme.empty()) {
        return UrlFault::NoScheme;
    }
    if (url.scheme != "http" && url.scheme != "https") {
        return UrlFault::OtherScheme;
    }
    const std::string whole = mended(url.scheme, std::string_view(clean).substr(url.scheme.size() + 1));
    const ParsedUri uri(whole);
    if (!uri) {
        return UrlFault::Malformed;
    }
    if (!takeHost(url, *uri)) {
        return UrlFault::BadHost;
    }
    if (!takePort(url, textOf((*uri).portText))) {
        return UrlFault::BadPort;
    }
    takeTarget(url, *uri);
    return url;
}

} // namespace Sentrel::browsing
