// How the enrolment and the credentials are read: strictly, and whole before anything is used.
//
// Members asks for each member by its name, with its type and its bounds, and remembers what it was asked for. At the
// end whatever nobody asked for is refused. Otherwise a misspelt "policy_public_key" would be passed over, and the
// machine would take policies without a signature.
//
// What must stay so:
// - Every text is checked here, so that nobody behind has to: a part of a topic contains no "/" and no wildcard, a path
//   is absolute, a number is within its limits.
// - A message names the file and the place in it as a JSON pointer. It never quotes a value, which may be a password.
// - The configuration decides whom this machine obeys: only its owner may write it. The credentials are secret: only
//   their owner may access them.
// - Loading the configuration does not read the credentials. Each attempt to connect does: what cannot be read then is
//   said and tried again, the machine stays managed, and a changed password needs no restart.
#include "platform/hvbagent/AgentConfiguration.h"

#include "base/FileReading.h"
#include "base/WipeAtEnd.h"
#include "platform/hvbagent/AgentLimits.h"
#include "platform/hvbagent/StrictJson.h"
#include "platform/hvbagent/Topics.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <set>
#include <system_error>

namespace HVBEnterprise::agent {
namespace {

using nlohmann::json;

/// Takes the members of an object one by one; what nobody asked for is refused at the end.
/// Threads: single access. Owner: the reading operation; the value must outlive it.
class Members {
public:
    Members(const json& value, std::string place) : m_value(value), m_place(std::move(place)) {
        if (!value.is_object()) {
            throw DocumentError(m_place, "is not an object");
        }
    }

    std::string placeOf(const char* name) const { return memberPlace(m_place, name); }

    const json* find(const char* name) {
        m_asked.insert(name);
        const auto found = m_value.find(name);
        return found == m_value.end() ? nullptr : &*found;
    }

    const json& get(const char* name) {
        const json* const found = find(name);
        if (found == nullptr) {
            throw DocumentError(placeOf(name), "is missing");
        }
        return *found;
    }

    std::string text(const char* name, std::size_t maxBytes) { return asText(get(name), placeOf(name), maxBytes); }

    std::int64_t integer(const char* name, std::int64_t least, std::int64_t most) {
        const json& value = get(name);
        const bool inRange = value.is_number_unsigned() ? value.get<std::uint64_t>() <= static_cast<std::uint64_t>(most)
                                                        : value.is_number_integer();
        if (!inRange || value.get<std::int64_t>() < least || value.get<std::int64_t>() > most) {
            throw DocumentError(placeOf(name),
                                "is not an integer from " + std::to_string(least) + " to " + std::to_string(most));
        }
        return value.get<std::int64_t>();
    }

    std::int64_t integerOr(const char* name, std::int64_t least, std::int64_t most, std::int64_t otherwise) {
        return find(name) != nullptr ? integer(name, least, most) : otherwise;
    }

    bool switchOr(const char* name, bool otherwise) {
        const json* const found = find(name);
        if (found == nullptr) {
            return otherwise;
        }
        if (!found->is_boolean()) {
            throw DocumentError(placeOf(name), "is neither true nor false");
        }
        return found->get<bool>();
    }

    std::string path(const char* name) {
        std::string path = text(name, kMaxPathBytes);
        if (path.empty() || path.front() != '/') {
            throw DocumentError(placeOf(name), "is not an absolute path");
        }
        return path;
    }

    void refuseUnknown() const {
        for (const auto& [name, member] : m_value.get_ref<const json::object_t&>()) {
            if (m_asked.count(name) == 0) {
                throw DocumentError(memberPlace(m_place, name), "is not known here");
            }
        }
    }

