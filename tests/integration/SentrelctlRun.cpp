#include "tests/integration/SentrelctlRun.h"

#include "tests/support/Eventually.h"
#include "tests/support/Files.h"

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <regex>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace testing_support {
namespace {

/// The program under test. There is no default: a test never runs another one than it was given.
std::string program() {
    const char* path = std::getenv("SENTRELCTL_ROOTED");
    if (path == nullptr) {
        throw std::runtime_error("SENTRELCTL_ROOTED does not name the program under test");
    }
    return path;
}

/// A copy of the program that every user can reach: the tree may stand below a directory that is closed to others.
std::string programForOthers(const PrivateRoot& root) {
    std::string copy = root.file("sentrelctl");
    std::filesystem::copy_file(program(), copy, std::filesystem::copy_options::skip_existing);
    return copy;
}

std::vector<std::string> environmentOf(const PrivateRoot& root, std::optional<uid_t> uid = {}) {
    return {"SENTREL_INSTALL_ROOT=" + root.path().string(), "CTL=" + (uid ? programForOthers(root) : program()),
            "TERM=xterm"};
}

/// A file that any user may write, so that a run as another user can be heard.
void makeFile(const std::string& path, const std::string& content) {
    constexpr mode_t everybody = 0666;
    std::ofstream(path, std::ios::binary) << content;
    ::chmod(path.c_str(), everybody);
}

std::string freshPrefix(const PrivateRoot& root, const std::string& input) {
    static int runs = 0;
    std::string prefix = root.file("run" + std::to_string(++runs));
    makeFile(prefix + ".in", input);
    makeFile(prefix + ".out", "");
    makeFile(prefix + ".err", "");
    return prefix;
}

/// The shell puts the three files in place and then becomes the program: its pid is the program's.
ChildProcess start(const PrivateRoot& root, const std::string& prefix, const std::vector<std::string>& arguments,
                   std::optional<uid_t> uid) {
    ChildOptions options;
    options.arguments = {"-c",
                         R"(in=$1 out=$2 err=$3; shift 3; exec "$CTL" "$@" <"$in" >"$out" 2>"$err")",
                         "sh",
                         prefix + ".in",
                         prefix + ".out",
                         prefix + ".err"};
    options.arguments.insert(options.arguments.end(), arguments.begin(), arguments.end());
    options.environment = environmentOf(root, uid);
    options.uid = uid;
    if (uid) {
        options.gid = static_cast<gid_t>(*uid);
    }
    return {"/bin/sh", options};
}

int endOf(ChildProcess& process) {
    const std::optional<ExitStatus> status = process.waitUntil(patience());
    EXPECT_TRUE(status) << "it does not end";
    return status.value_or(-1);
}

} // namespace

CtlRun::CtlRun(const PrivateRoot& root, const std::vector<std::string>& arguments, const std::string& input,
               std::optional<uid_t> uid)
    : m_prefix(freshPrefix(root, input)), m_process(start(root, m_prefix, arguments, uid)) {}

std::string CtlRun::out() const {
    return readFile(m_prefix + ".out");
}

std::string CtlRun::err() const {
    return readFile(m_prefix + ".err");
}

CtlResult CtlRun::finish() {
    const int code = endOf(m_process);
    return {code, out(), err()};
}

bool hasTerminals() {
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (terminal < 0) {
        return false;
    }
    close(terminal);
    return true;
}

CtlResult ctl(const PrivateRoot& root, const std::vector<std::string>& arguments, const std::string& input,
              std::optional<uid_t> uid) {
    return CtlRun(root, arguments, input, uid).finish();
}

CtlResult shell(const PrivateRoot& root, const std::string& command) {
    const std::string output = freshPrefix(root, "") + ".out";
    ChildProcess process(
        "bash",
        {.arguments = {"-c", command}, .environment = environmentOf(root), .outputFile = output, .uid = {}, .gid = {}});
    const int code = endOf(process);
    return {code, process.output(), ""};
}

std::string offeredInBash(const PrivateRoot& root, const std::string& words, const std::string& line) {
    const std::string typed = line.empty() ? "" : "COMP_LINE='" + line + "'; COMP_POINT=${#COMP_LINE}; ";
    return shell(root, "source '" SENTREL_SOURCE_DIR "/packaging/sentrelctl.bash-completion'; " + typed +
                           "COMP_WORDS=(\"$CTL\" " + words +
                           "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); COMPREPLY=(); _sentrelctl; "
                           "printf '%s\\n' \"${COMPREPLY[@]}\" | sort | tr '\\n' ' '")
        .out;
}

std::string withoutTimes(const std::string& text) {
    const std::regex local(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d [+-]\d{4})");
    const std::regex utc(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z)");
    const std::regex duration(R"(\d+\.\d{3} ms)");
    std::string result = std::regex_replace(text, local, "<time>");
    result = std::regex_replace(result, utc, "<time>");
    return std::regex_replace(result, duration, "<duration>");
}

} // namespace testing_support
