// A settings file of the test's own, seen from outside through the sqlite3 program.
#pragma once

#include "tests/support/ChildProcess.h"
#include "tests/support/TemporaryDirectory.h"

#include <filesystem>
#include <optional>
#include <string>

/// A private directory and the path of a settings file in it, which does not exist yet.
/// Threads: one at a time. Owner: a test's fixture.
class SettingsFile {
public:
    SettingsFile();
    SettingsFile(const SettingsFile&) = delete;
    SettingsFile& operator=(const SettingsFile&) = delete;

    std::string directory() const { return m_directory.path(); }
    const std::string& path() const { return m_path; }
    std::string beside(const std::string& name) const { return m_directory.file(name); }

    /// What the program answers, a row a line with its columns separated by '|'; what it says when it fails, too.
    std::string sqlite(const std::string& sql) const;

    /// Makes the four tables, but for @p missing.
    void layOut(std::optional<int> missing = {}) const;

    void fillWith(const std::string& bytes) const;
    std::string bytes() const;

private:
    testing_support::TemporaryDirectory m_directory;
    std::string m_path;
};

/// Another process in the middle of a transaction on the file.
/// Threads: one at a time. Owner: the test; its file must outlive it.
class ForeignLock {
public:
    /// Returns when the transaction has begun: one that writes, unless @p begin says otherwise.
    /// @throws std::runtime_error when it cannot be had.
    explicit ForeignLock(const SettingsFile& file, const std::string& begin = "BEGIN EXCLUSIVE");
    ForeignLock(const ForeignLock&) = delete;
    ForeignLock& operator=(const ForeignLock&) = delete;
    ~ForeignLock();

    /// Returns when the lock is free.
    void release();

private:
    std::string m_commandsPath;
    std::string m_readyPath;
    int m_commands = -1;
    std::optional<testing_support::ChildProcess> m_holder;
};