    static std::string asText(const json& value, const std::string& place, std::size_t maxBytes) {
        if (!value.is_string()) {
            throw DocumentError(place, "is not a text");
        }
        const auto& text = value.get_ref<const std::string&>();
        if (text.size() > maxBytes) {
            throw DocumentError(place, "is longer than " + std::to_string(maxBytes) + " bytes");
        }
        return text;
    }

private:
    const json& m_value;
    std::string m_place;
    std::set<std::string> m_asked;
};

json smallJson(std::string_view text) {
    return readStrictJson(text, {.bytes = kMaxConfigurationBytes, .depth = kMaxSmallDepth, .values = kMaxSmallValues});
}

std::string topicPart(const std::string& text, const std::string& place) {
    if (!isTopicPart(text)) {
        throw DocumentError(place, whyNoTopicPart());
    }
    return text;
}

std::string hostOf(Members& broker) {
    std::string host = broker.text("host", kMaxHostBytes);
    const bool clean = std::all_of(host.begin(), host.end(), [](char c) { return c > ' ' && c < '\x7F'; });
    if (host.empty() || !clean) {
        throw DocumentError(broker.placeOf("host"), "is no host name");
    }
    return host;
}

std::optional<TlsFiles> tlsOf(Members& broker) {
    const json* const found = broker.find("tls");
    if (found == nullptr) {
        return std::nullopt;
    }
    Members tls(*found, broker.placeOf("tls"));
    TlsFiles files{.authority = tls.path("ca"), .certificate = {}, .key = {}};
    if (tls.find("certificate") != nullptr || tls.find("key") != nullptr) {
        files.certificate = tls.path("certificate");
        files.key = tls.path("key");
    }
    tls.refuseUnknown();
    return files;
}

void readBroker(Members& members, AgentConfiguration& configuration) {
    Members broker(members.get("broker"), members.placeOf("broker"));
    configuration.host = hostOf(broker);
    configuration.port =
        static_cast<std::uint16_t>(broker.integer("port", 1, std::numeric_limits<std::uint16_t>::max()));
    configuration.tls = tlsOf(broker);
    if (broker.find("credentials") != nullptr) {
        configuration.credentialsFile = broker.path("credentials");
    }
    broker.refuseUnknown();
}

std::string machineOf(Members& members, const std::string& machineIdFile) {
    if (members.find("machine") != nullptr) {
        return topicPart(members.text("machine", kMaxTopicPart), members.placeOf("machine"));
    }
    std::string id = Sentrel::readRegularFile(machineIdFile, kMaxConfigurationBytes, Sentrel::FileAccess::Anybody);
    id.resize(std::min(id.size(), id.find('\n')));
    if (!isTopicPart(id)) {
        throw DocumentError(members.placeOf("machine"), "is missing, and " + machineIdFile + " holds no id");
    }
    return id;
}

std::vector<std::string> groupsOf(Members& members) {
    std::set<std::string> groups;
    if (const json* const found = members.find("groups"); found != nullptr) {
        if (!found->is_array() || found->size() > kMaxGroups) {
            throw DocumentError(members.placeOf("groups"),
                                "is not a list of at most " + std::to_string(kMaxGroups) + " groups");
        }
        for (std::size_t i = 0; i < found->size(); ++i) {
            const std::string place = memberPlace(members.placeOf("groups"), std::to_string(i));
            groups.insert(topicPart(Members::asText((*found)[i], place, kMaxTopicPart), place));
        }
    }
    groups.erase(kEveryMachine);
    return {groups.begin(), groups.end()};
}

PublicKey publicKeyOf(const json& value, const std::string& place) {
    const std::string bytes = bytesOfBase64(Members::asText(value, place, kMaxCredentialBytes)).value_or("");
    PublicKey key{};
    if (bytes.size() != key.size()) {
        throw DocumentError(place, "is not the base64 of " + std::to_string(key.size()) + " bytes");
    }
    std::transform(bytes.begin(), bytes.end(), key.begin(), [](char c) { return static_cast<unsigned char>(c); });
    return key;
}

/// One key, or a list of them.
PublicKeys policyKeysOf(Members& members) {
    const json* const found = members.find("policy_public_key");
    if (found == nullptr) {
        return {};
    }
    const std::string place = members.placeOf("policy_public_key");
    if (!found->is_array()) {
        return {publicKeyOf(*found, place)};
    }
    if (found->empty() || found->size() > kMaxPolicyKeysOfSite) {
        throw DocumentError(place, "is neither a key nor a list of 1 to " + std::to_string(kMaxPolicyKeysOfSite));
    }
    PublicKeys keys;
    for (std::size_t i = 0; i < found->size(); ++i) {
        keys.push_back(publicKeyOf((*found)[i], memberPlace(place, std::to_string(i))));
    }
    return keys;
}

/// Wipes the texts of an object's members at its own end. Threads: as the object. Owner: a local behind the object.
class WipeTexts {
public:
    explicit WipeTexts(json& object) : m_object(object) {}
    ~WipeTexts() {
        for (json& member : m_object) {
            if (member.is_string()) {
                const Sentrel::WipeAtEnd wiped(member.get_ref<std::string&>());
            }
        }
    }
    WipeTexts(const WipeTexts&) = delete;
    WipeTexts& operator=(const WipeTexts&) = delete;

private:
    json& m_object;
};

std::string textOfConfiguration(const std::string& path) {
    return Sentrel::readRegularFile(path, kMaxConfigurationBytes, Sentrel::FileAccess::OwnerWrites);
}

/// Runs @p body. An error that names only the place in the document gets the file's name in front.
template <class Body>
auto nameFileInErrors(const std::string& path, const Body& body) {
    try {
        return body();
    } catch (const DocumentError& error) {
        throw std::runtime_error(path + ": " + error.what());
    }
}

} // namespace

Credentials::~Credentials() {
    const Sentrel::WipeAtEnd wipedUser(user);
    const Sentrel::WipeAtEnd wipedPassword(password);
}

AgentConfiguration readAgentConfiguration(std::string_view text, const std::string& machineIdFile) {
    const json document = smallJson(text);
    Members members(document, "");
    AgentConfiguration configuration;
    readBroker(members, configuration);
    configuration.site = topicPart(members.text("site", kMaxTopicPart), members.placeOf("site"));
    configuration.machine = machineOf(members, machineIdFile);
    configuration.groups = groupsOf(members);
    configuration.interval =
        std::chrono::seconds(members.integerOr("interval", kMinInterval, kMaxInterval, kDefaultInterval));
    configuration.keepalive =
        std::chrono::seconds(members.integerOr("keepalive", kMinKeepalive, kMaxKeepalive, kDefaultKeepalive));
    configuration.policyKeys = policyKeysOf(members);
    configuration.requiresAudience = members.switchOr("require_audience", false);
    configuration.allowsLocalGrants = members.switchOr("local_grants", false);
    members.refuseUnknown();
    return configuration;
}

std::optional<AgentConfiguration> loadAgentConfiguration(const std::string& path, const std::string& machineIdFile) {
    std::string text;
    try {
        text = textOfConfiguration(path);
    } catch (const std::system_error& error) {
        if (error.code().value() == ENOENT) {
            return std::nullopt;
        }
        throw;
    }
    return nameFileInErrors(path, [&] { return readAgentConfiguration(text, machineIdFile); });
}

bool enrolmentAllowsLocalGrants(const std::string& path) {
    try {
        return readAgentConfiguration(textOfConfiguration(path)).allowsLocalGrants;
    } catch (const std::runtime_error&) {
        return false; // the daemon tells what is wrong with it
    }
}

Credentials loadCredentials(const std::string& path) {
    std::string text = Sentrel::readRegularFile(path, kMaxConfigurationBytes, Sentrel::FileAccess::OwnerAlone);
    const Sentrel::WipeAtEnd wipedText(text);
    return nameFileInErrors(path, [&] {
        json document = smallJson(text);
        const WipeTexts wipedDocument(document);
        Members members(document, "");
        Credentials read;
        read.user = members.text("user", kMaxCredentialBytes);
        read.password = members.text("password", kMaxCredentialBytes);
        members.refuseUnknown();
        return read;
    });
}

} // namespace HVBEnterprise::agent
