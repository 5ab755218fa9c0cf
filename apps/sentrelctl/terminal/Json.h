// An answer in JSON, as a verb builds it. Its text is the JSON library's; only Json.cpp reads that library's headers.
#pragma once

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace Sentrel::ctl {

/// A value: null, a bool, a number, a text, an array or an object. An object keeps the order in which its fields are
/// added, so that a reader finds them in the same place. Every text must be valid UTF-8.
/// Threads: one at a time.
class Json {
public:
    using Field = std::pair<std::string, Json>;
    using Array = std::vector<Json>;
    using Object = std::vector<Field>;
    using Value = std::variant<std::nullptr_t, bool, std::int64_t, std::uint64_t, double, std::string, Array, Object>;

    Json() = default;
    Json(std::nullptr_t) {}
    Json(std::same_as<bool> auto value) : m_value(value) {}
    Json(std::signed_integral auto value) : m_value(static_cast<std::int64_t>(value)) {}
    template <std::unsigned_integral T>
    requires(!std::same_as<T, bool>) Json(T value) : m_value(static_cast<std::uint64_t>(value)) {}
    Json(double value) : m_value(value) {}
    Json(const char* text) : m_value(std::string(text)) {}
    Json(std::string_view text) : m_value(std::string(text)) {}
    Json(std::string text) : m_value(std::move(text)) {}
    Json(const std::vector<std::string>& texts) : m_value(Array(texts.begin(), texts.end())) {}
    /// An object with these fields.
    Json(std::initializer_list<Field> fields) : m_value(Object(fields)) {}

    static Json array() { return Json(Value(Array())); }
    static Json object() { return Json(Value(Object())); }

    /// Adds to an array. Requires that this is one.
    void push_back(Json value);

    /// The field of an object, added as null when there is none. Requires that this is an object.
    Json& operator[](std::string_view name);

    const Value& value() const { return m_value; }
    bool operator==(const Json&) const = default;

private:
    explicit Json(Value value) : m_value(std::move(value)) {}

    Value m_value;
};

/// The value of a document. Requires that it is valid JSON.
Json parsedJson(std::string_view document);

enum class JsonMode { Off, Short, Pretty };

/// One value on one line, or over several when @p mode is Pretty, with its newline. Everything but ASCII is escaped,
/// so that the text is harmless on a terminal.
std::string jsonText(const Json& value, JsonMode mode);

} // namespace Sentrel::ctl
