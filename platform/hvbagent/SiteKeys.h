// The keys of a site, for tools: the one that texts are encrypted with, and the pair that signs policies.
#pragma once

#include "platform/hvbagent/AgentLimits.h"
#include "platform/hvbagent/Encoding.h"
#include "platform/hvbagent/SecretBox.h"

#include <string>
#include <string_view>

namespace HVBEnterprise::agent {

/// The two files of a key pair.
struct SigningFiles {
    explicit SigningFiles(const std::string& prefix) : secret(prefix + ".key"), open(prefix + ".pub") {}

    std::string secret; ///< base64 of the seed, for its owner alone
    std::string open;   ///< base64 of the public key, which the enrolments contain
};

/// Makes a new pair in files that are not there yet. @return the public key as its file has it.
/// @throws std::runtime_error; std::system_error with EEXIST keeps what is there.
std::string makeSigningPair(const SigningFiles& files);

/// The policy message that carries @p document with its signature. @throws std::runtime_error when the key cannot be
/// used.
std::string signedMessage(std::string_view document, const std::string& secretFile);

/// The public key in a file. @throws std::runtime_error.
PublicKey loadPublicKey(const std::string& path);

} // namespace HVBEnterprise::agent
