// The four formats, each as little of it as names whole hosts.
//
// What must stay so:
// - A line that names a part of a host's pages, or a host for some uses alone, is passed over and counted. A rating is
//   of the whole host, so taking such a line would say more than the list does.
// - A line that is no line of the format is bad, and is told with its number: it is how a wrong --format shows.
// - Nothing is looked up, included or fetched, whatever a list asks for.
#include "browser/ratings/ListFormats.h"

#include "browser/ratings/HostNames.h"

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

namespace Sentrel::ratings {
namespace {

constexpr std::string_view kBlanks = " \t\r\f\v";
constexpr LineReading kNothing{LineKind::Nothing, ""};
constexpr LineReading kTaken{LineKind::Taken, ""};
constexpr LineReading kPassedOver{LineKind::PassedOver, ""};

constexpr LineReading bad(const char* fault) {
    return {LineKind::Bad, fault};
}

std::string_view trimmed(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
    return text.substr(0, text.find_last_not_of(kBlanks) + 1);
}

/// The next word of @p text, which loses it; empty at its end.
std::string_view nextWord(std::string_view& text) {
    text = trimmed(text);
    const std::string_view word = text.substr(0, text.find_first_of(kBlanks));
    text.remove_prefix(word.size());
    return word;
}

bool isOneOf(std::string_view word, std::initializer_list<std::string_view> words) {
    return std::find(words.begin(), words.end(), word) != words.end();
}

std::string lowerCase(std::string_view text) {
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    return lower;
}

/// Hands the host that @p text is to the sink. @return whether it is one.
bool take(std::string_view text, Marks marks, const HostSink& sink) {
    const std::optional<std::string> host = normalisedHost(text);
    if (host) {
        sink(*host, marks);
    }
    return host.has_value();
}

/// hosts(5). A name that leads to a real address is somebody's own host, and no entry.
class HostsReader : public LineReader {
public:
    LineReading read(std::string_view line, const HostSink& sink) override {
        line = line.substr(0, line.find('#'));
        const std::string_view address = nextWord(line);
        if (address.empty()) {
            return kNothing;
        }
        const bool leadsNowhere = isOneOf(address, {"0.0.0.0", "127.0.0.1", "0", "::", "::0", "::1"});
        if (!leadsNowhere && address.find_first_not_of("0123456789.abcdefABCDEF:%") != std::string_view::npos) {
            return bad("does not begin with an address");
        }
        return leadsNowhere ? takeNames(line, sink) : kPassedOver;
    }

private:
    static LineReading takeNames(std::string_view line, const HostSink& sink) {
        LineReading reading = bad("has no name behind its address");
        for (std::string_view name = nextWord(line); !name.empty(); name = nextWord(line)) {
            if (name.find('.') == std::string_view::npos || isOneOf(name, {"0.0.0.0", "localhost.localdomain"})) {
                reading = reading.kind == LineKind::Taken ? reading : kPassedOver; // this machine's own
            } else if (take(name, kItself, sink)) {
                reading = kTaken;
            } else {
                return bad("has a name that no host can have");
            }
        }
        return reading;
    }
};

class DomainsReader : public LineReader {
public:
    LineReading read(std::string_view line, const HostSink& sink) override {
        std::string_view name = trimmed(line.substr(0, line.find('#')));
        if (name.empty() || name.front() == '!') {
            return kNothing;
        }
        name.remove_prefix(name.starts_with("*.") ? 2 : 0);
        return take(name, kItself | kBelow, sink) ? kTaken : bad("is no name that a host can have");
    }
};

/// A zone of response policies, as far as its triggers are names that are asked for: a record a line, and anything in
/// brackets is the zone's own.
class RpzReader : public LineReader {
public:
    LineReading read(std::string_view line, const HostSink& sink) override {
        const bool wasOpen = m_open > 0;
        const std::optional<std::string_view> content = withoutComment(line);
        if (!content) {
            return bad("closes a bracket that is not open");
        }
        line = *content;
        if (wasOpen || trimmed(line).empty()) {
            return kNothing;
        }
        const bool repeatsOwner = kBlanks.find(line.front()) != std::string_view::npos;
        const std::string_view owner = repeatsOwner ? std::string_view() : nextWord(line);
        if (owner.starts_with('$')) {
            return directive(owner, line);
        }
        if (!repeatsOwner) {
            m_owner = lowerCase(owner);
        }
        return record(line, sink);
    }

    const char* faultAtEnd() const override {
        return m_open > 0 ? "opens a bracket that nothing closes: what is behind it counts as its part" : nullptr;
    }

private:
    /// The line up to its comment, with its brackets counted: those in a text are part of it. None when one closes
    /// nothing.
    std::optional<std::string_view> withoutComment(std::string_view line) {
        bool isInText = false;
        for (std::size_t at = 0; at < line.size(); ++at) {
            const char c = line[at];
            if (c == '\\') {
                ++at; // the next one means itself
            } else if (c == '"') {
                isInText = !isInText;
            } else if (isInText) {
                continue;
            } else if (c == ';') {
                return line.substr(0, at);
            } else if (c == '(') {
                ++m_open;
            } else if (c == ')' && m_open-- == 0) {
                m_open = 0;
                return std::nullopt;
            }
        }
        return line;
    }

    LineReading directive(std::string_view name, std::string_view rest) {
        if (lowerCase(name) == "$origin") {
            m_origin = lowerCase(nextWord(rest));
            return kNothing;
        }
        return lowerCase(name) == "$ttl" ? kNothing : kPassedOver;
    }

