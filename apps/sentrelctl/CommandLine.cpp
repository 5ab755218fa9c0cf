// The command line: one table of verbs (Verbs.cpp), and the one file that hands options to the library that parses
// them.
//
// A run describes only the verb that its first words name, as describing all of them costs more than most verbs do.
// Where the words name none (help, an error, a group alone) every verb is described, so that help and messages are
// whole. Which of the two was taken never changes what a command line means.
//
// Two forms are turned into others before that, since the library knows neither: "help VERB" is "VERB --help", and the
// mode of --json may be a word of its own. A mode is such a word only where it can be nothing else: "debug --json off"
// is the verb "debug off".
#include "apps/sentrelctl/CommandLine.h"

#include "apps/sentrelctl/Verbs.h"
#include "apps/sentrelctl/terminal/Failure.h"
#include "apps/sentrelctl/terminal/Nearest.h"
#include "base/PrintableText.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdlib>
#include <fmt/format.h>

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

constexpr const char* kHelpWord = "help";
constexpr std::size_t kMaxShownArgument = 64; // bytes of what was typed that an error repeats
constexpr const char* kJsonAlone = "true";    // what the library gives for a flag without a value

std::string refuseJsonMode(std::string& mode) {
    const bool isKnown = mode == kJsonAlone || mode == "short" || mode == "pretty" || mode == "off";
    return isKnown ? "" : "'" + mode + "' is none of short, pretty, off";
}

void addGlobalOptions(CLI::App& app, GlobalOptions& options) {
    app.set_version_flag("-V,--version", "sentrelctl " SENTREL_VERSION);
    app.add_flag("-j,--json", options.json, "Answer in JSON. Without a mode: pretty on a terminal, short elsewhere")
        ->option_text("[short|pretty|off]")
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

/// The verb or group that was being parsed.
const CLI::App& innermost(const CLI::App& app) {
    const std::vector<const CLI::App*> chosen =
        app.get_subcommands([](const CLI::App* each) { return each->parsed(); });
    return chosen.empty() ? app : innermost(*chosen.front());
}

/// The names that could stand where @p unknown does: options, or verbs.
std::vector<std::string> namesBeside(const CLI::App& app, const std::string& unknown) {
    std::vector<std::string> names;
    if (!unknown.starts_with("--")) {
        for (const CLI::App* each : innermost(app).get_subcommands([](const CLI::App*) { return true; })) {
            names.push_back(each->get_name());
        }
        return names;
    }
    for (const CLI::App* level = &innermost(app); level != nullptr; level = level->get_parent()) {
        for (const CLI::Option* option : level->get_options()) {
            for (const std::string& name : option->get_lnames()) {
                names.push_back("--" + name);
            }
        }
    }
    return names;
}

/// The failure for a word or option that nothing takes.
Failure unexpected(const CLI::App& app, const std::string& unknown) {
    const std::vector<std::string> names = namesBeside(app, unknown);
    const auto near = nearest(unknown.substr(0, unknown.find('=')), {names.begin(), names.end()});
    const std::string help = "'sentrelctl" + verbWords(app) + " --help'";
    return {ExitCode::BadUsage, "bad usage", "",
            "'" + text::shortened(text::validUtf8(unknown), kMaxShownArgument) + "' was not expected",
            near ? fmt::format("Perhaps '{}' is meant; see {}", *near, help) : "See " + help};
}

Failure usageFailure(const CLI::App& app, const CLI::ParseError& error) {
    const std::vector<std::string> unknown = app.remaining(true);
    if (!unknown.empty()) {
        return unexpected(app, unknown.front());
    }
    std::string why = error.what();
    std::replace(why.begin(), why.end(), '\n', ' ');
    return {ExitCode::BadUsage, "bad usage", "", why, "See 'sentrelctl" + verbWords(app) + " --help'"};
}

/// The subcommand that groups verbs on one subject, made by whichever of them comes first.
CLI::App& groupOf(CLI::App& app, const Verb& verb) {
    if (*verb.group == '\0') {
        return app;
    }
    const auto existing = app.get_subcommands([&verb](const CLI::App* each) { return each->get_name() == verb.group; });
    if (!existing.empty()) {
        return *existing.front();
    }
    CLI::App* group = app.add_subcommand(verb.group, groupDescription(verb.group));
    group->require_subcommand(1);
    group->fallthrough();
    return *group;
}

void describeVerb(CLI::App& app, const Verb& verb, Session& session, Work& chosen) {
    CLI::App* subcommand = groupOf(app, verb).add_subcommand(verb.name, verb.description);
    subcommand->fallthrough();
    subcommand->footer(std::string("Example:\n") + verb.example);
    OptionSet options(*subcommand);
    subcommand->callback([work = verb.describe(options, session), &chosen] { chosen = work; });
}

/// The first two arguments that are words and not options. Of the options in front of a verb, --color has a value.
std::pair<std::string_view, std::string_view> firstWords(const std::vector<std::string>& arguments) {
    std::pair<std::string_view, std::string_view> words;
    for (std::size_t index = 0; index < arguments.size(); ++index) {
        if (arguments[index].starts_with('-')) {
            index += arguments[index] == "--color" ? 1U : 0U;
        } else if (words.first.empty()) {
            words.first = arguments[index];
        } else {
            words.second = arguments[index];
            return words;
        }
    }
    return words;
}

const Verb* verbNamedBy(const std::vector<std::string>& arguments) {
    const auto [first, second] = firstWords(arguments);
    for (const VerbTable table : allVerbs()) {
        for (const Verb& verb : table()) {
            if (*verb.group == '\0' ? first == verb.name : first == verb.group && second == verb.name) {
                return &verb;
            }
        }
    }
    return nullptr;
}

bool isModeOfJson(std::string_view word, bool isBehindAWord) {
    return word == "short" || word == "pretty" || (word == "off" && !isBehindAWord);
}

/// "--json short" as "--json=short".
std::vector<std::string> withJsonModeJoined(const std::vector<std::string>& arguments) {
    std::vector<std::string> joined;
    bool isBehindAWord = false;
    for (std::size_t index = 0; index < arguments.size() && arguments[index] != "--"; ++index) {
        const bool takesNext = arguments[index] == "--json" && index + 1 < arguments.size() &&
                               isModeOfJson(arguments[index + 1], isBehindAWord);
        isBehindAWord = isBehindAWord || !arguments[index].starts_with('-');
        joined.push_back(takesNext ? arguments[index] + "=" + arguments[index + 1] : arguments[index]);
        index += takesNext ? 1U : 0U;
    }
    joined.insert(joined.end(), std::find(arguments.begin(), arguments.end(), "--"), arguments.end());
    return joined;
}

/// "help VERB" as "VERB --help".
std::vector<std::string> withHelpAsOption(std::vector<std::string> arguments) {
    if (firstWords(arguments).first == kHelpWord) {
        arguments.erase(std::find(arguments.begin(), arguments.end(), kHelpWord));
        arguments.emplace_back("--help");
    }
    return arguments;
}

void describeVerbs(CLI::App& app, const std::vector<std::string>& arguments, Session& session, Work& chosen) {
    if (const Verb* named = verbNamedBy(arguments); named != nullptr) {
        describeVerb(app, *named, session, chosen);
        return;
    }
    for (const VerbTable table : allVerbs()) {
        for (const Verb& verb : table()) {
            describeVerb(app, verb, session, chosen);
        }
    }
    app.add_subcommand(kHelpWord, "Shows the help of a verb, or this.");
}

/// Help for what there is not would be the help of everything.
void refuseHelpForNoVerb(const CLI::App& app, const std::vector<std::string>& arguments) {
    const std::string word(firstWords(arguments).first);
    if (!word.empty() &&
        app.get_subcommands([&word](const CLI::App* each) { return each->get_name() == word; }).empty()) {
        throw unexpected(app, word);
    }
}

/// Parses. @return whether a verb is to run; help and version are already written then.
bool parse(CLI::App& app, const std::vector<std::string>& arguments, Session& session) {
    // The library takes them last first.
    std::vector<std::string> reversed(arguments.rbegin(), arguments.rend());
    try {
        app.parse(std::move(reversed));
        return true;
    } catch (const CLI::CallForHelp&) {
        refuseHelpForNoVerb(app, arguments);
        session.out.write(app.help());
    } catch (const CLI::CallForVersion& version) {
        session.out.write(std::string(version.what()) + "\n");
    } catch (const CLI::ParseError& error) {
        throw usageFailure(app, error);
    }
    return false;
}

} // namespace

