// An install root of a test's own, set before anything asks for it, and what a test of the daemon reads there.
#pragma once

#include "tests/support/Files.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/TestInstallRoot.h"

#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

namespace testing_support {

/// A short private directory that is the install root for its own lifetime, with the daemon's two directories in it.
/// Threads: the test's. Owner: a test's fixture, before anything asks for a path; one at a time.
class DaemonRoot {
public:
    DaemonRoot() {
        setInstallRoot(path());
        std::filesystem::create_directories(shared());
        std::filesystem::create_directories(var());
    }

    std::string path() const { return m_directory.path(); }
    std::string shared() const { return path() + "/Users/Shared/.orvanta"; }
    std::string var() const { return path() + "/usr/local/Orvanta/Sentrel/var"; }
    std::string eventSocket() const { return shared() + "/STIPC"; }
    std::string pidFile() const { return var() + "/.STPid"; }
    std::string traceLog() const { return var() + "/STTrace.log"; }
    std::string traceLevels() const { return var() + "/traceValues.xml"; }
    std::string hubSocket() const { return path() + "/usr/local/Orvanta/hvb/var/hvbdsocket64"; }

    /// The lines of the daemon's own trace log, each without stamp and newline.
    std::vector<std::string> traceLines() const {
        static const std::regex stamp("^[A-Z][a-z]+ [0-9]{2}, [0-9]{4} [0-9]{2}:[0-9]{2}:[0-9]{2} ");
        std::ifstream file(traceLog());
        std::vector<std::string> lines;
        for (std::string line; std::getline(file, line);) {
            lines.push_back(std::regex_replace(line, stamp, ""));
        }
        return lines;
    }

private:
    TemporaryDirectory m_directory;
};

} // namespace testing_support
