// JSON from outside, built while the parser reads.
//
// The library's parser calls the builder for each value, and the builder refuses at the first thing that is wrong: too
// many values, too deep, a name twice, U+0000 in a text. What is refused is never allocated, so the cost of a bad
// document ends where it gets bad. The parser keeps no stack of its own, so depth costs nothing before it is counted.
//
// An error message says where: a line and a column for what is not JSON, a JSON pointer for what is not allowed here.
// The parser's message is cut before the text that it quotes, as that text is from outside.
#include "platform/hvbagent/StrictJson.h"

#include "platform/hvbagent/Encoding.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <utility>
#include <vector>

namespace HVBEnterprise::agent {
namespace {

using nlohmann::json;

/// The parser's own message without its prefix, and without the text that it quotes.
std::string syntaxMessage(const std::string& what) {
    const std::size_t begin = what.find("syntax error");
    if (begin == std::string::npos) {
        return "a number is out of range";
    }
    return shortPrintable(std::string_view(what).substr(begin, what.find("; last read") - begin));
}

std::string lineAndColumn(std::string_view text, std::size_t position) {
    const std::string_view before = text.substr(0, std::min(position == 0 ? 0 : position - 1, text.size()));
    const std::size_t newline = before.rfind('\n');
    const std::size_t column = newline == std::string_view::npos ? before.size() + 1 : before.size() - newline;
    return "line " + std::to_string(1 + std::count(before.begin(), before.end(), '\n')) + ", column " +
           std::to_string(column);
}

/// Builds the value while the parser reads, and refuses at the first thing that is wrong. The parser itself keeps no
/// stack, so depth costs it nothing; what is refused here is never allocated.
class Builder final : public nlohmann::json_sax<json> {
public:
    Builder(std::string_view text, const JsonBounds& bounds) : m_text(text), m_bounds(bounds) {}

    json take() { return std::move(m_root); }

    bool null() override { return add(json(nullptr)) != nullptr; }
    bool boolean(bool value) override { return add(json(value)) != nullptr; }
    bool number_integer(number_integer_t value) override { return add(json(value)) != nullptr; }
    bool number_unsigned(number_unsigned_t value) override { return add(json(value)) != nullptr; }
    bool number_float(number_float_t value, const string_t& /*text*/) override { return add(json(value)) != nullptr; }
    bool string(string_t& value) override {
        if (holdsNull(value)) {
            refuseNull(placeOfNext());
        }
        return add(json(std::move(value))) != nullptr;
    }
    bool binary(binary_t& /*value*/) override { return false; } // no JSON text has one

    bool start_object(std::size_t /*size*/) override { return open(json::object()); }
    bool start_array(std::size_t /*size*/) override { return open(json::array()); }
    bool end_object() override { return close(); }
    bool end_array() override { return close(); }

    bool key(string_t& name) override {
        if (holdsNull(name)) {
            refuseNull(placeOfOpen());
        }
        if (m_open.back().value->contains(name)) {
            throw DocumentError(memberPlace(placeOfOpen(), name), "is there twice");
        }
        m_open.back().key = std::move(name);
        return true;
    }

    bool parse_error(std::size_t position, const std::string& /*token*/, const json::exception& error) override {
        throw DocumentError(lineAndColumn(m_text, position) + ": " + syntaxMessage(error.what()));
    }

private:
    struct Open {
        json* value;     ///< stays where it is until it is closed
        std::string key; ///< of the member that is being read
    };

    json* add(json&& value) {
        if (++m_values > m_bounds.values) {
            throw DocumentError("", "has more than " + std::to_string(m_bounds.values) + " values");
        }
        if (m_open.empty()) {
            m_root = std::move(value);
            return &m_root;
        }
        json& parent = *m_open.back().value;
        if (parent.is_array()) {
            parent.push_back(std::move(value));
            return &parent.back();
        }
        return &(parent[m_open.back().key] = std::move(value));
    }

    bool open(json&& value) {
        if (m_open.size() >= m_bounds.depth) {
            throw DocumentError(placeOfNext(), "is nested too deeply");
        }
        m_open.push_back({add(std::move(value)), {}});
        return true;
    }

    bool close() {
        m_open.pop_back();
        return true;
    }

    static bool holdsNull(const std::string& text) { return text.find('\0') != std::string::npos; }

    [[noreturn]] static void refuseNull(const std::string& where) {
        throw DocumentError(where, "holds a NUL character");
    }

    /// The place of the @p depth-th open value. Only for an error message: it is as long as all the names above it.
    std::string place(std::size_t depth) const {
        std::string result;
        for (std::size_t i = 0; i < depth; ++i) {
            result = memberPlace(result, nameOf(i));
        }
        return result;
    }

    std::string placeOfOpen() const { return place(m_open.size() - 1); }
    std::string placeOfNext() const { return place(m_open.size()); }

    /// What the @p depth-th open value calls the member that is being read. An element that is open itself is in its
    /// list already.
    std::string nameOf(std::size_t depth) const {
        const Open& open = m_open[depth];
        if (!open.value->is_array()) {
            return open.key;
        }
        return std::to_string(open.value->size() - (depth + 1 < m_open.size() ? 1 : 0));
    }

    std::string_view m_text;
    const JsonBounds& m_bounds;
    json m_root;
    std::vector<Open> m_open;
    std::size_t m_values = 0;
};

} // namespace

DocumentError::DocumentError(const std::string& place, const std::string& what)
    : std::runtime_error((place.empty() ? std::string("the document") : shortPrintable(place)) + ": " + what) {}

std::string memberPlace(const std::string& parent, std::string_view name) {
    std::string place = parent + "/";
    for (const char c : name) {
        if (c == '~' || c == '/') {
            place += c == '~' ? "~0" : "~1";
        } else {
            place += c;
        }
    }
    return place;
}

json readStrictJson(std::string_view text, const JsonBounds& bounds) {
    if (text.size() > bounds.bytes) {
        throw DocumentError("", "is larger than " + std::to_string(bounds.bytes) + " bytes");
    }
    // The parser takes a NUL byte between values as the end of the text and ignores what is behind it.
    if (const std::size_t null = text.find('\0'); null != std::string_view::npos) {
        throw DocumentError(lineAndColumn(text, null + 1) + ": a NUL byte");
    }
    Builder builder(text, bounds);
    json::sax_parse(text.begin(), text.end(), &builder);
    return builder.take();
}

} // namespace HVBEnterprise::agent