    LineReading record(std::string_view line, const HostSink& sink) {
        std::string type = lowerCase(nextWord(line));
        while (type == "in" ||
               (!type.empty() && type.front() >= '0' && type.front() <= '9')) { // class and time to live
            type = lowerCase(nextWord(line));
        }
        if (type == "soa" && m_origin.empty()) {
            m_origin = m_owner;
        }
        if (type == "soa" || type == "ns") {
            return kNothing;
        }
        if (type.empty()) {
            return bad("has no type of record");
        }
        return type == "cname" ? policy(lowerCase(nextWord(line)), sink) : kPassedOver;
    }

    LineReading policy(const std::string& target, const HostSink& sink) const {
        const bool takesOut = target == "rpz-passthru.";
        if (!takesOut && !isOneOf(target, {".", "*.", "rpz-drop."})) {
            return target.empty() ? bad("has no target") : kPassedOver;
        }
        std::optional<std::string_view> name = trigger();
        if (!name) {
            return bad("is outside of its zone");
        }
        if (name->find(".rpz-") != std::string_view::npos) { // an address or a name server as the trigger
            return kPassedOver;
        }
        const bool isBelow = name->starts_with("*.");
        name->remove_prefix(isBelow ? 2 : 0);
        const Marks marks = isBelow ? (takesOut ? kNotBelow : kBelow) : (takesOut ? kNotItself : kItself);
        return take(*name, marks, sink) ? kTaken : bad("is no name that a host can have");
    }

    /// The record's owner without the zone's name.
    std::optional<std::string_view> trigger() const {
        const std::string_view owner = m_owner;
        if (!owner.ends_with('.')) {
            return owner;
        }
        const std::string end = "." + m_origin;
        return !m_origin.empty() && m_origin != "@" && owner.ends_with(end)
                   ? std::optional(owner.substr(0, owner.size() - end.size()))
                   : std::nullopt;
    }

    std::string m_origin;
    std::string m_owner;
    std::uint64_t m_open = 0; ///< brackets
};

/// Filters that name a whole host: "||host^", "@@||host^", and a host alone, with options that let the page itself be
/// blocked.
class AdblockReader : public LineReader {
public:
    LineReading read(std::string_view line, const HostSink& sink) override {
        std::string_view filter = trimmed(line);
        if (filter.empty() || filter.front() == '!' || filter.starts_with("[Adblock") ||
            filter.starts_with("[uBlock")) {
            return kNothing;
        }
        const bool takesOut = filter.starts_with("@@");
        filter.remove_prefix(takesOut ? 2 : 0);
        const bool isAnchored = filter.starts_with("||");
        filter.remove_prefix(isAnchored ? 2 : 0);
        const std::string_view host = filter.substr(0, filter.find_first_of("^$/*|#"));
        std::string_view rest = filter.substr(host.size());
        const bool isAlone = !isAnchored && !takesOut && rest.empty() && isHostAlone(host);
        if (!isAlone && (!isAnchored || !rest.starts_with('^'))) {
            return kPassedOver;
        }
        rest.remove_prefix(isAlone ? 0 : 1);
        if (!rest.empty() && (rest.front() != '$' || !concernPages(rest.substr(1)))) {
            return kPassedOver;
        }
        const Marks marks = takesOut ? kNotItself | kNotBelow : kItself | kBelow;
        return take(host, marks, sink) ? kTaken : kPassedOver; // most patterns look like no host
    }

private:
    /// A filter without anything around it is a host, or a part of addresses such as "-120x600." or "&name.of=".
    static bool isHostAlone(std::string_view filter) {
        const auto canBeOfHost = [](char c) {
            return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_' ||
                   c == '.' || c < 0;
        };
        return filter.find('.') != std::string_view::npos && filter.back() != '.' &&
               std::all_of(filter.begin(), filter.end(), canBeOfHost);
    }

    /// Whether a filter with these options is for whole pages of its host, wherever they are opened from.
    static bool concernPages(std::string_view options) {
        bool namesTypes = false;
        bool namesPages = false;
        while (!options.empty()) {
            const std::string_view option = options.substr(0, options.find(','));
            options.remove_prefix(std::min(option.size() + 1, options.size()));
            const bool isPage = isOneOf(option, {"all", "document", "doc"});
            const bool isType =
                isPage || isOneOf(option, {"popup", "popunder", "subdocument", "frame", "script", "image", "stylesheet",
                                           "css", "object", "xmlhttprequest", "xhr", "websocket", "ping", "font",
                                           "media", "other", "webrtc", "beacon"});
            if (!isType && option != "important") {
                return false;
            }
            namesTypes = namesTypes || isType;
            namesPages = namesPages || isPage;
        }
        return namesPages || !namesTypes;
    }
};

constexpr std::array<std::pair<std::string_view, ListFormat>, 4> kFormats{{
    {"hosts", ListFormat::Hosts},
    {"domains", ListFormat::Domains},
    {"rpz", ListFormat::Rpz},
    {"adblock", ListFormat::Adblock},
}};

} // namespace

std::optional<ListFormat> formatNamed(std::string_view name) {
    const auto* const found =
        std::find_if(kFormats.begin(), kFormats.end(), [name](const auto& each) { return each.first == name; });
    return found == kFormats.end() ? std::nullopt : std::optional(found->second);
}

const char* nameOfFormat(ListFormat format) {
    return kFormats.at(static_cast<std::size_t>(format)).first.data();
}

std::unique_ptr<LineReader> readerOf(ListFormat format) {
    switch (format) {
    case ListFormat::Hosts:
        return std::make_unique<HostsReader>();
    case ListFormat::Domains:
        return std::make_unique<DomainsReader>();
    case ListFormat::Rpz:
        return std::make_unique<RpzReader>();
    case ListFormat::Adblock:
        break;
    }
    return std::make_unique<AdblockReader>();
}

} // namespace Sentrel::ratings
