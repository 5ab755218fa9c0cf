#include "apps/sentrelctl/terminal/Json.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace Sentrel::ctl {
namespace {

using LibraryJson = nlohmann::ordered_json;

LibraryJson toLibrary(const Json& json);

LibraryJson formOf(const Json::Array& array) {
    LibraryJson form = LibraryJson::array();
    std::transform(array.begin(), array.end(), std::back_inserter(form), toLibrary);
    return form;
}

LibraryJson formOf(const Json::Object& object) {
    LibraryJson form = LibraryJson::object();
    for (const auto& [name, value] : object) {
        form[name] = toLibrary(value);
    }
    return form;
}

template <class Scalar>
LibraryJson formOf(const Scalar& scalar) {
    return scalar;
}

LibraryJson toLibrary(const Json& json) {
    return std::visit([](const auto& value) -> LibraryJson { return formOf(value); }, json.value());
}

Json fromLibrary(const LibraryJson& value) {
    Json json;
    if (value.is_object()) {
        json = Json::object();
        for (const auto& [name, field] : value.items()) {
            json[name] = fromLibrary(field);
        }
    } else if (value.is_array()) {
        json = Json::array();
        for (const LibraryJson& element : value) {
            json.push_back(fromLibrary(element));
        }
    } else if (value.is_string()) {
        json = value.get<std::string>();
    } else if (value.is_boolean()) {
        json = value.get<bool>();
    } else if (value.is_number_unsigned()) {
        json = value.get<std::uint64_t>();
    } else if (value.is_number_integer()) {
        json = value.get<std::int64_t>();
    } else if (value.is_number()) {
        json = value.get<double>();
    }
    return json;
}

} // namespace

Json parsedJson(std::string_view document) {
    return fromLibrary(LibraryJson::parse(document));
}

// Not in the header: GCC 12, which sees the value's kind there, warns of the kinds that it is not.
void Json::push_back(Json value) {
    std::get<Array>(m_value).push_back(std::move(value));
}

Json& Json::operator[](std::string_view name) {
    Object& fields = std::get<Object>(m_value);
    const auto found =
        std::find_if(fields.begin(), fields.end(), [&](const Field& field) { return field.first == name; });
    return found != fields.end() ? found->second : fields.emplace_back(std::string(name), nullptr).second;
}

std::string jsonText(const Json& value, JsonMode mode) {
    constexpr int oneLine = -1;
    constexpr int indentation = 4;
    return toLibrary(value).dump(mode == JsonMode::Pretty ? indentation : oneLine, ' ', true) + "\n";
}

} // namespace Sentrel::ctl
