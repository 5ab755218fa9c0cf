// A policy's document, from JSON to its sections.
//
// Reading is strict: an unknown member, a value of another type or one beyond its bound refuses the whole document, so
// that a policy is never half in force because of its form. A boolean becomes "1" or "0" and an integer its digits,
// since the module looks every value up as a text. The keys are bounded for all groups together.
//
// The place of a value (Place) is a chain of references. It becomes text only for an error message: a policy has very
// many values, and the long names above them would be copied for each.
#include "platform/hvbagent/PolicyDocument.h"

#include "platform/hvbagent/AgentLimits.h"
#include "platform/hvbagent/StrictJson.h"
#include "platform/hvbagent/Topics.h"
#include "policy/PolicyKeys.h"

#include <nlohmann/json.hpp>
#include <sodium.h>

#include <algorithm>
#include <array>
#include <limits>
#include <new>

namespace HVBEnterprise::agent {
namespace {

using nlohmann::json;

/// The place of a value. It becomes text only for an error message: a policy has very many values.
/// Threads: one at a time. Owner: the reading operation; what is above it and the name must outlive it.
class Place {
public:
    Place() = default; ///< the document's
    Place(const Place& above, std::string_view name) : m_above(&above), m_name(name) {}

    std::string text() const { return m_above == nullptr ? std::string() : memberPlace(m_above->text(), m_name); }

private:
    const Place* m_above = nullptr;
    std::string_view m_name;
};

std::size_t charactersOf(const std::string& utf8) {
    constexpr unsigned trailMask = 0xC0;
    constexpr unsigned trail = 0x80;
    return static_cast<std::size_t>(std::count_if(
        utf8.begin(), utf8.end(), [](char c) { return (static_cast<unsigned char>(c) & trailMask) != trail; }));
}

void checkName(const std::string& name, const Place& place) {
    if (charactersOf(name) > kMaxNameCharacters) {
        throw DocumentError(place.text(),
                            "the name is longer than " + std::to_string(kMaxNameCharacters) + " characters");
    }
}

const json::object_t& objectAt(const json& value, const Place& place) {
    if (!value.is_object()) {
        throw DocumentError(place.text(), "is not an object");
    }
    return value.get_ref<const json::object_t&>();
}

const json::object_t& groupsAt(const json& value, const Place& place) {
    const json::object_t& groups = objectAt(value, place);
    if (groups.size() > kMaxPolicyGroups) {
        throw DocumentError(place.text(), "has more than " + std::to_string(kMaxPolicyGroups) + " members");
    }
    return groups;
}

std::string valueText(const json& value, const Place& place) {
    if (value.is_boolean()) {
        return value.get<bool>() ? "1" : "0";
    }
    if (value.is_number_integer()) {
        return value.dump();
    }
    if (!value.is_string()) {
        throw DocumentError(place.text(), "is neither a text nor an integer nor a boolean");
    }
    const auto& text = value.get_ref<const std::string&>();
    if (text.size() > kMaxValueBytes) {
        throw DocumentError(place.text(), "is longer than " + std::to_string(kMaxValueBytes) + " bytes");
    }
    return text;
}

/// Fills the sections of one document. @p m_keys bounds them all together.
class SectionsFiller {
public:
    SectionsFiller(SectionsHandle& sections, std::size_t maxKeys) : m_sections(sections), m_maxKeys(maxKeys) {}

    void fillSections(const json& value) {
        insertEach(value, Place(m_document, "sections"),
                   [this](const std::wstring& section, const std::wstring& key, const std::wstring& text) {
                       m_sections.insert(section, key, text);
                   });
    }

    void fillFeatures(const json& value) {
        const Place features(m_document, "features");
        for (const auto& [name, sections] : groupsAt(value, features)) {
            const Place place(features, name);
            checkName(name, place);
            const std::wstring feature = wideOf(name);
            insertEach(sections, place,
                       [&](const std::wstring& section, const std::wstring& key, const std::wstring& text) {
                           m_sections.insertForFeature(feature, section, key, text);
                       });
        }
    }

private:
    template <class Insert>
    void insertEach(const json& value, const Place& place, const Insert& insert) {
        for (const auto& [name, keys] : groupsAt(value, place)) {
            const Place sectionPlace(place, name);
            checkName(name, sectionPlace);
            const std::wstring section = wideOf(name);
            for (const auto& [key, entry] : objectAt(keys, sectionPlace)) {
                const Place keyPlace(sectionPlace, key);
                checkName(key, keyPlace);
                if (++m_keys > m_maxKeys) {
                    throw DocumentError("", "has more than " + std::to_string(m_maxKeys) + " keys");
                }
                if (Sentrel::policy::isBeyondItsList(name, key)) {
                    throw DocumentError(keyPlace.text(), "is beyond the " +
                                                             std::to_string(Sentrel::policy::kMaxPolicyEntries) +
                                                             " entries that a list may have");
                }
                insert(section, wideOf(key), wideOf(valueText(entry, keyPlace)));
            }
        }
    }