void parseAndWork(const std::vector<std::string>& given, Session& session) {
    const std::vector<std::string> arguments = withHelpAsOption(withJsonModeJoined(given));
    CLI::App app(kDescription, "sentrelctl");
    GlobalOptions options;
    Work chosen;
    app.footer(kFooter);
    app.require_subcommand(1);
    addGlobalOptions(app, options);
    describeVerbs(app, arguments, session, chosen);
    if (!parse(app, arguments, session)) {
        return;
    }
    session.json = jsonMode(options.json, session.out.isTerminal());
    session.palette = Palette::of(wantsColor(options.color, session.out.isTerminal()));
    chosen();
}

Option& Option::shownAs(const char* placeholder) {
    m_option->option_text(placeholder);
    return *this;
}

Option& Option::required() {
    m_option->required();
    return *this;
}

Option& Option::between(std::int64_t lowest, std::int64_t highest) {
    m_option->check(CLI::Range(lowest, highest));
    return *this;
}

Option& Option::whenAlone(const char* value) {
    m_option->expected(0, 1)->default_str(value);
    return *this;
}

Option& Option::excludes(const Option& other) {
    m_option->excludes(other.m_option);
    return *this;
}

Option& Option::needs(const Option& other) {
    m_option->needs(other.m_option);
    return *this;
}

bool Option::isGiven() const {
    return m_option->count() > 0;
}

Option OptionSet::add(const std::string& name, std::string& value, const std::string& help) {
    return Option(*m_verb.add_option(name, value, help));
}

Option OptionSet::add(const std::string& name, std::int32_t& value, const std::string& help) {
    return Option(*m_verb.add_option(name, value, help));
}

Option OptionSet::add(const std::string& name, std::uint32_t& value, const std::string& help) {
    return Option(*m_verb.add_option(name, value, help));
}

Option OptionSet::add(const std::string& name, std::uint64_t& value, const std::string& help) {
    return Option(*m_verb.add_option(name, value, help));
}

Option OptionSet::add(const std::string& name, std::vector<std::string>& values, const std::string& help) {
    CLI::Option* const option = m_verb.add_option(name, values, help);
    option->allow_extra_args(name[0] != '-'); // an option takes one a time; what follows it is an argument
    return Option(*option);
}

Option OptionSet::addFlag(const std::string& name, bool& isSet, const std::string& help) {
    return Option(*m_verb.add_flag(name, isSet, help));
}

void OptionSet::addTimeout(double& seconds) {
    constexpr double shortest = 0.01;
    constexpr double longest = 3600;
    m_verb
        .add_option("--timeout", seconds,
                    fmt::format("How long to wait for an answer, in seconds (default {:g})", seconds))
        ->option_text("SECONDS")
        ->check(CLI::Range(shortest, longest));
}

} // namespace Sentrel::ctl
