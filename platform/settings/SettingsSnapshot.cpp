// A snapshot as JSON, in both directions.
//
// A text of the file is bytes. One that is UTF-8 without U+0000 is a JSON string; any other one is {"hex": "…"}, two
// digits a byte, so that nothing is lost and no reader meets a half character.
//
// Both directions know the same members. The reader takes each by its name and counts what it took: a member that it
// does not know is an error, so that a newer snapshot is not half understood.
#include "platform/settings/SettingsSnapshot.h"

#include "base/PrintableText.h"
#include "platform/hvbagent/Encoding.h"
#include "platform/hvbagent/StrictJson.h"
#include "platform/settings/SettingsKeys.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <utility>

namespace Sentrel::settings {
namespace {

using nlohmann::json;

constexpr int kFormat = 1;
constexpr std::array<std::pair<SnapshotState, std::string_view>, 3> kStates{
    {{SnapshotState::Whole, "whole"}, {SnapshotState::Short, "short"}, {SnapshotState::None, "none"}}};
constexpr std::array<std::string_view, 3> kLists{"allow_block", "categories", "private_ranges"};

json jsonOfBytes(const std::string& bytes) {
    if (bytes.find('\0') == std::string::npos && text::validUtf8(bytes) == bytes) {
        return bytes;
    }
    std::string hex;
    hex.reserve(bytes.size() * 2);
    for (const char byte : bytes) {
        fmt::format_to(std::back_inserter(hex), "{:02x}", static_cast<unsigned char>(byte));
    }
    return json{{"hex", std::move(hex)}};
}

json jsonOfEntries(const std::vector<ListEntry>& entries) {
    json list = json::array();
    for (const ListEntry& entry : entries) {
        list.push_back(json::array({jsonOfBytes(entry.name), entry.value}));
    }
    return list;
}

json jsonOfProxy(const ProxySettings& proxy) {
    json object = json::object();
    const auto put = [&object](const char* name, const auto& value) {
        if (value) {
            object[name] = *value;
        }
    };
    if (proxy.host) {
        object["host"] = jsonOfBytes(*proxy.host);
    }
    if (proxy.user) {
        object["user"] = jsonOfBytes(*proxy.user);
    }
    if (proxy.hasPassword) {
        object["password_set"] = true;
    }
    put("password", proxy.cipheredPassword);
    put("port", proxy.port);
    put("type", proxy.type);
    put("authentication", proxy.authentication);
    return object;
}

json jsonOfPolicy(const MachinePolicy& policy) {
    json object{{"managed", policy.isManaged},
                {"trouble", policy.trouble},
                {"rules", policy.rules},
                {"local_grants", policy.allowsLocalGrants}};
    if (policy.version) {
        object["version"] = *policy.version;
    }
    return object;
}

json documentOf(const SettingsSnapshot& snapshot) {
    json document{{"format", kFormat},
                  {"read_at", snapshot.readAt},
                  {"state", stateWord(snapshot.state)},
                  {"reason", snapshot.reason},
                  {"changing", snapshot.isChanging},
                  {"numbers", snapshot.numbers},
                  {"unreadable", snapshot.unreadable},
                  {"categories", jsonOfEntries(snapshot.categories)},
                  {"allow_block", jsonOfEntries(snapshot.allowBlock)},
                  {"proxy", jsonOfProxy(snapshot.proxy)}};
    json& ranges = document["private_ranges"] = json::array();
    std::transform(snapshot.privateRanges.begin(), snapshot.privateRanges.end(), std::back_inserter(ranges),
                   jsonOfBytes);
    if (snapshot.check) {
        document["check"] = {{"at", snapshot.check->at}, {"trouble", snapshot.check->trouble}};
    }
    if (snapshot.replacement) {
        document["replacing"] = {{"list", snapshot.replacement->list},
                                 {"of", snapshot.replacement->of},
                                 {"stored", snapshot.replacement->stored}};
    }
    if (snapshot.policy) {
        document["policy"] = jsonOfPolicy(*snapshot.policy);
    }
    return document;
}

[[noreturn]] void refuse(const std::string& place, const char* what) {
    throw SnapshotError(fmt::format("{}: {}", text::printable(place), what));
}

template <class Number>
Number numberIn(const json& value, const std::string& place) {
    // The library gives every number that is not negative as unsigned.
    if (value.is_number_unsigned()) {
        if (value.get<std::uint64_t>() <= static_cast<std::uint64_t>(std::numeric_limits<Number>::max())) {
            return value.get<Number>();
        }
    } else if (value.is_number_integer() && std::numeric_limits<Number>::is_signed &&
               value.get<std::int64_t>() >= static_cast<std::int64_t>(std::numeric_limits<Number>::min())) {
        return value.get<Number>();
    }
    refuse(place, "is no number, or one out of range");
}

bool boolIn(const json& value, const std::string& place) {
    return value.is_boolean() ? value.get<bool>() : (refuse(place, "is neither true nor false"), false);
}

std::string textIn(const json& value, const std::string& place) {
    return value.is_string() ? value.get<std::string>() : (refuse(place, "is no text"), std::string());
}

/// The members of an object, each taken once. Threads: one at a time. Owner: a local; the object outlives it.
class Members {
public:
    Members(const json& object, std::string place) : m_object(object), m_place(std::move(place)) {
        if (!object.is_object()) {
            refuse(m_place, "is no object");
        }
    }

