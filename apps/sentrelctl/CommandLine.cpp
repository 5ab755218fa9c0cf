// The command line as a whole: what all verbs have in common, and the one place where an error becomes an exit code.
#include "apps/sentrelctl/Session.h"
#include "apps/sentrelctl/terminal/Failure.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <exception>
#include <fmt/format.h>
#include <unistd.h>

namespace Sentrel::ctl {
namespace {

/// Options that stand in front of a verb or behind it.
struct GlobalOptions {
    std::string json = "off";
    std::string color = "auto";
};

constexpr const char* kDescription = "Talks to the Sentrel daemon and to the hub that it is on.";
constexpr const char* kFooter = "Exit codes: 0 done, 1 refused or failed, 2 bad usage, 3 timed out, 4 no access,\n"
                                "8 hub or daemon not running.\n\n"
                                "Example:\n  sentrelctl log --limit 5";

constexpr const char* kJsonAlone = "true"; // what the library gives for a flag without a value

std::string refuseJsonMode(std::string& mode) {
    const bool isKnown = mode == kJsonAlone || mode == "short" || mode == "pretty" || mode == "off";
    return isKnown ? "" : "'" + mode + "' is none of short, pretty, off";
}

void addGlobalOptions(CLI::App& app, GlobalOptions& options) {
    app.set_version_flag("--version", "sentrelctl " SENTREL_VERSION);
    app.add_flag("-j,--json", options.json, "Answer in JSON. Without a mode: pretty on a terminal, short elsewhere")
        ->option_text("[=short|pretty|off]")
        ->check(CLI::Validator(refuseJsonMode, ""))
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    app.add_option("--color", options.color, "Colours: auto (on a terminal, unless NO_COLOR is set), always or never")
        ->option_text("MODE")
        ->check(CLI::IsMember({"auto", "always", "never"}));
}

JsonMode jsonMode(const std::string& name, bool isTerminal) {
    if (name == kJsonAlone) {
        return isTerminal ? JsonMode::Pretty : JsonMode::Short;
    }
    if (name == "pretty") {
        return JsonMode::Pretty;
    }
    return name == "short" ? JsonMode::Short : JsonMode::Off;
}

bool wantsColor(const std::string& mode, bool isTerminal) {
    if (mode != "auto") {
        return mode == "always";
    }
    const char* refused = std::getenv("NO_COLOR");
    const char* terminal = std::getenv("TERM");
    const bool isDumb = terminal != nullptr && std::string_view(terminal) == "dumb";
    return isTerminal && !isDumb && (refused == nullptr || *refused == '\0');
}

/// The words that lead to the verb that was being parsed, for the hint at its help.
std::string verbWords(const CLI::App& app) {
    const std::vector<const CLI::App*> chosen =
        app.get_subcommands([](const CLI::App* each) { return each->parsed(); });
    return chosen.empty() ? "" : " " + chosen.front()->get_name() + verbWords(*chosen.front());
}

Failure usageFailure(const CLI::App& app, const CLI::ParseError& error) {
    const std::vector<std::string> unknown = app.remaining(true);
    std::string why = unknown.empty() ? error.what() : "'" + unknown.front() + "' was not expected";
    std::replace(why.begin(), why.end(), '\n', ' ');
    return {ExitCode::BadUsage, "bad usage", "", why, "See 'sentrelctl" + verbWords(app) + " --help'"};
}

/// Parses. @return whether a verb is to run; help and version are already written then.
bool parse(CLI::App& app, const std::vector<std::string>& arguments, Session& session) {
    // The library takes them last first.
    std::vector<std::string> reversed(arguments.rbegin(), arguments.rend());
    try {
        app.parse(std::move(reversed));
        return true;
    } catch (const CLI::CallForHelp&) {
        session.out.write(app.help());
    } catch (const CLI::CallForVersion& version) {
        session.out.write(std::string(version.what()) + "\n");
    } catch (const CLI::ParseError& error) {
        throw usageFailure(app, error);
    }
    return false;
}

void parseAndWork(const std::vector<std::string>& arguments, Session& session) {
    CLI::App app(kDescription, "sentrelctl");
    GlobalOptions options;
    app.footer(kFooter);
    app.require_subcommand(1);
    addGlobalOptions(app, options);
    for (const RegisterVerb registerVerb : kVerbs) {
        registerVerb(app, session);
    }
    if (!parse(app, arguments, session)) {
        return;
    }
    session.json = jsonMode(options.json, session.out.isTerminal());
    session.palette = Palette::of(wantsColor(options.color, session.out.isTerminal()));
    session.chosen();
}

ExitCode report(const Failure& failure, Output& err) {
    try {
        err.write(failure.line() + "\n");
    } catch (...) {
        // The exit code still tells; there is no other place to complain.
        return failure.code();
    }
    return failure.code();
}

} // namespace

CLI::App& verbGroup(CLI::App& app, const std::string& name, const std::string& description) {
    const auto existing = app.get_subcommands([&name](const CLI::App* each) { return each->get_name() == name; });
    if (!existing.empty()) {
        return *existing.front();
    }
    CLI::App* group = app.add_subcommand(name, description);
    group->require_subcommand(1);
    group->fallthrough();
    return *group;
}

CLI::App& addVerb(CLI::App& parent, const std::string& name, const std::string& description,
                  const std::string& example) {
    CLI::App* verb = parent.add_subcommand(name, description);
    verb->fallthrough();
    verb->footer("Example:\n" + example);
    return *verb;
}

void addTimeout(CLI::App& verb, double& seconds) {
    constexpr double shortest = 0.01;
    constexpr double longest = 3600;
    verb.add_option("--timeout", seconds,
                    fmt::format("How long to wait for an answer, in seconds (default {:g})", seconds))
        ->option_text("SECONDS")
        ->check(CLI::Range(shortest, longest));
}

std::chrono::steady_clock::time_point deadlineAfter(double seconds) {
    return std::chrono::steady_clock::now() + std::chrono::duration_cast<std::chrono::microseconds>(Seconds(seconds));
}

std::string readAll(int fd, const std::string& name, std::size_t limit) {
    constexpr std::size_t chunk = 65536;
    std::string content;
    for (;;) {
        const std::size_t before = content.size();
        content.resize(before + chunk);
        const ssize_t got = ::read(fd, content.data() + before, chunk);
        content.resize(before + static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
        if (got == 0) {
            return content;
        }
        if (got < 0 && errno != EINTR) {
            throw Failure(ExitCode::Failed, "cannot read", name, errnoText(errno), "");
        }
        if (content.size() > limit) {
            throw Failure(ExitCode::BadUsage, "too much input", name, "at most " + std::to_string(limit) + " bytes",
                          "");
        }
    }
}

int run(const std::vector<std::string>& arguments, Output& out, Output& err, int inputFd) {
    Session session{out, err, inputFd, JsonMode::Off, Palette(), nullptr};
    ExitCode code = ExitCode::Done;
    try {
        parseAndWork(arguments, session);
    } catch (const OutputClosed&) {
        code = ExitCode::Done;
    } catch (const Failure& failure) {
        code = report(failure, err);
    } catch (const std::exception& error) {
        code = report(Failure(ExitCode::Failed, "unexpected error", "", error.what(), ""), err);
    }
    return static_cast<int>(code);
}

} // namespace Sentrel::ctl