    SectionsHandle& m_sections;
    const std::size_t m_maxKeys;
    const Place m_document;
    std::size_t m_keys = 0;
};

std::int64_t versionOf(const json::object_t& document) {
    const auto found = document.find("version");
    if (found == document.end()) {
        throw DocumentError("/version", "is missing");
    }
    const json& version = found->second;
    constexpr auto largest = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    if (!version.is_number_unsigned() || version.get<std::uint64_t>() > largest) {
        throw DocumentError("/version", "is not an integer from 0 to " + std::to_string(largest));
    }
    return version.get<std::int64_t>();
}

std::int64_t epochOf(const json::object_t& document) {
    const auto found = document.find("epoch");
    if (found == document.end()) {
        return kFirstEpoch;
    }
    const json& epoch = found->second;
    if (!epoch.is_number_unsigned() || epoch.get<std::uint64_t>() < static_cast<std::uint64_t>(kFirstEpoch) ||
        epoch.get<std::uint64_t>() > static_cast<std::uint64_t>(kLastEpoch)) {
        throw DocumentError("/epoch", "is not an integer from " + std::to_string(kFirstEpoch) + " to " +
                                          std::to_string(kLastEpoch));
    }
    return epoch.get<std::int64_t>();
}

/// A member of the audience, which is a part of a topic.
std::string topicPartOf(const json::object_t& audience, const char* name) {
    const auto found = audience.find(name);
    if (found == audience.end()) {
        return {};
    }
    if (!found->second.is_string() || !isTopicPart(found->second.get_ref<const std::string&>())) {
        throw DocumentError(memberPlace("/audience", name), whyNoTopicPart());
    }
    return found->second.get<std::string>();
}

std::optional<Audience> audienceOf(const json::object_t& document) {
    const auto found = document.find("audience");
    if (found == document.end()) {
        return std::nullopt;
    }
    const json::object_t& members = objectAt(found->second, Place(Place(), "audience"));
    for (const auto& [name, member] : members) {
        if (name != "site" && name != "machine" && name != "group") {
            throw DocumentError(memberPlace("/audience", name), "is no member of an audience");
        }
    }
    Audience audience{.site = topicPartOf(members, "site"),
                      .group = topicPartOf(members, "group"),
                      .machine = topicPartOf(members, "machine")};
    if (audience.site.empty()) {
        throw DocumentError("/audience/site", "is missing");
    }
    if (audience.machine.empty() == audience.group.empty()) {
        throw DocumentError("/audience", "names not just one of machine and group");
    }
    return audience;
}

std::string idOf(const json::object_t& document) {
    const auto found = document.find("id");
    if (found == document.end()) {
        return {};
    }
    if (!found->second.is_string()) {
        throw DocumentError("/id", "is not a text");
    }
    auto id = found->second.get<std::string>();
    if (charactersOf(id) > kMaxNameCharacters) {
        throw DocumentError("/id", "is longer than " + std::to_string(kMaxNameCharacters) + " characters");
    }
    return id;
}

/// Whether a member says what the policy is, and not what is to be.
bool isAboutItself(const std::string& name) {
    constexpr std::array<std::string_view, 4> members{"version", "epoch", "id", "audience"};
    return std::find(members.begin(), members.end(), name) != members.end();
}

void fill(const json& value, const PolicyBounds& bounds, PolicyReading& reading) {
    const json::object_t& document = objectAt(value, Place());
    reading.identity.version = versionOf(document);
    reading.identity.epoch = epochOf(document);
    reading.identity.id = idOf(document);
    reading.identity.audience = audienceOf(document);
    SectionsFiller filler(reading.sections, bounds.keys);
    for (const auto& [name, member] : document) {
        if (name == "sections") {
            filler.fillSections(member);
        } else if (name == "features") {
            filler.fillFeatures(member);
        } else if (!isAboutItself(name)) {
            throw DocumentError(memberPlace("", name), "is no member of a policy");
        }
    }
}

/// Runs @p body. When it throws, the policy is refused, with the error's text as the reason.
template <class Body>
void refuseOnError(PolicyReading& result, const Body& body) {
    try {
        body();
    } catch (const DocumentError& error) {
        result.refused = error.what();
    } catch (const std::bad_alloc&) {
        result.refused = "the document: there is no memory for it";
    }
    if (!result.refused.empty()) {
        result.sections = {};
    }
}

json jsonOf(std::string_view bytes, std::size_t maxBytes) {
    return readStrictJson(bytes, {.bytes = maxBytes, .depth = kMaxPolicyDepth, .values = kMaxPolicyValues});
}

bool isEnvelope(const json& value) {
    return value.is_object() && (value.contains("payload") || value.contains("signature"));
}

std::string decodedMember(const json& envelope, const char* name) {
    const std::string place = memberPlace("", name);
    if (!envelope.contains(name)) {
        throw DocumentError(place, "is missing");
    }
    const json& member = envelope.at(name);
    std::optional<std::string> bytes =
        member.is_string() ? bytesOfBase64(member.get_ref<const std::string&>()) : std::nullopt;
    if (!bytes) {
        throw DocumentError(place, "is not base64");
    }
    return std::move(*bytes);
}

void checkMembers(const json& envelope) {
    for (const auto& [name, member] : envelope.get_ref<const json::object_t&>()) {
        if (name != "payload" && name != "signature") {
            throw DocumentError(memberPlace("", name), "is no member of a signed policy");
        }
    }
}

void checkSignature(const std::string& payload, const std::string& signature, const PublicKeys& keys) {
    requireSodium();
    const auto* const signatureBytes = reinterpret_cast<const unsigned char*>(signature.data());
    const auto* const payloadBytes = reinterpret_cast<const unsigned char*>(payload.data());
    const auto fits = [&](const PublicKey& key) {
        return crypto_sign_verify_detached(signatureBytes, payloadBytes, payload.size(), key.data()) == 0;
    };
    if (signature.size() != crypto_sign_BYTES || std::none_of(keys.begin(), keys.end(), fits)) {
        throw DocumentError("/signature", "does not fit the payload and this machine's key");
    }
}

void readEnvelope(const json& envelope, const PublicKeys& keys, const PolicyBounds& bounds, PolicyReading& result) {
    const std::string payload = decodedMember(envelope, "payload");
    result.identity.sha256 = sha256Of(payload);
    checkMembers(envelope);
    const std::string signature = decodedMember(envelope, "signature");
    if (!keys.empty()) {
        checkSignature(payload, signature, keys);
    }
    result = readPolicyDocument(payload, bounds);
}

} // namespace

PolicyReading readPolicyDocument(std::string_view bytes, const PolicyBounds& bounds) {
    PolicyReading result;
    result.identity.sha256 = sha256Of(bytes);
    refuseOnError(result, [&] { fill(jsonOf(bytes, bounds.bytes), bounds, result); });
    return result;
}

PolicyReading readPolicyMessage(std::string_view message, const PublicKeys& keys, const PolicyBounds& bounds) {
    PolicyReading result;
    result.identity.sha256 = sha256Of(message);
    refuseOnError(result, [&] {
        const json value = jsonOf(message, messageBytesFor(bounds.bytes));
        if (isEnvelope(value)) {
            readEnvelope(value, keys, bounds, result);
        } else if (!keys.empty()) {
            throw DocumentError("", "is not signed, and this machine takes signed policies only");
        } else if (message.size() > bounds.bytes) {
            throw DocumentError("", "is larger than " + std::to_string(bounds.bytes) + " bytes");
        } else {
            fill(value, bounds, result);
        }
    });
    return result;
}

std::optional<std::wstring> policyValue(const SectionsHandle& document, const Sentrel::policy::PolicyKey& key,
                                        int index) {
    using Sentrel::policy::wide;
    const std::wstring section = wide(key.section);
    const std::wstring name = wide(Sentrel::policy::nameOf(key, index));
    PolicySetting setting;
    setting.m_featureId = wide(key.feature);
    std::wstring value;
    const bool found = key.isReadAnywhere ? document.getPropValue(section, name, value)
                                          : document.getPropValue(setting, section, name, value);
    return found ? std::optional(std::move(value)) : std::nullopt;
}

std::optional<int> DocumentValues::number(const Sentrel::policy::PolicyKey& key, int index) const {
    const auto value = policyValue(m_document, key, index);
    return value ? std::optional(Sentrel::policy::readNumber(*value).value) : std::nullopt;
}

std::optional<Sentrel::policy::PolicyText> DocumentValues::text(const Sentrel::policy::PolicyKey& key,
                                                                int index) const {
    const auto value = policyValue(m_document, key, index);
    return value ? std::optional(Sentrel::policy::readText(*value)) : std::nullopt;
}

} // namespace HVBEnterprise::agent
