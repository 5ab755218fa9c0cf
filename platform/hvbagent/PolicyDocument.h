// A policy message: from the bytes that came to the document that a module reads.
#pragma once

#include "platform/hvbagent/AgentDocuments.h"
#include "platform/hvbagent/DocumentError.h"
#include "platform/hvbagent/Encoding.h"
#include "policy/PolicyLimits.h"
#include "policy/PolicyValues.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace HVBEnterprise::agent {

/// Whom a policy is for: the machines of a site that a group has, or one of them.
struct Audience {
    std::string site;
    std::string group;   ///< empty when it is for one machine
    std::string machine; ///< empty when it is for a group
};

/// What a policy says it is.
struct PolicyIdentity {
    std::optional<std::int64_t> version; ///< nothing when it could not be read
    /// Counts before the version: the first version of an epoch is newer than the last of the epoch before.
    std::int64_t epoch = Sentrel::policy::kFirstEpoch;
    std::string id;
    std::string sha256;               ///< of the document's bytes; of the message's when there is no document in it
    std::optional<Audience> audience; ///< nothing when it does not say
};

/// A policy that was read, or why it is refused.
struct PolicyReading {
    PolicyIdentity identity;
    SectionsHandle sections; ///< empty when it is refused
    std::string refused;     ///< why, with the place, printable and bounded; empty when it is a policy
};

/// What a document is held to.
struct PolicyBounds {
    std::size_t bytes = Sentrel::policy::kMaxPolicyBytes;
    std::size_t keys = Sentrel::policy::kMaxPolicyKeys;
};

/// Reads a policy document: {"version": n, "epoch": n, "id": text, "audience": {"site": text, and "machine" or "group":
/// text}, "sections": {section: {key: value}}, "features": {feature: {section: {key: value}}}}. The version must be
/// there. A value is a text, an integer or a boolean; the last two become their decimal text, "1" or "0". A list with
/// an entry that nobody would look for is refused. Whatever @p bytes are, this returns, in bounded time and memory.
PolicyReading readPolicyDocument(std::string_view bytes, const PolicyBounds& bounds = {});

/// Reads a policy message: a document, or {"payload": base64 of a document, "signature": base64 of its Ed25519
/// signature}.
/// @param keys when there are any, only the second form is taken, and only with a signature that fits one of them;
/// without one the signature is not looked at.
PolicyReading readPolicyMessage(std::string_view message, const PublicKeys& keys, const PolicyBounds& bounds = {});

/// Looks a key up as a module does. Nothing when it is not there.
std::optional<std::wstring> policyValue(const SectionsHandle& document, const Sentrel::policy::PolicyKey& key,
                                        int index = 0);

/// The values of a document, as a module's passes read them. Threads: any. Owner: a local; the document outlives it.
class DocumentValues : public Sentrel::policy::PolicySource {
public:
    explicit DocumentValues(const SectionsHandle& document) : m_document(document) {}

    std::optional<int> number(const Sentrel::policy::PolicyKey& key, int index) const override;
    std::optional<Sentrel::policy::PolicyText> text(const Sentrel::policy::PolicyKey& key, int index) const override;

private:
    const SectionsHandle& m_document;
};

} // namespace HVBEnterprise::agent
