// sentrelctl agent keygen, agent network and encrypt: the keys of a site, the daemon's way to its broker, and texts
// that only the site's machines can read.
//
// A key is never written over: what is encrypted or signed with it needs it. The network is a drop-in for the daemon's
// unit, made of the enrolment and of nothing else, so a machine that is enrolled no more loses it by the same command.
// An enrolment that cannot be used leaves the drop-in as it is.
#include "apps/sentrelctl/Verbs.h"
#include "apps/sentrelctl/clients/DecryptExchange.h"
#include "apps/sentrelctl/fleet/DaemonNetwork.h"
#include "apps/sentrelctl/fleet/FleetOptions.h"
#include "apps/sentrelctl/terminal/Failure.h"
#include "apps/sentrelctl/terminal/SecretInput.h"
#include "base/FileWriting.h"
#include "base/Paths.h"
#include "base/PrintableText.h"
#include "platform/hvbagent/Fleet.h"
#include "platform/hvbagent/SiteKeys.h"

#include <array>
#include <cerrno>
#include <filesystem>
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

constexpr const char* kNetworkUnchanged = "the daemon's network was not changed";

/// The broker's host; empty on a machine that is not enrolled.
std::string enrolledHost() {
    const std::string path = paths::agentConfiguration();
    try {
        return agent::readEnrolment(path).host;
    } catch (const std::system_error& error) {
        if (error.code().value() == ENOENT) {
            return {};
        }
        throw fileFailure(kNetworkUnchanged, path, error.code().value());
    } catch (const agent::DocumentError& error) {
        throw Failure(ExitCode::Failed, kNetworkUnchanged, path, error.what(), "Mend the enrolment");
    }
}

/// Makes the file, readable for everybody as units are, and its directory.
void writeDropIn(const std::string& path, const std::string& text) {
    namespace fs = std::filesystem;
    constexpr fs::perms forReaders =
        fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read | fs::perms::others_read;
    try {
        fs::create_directories(fs::path(path).parent_path());
        replaceFile(path, text, Replace::AsPrivate);
        fs::permissions(path, forReaders);
    } catch (const std::system_error& error) {
        throw fileFailure(kNetworkUnchanged, path, error.code().value());
    }
}

void removeDropIn(const std::string& path) {
    std::error_code error;
    std::filesystem::remove(path, error);
    if (error) {
        throw fileFailure(kNetworkUnchanged, path, error.value());
    }
}

/// What the daemon may reach from its next start on.
std::string networkSentence(const std::string& host) {
    if (host.empty()) {
        return "This machine is not enrolled: the daemon reaches nothing.";
    }
    return isAddress(host) ? fmt::format("The daemon reaches {} and nothing else.", host)
                           : fmt::format("The daemon reaches every address, since {} is a name. An address in its "
                                         "place would hold the daemon in.",
                                         printable(host));
}

void network(Session& session) {
    const std::string host = enrolledHost();
    const std::string path = paths::daemonNetworkDropIn();
    if (host.empty()) {
        removeDropIn(path);
    } else {
        writeDropIn(path, networkDropIn(host));
    }
    if (session.json != JsonMode::Off) {
        session.out.write(jsonText(Json{{"file", host.empty() ? Json() : Json(path)},
                                        {"host", host.empty() ? Json() : Json(validUtf8(host))},
                                        {"any_address", !host.empty() && !isAddress(host)}},
                                   session.json));
        return;
    }
    session.out.write(networkSentence(host) +
                      "\nIt holds from: systemctl daemon-reload && systemctl restart sentreld\n");
}

Work describeNetwork(OptionSet& /*set*/, Session& session) {
    return [&session] { network(session); };
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
    static constexpr std::array<Verb, 3> verbs{{
        {"agent", "keygen",
         "Makes the key that passwords are encrypted with, or the pair that policies are signed "
         "with. A key that is there stays.",
         "  sentrelctl agent keygen\n  sentrelctl agent keygen --signing site", describeKeygen},
        {"agent", "network",
         "Lets the daemon's unit reach the broker that agent.json names, and nothing else; without agent.json, nothing "
         "at all.",
         "  sentrelctl agent network", describeNetwork},
        {"", "encrypt", "Encrypts a text from standard input, such as a password, for the machines of a site.",
         "  sentrelctl encrypt --key site.key < password.txt", describeEncrypt},
    }};
    return verbs;
}

} // namespace Sentrel::ctl