    std::string placeOf(const char* name) const { return m_place + "/" + name; }

    const json* find(const char* name) {
        const auto found = m_object.find(name);
        m_taken += found != m_object.end() ? 1U : 0U;
        return found != m_object.end() ? &*found : nullptr;
    }
    const json& require(const char* name) {
        const json* found = find(name);
        return found != nullptr ? *found : (refuse(placeOf(name), "is missing"), m_object);
    }
    template <class Value, class Read>
    void readInto(std::optional<Value>& value, const char* name, const Read& read) {
        if (const json* found = find(name)) {
            value = read(*found, placeOf(name));
        }
    }
    void requireNoOthers() const {
        if (m_taken != m_object.size()) {
            refuse(m_place, "has a member that no snapshot has");
        }
    }

private:
    const json& m_object;
    const std::string m_place;
    std::size_t m_taken = 0;
};

std::string bytesOfHex(const std::string& hex, const std::string& place) {
    std::string bytes(hex.size() / 2, '\0');
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        unsigned char byte = 0;
        const char* const digits = hex.data() + 2 * i;
        const auto [end, error] = std::from_chars(digits, digits + 2, byte, 16);
        if (error != std::errc() || end != digits + 2) {
            refuse(place, "is no hexadecimal text");
        }
        bytes[i] = static_cast<char>(byte);
    }
    return hex.size() % 2 == 0 ? bytes : (refuse(place, "is no hexadecimal text"), bytes);
}

std::string bytesIn(const json& value, const std::string& place) {
    if (value.is_string()) {
        return value.get<std::string>();
    }
    Members members(value, place);
    const std::string hex = textIn(members.require("hex"), members.placeOf("hex"));
    members.requireNoOthers();
    return bytesOfHex(hex, place);
}

/// Hands each element of a list to @p take.
template <class Take>
void eachIn(const json& value, const std::string& place, const Take& take) {
    if (!value.is_array()) {
        refuse(place, "is no list");
    }
    std::for_each(value.begin(), value.end(), take);
}

std::vector<ListEntry> entriesIn(const json& value, const std::string& place) {
    std::vector<ListEntry> entries;
    eachIn(value, place, [&](const json& entry) {
        if (!entry.is_array() || entry.size() != 2) {
            refuse(place, "has an entry that is no pair");
        }
        entries.push_back({bytesIn(entry[0], place), numberIn<std::int32_t>(entry[1], place)});
    });
    return entries;
}

std::map<std::string, std::int32_t> numbersIn(const json& value, const std::string& place) {
    std::map<std::string, std::int32_t> numbers;
    if (!value.is_object()) {
        refuse(place, "is no object");
    }
    for (const auto& [name, number] : value.items()) {
        if (std::find(kNumberKeys.begin(), kNumberKeys.end(), name) == kNumberKeys.end()) {
            refuse(place + "/" + text::shortened(name, 64), "is no key of a number");
        }
        numbers[name] = numberIn<std::int32_t>(number, place + "/" + name);
    }
    return numbers;
}

ProxySettings proxyIn(const json& value, const std::string& place) {
    ProxySettings proxy;
    Members members(value, place);
    members.readInto(proxy.host, "host", bytesIn);
    members.readInto(proxy.user, "user", bytesIn);
    members.readInto(proxy.cipheredPassword, "password", textIn);
    members.readInto(proxy.port, "port", numberIn<std::int32_t>);
    members.readInto(proxy.type, "type", numberIn<std::int32_t>);
    members.readInto(proxy.authentication, "authentication", numberIn<std::int32_t>);
    if (const json* set = members.find("password_set")) {
        proxy.hasPassword = boolIn(*set, members.placeOf("password_set"));
    }
    members.requireNoOthers();
    if (proxy.cipheredPassword && (!proxy.hasPassword || !isCipherText(*proxy.cipheredPassword))) {
        refuse(place, "has a password that may not be shown");
    }
    return proxy;
}

FileCheck checkIn(const json& value, const std::string& place) {
    Members members(value, place);
    FileCheck check{numberIn<std::int64_t>(members.require("at"), members.placeOf("at")),
                    textIn(members.require("trouble"), members.placeOf("trouble"))};
    members.requireNoOthers();
    return check;
}

Replacement replacementIn(const json& value, const std::string& place) {
    Members members(value, place);
    Replacement replacement{textIn(members.require("list"), members.placeOf("list")),
                            numberIn<std::uint64_t>(members.require("of"), members.placeOf("of")),
                            numberIn<std::uint64_t>(members.require("stored"), members.placeOf("stored"))};
    members.requireNoOthers();
    if (std::find(kLists.begin(), kLists.end(), replacement.list) == kLists.end()) {
        refuse(place, "names no list");
    }
    return replacement;
}

MachinePolicy policyIn(const json& value, const std::string& place) {
    MachinePolicy policy;
    Members members(value, place);
    policy.isManaged = boolIn(members.require("managed"), members.placeOf("managed"));
    members.readInto(policy.version, "version", numberIn<std::int64_t>);
    policy.trouble = textIn(members.require("trouble"), members.placeOf("trouble"));
    const std::string rules = members.placeOf("rules");
    eachIn(members.require("rules"), rules, [&](const json& key) { policy.rules.push_back(textIn(key, rules)); });
    // A text that was kept from before has no such member.
    if (const json* allowed = members.find("local_grants")) {
        policy.allowsLocalGrants = boolIn(*allowed, members.placeOf("local_grants"));
    }
    members.requireNoOthers();
    return policy;
}

SnapshotState stateIn(const json& value, const std::string& place) {
    const std::string word = textIn(value, place);
    const auto* const found =
        std::find_if(kStates.begin(), kStates.end(), [&word](const auto& one) { return one.second == word; });
    return found != kStates.end() ? found->first : (refuse(place, "is no state"), SnapshotState::None);
}

/// What says how the values are to be taken.
void readHead(Members& members, SettingsSnapshot& snapshot) {
    if (numberIn<std::int32_t>(members.require("format"), "/format") != kFormat) {
        refuse("/format", "is another one than this program knows");
    }
    snapshot.readAt = numberIn<std::int64_t>(members.require("read_at"), "/read_at");
    snapshot.state = stateIn(members.require("state"), "/state");
    snapshot.reason = textIn(members.require("reason"), "/reason");
    snapshot.isChanging = boolIn(members.require("changing"), "/changing");
    members.readInto(snapshot.check, "check", checkIn);
    members.readInto(snapshot.replacement, "replacing", replacementIn);
    members.readInto(snapshot.policy, "policy", policyIn);
}

void readValues(Members& members, SettingsSnapshot& snapshot) {
    snapshot.numbers = numbersIn(members.require("numbers"), "/numbers");
    eachIn(members.require("unreadable"), "/unreadable",
           [&](const json& key) { snapshot.unreadable.push_back(textIn(key, "/unreadable")); });
    snapshot.categories = entriesIn(members.require("categories"), "/categories");
    snapshot.allowBlock = entriesIn(members.require("allow_block"), "/allow_block");
    eachIn(members.require("private_ranges"), "/private_ranges",
           [&](const json& range) { snapshot.privateRanges.push_back(bytesIn(range, "/private_ranges")); });
    snapshot.proxy = proxyIn(members.require("proxy"), "/proxy");
}

json jsonOf(std::string_view text) {
    constexpr std::size_t deepest = 4; // the document, a list, an entry, its bytes
    constexpr std::size_t valuesOfAnEntry = 4;
    constexpr std::size_t others = 1000;
    try {
        return HVBEnterprise::agent::readStrictJson(
            text, {kMaxSnapshotBytes, deepest, kMaxSnapshotEntries * valuesOfAnEntry + others});
    } catch (const HVBEnterprise::agent::DocumentError& error) {
        throw SnapshotError(error.what());
    }
}

std::size_t entriesOf(const SettingsSnapshot& snapshot) {
    return snapshot.categories.size() + snapshot.allowBlock.size() + snapshot.privateRanges.size();
}

} // namespace

