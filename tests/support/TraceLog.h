// A trace log of a test's own: set levels, run code, read the lines without their stamps.
#pragma once

#include "tests/support/TemporaryDirectory.h"

#include <string>
#include <vector>

namespace testing_support {

/// Opens the trace log in a private directory for its own lifetime, with every flow at the highest level.
/// Threads: the test's. Owner: a test's fixture.
class TraceLog {
public:
    TraceLog();
    ~TraceLog();
    TraceLog(const TraceLog&) = delete;
    TraceLog& operator=(const TraceLog&) = delete;

    /// The lines so far, each without its stamp and newline. Empty lines of formats that end in two newlines are kept.
    std::vector<std::string> lines() const;
    /// Whether a line with exactly this text was written.
    bool has(const std::string& line) const;
    const std::string& path() const { return m_path; }

private:
    TemporaryDirectory m_directory;
    std::string m_path;
};

/// Sets every flow of the daemon to @p level.
void setAllFlows(int level);

} // namespace testing_support
