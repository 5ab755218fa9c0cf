// The options of a verb, as the verb describes them. One source file hands them to the library that parses, so that no
// other has to read that library's headers.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
} // namespace CLI

namespace Sentrel::ctl {

/// The time to wait for an answer when --timeout is not given, in seconds.
inline constexpr double kDefaultTimeout = 5.0;

/// One option or argument. Each operation returns the option itself, so that calls can follow one another.
/// Threads: one. Owner: the command line; valid until the verb's work has ended.
class Option {
public:
    explicit Option(CLI::Option& option) : m_option(&option) {}

    /// The word that stands for its value in the help, such as FILE.
    Option& shownAs(const char* placeholder);
    Option& required();
    /// Refuses numbers outside of @p lowest to @p highest.
    Option& between(std::int64_t lowest, std::int64_t highest);
    /// Allows the option to stand without a value, which then is @p value.
    Option& whenAlone(const char* value);
    /// Refuses the option beside @p other.
    Option& excludes(const Option& other);
    /// Refuses the option without @p other.
    Option& needs(const Option& other);

    /// Whether it was on the command line. Requires that the command line is parsed.
    bool isGiven() const;

private:
    CLI::Option* m_option;
};

/// Takes the options of one verb. A name is "--long", "-s,--long", or a plain word for an argument. What is in a
/// variable is its default; each variable must live until the verb's work has ended. Threads: one. Owner: the command
/// line.
class OptionSet {
public:
    explicit OptionSet(CLI::App& verb) : m_verb(verb) {}

    Option add(const std::string& name, std::string& value, const std::string& help);
    Option add(const std::string& name, std::int32_t& value, const std::string& help);
    Option add(const std::string& name, std::uint32_t& value, const std::string& help);
    Option add(const std::string& name, std::uint64_t& value, const std::string& help);
    /// An argument takes as many values as there are; an option one each time it stands there.
    Option add(const std::string& name, std::vector<std::string>& values, const std::string& help);
    /// Has no value; sets @p isSet when it is there.
    Option addFlag(const std::string& name, bool& isSet, const std::string& help);
    /// Adds --timeout, a number of seconds from 0.01 to 3600.
    void addTimeout(double& seconds);

private:
    CLI::App& m_verb;
};

} // namespace Sentrel::ctl
