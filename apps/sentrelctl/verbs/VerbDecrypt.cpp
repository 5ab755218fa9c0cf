// sentrelctl decrypt: opens a stored password as a browser component does.
#include "apps/sentrelctl/Verbs.h"
#include "apps/sentrelctl/clients/DecryptExchange.h"
#include "apps/sentrelctl/clients/EventSocket.h"
#include "apps/sentrelctl/terminal/Failure.h"
#include "apps/sentrelctl/terminal/Input.h"
#include "base/Paths.h"
#include "base/PrintableText.h"

#include <array>
#include <memory>
#include <unistd.h>

namespace Sentrel::ctl {

using Sentrel::text::printable;
using Sentrel::text::validUtf8;
namespace {

constexpr std::size_t kMaxInputBytes = 65536; // far more than any text that is taken

constexpr const char* kDecryptExample = "  sentrelctl decrypt < encrypted.txt";

struct DecryptOptions {
    std::string text = "-";
    double timeout = kDefaultTimeout;
};

std::string encryptedText(Session& session, const std::string& argument) {
    if (argument != "-") {
        return argument;
    }
    if (::isatty(session.inputFd) == 1) {
        session.err.write("Encrypted text, then Enter and Ctrl-D:\n");
    }
    std::string text = contentOf("-", session.inputFd, kMaxInputBytes);
    // The end of the line is the editor's or the shell's, not the text's.
    if (text.ends_with('\n')) {
        text.pop_back();
    }
    return text;
}

void decrypt(Session& session, const DecryptOptions& options) {
    const std::string request = decryptRequest(encryptedText(session, options.text));
    EventSocket socket(paths::eventSocket(), deadlineAfter(options.timeout));
    socket.sendOnce(request);
    const std::string text = decryptedText(socket.receive(kDecryptBlockBytes), paths::eventSocket());
    if (session.json != JsonMode::Off) {
        session.out.write(jsonText(Json{{"text", validUtf8(text)}}, session.json));
    } else {
        // A program that reads this needs the very bytes.
        session.out.write((session.out.isTerminal() ? printable(text) : text) + "\n");
    }
}

Work describeDecrypt(OptionSet& set, Session& session) {
    const auto options = std::make_shared<DecryptOptions>();
    set.add("text", options->text,
            "The encrypted text. Better leave it out (or -) and give it on standard input: a command line "
            "can be seen by every user of this machine")
        .shownAs("[TEXT|-]");
    set.addTimeout(options->timeout);
    return [options, &session] { decrypt(session, *options); };
}

} // namespace

Verbs decryptVerbs() {
    static constexpr std::array<Verb, 1> verbs{{
        {"", "decrypt", "Has the daemon decrypt a stored password.", kDecryptExample, describeDecrypt},
    }};
    return verbs;
}

} // namespace Sentrel::ctl
