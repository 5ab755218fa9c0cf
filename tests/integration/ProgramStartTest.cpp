// What every program of this system does first, whatever state its launcher left it in. Programs and bus are real.
#include "tests/support/ChildProcess.h"
#include "tests/support/Eventually.h"
#include "tests/support/HubBus.h"
#include "tests/support/Machine.h"
#include "tests/support/PrivateRoot.h"
#include "tests/support/Sanitizers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <string>
#include <vector>

namespace testing_support {
namespace {

namespace fs = std::filesystem;

struct Program {
    const char* variable;
    const char* name;
    std::vector<std::string> arguments;

    friend std::ostream& operator<<(std::ostream& out, const Program& program) { return out << program.name; }
};

/// A program that is started by a shell, with no hub behind the bus.
class AProgram : public testing::TestWithParam<Program> {
protected:
    /// @param how what the shell does with the program, which is "$0".
    ChildProcess start(const std::string& how, const std::vector<std::string>& environment = {}) {
        std::vector<std::string> arguments{"-c", "cd \"$SENTREL_INSTALL_ROOT\"; " + how,
                                           programUnderTest(GetParam().variable)};
        arguments.insert(arguments.end(), GetParam().arguments.begin(), GetParam().arguments.end());
        ChildOptions options{.arguments = arguments,
                             .environment = environment,
                             .outputFile = m_root.file("program.out"),
                             .uid = {},
                             .gid = {}};
        options.environment.push_back("SENTREL_INSTALL_ROOT=" + m_root.path().string());
        ChildProcess program("sh", options);
        awaitUntil("the program to serve", [&] { return waits(program); });
        return program;
    }

    static std::string linkIn(const ChildProcess& program, const std::string& name) {
        std::error_code error;
        return fs::read_symlink("/proc/" + std::to_string(program.pid()) + "/" + name, error);
    }

    static std::string limitOfCores(const ChildProcess& program) {
        std::ifstream limits("/proc/" + std::to_string(program.pid()) + "/limits");
        for (std::string line; std::getline(limits, line);) {
            if (line.starts_with("Max core file size")) {
                return line;
            }
        }
        return "";
    }

    /// How a process that died by @p signal ended: CLD_KILLED, or CLD_DUMPED when it left a core dump.
    static int endBy(ChildProcess& program, int signal) {
        program.kill(signal);
        siginfo_t end{};
        EXPECT_EQ(::waitid(P_PID, static_cast<id_t>(program.pid()), &end, WEXITED | WNOWAIT), 0);
        EXPECT_EQ(end.si_status, signal);
        return end.si_code;
    }

private:
    /// It has its connection to the bus. To count descriptors would not do: a sanitizer's start has some of its own.
    bool waits(ChildProcess& program) {
        if (!program.isRunning()) {
            throw std::runtime_error(std::string(GetParam().name) + " ended: " + program.output());
        }
        if (!fs::path(linkIn(program, "exe")).filename().string().starts_with(GetParam().name)) {
            return false;
        }
        constexpr int most = 32;
        for (int fd = STDERR_FILENO + 1; fd < most; ++fd) {
            if (linkIn(program, "fd/" + std::to_string(fd)).starts_with("socket:")) {
                return true;
            }
        }
        return false;
    }

    PrivateRoot m_root;
    HubBus m_bus{m_root};
};

TEST_P(AProgram, OpensTheNullDeviceInThePlaceOfClosedStandardDescriptors) {
    const ChildProcess program = start("exec \"$0\" \"$@\" <&- >&- 2>&-");
    for (const char* descriptor : {"fd/0", "fd/1", "fd/2"}) {
        EXPECT_EQ(linkIn(program, descriptor), "/dev/null") << descriptor;
    }
}

TEST_P(AProgram, LeavesNoCoreDump) {
    ChildProcess program = start("ulimit -c unlimited; exec \"$0\" \"$@\"");
    EXPECT_THAT(limitOfCores(program), testing::ContainsRegex("size +[01] +[01] +bytes"));
    EXPECT_EQ(endBy(program, SIGQUIT), CLD_KILLED);
}

TEST_P(AProgram, MayLeaveOneWhereADeveloperAllowsIt) {
    const ChildProcess program = start("ulimit -c unlimited; exec \"$0\" \"$@\"", {"SENTREL_CORE_DUMPS=1"});
    EXPECT_THAT(limitOfCores(program), testing::ContainsRegex(kIsSanitized ? "size +0 " : "size +unlimited "));
}

INSTANTIATE_TEST_SUITE_P(Every, AProgram,
                         testing::Values(Program{"SENTRELD_ROOTED", "sentreld", {}}, Program{"HVBD_ROOTED", "hvbd", {}},
                                         Program{"SENTREL_SETTINGS_KEEPER_ROOTED", "sentrel-settings-keeper", {}},
                                         Program{"SENTRELCTL_ROOTED", "sentrelctl", {"watch"}}),
                         [](const auto& program) {
                             std::string name = program.param.name;
                             std::erase(name, '-');
                             return name;
                         });

} // namespace
} // namespace testing_support
