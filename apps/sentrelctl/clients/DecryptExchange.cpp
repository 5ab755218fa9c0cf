#include "apps/sentrelctl/clients/DecryptExchange.h"

#include "apps/sentrelctl/terminal/Failure.h"

#include <fmt/format.h>

namespace Sentrel::ctl {

std::string decryptRequest(std::string_view encrypted) {
    const auto refuse = [](std::string why) {
        return Failure(ExitCode::BadUsage, "bad usage", "encrypted text", std::move(why),
                       "Give the text as it was stored");
    };
    if (encrypted.empty()) {
        throw refuse("it is empty");
    }
    if (encrypted.size() > kMaxEncryptedBytes) {
        throw refuse(fmt::format("it has {} bytes, the daemon takes {}", encrypted.size(), kMaxEncryptedBytes));
    }
    if (encrypted.find('\0') != std::string_view::npos) {
        throw refuse("it holds a NUL byte");
    }
    std::string request(kDecryptMark);
    request += encrypted;
    request += '\0';
    return request;
}

std::string decryptedText(std::string_view reply, const std::string& socketPath) {
    if (reply.size() < kDecryptBlockBytes) {
        throw Failure(ExitCode::Failed, "cannot decrypt", socketPath,
                      fmt::format("the daemon closed after {} of {} bytes", reply.size(), kDecryptBlockBytes),
                      "The trace log of sentreld may tell why");
    }
    std::string text(reply.substr(0, reply.find('\0')));
    if (text.empty()) {
        throw Failure(ExitCode::Failed, "cannot decrypt", socketPath, "the answer is empty",
                      "Either this machine has no management agent, or the text was not encrypted with its key");
    }
    return text;
}

} // namespace Sentrel::ctl
