#include "browser/host/HostMessages.h"

#include "browser/host/Framing.h"
#include "platform/hvbagent/StrictJson.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <array>

namespace Sentrel::host {
namespace {

using nlohmann::json;

/// No message of this version has a tenth of either.
constexpr std::size_t kMaxRequestDepth = 16;
constexpr std::size_t kMaxRequestValues = 1000;

/// What is well-formed and beyond the bounds is an error of that message alone: the next one can be read.
json readObject(std::string_view message) {
    const auto isObject = [&message] {
        const std::size_t first = message.find_first_not_of(" \t\r\n");
        return first != std::string_view::npos && message[first] == '{' && json::accept(message);
    };
    try {
        json object =
            HVBEnterprise::agent::readStrictJson(message, {kMaxFrameBytes, kMaxRequestDepth, kMaxRequestValues});
        if (!object.is_object()) {
            throw FramingError("a message is no JSON object");
        }
        return object;
    } catch (const HVBEnterprise::agent::DocumentError& error) {
        if (isObject()) {
            throw RequestError("member", fmt::format("the message cannot be taken: {}", error.what()));
        }
        throw FramingError(fmt::format("a message is no JSON object: {}", error.what()));
    }
}

std::optional<std::uint64_t> idIn(const json& object) {
    const auto found = object.find("id");
    const bool isId =
        found != object.end() && found->is_number_unsigned() && found->get<std::uint64_t>() <= kMaxMessageId;
    return isId ? std::optional(found->get<std::uint64_t>()) : std::nullopt;
}

std::uint64_t neededId(const json& object) {
    const std::optional<std::uint64_t> id = idIn(object);
    if (!id) {
        throw RequestError("member", fmt::format("'id' is to be a whole number from 0 to {}", kMaxMessageId));
    }
    return *id;
}

std::string neededText(const json& object, const char* name) {
    const auto found = object.find(name);
    if (found == object.end() || !found->is_string()) {
        throw RequestError("member", fmt::format("'{}' is to be a text", name), idIn(object));
    }
    return found->get<std::string>();
}

/// The place of a member's word among @p words.
template <std::size_t size>
std::size_t neededWord(const json& object, const char* name, const std::array<std::string_view, size>& words) {
    const std::string word = neededText(object, name);
    for (std::size_t place = 0; place < size; ++place) {
        if (words[place] == word) {
            return place;
        }
    }
    throw RequestError("member", fmt::format("'{}' is to be one of {}", name, fmt::join(words, ", ")), idIn(object));
}

bool neededSwitch(const json& object, const char* name) {
    const auto found = object.find(name);
    if (found == object.end() || !found->is_boolean()) {
        throw RequestError("member", fmt::format("'{}' is to be true or false", name), idIn(object));
    }
    return found->get<bool>();
}

constexpr std::array<std::string_view, 2> kFrames{"main", "sub"};

Hello readHello(const json& object) {
    const auto version = object.find("version");
    if (version == object.end() || !version->is_number_integer()) {
        throw RequestError("member", "'version' is to be a whole number", idIn(object));
    }
    if (*version != kProtocolVersion) {
        throw RequestError("version", fmt::format("this host speaks version {} alone", kProtocolVersion), idIn(object));
    }
    static constexpr std::array<std::string_view, 2> browsers{"firefox", "chromium"};
    Hello hello;
    hello.browser = browsers[neededWord(object, "browser", browsers)];
    hello.wantsRules = neededSwitch(object, "rules");
    hello.wantsRatings = neededSwitch(object, "ratings");
    return hello;
}

ReportRequest readReport(const json& object) {
    static constexpr std::array<std::string_view, 3> answers{"none", "went-on", "turned-back"};
    return {neededId(object), neededText(object, "url"),
            static_cast<WarningAnswer>(neededWord(object, "answer", answers))};
}

} // namespace

HostRequest readRequest(std::string_view message) {
    const json object = readObject(message);
    const std::string type = neededText(object, "type");
    if (type == "hello") {
        return readHello(object);
    }
    if (type == "decide") {
        DecideRequest decide{neededId(object), neededText(object, "url")};
        neededWord(object, "frame", kFrames);
        return decide;
    }
    if (type == "report") {
        return readReport(object);
    }
    if (type == "request") {
        return AccessMessage{neededId(object), neededText(object, "url"), neededText(object, "reason"), true};
    }
    if (type == "requests") {
        return AccessMessage{neededId(object), neededText(object, "url"), "", false};
    }
    throw RequestError("type", "there is no message of this type", idIn(object));
}

} // namespace Sentrel::host