std::string_view stateWord(SnapshotState state) {
    return kStates.at(static_cast<std::size_t>(state)).second;
}

std::string textOf(const SettingsSnapshot& snapshot) {
    if (entriesOf(snapshot) > kMaxSnapshotEntries) {
        throw SnapshotError(
            fmt::format("the lists have {} entries; {} is the most", entriesOf(snapshot), kMaxSnapshotEntries));
    }
    std::string text = documentOf(snapshot).dump();
    if (text.size() > kMaxSnapshotBytes) {
        throw SnapshotError(
            fmt::format("the settings take {} bytes as a text; {} is the most", text.size(), kMaxSnapshotBytes));
    }
    return text;
}

SettingsSnapshot snapshotOf(std::string_view text) {
    const json document = jsonOf(text);
    SettingsSnapshot snapshot;
    Members members(document, "");
    readHead(members, snapshot);
    readValues(members, snapshot);
    members.requireNoOthers();
    if (entriesOf(snapshot) > kMaxSnapshotEntries) {
        throw SnapshotError(fmt::format("the lists have more than {} entries", kMaxSnapshotEntries));
    }
    return snapshot;
}

bool isCipherText(std::string_view password) {
    constexpr std::string_view form = "v1:";
    constexpr std::size_t nonceAndMac = 24 + 16; // of a secret box, so an empty one has these bytes
    if (!password.starts_with(form)) {
        return false;
    }
    const std::optional<std::string> box = HVBEnterprise::agent::bytesOfBase64(password.substr(form.size()));
    return box && box->size() >= nonceAndMac;
}

} // namespace Sentrel::settings
