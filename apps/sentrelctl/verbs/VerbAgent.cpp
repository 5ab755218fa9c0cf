// sentrelctl agent keygen and encrypt: the keys of a site, and texts that only its machines can read.
#include "apps/sentrelctl/Verbs.h"
#include "apps/sentrelctl/clients/DecryptExchange.h"
#include "apps/sentrelctl/fleet/FleetOptions.h"
#include "apps/sentrelctl/terminal/Failure.h"
#include "apps/sentrelctl/terminal/SecretInput.h"
#include "base/Paths.h"
#include "base/PrintableText.h"
#include "platform/hvbagent/SiteKeys.h"

#include <array>
#include <cerrno>
#include <fmt/format.h>
#include <memory>
#include <system_error>

namespace Sentrel::ctl {

using Sentrel::text::printable;
using Sentrel::text::validUtf8;
namespace {

namespace agent = HVBEnterprise::agent;

struct KeygenOptions {
    std::string file;
    std::string signingPrefix;
};

struct EncryptOptions {
    std::string keyFile;
};

/// Runs @p body, which writes a key to a file. Turns what it throws into a Failure.
template <class Body>
auto writeKey(const Body& body) {
    constexpr const char* what = "no key was made";
    try {
        return body();
    } catch (const std::system_error& error) {
        const int number = error.code().value();
        if (number == EEXIST) {
            throw Failure(ExitCode::Failed, what, "", error.what(),
                          "What is encrypted or signed with it needs it: move it away before you make another");
        }
        throw Failure(exitCodeOfErrno(number) == ExitCode::NoAccess ? ExitCode::NoAccess : ExitCode::Failed, what, "",
                      error.what(), "");
    } catch (const std::runtime_error& error) {
        throw Failure(ExitCode::Failed, what, "", error.what(), "");
    }
}

void signingKeygen(Session& session, const std::string& prefix) {
    const agent::SigningFiles files(prefix);
    const std::string open = writeKey([&] { return agent::makeSigningPair(files); });
    if (session.json != JsonMode::Off) {
        session.out.write(jsonText(Json{{"secret_key_file", validUtf8(files.secret)},
                                        {"public_key_file", validUtf8(files.open)},
                                        {"policy_public_key", open}},
                                   session.json));
        return;
    }
    session.out.write(fmt::format("Made {}, which signs policies and must be kept secret,\n"
                                  "and {}. The machines' agent.json says:\n    \"policy_public_key\": \"{}\"\n",
                                  printable(files.secret), printable(files.open), open));
}

void keygen(Session& session, const KeygenOptions& options) {
    if (!options.signingPrefix.empty()) {
        signingKeygen(session, options.signingPrefix);
        return;
    }
    const std::string file = options.file.empty() ? paths::agentKey() : options.file;
    writeKey([&] {
        agent::SecretKey::generate().save(file);
        return 0;
    });
    session.out.write(session.json == JsonMode::Off
                          ? fmt::format("Made {}. Every machine of the site needs it, readable by the daemon's user "
                                        "alone.\n",
                                        printable(file))
                          : jsonText(Json{{"key_file", validUtf8(file)}}, session.json));
}

std::string clearText(Session& session) {
    std::string text = secretFromInput(session, "Text to encrypt (it is not shown): ", agent::kMaxClearText);
    if (text.empty()) {
        throw Failure(ExitCode::BadUsage, "nothing was encrypted", "", "there is no text on standard input", "");
    }
    return text;
}

void encrypt(Session& session, const EncryptOptions& options) {
    const std::string file = options.keyFile.empty() ? paths::agentKey() : options.keyFile;
    const std::string encrypted = failAs("nothing was encrypted", [&] {
        std::string clear = clearText(session);
        return encryptedWith(file, clear);
    });
    if (encrypted.size() > kMaxEncryptedBytes) {
        throw Failure(ExitCode::BadUsage, "nothing was encrypted", "",
                      fmt::format("the result has {} bytes, and the event socket carries {} at the most",
                                  encrypted.size(), kMaxEncryptedBytes),
                      "Give it a shorter text");
    }
    session.out.write(session.json == JsonMode::Off ? encrypted + "\n"
                                                    : jsonText(Json{{"text", encrypted}}, session.json));
}

Work describeKeygen(OptionSet& set, Session& session) {
    const auto options = std::make_shared<KeygenOptions>();
    const Option file =
        set.add("file", options->file, "Where to (default: " + paths::agentKey() + ")").shownAs("[FILE]");
    set.add("--signing", options->signingPrefix, "Make PREFIX.key and PREFIX.pub for signing policies")
        .shownAs("PREFIX")
        .excludes(file);
    return [options, &session] { keygen(session, *options); };
}

Work describeEncrypt(OptionSet& set, Session& session) {
    const auto options = std::make_shared<EncryptOptions>();
    set.add("--key", options->keyFile, "The key (default: this machine's, " + paths::agentKey() + ")").shownAs("FILE");
    return [options, &session] { encrypt(session, *options); };
}

} // namespace

Verbs agentVerbs() {
    static constexpr std::array<Verb, 2> verbs{{
        {"agent", "keygen",
         "Makes the key that passwords are encrypted with, or the pair that policies are signed "
         "with. A key that is there stays.",
         "  sentrelctl agent keygen\n  sentrelctl agent keygen --signing site", describeKeygen},
        {"", "encrypt", "Encrypts a text from standard input, such as a password, for the machines of a site.",
         "  sentrelctl encrypt --key site.key < password.txt", describeEncrypt},
    }};
    return verbs;
}

} // namespace Sentrel::ctl
