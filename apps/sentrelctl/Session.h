// What every verb is given, and how a verb is made known. A verb, or a group of small ones, is one source file with one
// registration function: it adds its subcommands with their options, and sets Session::chosen when one was asked for.
#pragma once

#include "apps/sentrelctl/terminal/Output.h"

#include <CLI/CLI.hpp>
#include <array>
#include <chrono>
#include <functional>
#include <string>

namespace Sentrel::ctl {

/// One run of the program.
/// Threads: one. Owner: run(); it outlives the command line and the verb.
struct Session {
    Output& out;
    Output& err;
    int inputFd;

    // Known once the command line is parsed.
    JsonMode json = JsonMode::Off;
    Palette palette;
    std::function<void()> chosen; ///< The work of the verb that was named. Throws Failure or OutputClosed.
};

using RegisterVerb = void (*)(CLI::App& app, Session& session);

void registerEventSend(CLI::App& app, Session& session);
void registerDecrypt(CLI::App& app, Session& session);
void registerLog(CLI::App& app, Session& session);
void registerHubPing(CLI::App& app, Session& session);
void registerPrefs(CLI::App& app, Session& session);
void registerList(CLI::App& app, Session& session);
void registerListFiles(CLI::App& app, Session& session);
void registerCategories(CLI::App& app, Session& session);
void registerWatch(CLI::App& app, Session& session);
void registerSettings(CLI::App& app, Session& session);
void registerPolicy(CLI::App& app, Session& session);
void registerFleet(CLI::App& app, Session& session);
void registerAgent(CLI::App& app, Session& session);
void registerStatus(CLI::App& app, Session& session);
void registerAbout(CLI::App& app, Session& session);
void registerDebug(CLI::App& app, Session& session);
void registerProxy(CLI::App& app, Session& session);
void registerDoctor(CLI::App& app, Session& session);

/// In the order in which the help lists them.
inline constexpr std::array<RegisterVerb, 18> kVerbs{
    registerStatus, registerAbout, registerDoctor,   registerHubPing,   registerEventSend,  registerDecrypt,
    registerLog,    registerPrefs, registerList,     registerListFiles, registerCategories, registerWatch,
    registerDebug,  registerProxy, registerSettings, registerPolicy,    registerFleet,      registerAgent};

/// The subcommand that groups verbs on one subject, made by whichever of them comes first.
CLI::App& verbGroup(CLI::App& app, const std::string& name, const std::string& description);

/// A verb's own subcommand, with the settings that all verbs share. @p example is shown below its help.
CLI::App& addVerb(CLI::App& parent, const std::string& name, const std::string& description,
                  const std::string& example);

/// A time to wait, in seconds.
using Seconds = std::chrono::duration<double>;
inline constexpr double kDefaultTimeout = 5.0;

/// Adds --timeout, which sets @p seconds. What is in it is the default.
void addTimeout(CLI::App& verb, double& seconds);

/// The point in time at which a wait that begins now is over.
std::chrono::steady_clock::time_point deadlineAfter(double seconds);

/// Reads @p fd to its end. @throws Failure when it cannot be read or holds more than @p limit bytes.
std::string readAll(int fd, const std::string& name, std::size_t limit);

/// Runs the program: parses, works, reports. Nothing is thrown. @return the exit code.
/// @param arguments those behind the program's name.
int run(const std::vector<std::string>& arguments, Output& out, Output& err, int inputFd);

} // namespace Sentrel::ctl
